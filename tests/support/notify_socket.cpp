#include "notify_socket.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstring>

namespace ipcd_test {

NotifySocket::NotifySocket(std::string path) : m_path(std::move(path)) {
    m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, m_path.c_str(), sizeof addr.sun_path - 1);
    bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    timeval tv{0, 100000};
    setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    m_thread = std::thread([this] {
        char buf[512];
        while (!m_stop) {
            const ssize_t n = recv(m_fd, buf, sizeof buf, 0);
            if (n > 0) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_messages.emplace_back(std::string(buf, static_cast<std::size_t>(n)),
                                        Clock::now());
            }
        }
    });
}

NotifySocket::~NotifySocket() {
    m_stop = true;
    m_thread.join();
    close(m_fd);
}

std::vector<std::pair<std::string, NotifySocket::Clock::time_point>> NotifySocket::messages()
    const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_messages;
}

std::size_t NotifySocket::count(const std::string& text) const {
    std::size_t n = 0;
    for (const auto& m : messages()) {
        n += m.first == text ? 1 : 0;
    }
    return n;
}

bool NotifySocket::wait_for(const std::string& text, std::chrono::milliseconds deadline) const {
    return wait_until([&] { return count(text) > 0; }, deadline);
}

}  // namespace ipcd_test
