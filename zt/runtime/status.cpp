#include <zt/runtime/errors.h>
#include <zt/runtime/status.h>
#include <zt/runtime/text.h>

#include <cstring>

namespace zt {

static_assert(sizeof(Status) == sizeof(std::exception) + sizeof(ubstatus) + 2048,
              "the plain record follows the base part at once");

// The texts stay as they come, but for their first characters: a record is made for every operation.
Status::Status() noexcept
{
    init();
    line_[0] = '\0';
}

Status::Status(int initial) noexcept : Status()
{
    code = static_cast<std::uint32_t>(initial);
}

Status::Status(const Status& other) noexcept : std::exception(other)
{
    copy(&other);
    line_[0] = '\0';
}

Status& Status::operator=(const Status& other) noexcept
{
    copy(&other);
    return *this;
}

void Status::init() noexcept
{
    clear();
    count = 0;
    for (auto& number : iparm) number = 0;
}

std::uint32_t Status::copy(const ubstatus* source) noexcept
{
    if (!source) {
        clear();
        return code;
    }
    code = source->code, subcode = source->subcode, sys_errno = source->sys_errno, count = source->count;
    std::memmove(iparm, source->iparm, sizeof iparm);
    zt_strncpy(msg, source->msg, sizeof msg);
    zt_strncpy(sys_msg, source->sys_msg, sizeof sys_msg);
    zt_strncpy(where, source->where, sizeof where);
    zt_strncpy(object, source->object, sizeof object);
    for (int i = 0; i < ZT_STATUS_PARMS; ++i) zt_strncpy(sparm[i], source->sparm[i], sizeof sparm[i]);
    zt_strncpy(host, source->host, sizeof host);
    zt_strncpy(extra, source->extra, sizeof extra);
    return code;
}

const char* Status::what() const noexcept
{
    zt_error_describe(this, line_, sizeof line_);
    return line_;
}

}  // namespace zt
