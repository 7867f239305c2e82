#include "tests/support/leftovers.h"

#include <dirent.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/open_files.h>
#include <zt/ztpipe/internal.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstdlib>

namespace {

constexpr int handle_table_class = 1;
constexpr int registry_kind_of_pipes = 6;
const std::string descriptor_prefix = "+ descriptor ";

std::string children()
{
    siginfo_t info{};
    // WNOWAIT: looking must not collect the child for which the test is waiting.
    const int result = waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT);
    return result == -1 && errno == ECHILD ? "none" : "some";
}

void read_descriptors(std::map<std::string, std::string>& state)
{
    DIR* directory = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(directory)) {
        char target[PATH_MAX];
        const auto length = readlinkat(dirfd(directory), entry->d_name, target, sizeof target);
        if (length < 0 || atoi(entry->d_name) == dirfd(directory)) continue;
        state["descriptor " + std::string(entry->d_name)] = std::string(target, static_cast<size_t>(length));
    }
    closedir(directory);
}

void read_environment(std::map<std::string, std::string>& state)
{
    for (char** entry = environ; entry && *entry; ++entry) {
        const std::string text(*entry);
        // Where the trace goes is the test's own doing (TraceFile), often for longer than its body.
        if (!text.starts_with("ZT_TRACE_FILE=")) state["environment " + text] = "";
    }
}

std::string interrupt_action()
{
    constexpr int set_by_the_system = 0x04000000;  // how the handler returns, not what it does
    struct sigaction action;
    sigaction(SIGINT, nullptr, &action);
    return std::to_string(reinterpret_cast<std::uintptr_t>(action.sa_handler)) + ", flags " +
           std::to_string(action.sa_flags & ~set_by_the_system);
}

}  // namespace

const std::vector<std::string> Leftovers::none;

Leftovers::Leftovers() : before_(state()) {}

void Leftovers::settle()
{
    zt::Status status;
    ZT_PIPE_CLOSE(ZT_PIPE_OPEN("no child", "", nullptr, nullptr, &status), "", &status);
}

Leftovers::State Leftovers::state()
{
    State now;
    read_descriptors(now);
    for (int memory_class = 0; memory_class < ZT_MEM_CLASSES; ++memory_class) {
        if (memory_class == handle_table_class) continue;
        now["bytes of class " + std::to_string(memory_class)] =
            std::to_string(zt_heapsize_class(memory_class));
    }
    read_environment(now);
    now["children"] = children();
    now["action of SIGINT"] = interrupt_action();
    now["current pipe"] = Zt_pipe_current ? "set" : "null";
    now["handles in use"] = std::to_string(Zt_used_pipes);
    now["registered pipes"] = std::to_string(zt_ifile_count(registry_kind_of_pipes));
    return now;
}

std::vector<std::string> Leftovers::found() const
{
    const State now = state();
    std::vector<std::string> lines;
    std::vector<std::string> descriptors;
    for (const auto& [name, value] : now) {
        const auto old = before_.find(name);
        if (old != before_.end() && old->second == value) continue;
        const std::string line = "+ " + name + (value.empty() ? "" : ": " + value);
        (line.starts_with(descriptor_prefix) ? descriptors : lines).push_back(line);
    }
    for (const auto& [name, value] : before_) {
        const auto current = now.find(name);
        if (current == now.end() || current->second != value)
            lines.push_back("- " + name + (value.empty() ? "" : ": " + value));
    }
    if (static_cast<int>(descriptors.size()) != allowed_descriptors_) {
        lines.push_back(std::to_string(allowed_descriptors_) + " more descriptors were expected");
        lines.insert(lines.end(), descriptors.begin(), descriptors.end());
    }
    return lines;
}
