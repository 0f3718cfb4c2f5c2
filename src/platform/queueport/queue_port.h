#pragma once

// Queue ports: the devices through which records pass between the RT
// partition and this side. On the vehicle a queue port is a message-oriented
// character device; here it is a FIFO or a regular file. Both directions carry
// the records of record_format.h.
//
// The RX reader's thread sleeps in poll() until the device has bytes, a
// timer of its owner is due, or it is woken for a stop: an idle port costs no
// wake-ups.
//
// Template parameters: Depth is the depth of the vehicle's queue port in
// records (24 for RX, 8 for TX), and Record (signal_t_dyn<Depth>) the record
// type of such a port, with a payload of any length up to the record limit:
// its value_type is what the port delivers or takes. On a FIFO
// the reader hands at most Depth records to its consumer between two looks at
// stop_requested, and the writer waits at most Depth x 125 ms for room in a
// full device (the time the RT side gets to drain a full queue) before it
// reports the port as lost.

#include <atomic>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "descriptor.h"
#include "ipc_signal.h"
#include "poll_source.h"
#include "record_format.h"

// The vehicle's two queue-port devices, the defaults wherever a port is not
// named. Macros as well, so that help texts can join them into their literals.
#define KORA_QPORT_DEFAULT_RX "/dev/qport/telematics_kpx_receive"
#define KORA_QPORT_DEFAULT_TX "/dev/qport/telematics_kpx_send"

namespace ecu::kora::ipc {

inline constexpr const char* default_rx_port = KORA_QPORT_DEFAULT_RX;
inline constexpr const char* default_tx_port = KORA_QPORT_DEFAULT_TX;

template <std::size_t Depth>
// NOLINTNEXTLINE(readability-identifier-naming): the platform's name for the record type
struct signal_t_dyn {
    static constexpr std::size_t depth = Depth;
    using value_type = IpcSignal;
};

// A stop request that wakes the reading loop it belongs to: once set, the
// loop ends promptly whether records are flowing or the port is idle. Set
// from any thread; it only ever goes from false to true.
class StopRequest {
public:
    StopRequest();
    StopRequest(const StopRequest&) = delete;
    StopRequest& operator=(const StopRequest&) = delete;

    StopRequest& operator=(bool value);
    bool load() const { return m_flag.load(); }
    operator bool() const {
        return load();
    }  // NOLINT(google-explicit-constructor): reads as the flag it replaces
    // Readable once the request is set; for the loop's poll().
    int fd() const { return m_event.get(); }

private:
    std::atomic<bool> m_flag{};
    loop::Descriptor m_event;
};

// The RX port. open() on the start-up thread, then read_loop() on a thread of
// its own until the device ends or stop_requested is set.
template <std::size_t Depth, typename Record>
class QueuePortReader {
    static_assert(Record::depth == Depth, "the record type of another port depth");

public:
    using Signal = typename Record::value_type;

    // A record whose declared bytes have not all arrived this long after its
    // header is damage: the records behind it are not held back by it.
    static constexpr std::chrono::milliseconds partial_record_wait{300};

    // The consumer is not owned; it must outlive the reading loop.
    explicit QueuePortReader(IDataConsumer<Signal>& consumer);
    QueuePortReader(const QueuePortReader&) = delete;
    QueuePortReader& operator=(const QueuePortReader&) = delete;
    virtual ~QueuePortReader() = default;

    // Opens the device for reading without waiting for a writer. False (with
    // an ERROR line naming the path and the reason) when it cannot be opened.
    bool open(const std::string& path);

    // Delivers every record to consume() in arrival order, then calls
    // finished() once: at the end of a regular file, when the last writer of a
    // FIFO closes (a FIFO without a writer yet is waited for), on a read
    // error, or as soon as stop_requested is set.
    virtual void read_loop();

    // Runs fn on the reading thread every period while read_loop runs (the
    // first time one period after it starts). Register before read_loop.
    void every(std::chrono::milliseconds period, std::function<void()> fn);

    // Serves source on the reading thread as well: its descriptors join the
    // poll, and after every batch of records handed to the consumer it is
    // told to flush. Register before read_loop; it must outlive it.
    void add_source(loop::IPollSource& source) { m_source = &source; }

    // Set from another thread to end read_loop.
    StopRequest stop_requested;

private:
    struct Timer {
        std::chrono::milliseconds period;
        std::function<void()> fn;
        std::chrono::steady_clock::time_point due;
    };
    // Runs the timers that are due; the poll() timeout until the next one
    // (-1: none).
    int run_timers(std::chrono::steady_clock::time_point partial_deadline);

    std::vector<Timer> m_timers;
    loop::IPollSource* m_source = nullptr;
    IDataConsumer<Signal>& m_consumer;
    loop::Descriptor m_device;
    std::string m_path;
};

// The TX port; used from one thread.
template <std::size_t Depth, typename Record>
class QueuePortWriter {
    static_assert(Record::depth == Depth, "the record type of another port depth");

public:
    using Signal = typename Record::value_type;

    QueuePortWriter() = default;
    QueuePortWriter(const QueuePortWriter&) = delete;
    QueuePortWriter& operator=(const QueuePortWriter&) = delete;

    // Opens the device for writing. A FIFO without a reader is waited for up
    // to 2 s. False (with an ERROR line naming the path and the reason) on failure.
    bool open(const std::string& path);

    // Writes one record in one write(). False when the port is no longer
    // usable (reader gone, write error, no room within the wait above).
    bool transmit_data(const Signal& signal);

private:
    loop::Descriptor m_device;
    std::string m_path;
    std::vector<std::uint8_t> m_buffer;
};

using RxQueuePort = QueuePortReader<24, signal_t_dyn<24>>;
using TxQueuePort = QueuePortWriter<8, signal_t_dyn<8>>;

}  // namespace ecu::kora::ipc
