#include "wait.h"

#include <thread>

namespace ipcd_test {

bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds deadline) {
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
