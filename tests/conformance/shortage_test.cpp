// One walk over all operations, taken again and again: the first time the first request for memory is
// refused, the next time the second one, and so on until a walk is not touched any more. A refusal must show
// once, cleanly, and nothing may be lost that is not known to be.
#include <sys/wait.h>
#include <unistd.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/open_files.h>

#include <cstdio>
#include <ostream>
#include <set>
#include <tuple>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/parent_size.h"
#include "tests/support/pipes.h"

using faults::Function;

namespace {

constexpr int pipe_entries = 6;

/// What is refused, and what may come of it.
struct Shortage {
    const char* name;
    Function function;
    std::set<std::uint32_t> codes;
    /// A walk asks at least so often.
    int requests;
};

void PrintTo(const Shortage& shortage, std::ostream* out)
{
    *out << shortage.name;
}

class Walk {
  public:
    explicit Walk(const Shortage& shortage) : shortage_(shortage) {}

    void all_operations()
    {
        settings();
        command_to_read();
        command_to_write();
        conversation();
        long_output();
        many_pipes();
        zt_pipe_cleanup(0);
    }

    /// The operations that failed; an entry missing in the registry of open files counts as one, because an
    /// open goes on without it.
    int refusals() const { return failures_ + (unregistered_ ? 1 : 0); }
    /// Bytes of a buffer that could not grow: the caller may still be reading in it, so it is not freed.
    int lost() const { return lost_; }

  private:
    /// True when the operation went well; otherwise the record must tell of the shortage.
    bool succeeded(bool success, std::uint32_t code)
    {
        if (success) return true;
        ++failures_;
        EXPECT_TRUE(shortage_.codes.contains(code)) << status_.what();
        EXPECT_EQ(status_.sys_errno, static_cast<std::uint32_t>(ENOMEM));
        return false;
    }

    int open(const char* program, const char* options, const char* const* envp = nullptr)
    {
        const int handle = ZT_PIPE_OPEN(program, options, nullptr, envp, &status_);
        if (!succeeded(handle > 0, status_.code)) return 0;
        if (zt_ifile_count(pipe_entries) < Zt_used_pipes - 1) unregistered_ = true;
        return handle;
    }

    void settings()
    {
        char text[1024];
        EXPECT_EQ(zt_pipe_debug_config("PARMS=read OFF", &status_), ZT_PIPE_E_CONFLICT);
        EXPECT_EQ(zt_pipe_debug_settings(text, &status_), 0);
        EXPECT_STREQ(text, "");
    }

    void command_to_read()
    {
        const char* const environment[] = {"ZT_TEST_VARIABLE=value", nullptr};
        const int handle = open("echo $ZT_TEST_VARIABLE", "COMMAND MERGE_ENV", environment);
        if (handle == 0) return;
        EXPECT_EQ(pipes::read_until(handle, "\n"), "value\n");
        EXPECT_EQ(pipes::close(handle), 0U);
    }

    void command_to_write()
    {
        const int handle = open("cat >/dev/null", "COMMAND WRITE");
        if (handle == 0) return;
        pipes::write(handle, "text\n");
        EXPECT_EQ(pipes::close(handle), 0U);
    }

    void conversation()
    {
        const int handle = open("cat -u", "PROGRAM STDERR=DISCARD");
        if (handle == 0) return;
        pipes::write(handle, "hello\n");
        EXPECT_EQ(pipes::read_until(handle, "\n"), "hello\n");
        EXPECT_EQ(zt_pipe_status(handle, false, &status_), 0);
        EXPECT_EQ(pipes::close(handle, "NOKILL"), 0U);
    }

    /// Data that came before the shortage is success with a warning, but the buffer is gone.
    void long_output()
    {
        constexpr int length = 20000;
        const int handle = open("head -c 20000 /dev/zero", "PROGRAM READSIZE=2000");
        if (handle == 0) return;
        char* text = nullptr;
        const int heap = zt_heapsize();
        const int count = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status_);
        const bool warned = status_.subcode != ZT_PIPE_S_NORMAL;
        if (succeeded(count >= 0 && !warned, count >= 0 ? status_.subcode : status_.code)) {
            EXPECT_EQ(count, length);
            EXPECT_EQ(std::string_view(text, length), std::string(length, '\0'));
        } else {
            EXPECT_EQ(text, nullptr);
            lost_ = zt_heapsize() - heap;
        }
        pipes::close(handle);
    }

    /// More than the first table holds. A growth that fails loses the table, which is put back here.
    void many_pipes()
    {
        constexpr int more_than_the_table_holds = 20;
        std::set<int> handles;
        while (handles.size() < more_than_the_table_holds && failures_ < 3) {
            zt_pipe** const table = Zt_pipes;
            const int handle = open("no child", "");
            if (Zt_pipes == nullptr) Zt_pipes = table;
            if (handle > 0 && !handles.insert(handle).second) ADD_FAILURE() << handle << " given twice";
        }
        for (const int handle : handles) EXPECT_EQ(pipes::close(handle), 0U);
    }

    const Shortage& shortage_;
    zt::Status status_;
    int failures_ = 0;
    bool unregistered_ = false;
    int lost_ = 0;
};

enum Verdict { touched, untouched, wrong };

Verdict walk(const Shortage& shortage, int nth)
{
    Leftovers::settle();
    zt_pipe_cleanup(0);  // the walk begins with the handle table
    const Leftovers leftovers;
    const int heap = zt_heapsize();
    Walk walk{shortage};
    bool fired;
    {
        faults::Plan plan{{.function = shortage.function, .nth = nth, .error = ENOMEM}};
        walk.all_operations();
        fired = plan.fired();
    }
    EXPECT_EQ(walk.refusals(), fired ? 1 : 0);
    EXPECT_EQ(zt_heapsize(), heap + walk.lost());
    if (walk.lost() == 0) {
        EXPECT_EQ(leftovers.found(), Leftovers::none);
    }
    return testing::Test::HasFailure() ? wrong : fired ? touched : untouched;
}

/// In a process of its own, so that a walk that goes wrong does not spoil the next one.
Verdict walk_in_child(const Shortage& shortage, int nth)
{
    std::fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        const Verdict verdict = walk(shortage, nth);
        std::fflush(nullptr);
        _exit(verdict);
    }
    int wait_status = 0;
    EXPECT_EQ(waitpid(pid, &wait_status, 0), pid);
    return WIFEXITED(wait_status) ? static_cast<Verdict>(WEXITSTATUS(wait_status)) : wrong;
}

const Shortage shortages[] = {
    {"malloc", Function::malloc, {}, 0},
    {"calloc", Function::calloc, {ZT_PIPE_E_NOMEM, 20012}, 50},
    {"realloc", Function::realloc, {ZT_PIPE_E_NOMEM}, 7},
    {"popen", Function::popen, {ZT_PIPE_E_START}, 2},
    {"fork", Function::fork, {ZT_PIPE_E_FORK}, 2},
};

/// What is short, and Zt_pipe_large_parent.
using ShortageAndLimit = std::tuple<Shortage, long>;

std::string test_name(const testing::TestParamInfo<ShortageAndLimit>& info)
{
    return std::get<Shortage>(info.param).name;
}

}  // namespace

class ShortageOf : public testing::TestWithParam<ShortageAndLimit> {};

TEST_P(ShortageOf, ShowsOnceAndLosesNothing)
{
    const Shortage& shortage = std::get<Shortage>(GetParam());
    Zt_pipe_large_parent = std::get<long>(GetParam());
    int nth = 1;
    Verdict verdict;
    while ((verdict = walk_in_child(shortage, nth)) == touched) ++nth;
    EXPECT_EQ(verdict, untouched) << "request " << nth << " was refused";
    EXPECT_GT(nth, shortage.requests);
}

INSTANTIATE_TEST_SUITE_P(InASmallParent, ShortageOf,
                         testing::Combine(testing::ValuesIn(shortages), testing::Values(never_large)),
                         test_name);
INSTANTIATE_TEST_SUITE_P(InALargeParent, ShortageOf,
                         testing::Combine(testing::ValuesIn(shortages), testing::Values(always_large)),
                         test_name);
