#pragma once

// A file descriptor owned by one object: closed when it is replaced and at
// the end, so that no path (an early return, a reconnection, a reopened
// port) leaks one. A daemon that runs for months would otherwise run out of
// them slowly.

#include <unistd.h>

namespace ecu::kora::loop {

class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : m_fd(fd) {}
    Descriptor(const Descriptor&) = delete;
    Descriptor& operator=(const Descriptor&) = delete;
    ~Descriptor() { reset(); }

    int get() const { return m_fd; }
    bool valid() const { return m_fd >= 0; }

    // Closes what it holds, then holds fd (a failed open's -1 holds nothing).
    // close() is not retried on EINTR: Linux has released the descriptor even
    // then, and a retry could close one that another thread has just got.
    void reset(int fd = none) {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = fd;
    }

private:
    static constexpr int none = -1;
    int m_fd = none;
};

}  // namespace ecu::kora::loop
