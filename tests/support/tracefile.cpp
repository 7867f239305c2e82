#include "tests/support/tracefile.h"

#include <fcntl.h>
#include <unistd.h>
#include <zt/runtime/trace.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>

TemporaryFile::TemporaryFile()
{
    const char* directory = getenv("TMPDIR");
    path_ = std::string(directory ? directory : "/tmp") + "/zt-test-XXXXXX";
    const int fd = mkstemp(path_.data());
    if (fd < 0) abort();
    close(fd);
}

TemporaryFile::~TemporaryFile()
{
    unlink(path_.c_str());
}

std::string TemporaryFile::content() const
{
    std::ostringstream text;
    text << std::ifstream(path_).rdbuf();
    return text.str();
}

Lines TemporaryFile::lines() const
{
    Lines result;
    std::istringstream text(content());
    std::string line;
    while (std::getline(text, line)) result.push_back(text.eof() ? "<no newline>" + line : line);
    return result;
}

void TemporaryFile::empty()
{
    if (truncate(path_.c_str(), 0) != 0) abort();
}

TraceFile::TraceFile()
{
    const char* value = getenv("ZT_TRACE_FILE");
    was_set_ = value != nullptr;
    if (was_set_) old_value_ = value;
    setenv("ZT_TRACE_FILE", path().c_str(), 1);
}

TraceFile::~TraceFile()
{
    if (was_set_) {
        setenv("ZT_TRACE_FILE", old_value_.c_str(), 1);
    } else {
        unsetenv("ZT_TRACE_FILE");
    }
}

TraceOnStandardError::TraceOnStandardError()
{
    unsetenv("ZT_TRACE_FILE");
    fflush(stderr);
    saved_stderr_ = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const int file = open(path().c_str(), O_WRONLY | O_APPEND | O_CLOEXEC);
    if (file < 0 || dup2(file, STDERR_FILENO) < 0) abort();
    close(file);
}

TraceOnStandardError::~TraceOnStandardError()
{
    fflush(stderr);
    dup2(saved_stderr_, STDERR_FILENO);
    close(saved_stderr_);
}
