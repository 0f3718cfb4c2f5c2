#pragma once

// Waiting on a condition, with a deadline that only fails a hung test.

#include <chrono>
#include <functional>

namespace ipcd_test {

using namespace std::chrono_literals;

// Polls cond every few milliseconds until it holds or the deadline passes.
bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds deadline = 10s);

}  // namespace ipcd_test
