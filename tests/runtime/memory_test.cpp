#include <gtest/gtest.h>
#include <zt/runtime/memory.h>
#include <zt/runtime/trace.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

#include "captured.h"
#include "tests/support/faults.h"

namespace {

constexpr int table_class = 1, pipe_class = 2;
constexpr std::size_t most = static_cast<std::size_t>(PTRDIFF_MAX);

char* take(std::size_t count, std::size_t size, int memory_class = pipe_class)
{
    return static_cast<char*>(zt_mem_icalloc(memory_class, count, size, 0, "test", 1));
}

char* resized(void* old, std::size_t size, int memory_class = pipe_class)
{
    return static_cast<char*>(zt_mem_irealloc(memory_class, old, size, 0, "test", 2));
}

char* regrown(void* old, std::size_t count, std::size_t size, std::size_t old_count)
{
    return static_cast<char*>(zt_mem_irecalloc(pipe_class, old, count, size, old_count, 0, "test", 3));
}

void give_back(void* block, int memory_class = pipe_class)
{
    zt_mem_ifree(memory_class, block, "test", 4);
}

bool all(const char* bytes, std::size_t from, std::size_t to, char value)
{
    return std::all_of(bytes + from, bytes + to, [value](char byte) { return byte == value; });
}

/// Every test gives back all it took.
class Memory : public testing::Test {
  protected:
    void TearDown() override { EXPECT_EQ(zt_heapsize(), before_); }

    const int before_ = zt_heapsize();
};

TEST_F(Memory, IsZeroedAndAlignedForAnyType)
{
    for (const std::size_t size : {1u, 7u, 16u, 100u, 5000u, 300000u}) {
        char* block = take(3, size);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(all(block, 0, 3 * size, 0));
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(block) % 16, 0u);
        std::memset(block, 'x', 3 * size);
        give_back(block);
    }
}

TEST_F(Memory, IsCountedByClassAsItWasAskedFor)
{
    const long tables = zt_heapsize_class(table_class), pipes = zt_heapsize_class(pipe_class);
    char* table = take(16, 8, table_class);
    char* pipe = take(1, 1000);
    EXPECT_EQ(zt_heapsize_class(table_class), tables + 128);
    EXPECT_EQ(zt_heapsize_class(pipe_class), pipes + 1000);
    EXPECT_EQ(zt_heapsize(), before_ + 1128);
    pipe = resized(pipe, 400);
    EXPECT_EQ(zt_heapsize_class(pipe_class), pipes + 400);
    pipe = regrown(pipe, 50, 10, 40);
    EXPECT_EQ(zt_heapsize_class(pipe_class), pipes + 500);
    give_back(pipe);
    EXPECT_EQ(zt_heapsize_class(pipe_class), pipes);
    give_back(table, table_class);
    EXPECT_EQ(zt_heapsize_class(table_class), tables);
}

TEST_F(Memory, HeapsizeStopsAtTheLargestInt)
{
    const std::size_t size = std::size_t{INT_MAX} + 10;
    char* block = take(1, size);
    if (!block) GTEST_SKIP() << "no room for a block of 2 GiB";
    EXPECT_EQ(zt_heapsize(), INT_MAX);
    EXPECT_GE(zt_heapsize_class(pipe_class), static_cast<long>(size));
    give_back(block);
}

TEST_F(Memory, RecallocKeepsOldSlotsAndZeroesTheOthers)
{
    char* slots = take(16, 8);
    std::memset(slots, 'x', 16 * 8);
    slots = regrown(slots, 32, 8, 16);
    EXPECT_TRUE(all(slots, 0, 128, 'x'));
    EXPECT_TRUE(all(slots, 128, 256, 0));
    slots = regrown(slots, 32, 8, 2);
    EXPECT_TRUE(all(slots, 0, 16, 'x'));
    EXPECT_TRUE(all(slots, 16, 256, 0));
    give_back(slots);
}

TEST_F(Memory, RecallocNeverShowsBytesThatWereNotTheCallers)
{
    char* slots = take(2, 8);
    std::memset(slots, 'x', 16);
    slots = regrown(slots, 100, 8, 50);  // says 50 where there were 2
    EXPECT_TRUE(all(slots, 0, 16, 'x'));
    EXPECT_TRUE(all(slots, 16, 800, 0));
    slots = regrown(slots, 200, 8, SIZE_MAX);
    EXPECT_TRUE(all(slots, 16, 1600, 0));
    give_back(slots);
}

TEST_F(Memory, RecallocCutsAnArray)
{
    char* slots = take(4, 8);
    std::memset(slots, 'x', 32);
    slots = regrown(slots, 2, 8, 4);
    EXPECT_TRUE(all(slots, 0, 16, 'x'));
    give_back(slots);
}

TEST_F(Memory, ResizingNullTakesANewBlock)
{
    char* slots = regrown(nullptr, 4, 8, 0);
    ASSERT_NE(slots, nullptr);
    EXPECT_TRUE(all(slots, 0, 32, 0));
    char* bytes = resized(nullptr, 10);
    ASSERT_NE(bytes, nullptr);
    give_back(slots);
    give_back(bytes);
}

TEST_F(Memory, ReallocKeepsTheContents)
{
    char* block = take(1, 100);
    std::memset(block, 'x', 100);
    for (const std::size_t size : {200u, 1u << 20, 5u << 20, 60u}) {
        block = resized(block, size);
        ASSERT_NE(block, nullptr);
        EXPECT_TRUE(all(block, 0, std::min<std::size_t>(size, 100), 'x'));
    }
    give_back(block);
}

TEST_F(Memory, ALargeBlockGrowsByALittleWithoutAResizeEachTimeAndKeepsItsContents)
{
    constexpr std::size_t mib = std::size_t{1} << 20, step = 32768;
    auto* block = static_cast<unsigned char*>(zt_mem_icalloc(2, 1, mib, 0, nullptr, 0));
    block[0] = 7;
    const faults::Plan only_counting{};
    for (std::size_t size = mib; size <= 16 * mib; size += step) {
        block = static_cast<unsigned char*>(zt_mem_irealloc(2, block, size, 0, nullptr, 0));
        ASSERT_NE(block, nullptr);
        block[size - 1] = 9;
        EXPECT_EQ(zt_heapsize_class(2), static_cast<long>(size));
    }
    EXPECT_LE(faults::calls(faults::Function::realloc), 16);
    EXPECT_EQ(block[0], 7);
    zt_mem_ifree(2, block, nullptr, 0);
}

TEST_F(Memory, WhereThereIsNoRoomAheadALargeBlockStillGrowsByWhatWasAskedFor)
{
    constexpr std::size_t mib = std::size_t{1} << 20;
    void* block = zt_mem_icalloc(2, 1, 2 * mib, 0, nullptr, 0);
    {
        const faults::Plan first_resize_fails{{.function = faults::Function::realloc, .error = ENOMEM}};
        block = zt_mem_irealloc(2, block, 3 * mib, 0, nullptr, 0);
    }
    ASSERT_NE(block, nullptr);
    EXPECT_EQ(zt_heapsize_class(2), static_cast<long>(3 * mib));
    zt_mem_ifree(2, block, nullptr, 0);
}

TEST_F(Memory, ABlockOfNoBytesIsABlock)
{
    char* first = take(0, 8);
    char* second = take(8, 0);
    EXPECT_NE(first, nullptr);
    EXPECT_NE(second, nullptr);
    EXPECT_NE(first, second);
    second = resized(second, 0);
    EXPECT_NE(second, nullptr);
    give_back(first);
    give_back(second);
}

TEST_F(Memory, AProductThatDoesNotFitIsOutOfMemory)
{
    for (const auto& [count, size] :
         {std::pair{SIZE_MAX / 8 + 2, std::size_t{8}}, {SIZE_MAX, SIZE_MAX}, {1, most}}) {
        errno = 0;
        EXPECT_EQ(take(count, size), nullptr);
        EXPECT_EQ(errno, ENOMEM);
        errno = 0;
        EXPECT_EQ(regrown(nullptr, count, size, 0), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
}

TEST_F(Memory, AFailedResizeLeavesTheBlockAsItWas)
{
    char* block = take(1, 100);
    std::memset(block, 'x', 100);
    for (const std::size_t size : {most, SIZE_MAX, most / 2}) {
        errno = 0;
        EXPECT_EQ(resized(block, size), nullptr);
        EXPECT_EQ(errno, ENOMEM);
    }
    EXPECT_EQ(regrown(block, SIZE_MAX, 16, 1), nullptr);
    EXPECT_TRUE(all(block, 0, 100, 'x'));
    EXPECT_EQ(zt_heapsize(), before_ + 100);
    give_back(block);
}

TEST_F(Memory, ThereIsNoClassOutsideTheRange)
{
    for (const int memory_class : {-1, static_cast<int>(ZT_MEM_CLASSES), INT_MAX, INT_MIN}) {
        errno = 0;
        EXPECT_EQ(take(1, 1, memory_class), nullptr);
        EXPECT_EQ(errno, EINVAL);
        errno = 0;
        EXPECT_EQ(resized(nullptr, 1, memory_class), nullptr);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_EQ(zt_heapsize_class(memory_class), 0);
    }
    char* last = take(1, 1, ZT_MEM_CLASSES - 1);
    EXPECT_NE(last, nullptr);
    give_back(last, ZT_MEM_CLASSES - 1);
}

TEST_F(Memory, FreeingWithAnotherClassIsRefusedAndTraced)
{
    char* block = take(1, 10);
    std::string trace;
    {
        CapturedStderr captured;
        zt_mem_ifree(table_class, block, "caller.cpp", 77);
        trace = captured.text();
    }
    EXPECT_NE(trace.find("of class 2 was given back as class 1 at caller.cpp:77"), std::string::npos)
        << trace;
    EXPECT_EQ(zt_heapsize(), before_ + 10);
    std::memset(block, 'x', 10);
    give_back(block);
}

TEST_F(Memory, ResizingWithAnotherClassIsRefusedAndTraced)
{
    char* block = take(1, 10);
    std::memset(block, 'x', 10);
    for (const int other : {table_class, -1, static_cast<int>(ZT_MEM_CLASSES)}) {
        const std::string said =
            "of class 2 was given back as class " + std::to_string(other) + " at caller.cpp:78";
        CapturedStderr captured;
        errno = 0;
        EXPECT_EQ(zt_mem_irealloc(other, block, 20, 0, "caller.cpp", 78), nullptr);
        EXPECT_EQ(errno, EINVAL);
        EXPECT_NE(captured.text().find("zt_mem_irealloc"), std::string::npos);
        EXPECT_NE(captured.text().find(said), std::string::npos) << captured.text();
        EXPECT_EQ(zt_mem_irecalloc(other, block, 20, 1, 10, 0, "caller.cpp", 78), nullptr);
        EXPECT_NE(captured.text().find("zt_mem_irecalloc"), std::string::npos);
    }
    EXPECT_TRUE(all(block, 0, 10, 'x'));
    give_back(block);
}

TEST_F(Memory, WhatIsNoBlockOfOursIsLeftAlone)
{
    alignas(16) std::int32_t foreign[16];
    std::fill(std::begin(foreign), std::end(foreign), pipe_class);
    CapturedStderr captured;
    zt_mem_ifree(pipe_class, foreign + 4, nullptr, 5);
    EXPECT_NE(captured.text().find("is no block of this allocator"), std::string::npos);
    EXPECT_EQ(resized(foreign + 4, 5), nullptr);
    for (const auto word : foreign) EXPECT_EQ(word, pipe_class);
}

TEST_F(Memory, FreeingNullDoesNothing)
{
    CapturedStderr captured;
    give_back(nullptr);
    EXPECT_EQ(captured.text(), "");
}

TEST_F(Memory, ErrnoIsKeptOnSuccess)
{
    errno = EXDEV;
    char* block = take(1, 100);
    block = resized(block, 1 << 20);
    block = regrown(block, 2 << 20, 1, 1 << 20);
    give_back(block);
    CapturedStderr captured;
    errno = EXDEV;
    alignas(16) char foreign[32] = {};
    zt_mem_ifree(pipe_class, foreign + 16, "test", 5);
    EXPECT_EQ(errno, EXDEV);
}

TEST_F(Memory, ManyThreadsTakeAndGiveBack)
{
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([t] {
            for (std::size_t i = 1; i < 2000; ++i) {
                char* block = take(i % 50, 8, t);
                block = resized(block, i % 300, t);
                zt_heapsize();
                give_back(block, t);
            }
        });
    }
    for (auto& thread : threads) thread.join();
}

}  // namespace
