/// @file
/// The items of the torture, and what each of them is given.
#ifndef ZT_TESTS_TORTURE_TORTURE_H
#define ZT_TESTS_TORTURE_TORTURE_H

#include <chrono>
#include <cstdint>
#include <random>

#include "tests/torture/report.h"

namespace torture {

struct Settings {
    std::uint64_t seed = 0;
    long count = 0;   ///< how many rounds; each item says of what
    int seconds = 0;  ///< stop after this time even when the count is not reached
    int threads = 1;  ///< threads of the process that is tortured
    long size = 0;    ///< bytes, for the items that carry data; 0 = the item's own choice
};

/// Random numbers that a seed brings back.
class Random {
  public:
    explicit Random(std::uint64_t seed) : engine_(seed) {}
    /// 0 to limit - 1.
    std::uint64_t below(std::uint64_t limit) { return engine_() % limit; }
    long between(long low, long high)
    {
        return low + static_cast<long>(below(static_cast<std::uint64_t>(high - low + 1)));
    }
    bool one_in(std::uint64_t n) { return below(n) == 0; }

  private:
    std::mt19937_64 engine_;
};

/// Rounds until the count is reached or the time is up.
class Rounds {
  public:
    Rounds(long count, int seconds)
        : count_(count), end_(std::chrono::steady_clock::now() + std::chrono::seconds(seconds))
    {
    }
    explicit Rounds(const Settings& settings) : Rounds(settings.count, settings.seconds) {}

    bool more()
    {
        if (done_ >= count_ || std::chrono::steady_clock::now() >= end_) return false;
        ++done_;
        return true;
    }
    long done() const { return done_; }

  private:
    const long count_;
    const std::chrono::steady_clock::time_point end_;
    long done_ = 0;
};

void torture_signals(const Settings& settings, Report& report);
void torture_exit(const Settings& settings, Report& report);
void torture_interrupts(const Settings& settings, Report& report);
void torture_threads(const Settings& settings, Report& report);
void torture_volume(const Settings& settings, Report& report);
void torture_children(const Settings& settings, Report& report);
void torture_scarcity(const Settings& settings, Report& report);
void torture_data(const Settings& settings, Report& report);

/// The process that the exit item starts: ends in the way that the role names. Returns the exit code.
int play_exit_role(const char* role, const char* file);

}  // namespace torture

#endif
