#include "daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <sstream>
#include <stdexcept>

#include "frames.h"

namespace ipcd_test {

NotifySocket::NotifySocket(const std::string& path)
    : m_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
    bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
}

NotifySocket::~NotifySocket() {
    close(m_fd);
}

std::size_t NotifySocket::count(const std::string& text) const {
    char buf[512];
    for (ssize_t n; (n = recv(m_fd, buf, sizeof buf, 0)) > 0;) {
        m_messages.emplace_back(buf, static_cast<std::size_t>(n));
    }
    return static_cast<std::size_t>(std::count(m_messages.begin(), m_messages.end(), text));
}

Daemon::Daemon(int port, std::string catalogue)
    : m_port(port), m_catalogue(std::move(catalogue)), m_notify(m_dir.file("notify")) {
    m_dir.fifo("rx");
    m_tx_fd = open(m_dir.fifo("tx").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    fcntl(m_tx_fd, F_SETPIPE_SZ, 1 << 20);  // a slow reader must not look like a lost port
}

Daemon::~Daemon() {
    close_rx();
    close_tx();
}

void Daemon::start(std::vector<std::string> extra, std::vector<std::string> env,
                   const std::string& wrapper) {
    std::vector<std::string> argv;
    std::istringstream words(wrapper);
    for (std::string w; words >> w;) {
        argv.push_back(w);
    }
    argv.insert(argv.end(), {ipcd_binary(), "-L", "-H", "127.0.0.1", "-p", std::to_string(m_port),
                             "-r", m_dir.file("rx"), "-t", m_dir.file("tx")});
    argv.insert(argv.end(), extra.begin(), extra.end());
    env.push_back("KIRN_RT_CATALOGUE=" + m_catalogue);
    env.push_back("NOTIFY_SOCKET=" + m_dir.file("notify"));
    m_process = std::make_unique<Process>(argv, ProcessOptions{env});
}

void Daemon::start_ready(std::vector<std::string> extra, std::vector<std::string> env,
                         const std::string& wrapper) {
    start(std::move(extra), std::move(env), wrapper);
    if (!m_notify.wait_for("READY=1", 60s) || !wait_until([this] {
            m_rx_fd = open(m_dir.file("rx").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return m_rx_fd >= 0;
        })) {
        throw std::runtime_error("ipcd not ready: " + m_process->out());
    }
    fcntl(m_rx_fd, F_SETFL, 0);
    fcntl(m_rx_fd, F_SETPIPE_SZ, 1 << 20);
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

void Daemon::close_rx() {
    if (m_rx_fd >= 0) {
        close(m_rx_fd);
        m_rx_fd = -1;
    }
}

void Daemon::close_tx() {
    if (m_tx_fd >= 0) {
        close(m_tx_fd);
        m_tx_fd = -1;
    }
}

std::optional<int> Daemon::stop() {
    close_rx();
    auto status = m_process->wait(15s);
    if (!status) {
        m_process->signal(SIGKILL);
        status = m_process->wait(1s);
    }
    return status;
}

std::vector<ecu::kora::ipc::IpcSignal> Daemon::tx_records(std::size_t count,
                                                          std::chrono::milliseconds deadline) {
    std::vector<std::uint8_t> buf(64 * 1024);
    wait_until(
        [&] {
            const ssize_t n = read(m_tx_fd, buf.data(), buf.size());
            if (n > 0) {
                m_tx_decoder.feed(buf.data(), static_cast<std::size_t>(n));
            }
            for (ecu::kora::ipc::IpcSignal r; m_tx_decoder.next(r);) {
                m_tx_out.push_back(r);
            }
            return m_tx_out.size() >= count;
        },
        deadline);
    return m_tx_out;
}

RecordStream::RecordStream(Daemon& daemon, std::uint32_t id, unsigned per_second)
    : m_thread([this, &daemon, id, per_second] {
          const auto start = std::chrono::steady_clock::now();
          try {
              for (std::uint64_t seq = 0; !m_stop;) {
                  const auto us = std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::steady_clock::now() - start);
                  for (; seq < static_cast<std::uint64_t>(us.count()) * per_second / 1000000 &&
                         !m_stop;) {
                      daemon.write_record(id, seq_payload(seq), seq);
                      m_written = ++seq;
                  }
                  std::this_thread::sleep_for(1ms);  // pacing only
              }
          } catch (const std::exception&) {
              // ipcd closed RX: the stream ends with it.
          }
      }) {}

std::uint64_t RecordStream::stop() {
    m_stop = true;
    if (m_thread.joinable()) {
        m_thread.join();
    }
    return m_written;
}

Outcome ctl(int port, std::vector<std::string> args) {
    std::vector<std::string> argv{ctl_binary(),         "-H",          "127.0.0.1",       "-p",
                                  std::to_string(port), "--catalogue", sample_catalogue()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
}

}  // namespace ipcd_test
