#pragma once

// Queue ports: the devices through which records pass between the RT
// partition and this side. On the vehicle a queue port is a message-oriented
// character device; here it is a FIFO or a regular file. Both directions carry
// the records of record_format.h.
//
// Template parameters: Depth is the depth of the vehicle's queue port in
// records (24 for RX, 8 for TX), and signal_t_dyn<Depth> the record type of
// such a port, with a payload of any length up to the record limit. On a FIFO
// the reader hands at most Depth records to its consumer between two looks at
// stop_requested, and the writer waits at most Depth x 125 ms for room in a
// full device (the time the RT side gets to drain a full queue) before it
// reports the port as lost.

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "ipc_signal.h"
#include "record_format.h"

namespace ecu::kora::ipc {

template <std::size_t Depth>
// NOLINTNEXTLINE(readability-identifier-naming): the platform's name for the record type
struct signal_t_dyn {
    static constexpr std::size_t depth = Depth;
    using value_type = IpcSignal;
};

// The RX port. open() on the start-up thread, then read_loop() on a thread of
// its own until the device ends or stop_requested is set.
template <std::size_t Depth, typename Record>
class QueuePortReader {
public:
    // The consumer is not owned; it must outlive the reading loop.
    explicit QueuePortReader(IDataConsumer<IpcSignal>& consumer);
    QueuePortReader(const QueuePortReader&) = delete;
    QueuePortReader& operator=(const QueuePortReader&) = delete;
    virtual ~QueuePortReader();

    // Opens the device for reading without waiting for a writer. False (with
    // an ERROR line naming the path and the reason) when it cannot be opened.
    bool open(const std::string& path);

    // Delivers every record to consume() in arrival order, then calls
    // finished() once: at the end of a regular file, when the last writer of a
    // FIFO closes (a FIFO without a writer yet is waited for), on a read
    // error, or within 100 ms of stop_requested being set.
    virtual void read_loop();

    // Set from another thread to end read_loop.
    std::atomic<bool> stop_requested{false};

    // Rounds of read_loop so far. It goes round at least every 50 ms while it
    // reads, so a count that stands still means a reader stuck in a record.
    std::uint64_t rounds() const { return m_rounds.load(std::memory_order_relaxed); }

private:
    std::atomic<std::uint64_t> m_rounds{};
    IDataConsumer<IpcSignal>& m_consumer;
    int m_fd = -1;
    std::string m_path;
};

// The TX port; used from one thread.
template <std::size_t Depth, typename Record>
class QueuePortWriter {
public:
    QueuePortWriter() = default;
    QueuePortWriter(const QueuePortWriter&) = delete;
    QueuePortWriter& operator=(const QueuePortWriter&) = delete;
    ~QueuePortWriter();

    // Opens the device for writing. A FIFO without a reader is waited for up
    // to 2 s. False (with an ERROR line naming the path and the reason) on failure.
    bool open(const std::string& path);

    // Writes one record in one write(). False when the port is no longer
    // usable (reader gone, write error, no room within the wait above).
    bool transmit_data(const IpcSignal& signal);

private:
    int m_fd = -1;
    std::string m_path;
    std::vector<std::uint8_t> m_buffer;
};

using RxQueuePort = QueuePortReader<24, signal_t_dyn<24>>;
using TxQueuePort = QueuePortWriter<8, signal_t_dyn<8>>;

}  // namespace ecu::kora::ipc
