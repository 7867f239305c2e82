// The texts about a status record, from any record at all: bounded, terminated, one line, the same whatever
// the room.
#include <fuzzer/FuzzedDataProvider.h>
#include <zt/runtime/errors.h>
#include <zt/runtime/exit_status.h>
#include <zt/runtime/text.h>
#include <zt/ztpipe.h>

#include <memory>

#include "fuzz/check.h"

namespace {

constexpr std::size_t whole_line = 2048;

std::uint32_t any_code(FuzzedDataProvider& input)
{
    constexpr std::uint32_t bases[] = {0, 10000, 10130, 11100, 11200, 20000};
    if (input.ConsumeBool()) return input.ConsumeIntegral<std::uint32_t>();
    return input.PickValueInArray(bases) + input.ConsumeIntegralInRange<std::uint32_t>(0, 160);
}

/// A few bytes over and over, up to a length that is often the whole field, now and then without a
/// terminator.
template <std::size_t size>
void fill(FuzzedDataProvider& input, char (&field)[size])
{
    const std::string pattern = input.ConsumeRandomLengthString(12);
    const std::size_t length =
        input.ConsumeBool() ? size : input.ConsumeIntegralInRange<std::size_t>(0, size);
    std::memset(field, 0, size);
    for (std::size_t i = 0; i < length && !pattern.empty(); ++i) field[i] = pattern[i % pattern.size()];
}

void fill(FuzzedDataProvider& input, ubstatus& record)
{
    record.code = any_code(input);
    record.subcode = any_code(input);
    record.sys_errno = any_code(input);
    record.count = input.ConsumeIntegral<std::int32_t>();
    for (auto& number : record.iparm) number = input.ConsumeIntegral<std::int32_t>();
    fill(input, record.msg);
    fill(input, record.sys_msg);
    fill(input, record.where);
    fill(input, record.object);
    for (auto& text : record.sparm) fill(input, text);
    fill(input, record.host);
    fill(input, record.extra);
}

bool is_one_line(const std::string& text)
{
    for (const char c : text)
        if ((c >= 0 && c < ' ') || c == 0x7f) return false;
    return true;
}

std::string described(const ubstatus& record, std::size_t room)
{
    std::vector<char> buffer(room, '#');
    const std::size_t length = zt_error_describe(&record, buffer.data(), room);
    fuzz::holds("fits", length < room);
    fuzz::equal("length", strnlen(buffer.data(), room), length);
    return buffer.data();
}

void check_record(FuzzedDataProvider& input)
{
    // On the heap and without the object around it, so that a sanitizer sees a step over its end.
    const auto record = std::make_unique<ubstatus>();
    fill(input, *record);
    const std::string line = described(*record, whole_line);
    fuzz::holds("one line", is_one_line(line));
    const std::size_t room = input.ConsumeIntegralInRange<std::size_t>(1, whole_line);
    fuzz::equal("cut", described(*record, room), line.substr(0, room - 1));

    zt::Status status;
    fuzz::equal("copied", status.copy(record.get()), record->code);
    fuzz::holds("terminated", strnlen(status.msg, ZT_STATUS_TEXT) < ZT_STATUS_TEXT &&
                                  strnlen(status.host, ZT_STATUS_HOST) < ZT_STATUS_HOST);
    const std::string of_copy = status.what();
    fuzz::holds("one line", is_one_line(of_copy) && of_copy.size() < whole_line);
    fuzz::equal("what", of_copy, described(status, whole_line));
    zt_exit_status(input.ConsumeIntegral<int>(), &status);
    fuzz::holds("one line", is_one_line(status.what()));
}

void check_texts(FuzzedDataProvider& input)
{
    const int error = input.ConsumeIntegral<int>();
    const std::size_t room = input.ConsumeIntegralInRange<std::size_t>(1, 80);
    std::vector<char> message(room, '#');
    zt_error_msg_r(error, message.data(), room);
    fuzz::holds("terminated", strnlen(message.data(), room) < room);

    const std::string text = input.ConsumeRemainingBytesAsString();
    std::vector<char> shown(4 * text.size() + 1, '#');
    zt_character_to_string(text.data(), text.size(), shown.data());
    fuzz::holds("printable", is_one_line(shown.data()) && strnlen(shown.data(), shown.size()) < shown.size());

    const std::string path = text.c_str();
    std::vector<char> trimmed(room, '#');
    zt_trim_filename(path.c_str(), room, trimmed.data());
    const std::string end = trimmed.data();
    fuzz::holds("the end of the path",
                path.ends_with(end) || (end.starts_with("...") && path.ends_with(end.substr(3))));
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    FuzzedDataProvider input(data, size);
    check_record(input);
    check_texts(input);
    return 0;
}
