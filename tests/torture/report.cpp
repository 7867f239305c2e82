#include "tests/torture/report.h"

#include <sys/mman.h>

#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

namespace torture {

Report* Report::make()
{
    void* const memory =
        mmap(nullptr, sizeof(Report), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    if (memory == MAP_FAILED) std::abort();
    return new (memory) Report();
}

void Report::fail(const char* format, ...)
{
    const int number = failures_.fetch_add(1);
    if (number >= most_printed) return;
    char text[400];
    va_list values;
    va_start(values, format);
    std::vsnprintf(text, sizeof text, format, values);
    va_end(values);
    std::fprintf(stderr, "  FAILURE %d: %s\n", number + 1, text);
}

Report::Figure& Report::find(const char* name)
{
    while (lock_.test_and_set()) {
    }
    int index = 0;
    while (index < figure_count_ && std::strcmp(figures_[index].name, name) != 0) ++index;
    if (index == most_figures) std::abort();
    if (index == figure_count_) {
        std::snprintf(figures_[index].name, sizeof figures_[index].name, "%s", name);
        ++figure_count_;
    }
    lock_.clear();
    return figures_[index];
}

void Report::figure(const char* name, double value)
{
    find(name).value = value;
}

void Report::count(const char* name, double more)
{
    find(name).value.fetch_add(more);
}

double Report::value_of(const char* name)
{
    return find(name).value;
}

void Report::stage(const char* what)
{
    std::snprintf(stage_, sizeof stage_, "%s", what);
}

void Report::print_figures() const
{
    for (int i = 0; i < figure_count_; ++i) {
        const double value = figures_[i].value;
        std::printf(std::fabs(value - std::round(value)) < 1e-9 ? " %s=%.0f" : " %s=%.2f", figures_[i].name,
                    value);
    }
}

}  // namespace torture
