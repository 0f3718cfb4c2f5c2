#pragma once

// What sd_notify sends to NOTIFY_SOCKET, as the service manager receives it:
// a datagram socket of the test's own, with arrival times.

#include <atomic>
#include <chrono>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "wait.h"

namespace ipcd_test {

class NotifySocket {
public:
    using Clock = std::chrono::steady_clock;
    explicit NotifySocket(std::string path);
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    const std::string& path() const { return m_path; }
    std::vector<std::pair<std::string, Clock::time_point>> messages() const;
    std::size_t count(const std::string& text) const;
    bool wait_for(const std::string& text, std::chrono::milliseconds deadline = 10s) const;

private:
    std::string m_path;
    int m_fd;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::vector<std::pair<std::string, Clock::time_point>> m_messages;
};

}  // namespace ipcd_test
