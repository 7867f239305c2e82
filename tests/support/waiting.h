/// @file
/// Waiting for something that another process does, without guessing how long it takes.
#ifndef ZT_TESTS_SUPPORT_WAITING_H
#define ZT_TESTS_SUPPORT_WAITING_H

#include <chrono>
#include <functional>

/// Looks until the condition holds. False when it still does not at the deadline, which is far away: it is
/// there so that a failing test ends, not to measure anything.
bool wait_until(const std::function<bool()>& condition,
                std::chrono::seconds limit = std::chrono::seconds(20));

#endif
