// The lock that signal handlers may run into.
#include <gtest/gtest.h>
#include <tests/support/forked_child.h>
#include <zt/runtime/transition_lock.h>

#include <atomic>
#include <cerrno>
#include <thread>

TEST(TransitionLock, TellsTheOwnersOwnHandlerThatItIsTaken)
{
    zt::TransitionLock lock;
    EXPECT_TRUE(lock.enter());
    EXPECT_FALSE(lock.enter());
    lock.leave();
    EXPECT_TRUE(lock.enter());
    lock.leave();
}

TEST(TransitionLock, LetsOneThreadInAtATime)
{
    constexpr int rounds = 20000;
    zt::TransitionLock lock;
    int count = 0;
    const auto add = [&] {
        for (int i = 0; i < rounds; ++i) {
            lock.enter();
            ++count;
            lock.leave();
        }
    };
    std::thread other(add);
    add();
    other.join();
    EXPECT_EQ(count, 2 * rounds);
}

// A waiter of a higher priority than the owner's would keep it from the processor for ever by yielding alone.
TEST(TransitionLock, ThatIsKeptForLongLetsItsWaiterSleep)
{
    zt::TransitionLock lock;
    std::atomic<pid_t> waiter{0};
    std::atomic<int> error{0};
    lock.enter();
    std::thread thread([&] {
        errno = ENOTTY;
        waiter = forked::thread_id();
        lock.enter();
        error = errno;
        lock.leave();
    });
    EXPECT_TRUE(forked::comes_true([&] { return waiter != 0 && forked::sleeps(waiter); }));
    lock.leave();
    thread.join();
    EXPECT_EQ(error, ENOTTY);
}
