// What the option text of an open asks for.
#include <zt/runtime/text.h>
#include <zt/ztpipe/open_options.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <initializer_list>

namespace zt::pipe {
namespace {

constexpr int default_read_size = 32768;

namespace at {
constexpr Site options_refused{2584, 0};
constexpr Site stderr_with_write{2592, ZT_PIPE_E_CONFLICT};
constexpr Site password_alone{2599, ZT_PIPE_E_DEPENDS};
constexpr Site command_keyword{2617, ZT_PIPE_E_CONFLICT};
constexpr Site stderr_value{2671, ZT_PIPE_E_OPTVALUE};
constexpr Site username_too_long{4003, ZT_PIPE_E_TOOLONG};
constexpr Site password_too_long{4004, ZT_PIPE_E_TOOLONG};
}  // namespace at

enum Keyword {
    program,
    command,
    ascii,
    binary,
    read,
    write,
    username,
    password,
    standard_error,
    size,
    read_size,
    korn,
    merge_env,
    popen_only,
    keyword_count
};

enum Group : std::uint8_t { no_group, launch_kind, text_kind, direction_kind };

// The attributes are for other readers of the table; the option processor and this module do not look at
// them.
constexpr zt_option keywords[keyword_count] = {
    {launch_kind, "PROGRAM", 0, 2, ZT_OPTION_VALUE_NONE, nullptr, 0},
    {launch_kind, "COMMAND", 0, 2, ZT_OPTION_VALUE_NONE, nullptr, 0},
    {text_kind, "ASCII", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
    {text_kind, "BINARY", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
    {direction_kind, "READ", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
    {direction_kind, "WRITE", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
    {no_group, "USERNAME", 4, 0, ZT_OPTION_VALUE_REQUIRED, nullptr, 0},
    {no_group, "PASSWORD", 0, 0, ZT_OPTION_VALUE_REQUIRED, nullptr, 0},
    {no_group, "STDERR", 0, 0, ZT_OPTION_VALUE_REQUIRED, nullptr, 0},
    {no_group, "SIZE", 0, 0, ZT_OPTION_VALUE_REQUIRED, nullptr, 0},
    {no_group, "READSIZE", 0, 0, ZT_OPTION_VALUE_REQUIRED, nullptr, 0},
    {no_group, "KORN", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
    {no_group, "MERGE_ENV", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
    {no_group, "$POPEN", 0, 0, ZT_OPTION_VALUE_NONE, nullptr, 0},
};

void refuse_combinations(Report& report, const zt_option* given)
{
    if (given[standard_error].present && given[write].present)
        return report.fail_conflict(at::stderr_with_write, "STDERR", "WRITE");
    if (given[password].present && !given[username].present) {
        report.fail(at::password_alone);
        std::snprintf(report.status.msg, sizeof report.status.msg, "%s w/o %s", "PASSWORD", "USERNAME");
    }
}

void apply_launch_kind(Report& report, const zt_option* given, zt_pipe& pipe)
{
    if (given[program].present) {
        pipe.mode = ZT_PIPE_MODE_PROGRAM;
        pipe.direction = ZT_PIPE_BOTH;
        for (const Keyword keyword : {read, write, korn, popen_only})
            if (given[keyword].present)
                return report.fail_conflict(at::command_keyword, "PROGRAM", keywords[keyword].keyword);
    } else if (given[command].present) {
        pipe.mode = ZT_PIPE_MODE_COMMAND;
        pipe.direction = given[write].present ? ZT_PIPE_WRITES : ZT_PIPE_READS;
        pipe.korn = given[korn].present ? 1 : 0;
    }
}

void copy_name(Report& report, Site too_long, const zt_option& option, char (&field)[ZT_PIPE_NAME_LIMIT + 1])
{
    if (!option.present) return;
    const std::size_t length = std::strlen(option.value);
    if (length > ZT_PIPE_NAME_LIMIT)
        return report.fail_limit(too_long, option.keyword, saturated(length), ZT_PIPE_NAME_LIMIT);
    std::memcpy(field, option.value, length + 1);
}

void apply_stderr(Report& report, const zt_option& option, zt_pipe& pipe)
{
    if (!option.present) return;
    constexpr struct {
        const char* word;
        std::uint32_t mode;
    } modes[] = {{"DISCARD", ZT_PIPE_STDERR_DISCARD},
                 {"COMBINE", ZT_PIPE_STDERR_COMBINE},
                 {"IGNORE", ZT_PIPE_STDERR_IGNORE}};
    for (const auto& mode : modes) {
        if (zt_stricmp(option.value, mode.word) != 0) continue;
        pipe.stderr_mode = mode.mode;
        return;
    }
    report.fail_conflict(at::stderr_value, option.keyword, option.value);
}

}  // namespace

void apply_open_options(Report& report, const char* options, zt_pipe& pipe, OpenOptions& others)
{
    pipe.size = default_size;
    pipe.read_size = default_read_size;
    pipe.stderr_mode = ZT_PIPE_STDERR_COMBINE;

    zt_option given[keyword_count];
    std::memcpy(given, keywords, sizeof given);
    char copy[ZT_PIPE_OPTIONS_LIMIT + 1];
    if (!process_options(report, at::options_refused, options, copy, given, keyword_count)) return;
    refuse_combinations(report, given);
    if (!report.failed()) apply_launch_kind(report, given, pipe);
    if (!report.failed()) copy_name(report, at::username_too_long, given[username], pipe.username);
    if (!report.failed()) copy_name(report, at::password_too_long, given[password], pipe.password);
    if (report.failed()) return;
    pipe.binary = given[binary].present ? 1 : 0;
    apply_stderr(report, given[standard_error], pipe);
    if (report.failed()) return;
    // No range is checked here: what atoi makes of the text is stored, and 0 where the text is no number.
    if (given[size].present) pipe.size = std::atoi(given[size].value);
    if (given[read_size].present) pipe.read_size = std::atoi(given[read_size].value);
    others.merge_environment = given[merge_env].present != 0;
}

}  // namespace zt::pipe
