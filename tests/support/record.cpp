#include "tests/support/record.h"

#include <unistd.h>

#include <cstring>

namespace record {
namespace {

constexpr char poison_byte = 0x5a;

/// A text up to its terminator, or up to the end of its field where that is missing.
template <size_t Size>
std::string text(const char (&field)[Size])
{
    return std::string(field, strnlen(field, Size));
}

template <size_t Size>
void poison_text(char (&field)[Size])
{
    std::memset(field, poison_byte, Size - 1);
    field[Size - 1] = '\0';
}

std::string indexed(const char* name, int index)
{
    return name + ("[" + std::to_string(index) + "]");
}

std::string host_name()
{
    char name[ZT_STATUS_HOST] = "";
    gethostname(name, sizeof name - 1);
    return name;
}

const ubstatus& plain(const zt::Status& status)
{
    return status;
}

}  // namespace

Fields fields(const zt::Status& status)
{
    Fields result{{"code", std::to_string(status.code)},
                  {"subcode", std::to_string(status.subcode)},
                  {"sys_errno", std::to_string(status.sys_errno)},
                  {"count", std::to_string(status.count)},
                  {"msg", text(status.msg)},
                  {"sys_msg", text(status.sys_msg)},
                  {"where", text(status.where)},
                  {"object", text(status.object)},
                  {"host", text(status.host)},
                  {"extra", text(status.extra)}};
    for (int i = 0; i < ZT_STATUS_PARMS; ++i) {
        result[indexed("iparm", i)] = std::to_string(status.iparm[i]);
        result[indexed("sparm", i)] = text(status.sparm[i]);
    }
    return result;
}

void poison(zt::Status& status)
{
    std::memset(&status.code, poison_byte, sizeof status.code);
    status.subcode = status.sys_errno = status.code;
    std::memset(&status.count, poison_byte, sizeof status.count);
    std::memset(status.iparm, poison_byte, sizeof status.iparm);
    poison_text(status.msg);
    poison_text(status.sys_msg);
    poison_text(status.where);
    poison_text(status.object);
    poison_text(status.host);
    poison_text(status.extra);
    for (auto& sparm : status.sparm) poison_text(sparm);
}

bool is_still_poisoned(const zt::Status& status)
{
    zt::Status fresh;
    poison(fresh);
    return std::memcmp(&plain(status), &plain(fresh), sizeof(ubstatus)) == 0;
}

Fields cleared(const Fields& and_then_set)
{
    zt::Status status;
    poison(status);
    status.clear();
    Fields result = fields(status);
    for (const auto& [name, value] : and_then_set) result.at(name) = value;
    return result;
}

Fields failure(std::uint32_t code, const std::string& where, const Fields& and_then_set)
{
    Fields result = cleared(and_then_set);
    result["code"] = std::to_string(code);
    result["where"] = where;
    result["host"] = host_name();
    return result;
}

}  // namespace record
