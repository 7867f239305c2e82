// Both reads against a model of what they promise, over random outputs, chunks, delimiters, sizes and
// failures.
#include "tests/support/read_model.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <random>

#include "tests/support/leftovers.h"
#include "tests/support/transfers.h"

namespace {

using namespace read_model;

constexpr int scenarios = 120;
constexpr int calls_per_pipe = 4;

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

    void run(unsigned seed)
    {
        Dice dice(seed);
        const std::string output = dice.text(300);
        const int exit_code = dice.once_in(3) ? 3 : 0;
        const size_t request = dice.up_to(60) + 1;
        const std::string program = "prints_then_exits " + std::to_string(exit_code) + " " + output;
        const std::string options = "READSIZE=" + std::to_string(request);
        pipes::Pipe pipe(child(program), (GetParam().command ? "COMMAND " : "PROGRAM ") + options);
        pipes::wait_for_a_child_to_end();
        Model model(GetParam(), output, exit_code != 0);
        Reader reader(GetParam(), pipe);
        for (int i = 0; i < calls_per_pipe && !HasFailure(); ++i) {
            const Call call =
                dice.call(GetParam().command, GetParam().bounded ? dice.up_to(60) + 1 : request);
            SCOPED_TRACE("seed " + std::to_string(seed) + ", call " + std::to_string(i + 1) + " on '" +
                         output + "': " + described(call));
            const size_t offset = dice.once_in(2) ? reader.earlier() : dice.up_to(reader.earlier() + 5);
            check(model.read(call), reader.read(call, offset));
            EXPECT_TRUE(reader.kept());
        }
    }
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
