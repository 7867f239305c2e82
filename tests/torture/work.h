/// @file
/// The work of a process that is to be disturbed: pipes of all kinds, opened, used and closed without end.
#ifndef ZT_TESTS_TORTURE_WORK_H
#define ZT_TESTS_TORTURE_WORK_H

#include <zt/ztpipe/internal.h>

#include <atomic>
#include <string>
#include <vector>

#include "tests/torture/torture.h"

namespace torture {

/// The program text that starts one of the tests' child programs.
std::string child(const char* name_and_arguments);

/// Opens a pipe; -1 when that fails.
int open_pipe(const std::string& program, const char* options, zt::Status& status);

/// Reads exactly this many bytes, however often the call has to be repeated. False at the output's end.
/// An interrupt that came with bytes is still in the record's `subcode` at the end.
bool read_exactly(int handle, char* buffer, int size, zt::Status& status);

/// Random bytes that a seed brings back.
void fill(char* buffer, std::size_t size, Random& random);

/// One worker. What it does never depends on the end of a child's input or output, because children that
/// other threads start meanwhile hold copies of this pipe's ends.
class Worker {
  public:
    Worker(std::uint64_t seed, std::atomic<long>& cycles) : random_(seed), cycles_(cycles) {}
    ~Worker();
    Worker(const Worker&) = delete;
    Worker& operator=(const Worker&) = delete;

    /// One open, transfer, close of a random kind. The first thing that went wrong is kept.
    void cycle();
    const std::string& complaint() const { return complaint_; }
    /// Whether an operation was interrupted: who is asked to stop by Ctrl-C stops.
    bool interrupted() const { return interrupted_; }

  private:
    void converse();
    void keep_a_sleeper();
    void read_a_command();
    void write_a_command();
    void allocate();
    void note(const zt::Status& status);
    void complain(const char* what, zt::Status& status);
    void close(int handle, int expected, const char* what);
    void close_cat(int handle);

    Random random_;
    std::atomic<long>& cycles_;
    std::vector<int> sleepers_;
    std::string complaint_;
    bool interrupted_ = false;
};

}  // namespace torture

#endif
