#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <unistd.h>
#include <zt/runtime/environment.h>
#include <zt/runtime/errno_guard.h>
#include <zt/runtime/text.h>
#include <zt/runtime/trace.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace {

constexpr int patience_ms = 1000;

int above_standard_streams(int fd)
{
    if (fd > STDERR_FILENO || fd < 0) return fd;
    const int moved = fcntl(fd, F_DUPFD_CLOEXEC, STDERR_FILENO + 1);
    close(fd);
    return moved;
}

/// Keeps a reader that has gone from ending the process, or from looking like a child that has gone.
class SigpipeHeld {
  public:
    SigpipeHeld()
    {
        sigemptyset(&sigpipe_);
        sigaddset(&sigpipe_, SIGPIPE);
        sigset_t pending;
        was_pending_ = sigpending(&pending) == 0 && sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &sigpipe_, &mask_before_);
    }
    ~SigpipeHeld()
    {
        const timespec now{};
        if (raised_ && !was_pending_) sigtimedwait(&sigpipe_, nullptr, &now);
        pthread_sigmask(SIG_SETMASK, &mask_before_, nullptr);
    }
    SigpipeHeld(const SigpipeHeld&) = delete;
    SigpipeHeld& operator=(const SigpipeHeld&) = delete;

    void raised() { raised_ = true; }

  private:
    sigset_t sigpipe_, mask_before_;
    bool was_pending_ = false;
    bool raised_ = false;
};

bool wait_until_writable(int fd)
{
    pollfd stream{fd, POLLOUT, 0};
    const int ready = poll(&stream, 1, patience_ms);
    return ready > 0 || (ready < 0 && errno == EINTR);
}

/// Where the lines of one call go.
class Destination {
  public:
    Destination()
    {
        const char* path = zt_getenv("ZT_TRACE_FILE");
        if (!path || !*path) return;
        // Non-blocking, so that a named pipe without a reader is refused instead of waited for.
        constexpr int flags = O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC | O_NOCTTY | O_NONBLOCK;
        const int opened = above_standard_streams(open(path, flags, 0600));
        if (opened >= 0) fd_ = opened;
    }
    ~Destination() { fall_back(); }
    Destination(const Destination&) = delete;
    Destination& operator=(const Destination&) = delete;

    /// Writes whole lines; what the file cannot take goes to standard error. False when that fails too.
    bool write_lines(const char* text, std::size_t length)
    {
        return write_all(text, length) || (fall_back() && write_all(text, length));
    }

  private:
    bool fall_back()
    {
        if (fd_ == STDERR_FILENO) return false;
        close(fd_);
        fd_ = STDERR_FILENO;
        return true;
    }

    bool write_all(const char* text, std::size_t length)
    {
        while (length > 0) {
            const ssize_t written = write(fd_, text, length);
            if (written > 0) {
                text += written, length -= static_cast<std::size_t>(written);
            } else if (written < 0 && errno == EAGAIN) {
                if (!wait_until_writable(fd_)) return false;
            } else if (written == 0 || errno != EINTR) {
                if (errno == EPIPE) held_.raised();
                return false;
            }
        }
        return true;
    }

    SigpipeHeld held_;
    int fd_ = STDERR_FILENO;
};

constexpr std::size_t bytes_per_line = 16;
/// Blanks, offset, hexadecimal bytes, text between bars, newline.
constexpr std::size_t dump_line_room = 6 + 8 + 1 + 3 * bytes_per_line + 2 + bytes_per_line + 2;

char* put_hex(char* out, unsigned value, int digits)
{
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4)
        *out++ = "0123456789abcdef"[(value >> shift) & 15];
    return out;
}

char* put_dump_line(char* out, const unsigned char* bytes, std::size_t offset, std::size_t count)
{
    out = std::fill_n(out, 6, ' ');
    out = put_hex(out, static_cast<unsigned>(offset), 8);
    *out++ = ' ';
    for (std::size_t i = 0; i < bytes_per_line; ++i) {
        *out++ = ' ';
        out = i < count ? put_hex(out, bytes[i], 2) : std::fill_n(out, 2, ' ');
    }
    *out++ = ' ', *out++ = '|';
    for (std::size_t i = 0; i < count; ++i) {
        *out++ = bytes[i] >= ' ' && bytes[i] <= '~' ? static_cast<char>(bytes[i]) : '.';
    }
    *out++ = '|', *out++ = '\n';
    return out;
}

}  // namespace

extern "C" int zt_trace_msg(const char* format, ...)
{
    const zt::ErrnoGuard keep;
    if (!format) return -1;
    char line[ZT_TRACE_LINE];
    va_list values;
    va_start(values, format);
    const int wanted = vsnprintf(line, sizeof line, format, values);
    va_end(values);
    // Beyond INT_MAX characters the library makes no line; the format at least tells which it would have
    // been.
    const std::size_t whole =
        wanted < 0 ? std::strlen(zt_strncpy(line, format, sizeof line)) : static_cast<std::size_t>(wanted);

    const auto length = static_cast<int>(std::min<std::size_t>(whole, ZT_TRACE_LINE - 1));
    line[length] = '\n';
    Destination destination;
    return destination.write_lines(line, static_cast<std::size_t>(length) + 1) ? length + 1 : -1;
}

extern "C" int zt_trace_buffer(int, const void* data, int length)
{
    const zt::ErrnoGuard keep;
    if (length < 0 || (length > 0 && !data)) return -1;
    if (length == 0) return 0;

    Destination destination;
    const auto* bytes = static_cast<const unsigned char*>(data);
    const auto size = static_cast<std::size_t>(length);
    std::size_t total = 0;
    for (std::size_t offset = 0; offset < size; offset += bytes_per_line) {
        char line[dump_line_room];
        const char* end =
            put_dump_line(line, bytes + offset, offset, std::min(bytes_per_line, size - offset));
        const auto line_length = static_cast<std::size_t>(end - line);
        if (!destination.write_lines(line, line_length)) return -1;
        total += line_length;
    }
    return static_cast<int>(std::min<std::size_t>(total, INT_MAX));
}
