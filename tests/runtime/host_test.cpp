#include <gtest/gtest.h>
#include <unistd.h>
#include <zt/runtime/host.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

namespace {

TEST(Hostname, IsTheSystemsName)
{
    char expected[256] = "", name[256];
    ASSERT_EQ(gethostname(expected, sizeof expected), 0);
    EXPECT_EQ(zt_hostname_r(name, sizeof name), name);
    EXPECT_STREQ(name, expected);
}

TEST(Hostname, IsCutToItsRoomAndTerminated)
{
    char whole[256];
    zt_hostname_r(whole, sizeof whole);
    for (std::size_t size = 1; size <= std::strlen(whole) + 1; ++size) {
        std::vector<char> name(size, '#');
        zt_hostname_r(name.data(), size);
        EXPECT_EQ(std::string(name.data()), std::string(whole).substr(0, size - 1));
    }
}

TEST(Hostname, TakesNullAndNoRoom)
{
    char name[] = "ab";
    EXPECT_EQ(zt_hostname_r(nullptr, 64), nullptr);
    EXPECT_STREQ(zt_hostname_r(name, 0), "ab");
}

TEST(Hostname, KeepsErrno)
{
    char name[64];
    errno = EXDEV;
    zt_hostname_r(name, sizeof name);
    EXPECT_EQ(errno, EXDEV);
}

}  // namespace
