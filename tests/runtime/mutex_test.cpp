#include <gtest/gtest.h>
#include <zt/runtime/mutex.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <type_traits>

namespace {

using std::chrono::steady_clock;

constinit zt::Mtx static_mutex;

/// Waits for a condition; false when it did not come true in time.
template <class Condition>
bool comes_true(Condition condition)
{
    const auto deadline = steady_clock::now() + std::chrono::seconds(20);
    while (!condition()) {
        if (steady_clock::now() > deadline) return false;
        std::this_thread::yield();
    }
    return true;
}

TEST(Mtx, NeedsNoConstructionAtRunTimeAndNoDestruction)
{
    static_assert(std::is_trivially_destructible_v<zt::Mtx>);
    static_assert(!std::is_copy_constructible_v<zt::Mtx> && !std::is_copy_assignable_v<zt::Mtx>);
    static_mutex.lock();
    static_mutex.unlock();
}

TEST(Mtx, WorksInDestructorsOfStaticObjects)
{
    struct LocksAtExit {
        ~LocksAtExit()
        {
            static_mutex.lock();
            static_mutex.unlock();
            _Exit(5);
        }
    };
    EXPECT_EXIT(
        {
            static const LocksAtExit object;
            std::exit(0);
        },
        testing::ExitedWithCode(5), "");
}

TEST(Mtx, HoldsASecondThreadUntilItIsGivenBack)
{
    zt::Mtx mutex;
    std::atomic<bool> asking = false, entered = false;
    mutex.lock();
    std::thread second([&] {
        asking = true;
        mutex.lock();
        entered = true;
        mutex.unlock();
    });
    EXPECT_TRUE(comes_true([&] { return asking.load(); }));
    for (int i = 0; i < 1000; ++i) std::this_thread::yield();
    EXPECT_FALSE(entered);
    mutex.unlock();
    EXPECT_TRUE(comes_true([&] { return entered.load(); }));
    second.join();
}

TEST(Mtx, KeepsTwoThreadsFromChangingOneValueAtOnce)
{
    constexpr int rounds = 100000;
    zt::Mtx mutex;
    int value = 0;
    const auto count_up = [&] {
        for (int i = 0; i < rounds; ++i) {
            const std::lock_guard lock(mutex);
            ++value;
        }
    };
    std::thread first(count_up), second(count_up);
    first.join(), second.join();
    EXPECT_EQ(value, 2 * rounds);
}

TEST(Mtx, KeepsErrno)
{
    errno = EXDEV;
    static_mutex.lock();
    static_mutex.unlock();
    EXPECT_EQ(errno, EXDEV);
}

}  // namespace
