/// @file
/// Sees what the code under test writes: to standard error, or to a file of its own.
#ifndef ZT_TESTS_RUNTIME_CAPTURED_H
#define ZT_TESTS_RUNTIME_CAPTURED_H

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

/// A path that is removed at the end; nothing is there at first.
class TempPath {
  public:
    TempPath()
    {
        std::string pattern = testing::TempDir() + "zt_test_XXXXXX";
        const int fd = mkstemp(pattern.data());
        EXPECT_GE(fd, 0);
        close(fd);
        path_ = pattern;
        remove();
    }
    ~TempPath() { remove(); }
    TempPath(const TempPath&) = delete;
    TempPath& operator=(const TempPath&) = delete;

    void remove() const { unlink(path_.c_str()); }
    const char* c_str() const { return path_.c_str(); }
    std::string content() const
    {
        std::ifstream file(path_, std::ios::binary);
        std::stringstream text;
        text << file.rdbuf();
        return text.str();
    }

  private:
    std::string path_;
};

/// Standard error goes to a file while this lives.
class CapturedStderr {
  public:
    CapturedStderr() : saved_(dup(STDERR_FILENO))
    {
        const int fd = open(file_.c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
        EXPECT_GE(fd, 0);
        dup2(fd, STDERR_FILENO);
        close(fd);
    }
    ~CapturedStderr()
    {
        dup2(saved_, STDERR_FILENO);
        close(saved_);
    }
    CapturedStderr(const CapturedStderr&) = delete;
    CapturedStderr& operator=(const CapturedStderr&) = delete;

    std::string text() const { return file_.content(); }

  private:
    TempPath file_;
    int saved_;
};

#endif
