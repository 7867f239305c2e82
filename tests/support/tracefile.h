/// @file
/// The trace lines that the code under test writes, as lines to compare.
#ifndef ZT_TESTS_SUPPORT_TRACEFILE_H
#define ZT_TESTS_SUPPORT_TRACEFILE_H

#include <string>
#include <vector>

using Lines = std::vector<std::string>;

/// An empty file that lives as long as this object.
class TemporaryFile {
  public:
    TemporaryFile();
    ~TemporaryFile();
    TemporaryFile(const TemporaryFile&) = delete;
    TemporaryFile& operator=(const TemporaryFile&) = delete;

    const std::string& path() const { return path_; }
    std::string content() const;
    /// The content by lines. What follows the last newline, which a whole trace never has, is a line
    /// "<no newline>..." of its own.
    Lines lines() const;
    void empty();

  private:
    std::string path_;
};

/// While it lives, the trace goes to a file through ZT_TRACE_FILE. Afterwards the variable is as it was.
class TraceFile : public TemporaryFile {
  public:
    TraceFile();
    ~TraceFile();

  private:
    bool was_set_;
    std::string old_value_;
};

/// While it lives, standard error is a file, and ZT_TRACE_FILE is not set.
class TraceOnStandardError : public TemporaryFile {
  public:
    TraceOnStandardError();
    ~TraceOnStandardError();

  private:
    int saved_stderr_;
};

#endif
