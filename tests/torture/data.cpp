// Bytes that go to a child and come back: all of them, in order, once.
#include <algorithm>
#include <cstring>
#include <vector>

#include "tests/torture/process.h"
#include "tests/torture/work.h"

namespace torture {
namespace {

// What both directions of a pipe hold, so that nobody waits for the other side to read first.
constexpr long largest_piece = 60000;
constexpr Seconds limit_beyond_the_time = 600;

class Checksum {
  public:
    void add(const char* bytes, std::size_t size)
    {
        for (std::size_t i = 0; i < size; ++i)
            sum_ = (sum_ ^ static_cast<unsigned char>(bytes[i])) * UINT64_C(1099511628211);
    }
    bool operator==(const Checksum&) const = default;

  private:
    std::uint64_t sum_ = UINT64_C(14695981039346656037);
};

// Reads in requests of random size, so that answers are taken apart and put together in every way.
bool read_in_pieces(int handle, char* buffer, int size, Random& random, zt::Status& status)
{
    for (int got = 0; got < size;) {
        const int request = random.one_in(4) ? static_cast<int>(random.between(1, size - got)) : size - got;
        const int count = zt_pipe_read(handle, buffer + got, request, nullptr, &status);
        if (count <= 0) return false;
        got += count;
    }
    return true;
}

class Exchange {
  public:
    Exchange(const Settings& settings, Report& report)
        : random_(settings.seed), report_(report), handle_(open_pipe("cat", "PROGRAM", status_))
    {
        if (handle_ < 0) report.fail("open: %s", status_.what());
        fill(out_.data(), out_.size(), random_);
    }
    ~Exchange()
    {
        ZT_PIPE_CLOSE(handle_, "", &status_);
        if (!(sent_ == received_)) report_.fail("the checksums differ");
    }
    Exchange(const Exchange&) = delete;
    Exchange& operator=(const Exchange&) = delete;

    /// Sends a piece of this many bytes and takes it back.
    bool of(int size)
    {
        const char* const out = out_.data() + random_.below(out_.size() - static_cast<std::size_t>(size));
        if (zt_pipe_write(handle_, out, size, &status_) != size) return complain("write");
        if (!read_in_pieces(handle_, in_, size, random_, status_)) return complain("read");
        sent_.add(out, static_cast<std::size_t>(size));
        received_.add(in_, static_cast<std::size_t>(size));
        if (std::memcmp(out, in_, static_cast<std::size_t>(size)) != 0) return complain("other bytes");
        return true;
    }

    Random& random() { return random_; }

  private:
    bool complain(const char* what)
    {
        report_.fail("%s: %s", what, status_.what());
        return false;
    }

    Random random_;
    Report& report_;
    zt::Status status_;
    const int handle_;
    Checksum sent_, received_;
    std::vector<char> out_ = std::vector<char>(1 << 20);
    char in_[largest_piece];
};

void large_exchange(const Settings& settings, Report& report)
{
    Exchange exchange{settings, report};
    long done = 0;
    for (Rounds rounds{settings.size, settings.seconds}; done < settings.size && rounds.more();) {
        const long size = std::min(settings.size - done, exchange.random().between(1, largest_piece));
        if (!exchange.of(static_cast<int>(size))) return;
        done += size;
    }
    report.figure("exchanged_bytes", static_cast<double>(done));
}

void messages(const Settings& settings, Report& report)
{
    Exchange exchange{settings, report};
    Rounds rounds{settings};
    while (rounds.more()) {
        // Small ones are the rule; now and then one that fills the pipe.
        const long limit = exchange.random().one_in(50) ? largest_piece : 2000;
        if (!exchange.of(static_cast<int>(exchange.random().between(1, limit)))) return;
    }
    report.figure("messages", static_cast<double>(rounds.done()));
}

// A COMMAND pipe in each direction: numbered lines arrive complete and in order.
void through_streams(const Settings& settings, Report& report)
{
    const long lines = std::max(1000L, settings.size / 1000);
    zt::Status status;
    char* text = nullptr;
    int handle = open_pipe("seq 1 " + std::to_string(lines), "COMMAND", status);
    const int count = zt_pipe_read_unlimited(handle, &text, 0, nullptr, &status);
    std::string expected;
    for (long i = 1; i <= lines; ++i) expected += std::to_string(i) + '\n';
    if (count < 0 || expected != std::string(text, static_cast<std::size_t>(count)))
        report.fail("seq: other bytes");
    ZT_PIPE_CLOSE(handle, "", &status);

    handle = open_pipe("exec 3<&0; seq 1 " + std::to_string(lines) + " | cmp - /dev/fd/3", "COMMAND WRITE",
                       status);
    Random random{settings.seed};
    for (std::size_t at = 0; at < expected.size();) {
        const auto piece = std::min(expected.size() - at, static_cast<std::size_t>(random.between(1, 9000)));
        if (zt_pipe_write(handle, expected.data() + at, static_cast<int>(piece), &status) < 0) break;
        at += piece;
    }
    if (ZT_PIPE_CLOSE(handle, "", &status) != 0) report.fail("cmp of seq: %s", status.what());
    report.figure("stream_lines", static_cast<double>(lines));
}

}  // namespace

void torture_data(const Settings& settings, Report& report)
{
    const double limit = settings.seconds + limit_beyond_the_time;
    run_apart(report, "large exchange", limit, [&] { large_exchange(settings, report); });
    run_apart(report, "messages", limit, [&] { messages(settings, report); });
    run_apart(report, "streams", limit, [&] { through_streams(settings, report); });
}

}  // namespace torture
