/// @file
/// What an item of the torture finds out: figures, failures, and where it is right now. It lives in memory
/// that all processes of a run share, so that a process that is killed has still told everything.
#ifndef ZT_TESTS_TORTURE_REPORT_H
#define ZT_TESTS_TORTURE_REPORT_H

#include <atomic>

namespace torture {

class Report {
  public:
    /// A report that processes forked from now on share. Never freed.
    static Report* make();

    /// Notes that something is not as it must be. The first few are printed at once, the others counted.
    void fail(const char* format, ...) __attribute__((format(printf, 2, 3)));
    int failures() const { return failures_; }

    /// Sets a figure of the closing line.
    void figure(const char* name, double value);
    /// Adds to a figure, which starts at 0. Safe in threads.
    void count(const char* name, double more = 1);
    double value_of(const char* name);

    /// What is being done, for the message when it never ends.
    void stage(const char* what);
    const char* stage() const { return stage_; }

    /// "name=value ..." in the order in which the figures came.
    void print_figures() const;

  private:
    struct Figure {
        char name[32];
        std::atomic<double> value;
    };
    static constexpr int most_figures = 40;
    static constexpr int most_printed = 20;

    Figure& find(const char* name);

    std::atomic<int> failures_;
    std::atomic<int> figure_count_;
    std::atomic_flag lock_;
    Figure figures_[most_figures];
    char stage_[64];
};

}  // namespace torture

#endif
