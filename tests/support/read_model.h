/// @file
/// What both reads promise, as a model: what comes of an output, a delimiter, sizes, and attempts that fall
/// short, fail or are interrupted.
#ifndef ZT_TESTS_SUPPORT_READ_MODEL_H
#define ZT_TESTS_SUPPORT_READ_MODEL_H

#include <zt/ztpipe.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <vector>

#include "tests/support/faults.h"

namespace read_model {

using faults::Function;

inline constexpr int retry_budget = 5;
inline constexpr size_t max_planned_attempts = 8;

struct Kind {
    const char* name;
    bool command, bounded;
    int interrupted, failed, empty, at_exit;
};

inline void PrintTo(const Kind& kind, std::ostream* out)
{
    *out << kind.name;
}

inline constexpr Kind kinds[] = {{"boundedProgram", false, true, 2901, 2906, 0, 2944},
                                 {"boundedCommand", true, true, 2861, 2866, 2880, 2944},
                                 {"unlimitedProgram", false, false, 3099, 3104, 0, 3140},
                                 {"unlimitedCommand", true, false, 3059, 3064, 3078, 3140}};

/// What one attempt to transfer meets.
struct Attempt {
    size_t most;     // bytes that come at most; 0 from a stream: nothing, and neither end nor error
    int error;       // it fails with this
    bool interrupt;  // Ctrl-C arrives meanwhile
};

inline constexpr Attempt undisturbed{SIZE_MAX, 0, false};

struct Call {
    size_t size;  // bounded: of the buffer; unlimited: of a request
    std::optional<std::string> delimiter;
    std::vector<Attempt> attempts;
};

struct Outcome {
    std::string data;
    unsigned code = 0;
    int line = 0;
    int result = 0;
    unsigned subcode = 0;
};

/// The child's output as the reads should see it.
class Model {
  public:
    Model(const Kind& kind, const std::string& output, bool fails)
        : kind_(kind), rest_(output), end_code_(fails ? ZT_PIPE_S_ERROR : ZT_PIPE_S_NORMAL)
    {
    }

    Outcome read(const Call& call)
    {
        outcome_ = {};
        retries_ = 0;
        pending_ = false;
        for (size_t i = 0;; ++i) {
            const Attempt& attempt = i < call.attempts.size() ? call.attempts[i] : undisturbed;
            pending_ = pending_ || attempt.interrupt;
            if (!transfer(attempt, kind_.bounded ? call.size - outcome_.data.size() : call.size)) break;
            if (is_enough(call)) break;
        }
        if (pending_) fail(ZT_PIPE_E_INTERRUPTED, kind_.at_exit);
        const bool warns = outcome_.code == ZT_PIPE_S_NORMAL || !outcome_.data.empty();
        if (warns) std::swap(outcome_.code, outcome_.subcode);
        outcome_.result = outcome_.code == 0 ? static_cast<int>(outcome_.data.size()) : -1;
        return outcome_;
    }

  private:
    /// False when the read is over.
    bool transfer(const Attempt& attempt, size_t request)
    {
        if (attempt.error != 0) return survives(attempt.error);
        const size_t asked = std::min(attempt.most, request);
        const size_t count = std::min(asked, rest_.size());
        outcome_.data += rest_.substr(0, count);
        rest_.erase(0, count);
        if (!kind_.command) {
            if (count == 0) fail(end_code_, 0);
            return count > 0;
        }
        saw_end_ = saw_end_ || count < asked;
        if (count > 0) retries_ = 0;
        if (count > 0 || saw_end_) return count > 0;
        if (retries_++ < retry_budget) return true;
        fail(ZT_PIPE_E_READ, kind_.empty);
        return false;
    }

    bool survives(int error)
    {
        if (error == EINTR && retries_ < retry_budget) {
            ++retries_;
            saw_end_ = false;  // the stream's marks are taken back for the next attempt
            return true;
        }
        const bool interrupted = error == EINTR || error == EAGAIN || pending_;
        fail(interrupted ? ZT_PIPE_E_INTERRUPTED : ZT_PIPE_E_READ,
             interrupted ? kind_.interrupted : kind_.failed);
        if (interrupted) pending_ = false;
        return false;
    }

    bool is_enough(const Call& call) const
    {
        const bool long_enough = call.delimiter && outcome_.data.size() >= call.delimiter->size();
        if (long_enough) return outcome_.data.ends_with(*call.delimiter);
        return kind_.bounded && outcome_.data.size() == call.size;
    }

    void fail(unsigned code, int line)
    {
        outcome_.code = code;
        outcome_.line = line;
    }

    const Kind& kind_;
    std::string rest_;
    const unsigned end_code_;
    bool saw_end_ = false;
    int retries_ = 0;
    bool pending_ = false;
    Outcome outcome_;
};

/// A plan takes its faults as a list, so the unused places get one that never comes.
inline std::unique_ptr<faults::Plan> plan(const Kind& kind, const Call& call)
{
    const Function function = kind.command ? Function::fread : Function::read;
    std::vector<faults::Fault> f(max_planned_attempts, {.function = Function::fork, .nth = 1000});
    for (size_t i = 0; i < call.attempts.size(); ++i) {
        const Attempt& attempt = call.attempts[i];
        f[i] = {.function = function, .nth = static_cast<int>(i) + 1, .error = attempt.error};
        if (attempt.error == 0 && attempt.most != SIZE_MAX) f[i].result = static_cast<long>(attempt.most);
        if (attempt.interrupt) f[i].raising = SIGINT;
    }
    using List = std::initializer_list<faults::Fault>;
    return std::make_unique<faults::Plan>(List{f[0], f[1], f[2], f[3], f[4], f[5], f[6], f[7]});
}

inline std::string described(const Call& call)
{
    std::ostringstream text;
    text << "size " << call.size << " delimiter " << (call.delimiter ? "'" + *call.delimiter + "'" : "none");
    for (const Attempt& attempt : call.attempts) {
        text << " [";
        if (attempt.error != 0)
            text << strerrorname_np(attempt.error);
        else if (attempt.most != SIZE_MAX)
            text << attempt.most;
        text << (attempt.interrupt ? " Ctrl-C]" : "]");
    }
    return text.str();
}

/// The real reads of a pipe, with the attempts of each call planned.
class Reader {
  public:
    Reader(const Kind& kind, int handle) : kind_(kind), handle_(handle) {}

    /// `offset` counts in the unlimited read only: it keeps so much of what earlier calls have read.
    Outcome read(const Call& call, size_t offset)
    {
        Outcome seen;
        kind_.bounded ? read_bounded(call, seen) : read_unlimited(call, offset, seen);
        seen.code = status_.code;
        seen.subcode = status_.subcode;
        const char* const line = std::strrchr(status_.where, ':');
        seen.line = line != nullptr ? std::atoi(line + 1) : 0;
        return seen;
    }

    /// How much of earlier calls may be kept.
    size_t earlier() const { return earlier_.size(); }

    /// Whether what a call was to keep is there, unchanged.
    bool kept() const { return kept_; }

  private:
    const char* delimiter(const Call& call) const
    {
        return call.delimiter ? call.delimiter->c_str() : nullptr;
    }

    void read_bounded(const Call& call, Outcome& seen)
    {
        std::vector<char> buffer(call.size);  // so that a sanitizer sees one byte too many
        const auto faults = plan(kind_, call);
        seen.result =
            zt_pipe_read(handle_, buffer.data(), static_cast<int>(call.size), delimiter(call), &status_);
        seen.data = std::string(buffer.data(), static_cast<size_t>(status_.count));
    }

    void read_unlimited(const Call& call, size_t offset, Outcome& seen)
    {
        char* text = nullptr;
        const auto faults = plan(kind_, call);
        seen.result =
            zt_pipe_read_unlimited(handle_, &text, static_cast<int>(offset), delimiter(call), &status_);
        seen.data = std::string(text + offset, static_cast<size_t>(status_.count));
        kept_ = earlier_.compare(0, offset, text, std::min(offset, earlier_.size())) == 0 &&
                text[offset + seen.data.size()] == '\0';
        earlier_ = offset <= earlier_.size() ? earlier_.substr(0, offset) + seen.data : "";
    }

    const Kind& kind_;
    const int handle_;
    zt::Status status_;
    std::string earlier_;
    bool kept_ = true;
};

}  // namespace read_model

#endif
