// The debug flags, written as the option text that would set them.
#include <zt/ztpipe/debug.h>
#include <zt/ztpipe/operation.h>

#include <cstring>

namespace zt::pipe {
namespace {

// "global" is on whenever anything is, so it is never reported.
constexpr int first_reported = 1;
constexpr int reported = debug_categories - first_reported;

namespace at {
constexpr Site no_text{4071, ZT_PIPE_E_NULLARG};
}

int count_on(int slot)
{
    int on = 0;
    for (int i = first_reported; i < debug_categories; ++i) on += is_on(Zt_pipe_debug[i], slot) ? 1 : 0;
    return on;
}

void append_names(char* text, int slot, bool setting)
{
    const char* separator = "";
    for (int i = first_reported; i < debug_categories; ++i) {
        if (is_on(Zt_pipe_debug[i], slot) != setting) continue;
        std::strcat(text, separator);
        std::strcat(text, Zt_pipe_debug[i].name);
        separator = ",";
    }
}

// The shorter of the two lists; the positive one when they are equally long.
void append_flag(char* text, int slot)
{
    const int on = count_on(slot);
    const int off = reported - on;
    if (on == 0) return;
    std::strcat(text, flag_names[slot]);
    if (off > 0) {
        std::strcat(text, off >= on ? "='" : "='not ");
        append_names(text, slot, off >= on);
        std::strcat(text, "'");
    }
    std::strcat(text, " ");
}

}  // namespace
}  // namespace zt::pipe

using namespace zt::pipe;

extern "C" int zt_pipe_debug_settings(char* text, zt::Status* status)
{
    if (status == nullptr) return static_cast<int>(ZT_PIPE_E_NOSTATUS);
    ZT_CLEAR_STATUS(status);
    if (text == nullptr) {
        Report{"zt_pipe_debug_settings", *status}.fail_null_argument(at::no_text, "text");
        return static_cast<int>(status->code);
    }
    text[0] = '\0';
    if (Zt_pipe_debug_initialized == 0 && zt_pipe_debug_init(status) != 0)
        return static_cast<int>(status->code);
    for (int slot = 0; slot < debug_flags; ++slot) append_flag(text, slot);
    return static_cast<int>(status->code);
}
