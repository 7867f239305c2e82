/// @file
/// The debug flags as a text to compare.
#ifndef ZT_TESTS_PIPE_DEBUG_FLAGS_H
#define ZT_TESTS_PIPE_DEBUG_FLAGS_H

#include <gtest/gtest.h>
#include <stdlib.h>
#include <string.h>
#include <zt/ztpipe/internal.h>

#include <string>

/// Each test begins and ends with initialised flags that are all off, and without ZT_PIPE_DEBUG.
class DebugFlagsTest : public ::testing::Test {
  protected:
    void SetUp() override { all_off(); }
    void TearDown() override { all_off(); }

    /// As it is before anything has initialised the flags.
    static void forget()
    {
        memset(Zt_pipe_debug, 0, sizeof Zt_pipe_debug);
        Zt_pipe_debug_initialized = 0;
    }

    /// The flags that are on, each with its categories: "PARMS:global,read DEBUG:global"; "" for none.
    static std::string on()
    {
        constexpr const char* keywords[] = {"PARMS",      "CLOCKS", "CTRLBLKS", "DEBUG",
                                            "EXCEPTIONS", "MEMORY", "slot6",    "slot7"};
        std::string result;
        for (int slot = 0; slot < 8; ++slot) {
            std::string categories;
            for (const auto& category : Zt_pipe_debug)
                if (category.flags[slot] != 0)
                    categories += (categories.empty() ? ":" : ",") + name(category);
            if (!categories.empty()) result += (result.empty() ? "" : " ") + (keywords[slot] + categories);
        }
        return result;
    }

    static std::string name(const zt_pipe_debug_category& category)
    {
        return std::string(category.name, strnlen(category.name, sizeof category.name));
    }

    std::uint32_t configure(const std::string& options)
    {
        return zt_pipe_debug_config(options.c_str(), &status);
    }

    zt::Status status;

  private:
    void all_off()
    {
        unsetenv("ZT_PIPE_DEBUG");
        forget();
        EXPECT_EQ(zt_pipe_debug_init(&status), 0U);
    }
};

#endif
