#include "broker.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <stdexcept>

namespace ipcd_test {

namespace {

sockaddr_in loopback(int port) {
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    return addr;
}

}  // namespace

int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = loopback(0);
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        throw std::runtime_error("free_port: bind failed");
    }
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

bool port_accepts(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr = loopback(port);
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

Broker::Broker(std::string extra_config) : m_port(free_port()) {
    m_dir.write("mosquitto.conf",
                "per_listener_settings true\n"
                "persistence false\n"
                "max_queued_messages 0\n"
                "set_tcp_nodelay true\n"
                "log_dest stderr\n"
                "log_type error\n"
                "listener " +
                    std::to_string(m_port) +
                    " 127.0.0.1\n"
                    "allow_anonymous true\n" +
                    extra_config);
    start();
}

Broker::~Broker() {
    stop();
}

pid_t Broker::pid() const {
    return m_process ? m_process->pid() : -1;
}

void Broker::start() {
    m_process = std::make_unique<Process>(
        std::vector<std::string>{"/usr/sbin/mosquitto", "-c", m_dir.file("mosquitto.conf")});
    if (!wait_until([this] { return port_accepts(m_port) || !m_process->running(); }) ||
        !m_process->running()) {
        throw std::runtime_error("mosquitto did not start on port " + std::to_string(m_port) +
                                 ": " + m_process->err());
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

void Broker::pause() {
    m_process->signal(SIGSTOP);
}

void Broker::resume() {
    m_process->signal(SIGCONT);
}

}  // namespace ipcd_test
