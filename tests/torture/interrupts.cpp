// SIGINT every millisecond while operations run: each ends as it should or with 10132, no byte of a transfer
// that succeeded is lost or doubled, and SIGINT does what the application set up as soon as an operation is
// over.
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/torture/process.h"
#include "tests/torture/work.h"

namespace torture {
namespace {

constexpr long interval_ns = 1000000;
constexpr int largest_atomic_write = 4096;
constexpr Seconds limit_beyond_the_time = 300;

std::atomic<long> delivered{0};

void count_interrupt(int)
{
    ++delivered;
}

// SIGINT goes to a handler of the application, and comes every millisecond while this object lives.
class Interrupts {
  public:
    Interrupts()
    {
        struct sigaction action = {};
        action.sa_handler = count_interrupt;
        action.sa_flags = SA_RESTART;
        sigaction(SIGINT, &action, nullptr);
        sigevent event = {};
        event.sigev_notify = SIGEV_SIGNAL;
        event.sigev_signo = SIGINT;
        timer_create(CLOCK_MONOTONIC, &event, &timer_);
        const itimerspec every = {{0, interval_ns}, {0, interval_ns}};
        timer_settime(timer_, 0, &every, nullptr);
    }
    ~Interrupts() { timer_delete(timer_); }
    Interrupts(const Interrupts&) = delete;
    Interrupts& operator=(const Interrupts&) = delete;

  private:
    timer_t timer_;
};

class Judge {
  public:
    explicit Judge(Report& report) : report_(report) {}

    /// After every operation: the outcome is one of these or 10132, and SIGINT's action is back.
    void after(const char* what, zt::Status& status, std::uint32_t good)
    {
        struct sigaction now;
        sigaction(SIGINT, nullptr, &now);
        if (now.sa_handler != count_interrupt || (now.sa_flags & SA_RESTART) == 0)
            report_.fail("%s: SIGINT's action is not back", what);
        report_.count(what);
        if (status.code == ZT_PIPE_E_INTERRUPTED)
            report_.count("interrupted");
        else if (status.code != good)
            report_.fail("%s: %s", what, status.what());
    }
    void fail(const char* what) { report_.fail("%s", what); }

  private:
    Report& report_;
};

bool is_at(const zt::Status& status, int line)
{
    return std::strstr(status.where, ("):" + std::to_string(line)).c_str()) != nullptr;
}

int open_uninterrupted(const std::string& program, const char* options)
{
    zt::Status status;
    int handle = -1;
    for (int attempt = 0; handle < 0 && attempt < 1000; ++attempt)
        handle = open_pipe(program, options, status);
    return handle;
}

// A close that is interrupted while it waits leaves its child uncollected: here is somebody who goes on.
void collect_leftovers(Report& report)
{
    collect_children(5, [&](pid_t, int) { report.count("uncollected"); });
}

void open_and_close(const Settings& settings, Report& report, const char* program, const char* options,
                    std::uint32_t close_result)
{
    Judge judge{report};
    zt::Status status;
    const Resources before = Resources::now();
    {
        const Interrupts interrupts;
        for (Rounds rounds{settings}; rounds.more();) {
            const int handle = open_pipe(program, options, status);
            judge.after(close_result != 0 ? "open_program" : "open_command", status, 0);
            if (handle < 0) continue;
            ZT_PIPE_CLOSE(handle, "", &status);
            judge.after(close_result != 0 ? "close_program" : "close_command", status, close_result);
            if (Zt_pipes[handle] != nullptr) judge.fail("a handle is not free after its close");
        }
    }
    collect_leftovers(report);
    const Resources after = Resources::now();
    if (after.descriptors != before.descriptors)
        report.fail("%s: %d descriptors, before %d", program, after.descriptors, before.descriptors);
}

// Writes are small enough to be all or nothing. One that was interrupted at its exit has been done.
void talk_with_cat(const Settings& settings, Report& report)
{
    Judge judge{report};
    Random random{settings.seed};
    zt::Status status;
    const int handle = open_uninterrupted("cat", "PROGRAM");
    char out[largest_atomic_write], in[largest_atomic_write];
    {
        const Interrupts interrupts;
        for (Rounds rounds{settings}; rounds.more();) {
            const int size = static_cast<int>(random.between(1, largest_atomic_write));
            fill(out, static_cast<std::size_t>(size), random);
            const bool written = zt_pipe_write(handle, out, size, &status) == size;
            judge.after("write_program", status, 0);
            if (!written && !is_at(status, 3278)) continue;
            for (int got = 0; got < size;) {
                const int count = zt_pipe_read(handle, in + got, size - got, nullptr, &status);
                judge.after("read_program", status, 0);
                if (count == 0) return report.fail("read_program: cat has gone");
                if (count > 0) got += count;
            }
            if (std::memcmp(out, in, static_cast<std::size_t>(size)) != 0)
                return report.fail("cat gave back other bytes");
            report.count("bytes_program", size);
        }
    }
    ZT_PIPE_CLOSE(handle, "", &status);
    collect_leftovers(report);
}

// Endless numbered lines, read in requests of random size by both reads.
void read_a_stream(const Settings& settings, Report& report)
{
    Judge judge{report};
    Random random{settings.seed};
    zt::Status status;
    const int handle = open_uninterrupted("seq 1 1000000000", "COMMAND READSIZE=512");
    std::string expected, got;
    long next = 1;
    {
        const Interrupts interrupts;
        for (Rounds rounds{settings}; rounds.more();) {
            char buffer[5000];
            char* text = nullptr;
            int count =
                zt_pipe_read(handle, buffer, static_cast<int>(random.between(1, 5000)), nullptr, &status);
            judge.after("read_command", status, 0);
            if (count > 0) got.assign(buffer, static_cast<std::size_t>(count));
            const int more = zt_pipe_read_unlimited(handle, &text, 0, "\n", &status);
            judge.after("read_unlimited", status, 0);
            if (more > 0) got.append(text, static_cast<std::size_t>(more));
            while (expected.size() < got.size()) expected += std::to_string(next++) + '\n';
            if (expected.compare(0, got.size(), got) != 0) return report.fail("seq: lost or doubled bytes");
            report.count("bytes_command", static_cast<double>(got.size()));
            expected.erase(0, got.size());
            got.clear();
        }
    }
    ZT_PIPE_CLOSE(handle, "", &status);
}

// Records that a slow child writes to a file: those whose write succeeded must be there, once and in order.
// The others may be there, in part too.
void write_a_stream(const Settings& settings, Report& report)
{
    constexpr int record_size = 200;  // some are cut at the stream's buffer
    char path[] = "/tmp/zt-torture-XXXXXX";
    close(mkstemp(path));
    Judge judge{report};
    zt::Status status;
    const int handle = open_uninterrupted(
        "while [ \"$(head -c 20000 | tee -a " + std::string(path) + " | wc -c)\" -gt 0 ]; do :; done",
        "COMMAND WRITE");
    std::vector<long> written;
    std::uint32_t closed;
    {
        const Interrupts interrupts;
        Rounds rounds{settings};
        while (rounds.more()) {
            char record[record_size + 1];
            std::snprintf(record, sizeof record, "<%0*ld>\n", record_size - 3, rounds.done());
            if (zt_pipe_write(handle, record, record_size, &status) == record_size || is_at(status, 3278))
                written.push_back(rounds.done());
            else
                report.count("streams_interrupted");
            judge.after("write_command", status, 0);
        }
    }
    closed = static_cast<std::uint32_t>(ZT_PIPE_CLOSE(handle, "", &status));
    if (closed != 0) report.fail("close of the stream: %s", status.what());
    std::ifstream file(path);
    const std::string content{std::istreambuf_iterator<char>(file), {}};
    std::size_t at = 0;
    long lost = 0;
    for (const long number : written) {
        char record[record_size + 1];
        std::snprintf(record, sizeof record, "<%0*ld>\n", record_size - 3, number);
        const std::size_t found = content.find(record, at);
        if (found == std::string::npos)
            ++lost;
        else
            at = found + record_size;
    }
    report.figure("stream_records", static_cast<double>(written.size()));
    report.figure("stream_records_lost", static_cast<double>(lost));
    if (lost > 0) report.fail("%ld of %zu records that were written are lost", lost, written.size());
    unlink(path);
}

// A child starts with SIGINT ignored where the application ignores it, and at its default otherwise.
void ignored_stays_ignored(Report& report)
{
    zt::Status status;
    for (const auto& action : {SIG_IGN, SIG_DFL}) {
        signal(SIGINT, action);
        for (const char* options : {"PROGRAM", "COMMAND"}) {
            const int handle = open_uninterrupted(child("prints_signals"), options);
            char* text = nullptr;
            if (zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status) < 0) text = nullptr;
            const char* const line = text != nullptr ? std::strstr(text, "SigIgn:") : nullptr;
            const bool ignored =
                line != nullptr && (std::strtoull(line + 7, nullptr, 16) >> (SIGINT - 1) & 1) != 0;
            if (ignored != (action == SIG_IGN)) report.fail("%s child: SIGINT ignored %d", options, ignored);
            ZT_PIPE_CLOSE(handle, "", &status);
        }
        struct sigaction now;
        sigaction(SIGINT, nullptr, &now);
        if (now.sa_handler != action) report.fail("SIGINT's action has changed");
    }
}

}  // namespace

void torture_interrupts(const Settings& settings, Report& report)
{
    const Settings part{settings.seed, settings.count, settings.seconds / 5 + 1};
    const double limit = part.seconds + limit_beyond_the_time;
    run_apart(report, "open and close a program", limit,
              [&] { open_and_close(part, report, "cat", "PROGRAM", ZT_PIPE_S_ABNORMAL); });
    run_apart(report, "open and close a command", limit,
              [&] { open_and_close(part, report, "exit 0", "COMMAND", 0); });
    run_apart(report, "talk with cat", limit, [&] { talk_with_cat(part, report); });
    run_apart(report, "read a stream", limit, [&] { read_a_stream(part, report); });
    run_apart(report, "write a stream", limit, [&] { write_a_stream(part, report); });
    run_apart(report, "ignored", limit, [&] { ignored_stays_ignored(report); });
}

}  // namespace torture
