// Both reads against a model of what they promise, over random outputs, chunks, delimiters, sizes and
// failures.
#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <random>
#include <sstream>
#include <vector>

#include "tests/support/faults.h"
#include "tests/support/leftovers.h"
#include "tests/support/transfers.h"

namespace {

using faults::Function;

constexpr int scenarios = 120;
constexpr int calls_per_pipe = 4;
constexpr int retry_budget = 5;
constexpr size_t max_planned_attempts = 8;

struct Kind {
    const char* name;
    bool command, bounded;
    int interrupted, failed, empty, at_exit;
};

void PrintTo(const Kind& kind, std::ostream* out)
{
    *out << kind.name;
}

constexpr Kind kinds[] = {{"boundedProgram", false, true, 2901, 2906, 0, 2944},
                          {"boundedCommand", true, true, 2861, 2866, 2880, 2944},
                          {"unlimitedProgram", false, false, 3099, 3104, 0, 3140},
                          {"unlimitedCommand", true, false, 3059, 3064, 3078, 3140}};

/// What one attempt to transfer meets.
struct Attempt {
    size_t most;     // bytes that come at most; 0 from a stream: nothing, and neither end nor error
    int error;       // it fails with this
    bool interrupt;  // Ctrl-C arrives meanwhile
};

constexpr Attempt undisturbed{SIZE_MAX, 0, false};

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

class Dice {
  public:
    explicit Dice(unsigned seed) : engine_(seed) {}

    size_t up_to(size_t most) { return std::uniform_int_distribution<size_t>(0, most)(engine_); }
    bool once_in(size_t times) { return up_to(times - 1) == 0; }

    std::string text(size_t longest)
    {
        std::string result(up_to(longest), ' ');
        for (char& c : result) c = "ab."[up_to(2)];
        return result;
    }

    Attempt attempt(bool command)
    {
        Attempt result = undisturbed;
        result.interrupt = once_in(12);
        if (once_in(3)) {
            result.error = once_in(6) ? (once_in(2) ? EAGAIN : EIO) : EINTR;
        } else if (!once_in(4)) {
            result.most = up_to(12) + (command ? 0 : 1);
        }
        return result;
    }

    Call call(bool command, size_t read_size)
    {
        Call result{read_size, {}, {}};
        if (!once_in(3)) result.delimiter = text(3);
        for (size_t i = up_to(max_planned_attempts); i > 0; --i) result.attempts.push_back(attempt(command));
        return result;
    }

  private:
    std::mt19937 engine_;
};

/// A plan takes its faults as a list, so the unused places get one that never comes.
std::unique_ptr<faults::Plan> plan(const Kind& kind, const Call& call)
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

std::string described(const Call& call)
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

class ReadModel : public NothingLeftTest, public testing::WithParamInterface<Kind> {
  protected:
    static void check(const Outcome& expected, const Outcome& seen)
    {
        EXPECT_EQ(seen.result, expected.result);
        EXPECT_EQ(seen.data, expected.data);
        EXPECT_EQ(seen.code, expected.code);
        EXPECT_EQ(seen.subcode, expected.subcode);
        EXPECT_EQ(seen.line, expected.line);
    }

    Outcome really_read(const pipes::Pipe& pipe, const Call& call, Dice& dice)
    {
        zt::Status status;
        Outcome seen;
        const char* const delimiter = call.delimiter ? call.delimiter->c_str() : nullptr;
        const int size = static_cast<int>(call.size);
        if (GetParam().bounded) {
            std::vector<char> buffer(call.size);  // so that a sanitizer sees one byte too many
            const auto faults = plan(GetParam(), call);
            seen.result = zt_pipe_read(pipe, buffer.data(), size, delimiter, &status);
            seen.data = std::string(buffer.data(), static_cast<size_t>(status.count));
        } else {
            const size_t offset = dice.once_in(2) ? earlier_.size() : dice.up_to(earlier_.size() + 5);
            char* text = nullptr;
            const auto faults = plan(GetParam(), call);
            seen.result = zt_pipe_read_unlimited(pipe, &text, static_cast<int>(offset), delimiter, &status);
            seen.data = text + offset;
            EXPECT_EQ(std::string(text, std::min(offset, earlier_.size())), earlier_.substr(0, offset));
            earlier_ = offset <= earlier_.size() ? earlier_.substr(0, offset) + seen.data : "";
        }
        EXPECT_EQ(static_cast<size_t>(status.count), seen.data.size());
        seen.code = status.code;
        seen.subcode = status.subcode;
        const char* const line = std::strrchr(status.where, ':');
        seen.line = line != nullptr ? std::atoi(line + 1) : 0;
        return seen;
    }

    void run(unsigned seed)
    {
        Dice dice(seed);
        earlier_.clear();
        const std::string output = dice.text(300);
        const int exit_code = dice.once_in(3) ? 3 : 0;
        const size_t request = dice.up_to(60) + 1;
        const std::string program = "prints_then_exits " + std::to_string(exit_code) + " " + output;
        const std::string options = "READSIZE=" + std::to_string(request);
        pipes::Pipe pipe(child(program), (GetParam().command ? "COMMAND " : "PROGRAM ") + options);
        pipes::wait_for_a_child_to_end();
        Model model(GetParam(), output, exit_code != 0);
        for (int i = 0; i < calls_per_pipe && !HasFailure(); ++i) {
            const Call call =
                dice.call(GetParam().command, GetParam().bounded ? dice.up_to(60) + 1 : request);
            SCOPED_TRACE("seed " + std::to_string(seed) + ", call " + std::to_string(i + 1) + " on '" +
                         output + "': " + described(call));
            check(model.read(call), really_read(pipe, call, dice));
        }
    }

    std::string earlier_;
};

INSTANTIATE_TEST_SUITE_P(, ReadModel, testing::ValuesIn(kinds),
                         [](const auto& about) { return std::string(about.param.name); });

/// Another sequence of scenarios: ZT_TEST_SEED is the first one's seed.
TEST_P(ReadModel, DoesWhatTheModelSays)
{
    const char* const chosen = std::getenv("ZT_TEST_SEED");
    const unsigned first = chosen != nullptr ? static_cast<unsigned>(std::strtoul(chosen, nullptr, 10)) : 1;
    for (unsigned seed = first; seed < first + scenarios && !HasFailure(); ++seed) run(seed);
}

}  // namespace
