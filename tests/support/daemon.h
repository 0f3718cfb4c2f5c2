#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "process.h"
#include "record_format.h"
#include "temp_dir.h"

namespace ipcd_test {

inline std::string ipcd_binary() {
    return IPCD_BINARY;
}
inline std::string sim_binary() {
    return IPCD_SIM_BINARY;
}
inline std::string ctl_binary() {
    return IPCD_CTL_BINARY;
}
inline std::string sample_catalogue() {
    return IPCD_SAMPLE_CATALOGUE;
}

// What sd_notify sends to NOTIFY_SOCKET, as the service manager receives it.
class NotifySocket {
public:
    explicit NotifySocket(const std::string& path);
    ~NotifySocket();
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    std::size_t count(const std::string& text) const;  // of the messages so far
    bool wait_for(const std::string& text, std::chrono::milliseconds deadline = 10s) const {
        return wait_until([&] { return count(text) > 0; }, deadline);
    }

private:
    int m_fd;
    mutable std::vector<std::string> m_messages;
};

// The real ipcd with its ports: two FIFOs of its own, a catalogue and a
// notification socket. TX is open for reading before ipcd starts (it opens TX
// first and needs its reader); RX is opened for writing once ipcd has it.
class Daemon {
public:
    explicit Daemon(int port, std::string catalogue = sample_catalogue());
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;
    // ipcd -L -H 127.0.0.1 -p PORT -r RX -t TX, then extra; a wrapper (e.g.
    // "valgrind --tool=callgrind") goes in front.
    void start(std::vector<std::string> extra = {}, std::vector<std::string> env = {},
               const std::string& wrapper = {});
    // Starts, waits for READY=1 and opens RX for writing.
    void start_ready(std::vector<std::string> extra = {}, std::vector<std::string> env = {},
                     const std::string& wrapper = {});
    void write_record(std::uint32_t id, const std::vector<std::uint8_t>& data,
                      std::uint64_t timestamp = 1);
    void write_raw(const std::vector<std::uint8_t>& bytes);
    void close_rx();
    void close_tx();
    std::optional<int> stop();  // closes RX, so ipcd ends in order; its status
    // Waits until count records came out of TX; all so far.
    std::vector<ecu::kora::ipc::IpcSignal> tx_records(std::size_t count,
                                                      std::chrono::milliseconds deadline = 10s);
    pid_t pid() const { return m_process->pid(); }
    Process& process() { return *m_process; }
    const NotifySocket& notify() const { return m_notify; }
    TempDir& dir() { return m_dir; }

private:
    TempDir m_dir;
    int m_port;
    std::string m_catalogue;
    NotifySocket m_notify;
    int m_rx_fd = -1;
    int m_tx_fd = -1;
    ecu::kora::ipc::RecordDecoder m_tx_decoder;
    std::vector<ecu::kora::ipc::IpcSignal> m_tx_out;
    std::unique_ptr<Process> m_process;
};

// Writes numbered records (seq_payload) of one RT id into RX at a fixed rate
// from a thread of its own, until stopped or ipcd has closed RX.
class RecordStream {
public:
    RecordStream(Daemon& daemon, std::uint32_t id, unsigned per_second);
    ~RecordStream() { stop(); }
    std::uint64_t stop();  // how many were written
    std::uint64_t written() const { return m_written; }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint64_t> m_written{0};
    std::thread m_thread;
};

Outcome ctl(int port, std::vector<std::string> args);  // ipcd-ctl with the sample catalogue

}  // namespace ipcd_test
