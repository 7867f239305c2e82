#include "tests/trace/render.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <pthread.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <type_traits>
#include <utility>

#include "tests/support/pipes.h"
#include "tests/trace/known.h"

namespace trace {
namespace {

// ------------------------------------------------------------------------------- the trace of forked
// children

const char* childs_file = nullptr;
bool to_stderr = false;

// dup3 and not dup2: the fault layer counts the latter.
void turn_aside_in_child()
{
    if (childs_file == nullptr) return;
    if (!to_stderr) {
        setenv("ZT_TRACE_FILE", childs_file, 1);
        return;
    }
    const int file = open(childs_file, O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file < 0 || dup3(file, STDERR_FILENO, 0) < 0) _exit(98);
}

[[maybe_unused]] const int fork_handler = pthread_atfork(nullptr, nullptr, turn_aside_in_child);

class ChildsTrace : public TemporaryFile {
  public:
    explicit ChildsTrace(bool on_stderr)
    {
        childs_file = path().c_str();
        to_stderr = on_stderr;
    }
    ~ChildsTrace() { childs_file = nullptr; }
};

// ------------------------------------------------------------------------------------------------- one play

void configure(const std::string& options)
{
    zt::Status status;
    EXPECT_EQ(zt_pipe_debug_config(options.c_str(), &status), 0U) << options << ": " << status.what();
}

void act(const Operation& operation, const Scenario& scenario, const Setting& setting, Stage& stage)
{
    const pid_t self = getpid();
    if (operation.by_environment)
        setenv("ZT_PIPE_DEBUG", setting.options.c_str(), 1);
    else
        configure(setting.options);
    {
        const faults::Plan plan{scenario.faults[0], scenario.faults[1]};
        errno = 0;
        (scenario.act ? scenario.act : operation.act)(stage);
        // A child that could not be wired comes back from the launch; its part is played.
        if (getpid() != self) _exit(0);
        for (const faults::Fault& fault : scenario.faults)
            EXPECT_TRUE(fault.nth == 0 || fault.in_child || plan.fired()) << scenario.name;
    }
    unsetenv("ZT_PIPE_DEBUG");
    configure("OFF");
}

void close_everything(const Operation& operation)
{
    for (int handle = 1; Zt_pipes != nullptr && handle < Zt_avail_pipes; ++handle) {
        const zt_pipe* pipe = pipes::block(handle);
        if (pipe == nullptr) continue;
        Stage stage{.handle = handle, .status = {}};
        if (operation.starts_children && pipe->mode == ZT_PIPE_MODE_PROGRAM) collect(stage);
        pipes::close(handle);
    }
}

template <class Sink>
Lines play_into(const Operation& operation, const Scenario& scenario, const Setting& setting)
{
    Stage stage;
    if (scenario.pipe.options != nullptr)
        stage.handle = pipes::open(scenario.pipe.program, scenario.pipe.options);
    if (scenario.before) scenario.before(stage);

    const Sink parents;
    const ChildsTrace childs{std::is_same_v<Sink, TraceOnStandardError>};
    Known known;
    known.look();
    act(operation, scenario, setting, stage);
    known.look();
    close_everything(operation);
    known.look_at_child(faults::last_child());
    known.end_children();

    Lines lines;
    for (const std::string& line : parents.lines()) lines.push_back(known.without_varying_values(line));
    for (const std::string& line : childs.lines())
        lines.push_back("[child] " + known.without_varying_values(line));
    return lines;
}

std::string all_flags(const std::string& value)
{
    std::string text;
    for (const char* flag : {"PARMS", "CLOCKS", "CTRLBLKS", "DEBUG", "EXCEPTIONS", "MEMORY"})
        text += flag + (value.empty() ? "" : "='" + value + "'") + " ";
    return text;
}

std::string all_but(const std::string& kept)
{
    std::string list = "not";
    for (const char* category : {"global", "open", "close", "read", "write"})
        if (category != kept) list += std::string(" ") + category;
    return list;
}

}  // namespace

std::vector<Setting> settings_of(const std::string& own, const std::string& foreign)
{
    std::vector<Setting> settings{{"OFF", "OFF"}};
    for (const std::string& list : {own, foreign}) {
        for (const char* flag : {"PARMS", "CLOCKS", "CTRLBLKS", "DEBUG", "EXCEPTIONS", "MEMORY"}) {
            const std::string text = flag + ("='" + list + "'");
            settings.push_back({text, text, false});
        }
        settings.push_back({"all flags='" + list + "'", all_flags(list)});
    }
    settings.push_back({"all flags='" + all_but(own) + "'", all_flags(all_but(own))});
    if (foreign != "not " + own) settings.push_back({"all flags='not " + own + "'", all_flags("not " + own)});
    settings.push_back({"all flags", all_flags("")});
    return settings;
}

Played play(const Operation& operation, const Scenario& scenario, const Setting& setting)
{
    Played played;
    played.in_file = play_into<TraceFile>(operation, scenario, setting);
    played.on_stderr = scenario.closes_stderr || !setting.on_stderr_too
                           ? played.in_file
                           : play_into<TraceOnStandardError>(operation, scenario, setting);
    return played;
}

std::string render(const Operation& operation)
{
    std::string text;
    for (const Scenario& scenario : operation.scenarios) {
        std::vector<std::pair<Lines, std::string>> groups;
        for (const Setting& setting : operation.settings) {
            const std::string heading =
                std::string("== ") + operation.title + ", " + scenario.name + ", " + setting.name + "\n";
            const Played played = play(operation, scenario, setting);
            EXPECT_EQ(played.on_stderr, played.in_file) << heading;
            const auto same = std::find_if(groups.begin(), groups.end(),
                                           [&](const auto& group) { return group.first == played.in_file; });
            if (same != groups.end())
                same->second += heading;
            else
                groups.emplace_back(played.in_file, heading);
        }
        for (const auto& [lines, headings] : groups) {
            text += headings;
            if (lines.empty()) text += "(nothing)\n";
            for (const std::string& line : lines) text += line + "\n";
            text += "\n";
        }
    }
    return text;
}

void await_line(Stage& stage)
{
    pipes::read_until(stage.handle, "\n");
}

void await_end(Stage& stage)
{
    siginfo_t info;
    const auto pid = static_cast<id_t>(pipes::block(stage.handle)->pid);
    EXPECT_EQ(waitid(P_PID, pid, &info, WEXITED | WNOWAIT), 0);
}

void collect(Stage& stage)
{
    zt::Status status;
    while (zt_pipe_read(stage.handle, stage.buffer, sizeof stage.buffer, nullptr, &status) > 0) {
    }
}

void say_hi(Stage& stage)
{
    pipes::write(stage.handle, "Hi\n");
}

}  // namespace trace
