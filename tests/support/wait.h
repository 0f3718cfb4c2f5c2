#pragma once

#include <chrono>
#include <functional>
#include <thread>

namespace ipcd_test {

using namespace std::chrono_literals;

// Polls cond until it holds or the deadline (which only fails a hung test) passes.
inline bool wait_until(const std::function<bool()>& cond,
                       std::chrono::milliseconds deadline = 10s) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

}  // namespace ipcd_test
