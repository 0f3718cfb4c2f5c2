#include "daemon.h"

#include <fcntl.h>
#include <signal.h>
#include <unistd.h>

#include <sstream>
#include <stdexcept>

#include "tally.h"

namespace ipcd_test {

std::string ipcd_binary() {
    return IPCD_BINARY;
}
std::string sim_binary() {
    return IPCD_SIM_BINARY;
}
std::string ctl_binary() {
    return IPCD_CTL_BINARY;
}
std::string sample_catalogue() {
    return IPCD_SAMPLE_CATALOGUE;
}

Daemon::Daemon(int port, std::string catalogue)
    : m_port(port), m_catalogue(std::move(catalogue)), m_notify(m_dir.file("notify")) {
    m_rx = m_dir.fifo("rx");
    m_tx = m_dir.fifo("tx");
    m_tx_fd = open(m_tx.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    // Room for bursts: a reader descheduled for a while must not look like a
    // lost TX port.
    fcntl(m_tx_fd, F_SETPIPE_SZ, 1 << 20);
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
                             "-r", m_rx, "-t", m_tx});
    argv.insert(argv.end(), extra.begin(), extra.end());
    env.push_back("KIRN_RT_CATALOGUE=" + m_catalogue);
    env.push_back("NOTIFY_SOCKET=" + m_notify.path());
    m_process = std::make_unique<Process>(argv, Process::Options{env});
}

void Daemon::start_ready(std::vector<std::string> extra, std::vector<std::string> env,
                         const std::string& wrapper) {
    start(std::move(extra), std::move(env), wrapper);
    if (!m_notify.wait_for("READY=1", 60s)) {
        throw std::runtime_error("ipcd not ready: " + m_process->out());
    }
    open_rx();
}

void Daemon::open_rx() {
    if (!wait_until([this] {
            m_rx_fd = open(m_rx.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return m_rx_fd >= 0;
        })) {
        throw std::runtime_error("ipcd did not open RX: " + m_process->out());
    }
    fcntl(m_rx_fd, F_SETFL, 0);
    fcntl(m_rx_fd, F_SETPIPE_SZ, 1 << 20);
}

void Daemon::write_record(std::uint32_t id, const std::vector<std::uint8_t>& data,
                          std::uint64_t timestamp, std::uint8_t tag) {
    ecu::kora::ipc::IpcSignal signal;
    signal.id = id;
    signal.tag = tag;
    signal.timestamp = timestamp;
    signal.data = data;
    std::vector<std::uint8_t> bytes;
    ecu::kora::ipc::encode_record(signal, bytes);
    write_raw(bytes);
}

void Daemon::write_raw(const std::uint8_t* bytes, std::size_t size) {
    while (size > 0) {
        const ssize_t n = ::write(m_rx_fd, bytes, size);
        if (n <= 0) {
            throw std::runtime_error("cannot write into the RX FIFO");
        }
        bytes += n;
        size -= static_cast<std::size_t>(n);
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

RecordStream::RecordStream(Daemon& daemon, std::uint32_t id, unsigned per_second,
                           std::uint64_t limit)
    : m_thread([this, &daemon, id, per_second, limit] {
          const auto start = std::chrono::steady_clock::now();
          std::uint64_t seq = 0;
          try {
              while (!m_stop && seq < limit) {
                  const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(
                      std::chrono::steady_clock::now() - start);
                  const auto due =
                      static_cast<std::uint64_t>(elapsed.count()) * per_second / 1000000U;
                  while (seq < due && seq < limit && !m_stop) {
                      daemon.write_record(id, seq_payload(seq, mono_ns()), seq);
                      m_written = ++seq;
                  }
                  // Pacing only: the next batch is due in a millisecond.
                  std::this_thread::sleep_for(1ms);
              }
          } catch (const std::exception&) {
              // ipcd closed RX: the stream ends with it.
          }
      }) {}

RecordStream::~RecordStream() {
    stop();
}

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
