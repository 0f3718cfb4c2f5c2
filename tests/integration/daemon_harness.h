#pragma once

// Runs the real ipcd binary against a private broker, two real FIFOs, a
// catalogue file and a service-manager notification socket of its own.

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "message_adapter.h"
#include "mqtt_peer.h"
#include "queue_port.h"
#include "support.h"

namespace ipcd_test {

// A datagram socket that collects what sd_notify sends, with arrival times.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path) : m_path(path) {
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, path.c_str(), sizeof addr.sun_path - 1);
        bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
        timeval tv{0, 100000};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        m_thread = std::thread([this] {
            char buf[512];
            while (!m_stop) {
                ssize_t n = recv(m_fd, buf, sizeof buf, 0);
                if (n > 0) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_messages.emplace_back(std::string(buf, static_cast<std::size_t>(n)),
                                            std::chrono::steady_clock::now());
                }
            }
        });
    }
    ~NotifySocket() {
        m_stop = true;
        m_thread.join();
        close(m_fd);
    }
    const std::string& path() const { return m_path; }
    std::vector<std::pair<std::string, std::chrono::steady_clock::time_point>> messages() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_messages;
    }
    bool wait_for(const std::string& text, std::chrono::milliseconds deadline = 10s) const {
        return wait_until(
            [&] {
                for (const auto& m : messages()) {
                    if (m.first == text) {
                        return true;
                    }
                }
                return false;
            },
            deadline);
    }

private:
    std::string m_path;
    int m_fd;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    mutable std::mutex m_mutex;
    std::vector<std::pair<std::string, std::chrono::steady_clock::time_point>> m_messages;
};

inline std::string ipcd_binary() {
    return std::string(IPCD_BINARY_DIR) + "/src/main/ipcd";
}
inline std::string sample_catalogue() {
    return std::string(IPCD_SOURCE_DIR) + "/dist/rt_catalogue.json";
}

template <typename T>
std::vector<std::uint8_t> framed(const T& body) {
    return ecu::kora::com::PbInternalMessageAdapter<T>().serialize(body).message.payload;
}

template <typename T>
T unframed(const std::vector<std::uint8_t>& payload) {
    ecu::kora::com::Message msg;
    msg.payload = payload;
    return ecu::kora::com::PbInternalMessageAdapter<T>().deserialize(msg).body;
}

// A framed announcement of the topics, as a client application sends it.
inline std::vector<std::uint8_t> announcement(std::initializer_list<const char*> topics) {
    ecu::kora::pb::SubscriptionMessage body;
    for (const char* t : topics) {
        body.add_topics(t);
    }
    return framed(body);
}

// A framed start-up status, as the platform sends it.
inline std::vector<std::uint8_t> tpa(bool wait_for_target, bool target_reached) {
    ecu::kora::pb::TPAStatus body;
    body.set_wait_for_target(wait_for_target);
    body.set_target_reached(target_reached);
    return framed(body);
}

// One ipcd with its FIFOs. The TX FIFO is opened for reading before ipcd
// starts (ipcd opens it first); the RX FIFO is opened for writing once ipcd
// has opened it.
class Daemon {
public:
    explicit Daemon(int port, std::string catalogue = sample_catalogue())
        : m_port(port), m_catalogue(std::move(catalogue)), m_notify(m_dir.file("notify")) {
        m_rx = m_dir.fifo("rx");
        m_tx = m_dir.fifo("tx");
        m_tx_fd = open(m_tx.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    }
    ~Daemon() {
        close_rx();
        close_tx();
    }

    void start(std::vector<std::string> extra = {}, std::vector<std::string> env = {}) {
        std::vector<std::string> argv{ipcd_binary(),          "-L", "-H", "127.0.0.1", "-p",
                                      std::to_string(m_port), "-r", m_rx, "-t",        m_tx};
        argv.insert(argv.end(), extra.begin(), extra.end());
        env.push_back("KIRN_RT_CATALOGUE=" + m_catalogue);
        env.push_back("NOTIFY_SOCKET=" + m_notify.path());
        m_process = std::make_unique<Process>(argv, env);
    }
    // Starts, waits for READY=1 and opens the RX FIFO for writing.
    void start_ready(std::vector<std::string> extra = {}, std::vector<std::string> env = {}) {
        start(std::move(extra), std::move(env));
        if (!m_notify.wait_for("READY=1")) {
            throw std::runtime_error("ipcd not ready: " + m_process->out());
        }
        open_rx();
    }
    void open_rx() {
        wait_until([this] {
            m_rx_fd = open(m_rx.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return m_rx_fd >= 0;
        });
        fcntl(m_rx_fd, F_SETFL, 0);
    }
    void write_record(std::uint32_t id, std::vector<std::uint8_t> data, std::uint64_t timestamp = 1,
                      std::uint8_t tag = 0) {
        ecu::kora::ipc::IpcSignal signal;
        signal.id = id;
        signal.tag = tag;
        signal.timestamp = timestamp;
        signal.data = std::move(data);
        std::vector<std::uint8_t> bytes;
        ecu::kora::ipc::encode_record(signal, bytes);
        write_raw(bytes);
    }
    void write_raw(const std::vector<std::uint8_t>& bytes) {
        if (::write(m_rx_fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
            throw std::runtime_error("short write into the RX FIFO");
        }
    }
    void close_rx() {
        if (m_rx_fd >= 0) {
            close(m_rx_fd);
            m_rx_fd = -1;
        }
    }
    void close_tx() {
        if (m_tx_fd >= 0) {
            close(m_tx_fd);
            m_tx_fd = -1;
        }
    }
    // Waits until count records have come out of the TX FIFO.
    std::vector<ecu::kora::ipc::IpcSignal> tx_records(std::size_t count) {
        wait_until([&] {
            std::uint8_t buf[4096];
            ssize_t n = read(m_tx_fd, buf, sizeof buf);
            if (n > 0) {
                m_tx_decoder.feed(buf, static_cast<std::size_t>(n));
            }
            for (ecu::kora::ipc::IpcSignal r; m_tx_decoder.next(r);) {
                m_tx_out.push_back(r);
            }
            return m_tx_out.size() >= count;
        });
        return m_tx_out;
    }

    Process& process() { return *m_process; }
    const NotifySocket& notify() const { return m_notify; }
    TempDir& dir() { return m_dir; }
    const std::string& rx_path() const { return m_rx; }
    const std::string& tx_path() const { return m_tx; }

private:
    TempDir m_dir;
    int m_port;
    std::string m_catalogue;
    NotifySocket m_notify;
    std::string m_rx;
    std::string m_tx;
    int m_rx_fd = -1;
    int m_tx_fd = -1;
    ecu::kora::ipc::RecordDecoder m_tx_decoder;
    std::vector<ecu::kora::ipc::IpcSignal> m_tx_out;
    std::unique_ptr<Process> m_process;
};

}  // namespace ipcd_test
