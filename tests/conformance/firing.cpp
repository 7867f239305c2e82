#include "tests/conformance/firing.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>
#include <zt/runtime/interrupt.h>
#include <zt/runtime/memory.h>

#include "tests/support/pipes.h"
#include "tests/support/record.h"

namespace {

/// What a forked child tells about itself.
struct Told {
    ubstatus record;
    int result;
    int handles_in_use;
    bool pipe_is_current;
};

[[noreturn]] void tell_and_end(int side_pipe, const zt::Status& status, int result)
{
    const Told told{status, result, Zt_used_pipes, Zt_pipe_current != nullptr};
    const auto written = ::write(side_pipe, &told, sizeof told);
    _exit(written == static_cast<ssize_t>(sizeof told) ? 0 : 1);
}

/// False when the child ended, or became the program, without telling anything.
bool hear(int side_pipe, Told& told)
{
    std::size_t heard = 0;
    while (heard < sizeof told) {
        const auto count = ::read(side_pipe, reinterpret_cast<char*>(&told) + heard, sizeof told - heard);
        if (count <= 0) return false;
        heard += static_cast<std::size_t>(count);
    }
    return true;
}

}  // namespace

/// Around a call that has to fail: poisons the record before, and afterwards looks for what must hold the
/// moment an operation returns, however it went.
class Firing::Attempt {
  public:
    explicit Attempt(Firing& firing)
    {
        record::poison(firing.status);
        firing.heap = zt_heapsize();
    }
    Attempt(const Attempt&) = delete;
    Attempt& operator=(const Attempt&) = delete;
    ~Attempt()
    {
        EXPECT_EQ(Zt_pipe_current, nullptr);
        EXPECT_FALSE(latch_is_armed());
    }

  private:
    /// An armed latch hides the action that disarming will restore.
    static bool latch_is_armed()
    {
        struct sigaction installed, restored;
        sigaction(SIGINT, nullptr, &installed);
        zt_sys_interrupt_action(nullptr, &restored);
        return installed.sa_handler != restored.sa_handler;
    }
};

void Firing::open(const char* program, const char* options, const char* const* argv, const char* const* envp)
{
    const Attempt attempt{*this};
    EXPECT_EQ(ZT_PIPE_OPEN(program, options, argv, envp, &status), -1);
}

void Firing::close(int handle, const char* options)
{
    const Attempt attempt{*this};
    EXPECT_EQ(static_cast<std::uint32_t>(ZT_PIPE_CLOSE(handle, options, &status)), status.code);
}

void Firing::write(int handle, const char* text, int length)
{
    const Attempt attempt{*this};
    EXPECT_EQ(zt_pipe_write(handle, text, length, &status), -1);
}

void Firing::read(int handle, int size)
{
    const Attempt attempt{*this};
    char buffer[16];
    EXPECT_EQ(zt_pipe_read(handle, buffer, size, nullptr, &status), -1);
}

void Firing::read_without_buffer(int handle)
{
    const Attempt attempt{*this};
    EXPECT_EQ(zt_pipe_read(handle, nullptr, 1, nullptr, &status), -1);
}

void Firing::read_unlimited(int handle, int offset)
{
    const Attempt attempt{*this};
    char* text = nullptr;
    EXPECT_EQ(zt_pipe_read_unlimited(handle, &text, offset, nullptr, &status), -1);
    const zt_pipe* const pipe = pipes::block(handle);
    EXPECT_EQ(text, pipe != nullptr ? pipe->buffer : nullptr) << "handed back whenever the handle is good";
}

void Firing::read_unlimited_without_result(int handle)
{
    const Attempt attempt{*this};
    EXPECT_EQ(zt_pipe_read_unlimited(handle, nullptr, 0, nullptr, &status), -1);
}

void Firing::poll(int handle, bool wait)
{
    const Attempt attempt{*this};
    EXPECT_EQ(static_cast<std::uint32_t>(zt_pipe_status(handle, wait, &status)), status.code);
}

void Firing::configure(const char* options)
{
    const Attempt attempt{*this};
    EXPECT_EQ(zt_pipe_debug_config(options, &status), status.code);
    EXPECT_NE(status.code, 0U);
    zt::Status others;
    zt_pipe_debug_config("OFF", &others);
}

void Firing::report_settings_nowhere()
{
    const Attempt attempt{*this};
    EXPECT_EQ(static_cast<std::uint32_t>(zt_pipe_debug_settings(nullptr, &status)), status.code);
}

void Firing::open_in_child(const char* options, faults::Fault fault)
{
    int side[2];
    ASSERT_EQ(::pipe2(side, O_CLOEXEC), 0);  // a child that becomes the program after all lets go of it
    const pid_t parent = getpid();
    const int used = Zt_used_pipes;
    fault.in_child = true;
    const Attempt attempt{*this};
    int handle;
    {
        faults::Plan plan{fault};
        handle = ZT_PIPE_OPEN("cat", options, nullptr, nullptr, &status);
        if (getpid() != parent) tell_and_end(side[1], status, handle);
    }
    ::close(side[1]);
    Told told{};
    EXPECT_TRUE(hear(side[0], told));
    ::close(side[0]);
    EXPECT_GT(handle, 0) << "the parent knows nothing of it: " << status.what();
    EXPECT_EQ(told.result, -1);
    EXPECT_EQ(told.handles_in_use, used);
    EXPECT_FALSE(told.pipe_is_current);
    static_cast<ubstatus&>(status) = told.record;
    pipes::close(handle);
}

Childless::Childless() : Childless("") {}

Childless::Childless(const char* options) : handle_(pipes::open("no child", options)) {}

Childless::~Childless()
{
    EXPECT_EQ(pipes::close(handle_), 0U);
}
