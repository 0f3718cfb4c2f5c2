#include "broker.h"

#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace ipcd_test {

namespace {

// A TCP socket on 127.0.0.1:port, connected (or bound when port is 0).
bool loopback(int port, int& bound_port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    socklen_t len = sizeof addr;
    const bool ok = port == 0 ? bind(fd, a, len) == 0 && getsockname(fd, a, &len) == 0
                              : connect(fd, a, len) == 0;
    bound_port = ntohs(addr.sin_port);
    close(fd);
    return ok;
}

}  // namespace

int free_port() {
    int port = 0;
    if (!loopback(0, port)) {
        throw std::runtime_error("free_port: bind failed");
    }
    return port;
}

bool port_accepts(int port) {
    return loopback(port, port);
}

Broker::Broker(std::string extra_config) : m_port(free_port()) {
    m_dir.write("mosquitto.conf",
                "per_listener_settings true\npersistence false\nmax_queued_messages 0\n"
                "set_tcp_nodelay true\nlog_dest stderr\nlog_type error\nlistener " +
                    std::to_string(m_port) + " 127.0.0.1\nallow_anonymous true\n" + extra_config);
    start();
}

void Broker::start() {
    m_process = std::make_unique<Process>(
        std::vector<std::string>{"/usr/sbin/mosquitto", "-c", m_dir.file("mosquitto.conf")});
    if (!wait_until([this] { return port_accepts(m_port) || !m_process->running(); }) ||
        !m_process->running()) {
        throw std::runtime_error("mosquitto did not start: " + m_process->err());
    }
}

void Broker::stop(bool hard) {
    if (m_process && m_process->running()) {
        m_process->signal(SIGCONT);
        m_process->signal(hard ? SIGKILL : SIGTERM);
        m_process->wait(10s);
    }
    m_process.reset();
}

}  // namespace ipcd_test
