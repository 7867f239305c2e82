// ztpipe: starts a program or a shell command and talks with it through a pipe. A thin shell around the
// public operations; what it does on top of them is in its --help.
#include <unistd.h>
#include <zt/ztpipe.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "tools/ztpipe_options.h"

namespace {

constexpr int exit_wrong_usage = 64, exit_pipe_failed = 125, exit_by_signal = 128;

/// One run: what happened so far, and whether it has to stop.
class Run {
  public:
    explicit Run(const Options& options) : options_(options) {}

    int operator()();

  private:
    bool configure_trace();
    bool open();
    void converse();
    void copy_output();
    void copy_input();
    bool print_reply(const char* delimiter);
    bool send(const char* data, size_t length);
    int close();
    void report(const zt::Status& end) const;
    void stop(int exit_code);
    void stop_after_failure();
    void stop_after_stream_failure(const char* stream);

    const Options& options_;
    zt::Status status_;
    int handle_ = -1;
    int exit_code_ = 0;  ///< not 0: why this run stops early, whatever the child's exit code will be
    long long sent_ = 0, received_ = 0;
    std::chrono::steady_clock::time_point start_ = std::chrono::steady_clock::now();
};

bool is_end_of_child(std::uint32_t code)
{
    return code == ZT_PIPE_S_NORMAL || code == ZT_PIPE_S_ERROR || code == ZT_PIPE_S_ABNORMAL;
}

std::string upper_case(std::string text)
{
    for (char& c : text) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    return text;
}

void Run::stop(int exit_code)
{
    if (exit_code_ == 0) exit_code_ = exit_code;
}

/// The record tells what failed. The child's end is no failure of the pipe: the close will tell more about
/// it.
void Run::stop_after_failure()
{
    if (is_end_of_child(status_.code)) return;
    if (status_.code == ZT_PIPE_E_INTERRUPTED) return stop(exit_by_signal + SIGINT);
    std::fprintf(stderr, "ztpipe: %s\n", status_.what());
    stop(exit_pipe_failed);
}

/// One of our own streams failed. A closed standard output is no news to anybody: that ends a filter quietly.
void Run::stop_after_stream_failure(const char* stream)
{
    if (errno == EPIPE) return stop(exit_by_signal + SIGPIPE);
    std::fprintf(stderr, "ztpipe: %s: %s\n", stream, std::strerror(errno));
    stop(exit_pipe_failed);
}

bool Run::configure_trace()
{
    if (!options_.trace_options) return true;
    if (zt_pipe_debug_config(options_.trace_options->c_str(), &status_) == 0) return true;
    stop_after_failure();
    return false;
}

bool Run::open()
{
    std::string text = options_.action == Action::converse ? "PROGRAM " : "COMMAND ";
    if (options_.action == Action::copy_input) text += "WRITE ";
    // A stream read waits for all the bytes it asks for, so a line is there in time only when asked for by
    // the byte.
    if (options_.action == Action::copy_output &&
        upper_case(options_.open_options).find("READSIZE") == std::string::npos)
        text += "READSIZE=1 ";
    if (!options_.environment.empty()) text += "MERGE_ENV ";
    text += options_.open_options;

    std::vector<const char*> words = options_.words, environment = options_.environment;
    words.push_back(nullptr);
    environment.push_back(nullptr);
    const bool program = options_.action == Action::converse;
    handle_ = ZT_PIPE_OPEN(words[0], text.c_str(), program ? words.data() : nullptr,
                           options_.environment.empty() ? nullptr : environment.data(), &status_);
    if (handle_ > 0) return true;
    stop_after_failure();
    return false;
}

/// Prints what the child says up to the delimiter. False when there is nothing more to come, or nobody to
/// take it.
bool Run::print_reply(const char* delimiter)
{
    char* reply = nullptr;
    const int length = zt_pipe_read_unlimited(handle_, &reply, 0, delimiter, &status_);
    if (length > 0 && reply) {
        received_ += length;
        const size_t printed = std::fwrite(reply, 1, static_cast<size_t>(length), stdout);
        if (printed != static_cast<size_t>(length) || std::fflush(stdout) != 0) {
            stop_after_stream_failure("standard output");
            return false;
        }
    }
    // A failure after some bytes comes as a warning.
    if (status_.code == 0) status_.code = status_.subcode;
    if (status_.code != 0) {
        stop_after_failure();
        return false;
    }
    return length > 0;
}

bool Run::send(const char* data, size_t length)
{
    if (zt_pipe_write(handle_, data, static_cast<int>(length), &status_) < 0) {
        stop_after_failure();
        return false;
    }
    sent_ += static_cast<long long>(length);
    return true;
}

void Run::converse()
{
    const char* const delimiter = options_.delimiter.c_str();
    if (options_.greeting && !print_reply(delimiter)) return;
    char* line = nullptr;
    size_t room = 0;
    ssize_t length;
    bool going_on = true;
    while (going_on && (length = getline(&line, &room, stdin)) > 0) {
        std::string request(line, static_cast<size_t>(length));
        if (request.back() != '\n') request += '\n';
        const bool sent = send(request.data(), request.size());
        // A child that ended instead of reading may have said why: then its last words are the reply.
        if (!sent && exit_code_ == 0) print_reply(nullptr);
        going_on = sent && print_reply(delimiter);
    }
    if (std::ferror(stdin)) stop_after_stream_failure("standard input");
    std::free(line);
}

void Run::copy_output()
{
    while (print_reply(options_.delimiter.c_str())) {
    }
}

void Run::copy_input()
{
    std::vector<char> buffer(65536);
    ssize_t length;
    while ((length = read(STDIN_FILENO, buffer.data(), buffer.size())) > 0) {
        if (!send(buffer.data(), static_cast<size_t>(length))) return;
    }
    if (length < 0) stop_after_stream_failure("standard input");
}

void Run::report(const zt::Status& end) const
{
    const std::chrono::duration<double> seconds = std::chrono::steady_clock::now() - start_;
    const bool not_waited_for =
        upper_case(options_.close_options.value_or("")).find("NOWAIT") != std::string::npos;
    std::string how = not_waited_for ? "was not waited for" : "ended normally (exit code 0)";
    if (end.code == ZT_PIPE_S_ERROR) {
        how = "ended with an error (exit code " + std::to_string(end.iparm[0]) + ")";
    } else if (end.code == ZT_PIPE_S_ABNORMAL) {
        const int signo = static_cast<int>(end.sys_errno);
        how = "ended abnormally (signal " + std::to_string(signo) + ", " + strsignal(signo) + ")";
    } else if (end.code != 0) {
        how = "ended, it is not known how";
    }
    std::fprintf(stderr, "ztpipe: %s %s; %lld bytes sent, %lld received, %.3f s\n", options_.words[0],
                 how.c_str(), sent_, received_, seconds.count());
}

/// Ends the pipe and gives the exit code.
int Run::close()
{
    // After an early stop nobody is interested in the child any more; otherwise it ends with its input.
    const bool let_it_finish = options_.action == Action::converse && exit_code_ == 0;
    const std::string text = options_.close_options.value_or(let_it_finish ? "NOKILL" : "");
    ZT_PIPE_CLOSE(handle_, text.c_str(), &status_);
    const zt::Status end = status_;
    if (end.code != 0) stop_after_failure();
    if (options_.report) report(end);
    if (exit_code_ != 0) return exit_code_;
    if (end.code == ZT_PIPE_S_ERROR) return end.iparm[0];
    if (end.code == ZT_PIPE_S_ABNORMAL) return exit_by_signal + static_cast<int>(end.sys_errno);
    return 0;
}

int Run::operator()()
{
    if (!configure_trace() || !open()) return exit_code_;
    switch (options_.action) {
        case Action::copy_output:
            copy_output();
            break;
        case Action::copy_input:
            copy_input();
            break;
        default:
            converse();
            break;
    }
    return close();
}

}  // namespace

int main(int argc, char** argv)
{
    const auto options = read_options(argc, argv);
    if (!options) return exit_wrong_usage;
    if (options->action == Action::say_help) return std::fputs(help_text, stdout) < 0;
    if (options->action == Action::say_version) {
        return std::printf("ztpipe %d.%d.%d\n", ZT_PIPE_VERSION / 10000, ZT_PIPE_VERSION / 100 % 100,
                           ZT_PIPE_VERSION % 100) < 0;
    }
    return Run(*options)();
}
