#pragma once

// The real ipcd with its ports: two FIFOs of its own, a catalogue, and a
// service-manager notification socket. The TX FIFO is open for reading before
// ipcd starts (ipcd opens TX first and needs its reader); the RX FIFO is
// opened for writing once ipcd has opened it.

#include <sys/types.h>

#include <atomic>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "ipc_signal.h"
#include "notify_socket.h"
#include "process.h"
#include "record_format.h"
#include "temp_dir.h"

namespace ipcd_test {

std::string ipcd_binary();
std::string sim_binary();
std::string ctl_binary();
std::string sample_catalogue();

class Daemon {
public:
    explicit Daemon(int port, std::string catalogue = sample_catalogue());
    ~Daemon();
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // ipcd -L -H 127.0.0.1 -p PORT -r RX -t TX, then the extra arguments. A
    // wrapper (e.g. "valgrind --tool=callgrind") goes in front.
    void start(std::vector<std::string> extra = {}, std::vector<std::string> env = {},
               const std::string& wrapper = {});
    // Starts, waits for READY=1 and opens RX for writing.
    void start_ready(std::vector<std::string> extra = {}, std::vector<std::string> env = {},
                     const std::string& wrapper = {});
    void open_rx();
    void write_record(std::uint32_t id, const std::vector<std::uint8_t>& data,
                      std::uint64_t timestamp = 1, std::uint8_t tag = 0);
    void write_raw(const std::uint8_t* bytes, std::size_t size);
    void write_raw(const std::vector<std::uint8_t>& bytes) {
        write_raw(bytes.data(), bytes.size());
    }
    void close_rx();
    void close_tx();
    // Closes RX (ipcd then ends in order) and waits for the exit status.
    std::optional<int> stop();

    // Waits until count records have come out of TX; all of them so far.
    std::vector<ecu::kora::ipc::IpcSignal> tx_records(std::size_t count,
                                                      std::chrono::milliseconds deadline = 10s);

    pid_t pid() const { return m_process->pid(); }
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

// Writes records numbered 0, 1, 2, ... (seq_payload) of one RT id into the RX
// FIFO at a fixed rate from a thread of its own, until stopped, the limit is
// reached, or ipcd has closed RX.
class RecordStream {
public:
    RecordStream(Daemon& daemon, std::uint32_t id, unsigned per_second,
                 std::uint64_t limit = UINT64_MAX);
    ~RecordStream();
    RecordStream(const RecordStream&) = delete;
    RecordStream& operator=(const RecordStream&) = delete;

    // Stops writing; how many records were written.
    std::uint64_t stop();
    std::uint64_t written() const { return m_written; }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint64_t> m_written{0};
    std::thread m_thread;
};

// ipcd-ctl against the broker on 127.0.0.1:port with the sample catalogue.
Outcome ctl(int port, std::vector<std::string> args);

}  // namespace ipcd_test
