#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "harness.h"

namespace ipcd_test {

Daemon::Daemon(int port, std::string catalogue)
    : m_port(port),
      m_catalogue(std::move(catalogue)),
      m_notify_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, m_dir.file("notify").c_str(), sizeof addr.sun_path - 1);
    bind(m_notify_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    m_dir.fifo("rx");
    signal(SIGPIPE, SIG_IGN);  // RX closed by ipcd: a failed write, not the test's end
    m_tx_fd = open(m_dir.fifo("tx").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    fcntl(m_tx_fd, F_SETPIPE_SZ, 1 << 20);  // a slow reader must not look like a lost port
}

Daemon::~Daemon() {
    close(m_rx_fd);
    close(m_tx_fd);
    close(m_notify_fd);
}

void Daemon::start(std::vector<std::string> extra, std::vector<std::string> env,
                   std::vector<std::string> argv) {
    argv.insert(argv.end(), {g_ipcd, "-L", "-H", "127.0.0.1", "-p", std::to_string(m_port), "-r",
                             m_dir.file("rx"), "-t", m_dir.file("tx")});
    argv.insert(argv.end(), extra.begin(), extra.end());
    env.push_back("KIRN_RT_CATALOGUE=" + m_catalogue);
    env.push_back("NOTIFY_SOCKET=" + m_dir.file("notify"));
    m_process = std::make_unique<Process>(argv, env);
    if (!wait_until([this] { return notified("READY=1") > 0; }, 60s) || !wait_until([this] {
            m_rx_fd = open(m_dir.file("rx").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return m_rx_fd >= 0;
        })) {
        throw std::runtime_error("ipcd not ready: " + m_process->out());
    }
    fcntl(m_rx_fd, F_SETFL, 0);
    fcntl(m_rx_fd, F_SETPIPE_SZ, 1 << 20);
}

std::size_t Daemon::notified(const std::string& message) {
    char buf[512];
    for (ssize_t n; (n = recv(m_notify_fd, buf, sizeof buf, 0)) > 0;) {
        m_notifications.emplace_back(buf, static_cast<std::size_t>(n));
    }
    return static_cast<std::size_t>(
        std::count(m_notifications.begin(), m_notifications.end(), message));
}

void Daemon::write_record(std::uint32_t id, const std::vector<std::uint8_t>& data,
                          std::uint64_t timestamp) {
    std::vector<std::uint8_t> bytes;
    ecu::kora::ipc::encode_record({id, 0, timestamp, data}, bytes);
    write_raw(bytes);
}

void Daemon::write_raw(const std::vector<std::uint8_t>& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(m_rx_fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            throw std::runtime_error("cannot write into the RX FIFO");
        }
        done += static_cast<std::size_t>(n);
    }
}

std::optional<int> Daemon::stop() {
    close(m_rx_fd);
    m_rx_fd = -1;
    return m_process->wait(15s);
}

void Daemon::close_tx() {
    close(m_tx_fd);
    m_tx_fd = -1;
}

std::vector<ecu::kora::ipc::IpcSignal> Daemon::tx_records(std::size_t count) {
    std::vector<std::uint8_t> buf(64 * 1024);
    wait_until([&] {
        const ssize_t n = read(m_tx_fd, buf.data(), buf.size());
        m_tx_decoder.feed(buf.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        for (ecu::kora::ipc::IpcSignal r; m_tx_decoder.next(r);) {
            m_tx_out.push_back(r);
        }
        return m_tx_out.size() >= count;
    });
    return m_tx_out;
}

void release(Daemon& daemon, int port) {
    if (ctl(port, {"announce", "rt/vehicle/battery"}).status != 0 ||
        ctl(port, {"tpa", "--wait-for-target", "--target-reached"}).status != 0 ||
        !daemon.process().wait_out("Earlybird message processing done.")) {
        throw std::runtime_error("ipcd did not release: " + daemon.process().out());
    }
}

std::unique_ptr<Process> generate(const Daemon& daemon, const std::string& topics, unsigned rate,
                                  unsigned count) {
    std::vector<std::string> argv{g_sim,
                                  "--rx",
                                  daemon.dir().file("rx"),
                                  "--tx",
                                  daemon.dir().file("sim-tx"),
                                  "--generate",
                                  topics,
                                  "--rate",
                                  std::to_string(rate),
                                  "--catalogue",
                                  g_sample_catalogue};
    if (count != 0) {
        argv.insert(argv.end(), {"--count", std::to_string(count), "--keep-open"});
    }
    return std::make_unique<Process>(argv);
}

std::size_t generated(const Process& sim) {
    const std::string out = sim.out();
    std::size_t n = 0;
    for (auto at = out.find("\nRX rt/"); at != std::string::npos;
         at = out.find("\nRX rt/", at + 1)) {
        ++n;
    }
    return n;
}

}  // namespace ipcd_test
