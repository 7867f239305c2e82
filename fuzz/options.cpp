// The option processor with the tables of the open, the close and the debug options, against a model.
// The first byte chooses the table.
#include <zt/ztpipe.h>

#include "fuzz/check.h"
#include "fuzz/option_model.h"

namespace {

std::vector<std::vector<zt_option>> tables;

}  // namespace

extern "C" int __real_zt_process_options(char* text, zt_option* table, int count, zt_option_error* error);

/// The operations hand their tables over here, so that the real ones are fuzzed and none is copied.
extern "C" int __wrap_zt_process_options(char* text, zt_option* table, int count, zt_option_error* error)
{
    tables.emplace_back(table, table + count);
    return __real_zt_process_options(text, table, count, error);
}

namespace {

void collect_tables()
{
    zt::Status status;
    const int handle = ZT_PIPE_OPEN("exec true", "COMMAND", nullptr, nullptr, &status);
    zt_pipe_debug_config("OFF", &status);
    ZT_PIPE_CLOSE(handle, "NOKILL", &status);
    fuzz::equal("tables", tables.size(), 3U);
}

void compare(std::vector<zt_option> table, const std::string& text)
{
    const fuzz::Reading expected = fuzz::OptionModel(table, text).read();
    std::vector<char> copy = fuzz::tight(text);
    copy.shrink_to_fit();
    zt_option_error error{};
    const int result =
        __real_zt_process_options(copy.data(), table.data(), static_cast<int>(table.size()), &error);

    fuzz::equal("code", error.code, expected.code);
    fuzz::equal("text", std::string(error.text), expected.text);
    fuzz::equal("result", result, expected.code != 0 ? -1 : static_cast<int>(expected.found.size()));
    for (std::size_t i = 0; i < table.size(); ++i) {
        const auto row = expected.found.find(i);
        fuzz::equal("present", table[i].present != 0, row != expected.found.end());
        if (row == expected.found.end() || !row->second) {
            fuzz::holds("no value", table[i].value == nullptr);
            continue;
        }
        fuzz::holds("a value", table[i].value != nullptr);
        fuzz::equal("value", std::string(table[i].value), *row->second);
    }
}

}  // namespace

int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (tables.empty()) collect_tables();
    if (size == 0) return 0;
    compare(tables[data[0] % 3], fuzz::text(data + 1, size - 1));
    return 0;
}
