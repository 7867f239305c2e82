#include "tests/torture/work.h"

#include <zt/runtime/memory.h>

#include <cstdlib>
#include <cstring>

namespace torture {
namespace {

constexpr int largest_message = 20000;
constexpr std::size_t most_sleepers = 3;
constexpr int killed_by_close = ZT_PIPE_S_ABNORMAL;

}  // namespace

std::string child(const char* name_and_arguments)
{
    return std::string(ZT_TEST_CHILDREN_DIR "/") + name_and_arguments;
}

int open_pipe(const std::string& program, const char* options, zt::Status& status)
{
    return ZT_PIPE_OPEN(program.c_str(), options, nullptr, nullptr, &status);
}

bool read_exactly(int handle, char* buffer, int size, zt::Status& status)
{
    bool interrupted = false;
    for (int got = 0; got < size;) {
        const int count = zt_pipe_read(handle, buffer + got, size - got, nullptr, &status);
        if (count <= 0) return false;
        got += count;
        interrupted = interrupted || status.subcode == ZT_PIPE_E_INTERRUPTED;
    }
    if (interrupted) status.subcode = ZT_PIPE_E_INTERRUPTED;
    return true;
}

void fill(char* buffer, std::size_t size, Random& random)
{
    for (std::size_t at = 0; at < size; at += sizeof(std::uint64_t)) {
        const std::uint64_t bits = random.below(UINT64_MAX);
        std::memcpy(buffer + at, &bits, std::min(sizeof bits, size - at));
    }
}

Worker::~Worker()
{
    while (!sleepers_.empty()) {
        close(sleepers_.back(), killed_by_close, "sleeper");
        sleepers_.pop_back();
    }
}

// With bytes that came all the same, the interrupt is a warning.
void Worker::note(const zt::Status& status)
{
    if (status.code == ZT_PIPE_E_INTERRUPTED || status.subcode == ZT_PIPE_E_INTERRUPTED) interrupted_ = true;
}

void Worker::complain(const char* what, zt::Status& status)
{
    note(status);
    if (complaint_.empty()) complaint_ = std::string(what) + ": " + status.what();
}

void Worker::close(int handle, int expected, const char* what)
{
    zt::Status status;
    if (ZT_PIPE_CLOSE(handle, "", &status) != expected) complain(what, status);
}

// The end of its input may be faster than the SIGTERM.
void Worker::close_cat(int handle)
{
    zt::Status status;
    const int code = ZT_PIPE_CLOSE(handle, "", &status);
    if (code != 0 && code != killed_by_close) complain("close cat", status);
}

void Worker::converse()
{
    zt::Status status;
    const int handle = open_pipe("cat", "PROGRAM", status);
    if (handle < 0) return complain("open cat", status);
    const int size = static_cast<int>(random_.between(1, largest_message));
    std::vector<char> out(static_cast<std::size_t>(size)), in(out.size());
    fill(out.data(), out.size(), random_);
    if (zt_pipe_write(handle, out.data(), size, &status) != size)
        complain("write cat", status);
    else if (!read_exactly(handle, in.data(), size, status))
        complain("read cat", status);
    else if (in != out)
        complaint_ = "cat gave back other bytes";
    note(status);
    close_cat(handle);
}

void Worker::keep_a_sleeper()
{
    zt::Status status;
    const int handle = open_pipe(child("never_reads"), "PROGRAM", status);
    if (handle < 0) return complain("open sleeper", status);
    sleepers_.push_back(handle);
    char* text = nullptr;
    if (zt_pipe_read_unlimited(handle, &text, 0, "\n", &status) != 6) complain("read sleeper", status);
    note(status);
    if (sleepers_.size() < most_sleepers) return;
    const std::size_t index = random_.below(sleepers_.size());
    close(sleepers_[index], killed_by_close, "close sleeper");
    sleepers_.erase(sleepers_.begin() + static_cast<std::ptrdiff_t>(index));
}

void Worker::read_a_command()
{
    zt::Status status;
    const int handle = open_pipe("echo hello", "COMMAND", status);
    if (handle < 0) return complain("open echo", status);
    char buffer[6];
    if (!read_exactly(handle, buffer, sizeof buffer, status) || std::memcmp(buffer, "hello\n", 6) != 0)
        complain("read echo", status);
    note(status);
    close(handle, 0, "close echo");
}

// head ends by itself when it has its line; the shell waits for it.
void Worker::write_a_command()
{
    zt::Status status;
    const int handle = open_pipe("head -n 1 >/dev/null", "COMMAND WRITE", status);
    if (handle < 0) return complain("open head", status);
    std::vector<char> line(static_cast<std::size_t>(random_.between(1, 5000)), 'x');
    line.back() = '\n';
    const int size = static_cast<int>(line.size());
    if (zt_pipe_write(handle, line.data(), size, &status) != size) complain("write head", status);
    close(handle, 0, "close head");
}

// What a handler that allocated or freed would run into.
void Worker::allocate()
{
    void* blocks[40] = {};
    for (int i = 0; i < 400; ++i) {
        void*& block = blocks[random_.below(40)];
        std::free(block);
        block = std::malloc(random_.below(i % 20 == 0 ? 300000 : 2000));
    }
    for (void* block : blocks) std::free(block);
}

void Worker::cycle()
{
    switch (random_.below(5)) {
        case 0:
            converse();
            break;
        case 1:
            keep_a_sleeper();
            break;
        case 2:
            read_a_command();
            break;
        case 3:
            write_a_command();
            break;
        default:
            allocate();
            break;
    }
    ++cycles_;
}

}  // namespace torture
