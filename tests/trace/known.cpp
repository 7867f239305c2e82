#include "tests/trace/known.h"

#include <signal.h>
#include <sys/wait.h>

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <cstdlib>

#include "tests/support/pipes.h"

namespace trace {
namespace {

bool replace_after(std::string& line, const std::string& before, const std::string& value,
                   const std::string& name)
{
    const auto at = line.find(before + value);
    if (at == std::string::npos) return false;
    const auto end = at + before.size() + value.size();
    if (end < line.size() && std::isalnum(static_cast<unsigned char>(line[end]))) return false;
    line.replace(at + before.size(), value.size(), name);
    return true;
}

std::string numbered(const std::string& name, std::size_t index)
{
    return "<" + name + (index == 0 ? "" : " " + std::to_string(index + 1)) + ">";
}

void shorten_runs(std::string& line)
{
    constexpr std::size_t long_run = 100;
    const auto begin = line.find(std::string(long_run, 'x'));
    if (begin == std::string::npos) return;
    const auto end = std::min(line.find_first_not_of('x', begin), line.size());
    line.replace(begin, end - begin, "<x, " + std::to_string(end - begin) + " times>");
}

void add(std::vector<std::string>& values, const std::string& value)
{
    if (std::find(values.begin(), values.end(), value) == values.end()) values.push_back(value);
}

}  // namespace

void Known::look()
{
    for (int handle = 1; Zt_pipes != nullptr && handle < Zt_avail_pipes; ++handle) {
        const zt_pipe* pipe = pipes::block(handle);
        if (pipe == nullptr) continue;
        look_at_child(pipe->pid);
        char address[24];
        std::snprintf(address, sizeof address, "%p", static_cast<void*>(pipe->fh));
        if (pipe->fh != nullptr) add(streams_, address);
    }
}

void Known::look_at_child(pid_t pid)
{
    if (pid > 0) add(pids_, std::to_string(pid));
}

std::string Known::without_varying_values(std::string line) const
{
    const bool of_waitpid = line.starts_with("   zt_pipe_status: waitpid on ");
    for (std::size_t i = 0; i < pids_.size(); ++i) {
        const std::string name = numbered("pid", i);
        if (replace_after(line, "pid ", pids_[i], name) && of_waitpid)
            replace_after(line, "returned ", pids_[i], name);
    }
    for (std::size_t i = 0; i < streams_.size(); ++i)
        replace_after(line, "fh ", streams_[i], numbered("address", i));
    shorten_runs(line);
    return line;
}

void Known::end_children() const
{
    for (const std::string& text : pids_) {
        const pid_t pid = std::atoi(text.c_str());
        if (waitpid(pid, nullptr, WNOHANG) != 0) continue;
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

}  // namespace trace
