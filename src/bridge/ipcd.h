#pragma once

// IPCd: the bridge between the RT partition's queue ports and the broker.
//
// Four threads enter it:
// - the start-up thread: construction, then run(), which ends blocked in the
//   join of the reader thread;
// - the RX reader thread: consume() per RT record in arrival order, then
//   finished() once;
// - the transport client's delivery thread: message() per broker message;
// - the earlybird thread: waits for the start-up target, drains the earlybird
//   queue once and ends.
// Locks: m_earlybird_mutex guards the earlybird queue and its done flag,
// m_target_mutex the target flag. No operation holds both, and neither is held
// while a message is framed or published. The subscription map is shared
// without a lock: its keys are fixed at construction and its requested flags
// only go from false to true.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <unordered_map>

#include "ipc_signal.h"
#include "message.h"
#include "queue_port.h"
#include "relay_counters.h"
#include "signal_adapter.h"
#include "stats_reporter.h"
#include "transport.h"

namespace ecu::kora::ipcd {

// RT id of "rt/system/time_sync"; set by run() before the reader thread starts
// (tests of the relay set it themselves).
extern std::uint32_t g_time_sync_id;

struct IPCdTestPeer;

class IPCd : public com::ISubscriptionObserver, public ipc::IDataConsumer<ipc::IpcSignal> {
public:
    // One entry of the RT-signal subscription map, keyed by RT id.
    struct RequestTopic {
        RequestTopic(std::string topic_name, bool is_retained)
            : topic(std::move(topic_name)), retained(is_retained) {}
        std::string topic;
        // Set by the delivery thread, read by the reader and earlybird
        // threads; only ever goes from false to true.
        std::atomic<bool> requested{};
        bool retained;
    };

    // One RT record held back until the start-up target is reached.
    struct EarlybirdData {
        EarlybirdData(std::uint32_t id, const std::string& topic_name, const com::Message& msg)
            : rt_id(id), topic(topic_name), message(msg) {}
        std::uint32_t rt_id;
        std::string topic;
        com::Message message;
    };

    // Takes the client over (the caller's pointer is empty afterwards) and
    // builds the subscription map from the signal catalogue.
    explicit IPCd(std::shared_ptr<com::ITransportClient>& transport);
    IPCd(const IPCd&) = delete;
    IPCd& operator=(const IPCd&) = delete;
    ~IPCd() override;

    // Starts everything and blocks until RT reading ends, then ends the
    // process (status 0; status 1 for a start-up failure). Returns only when
    // the broker connection fails.
    void run();

    void message(const std::string& topic, const com::Message& msg) override;
    void consume(const ipc::IpcSignal& signal) override;
    void finished() override;
    void resynchronised(std::size_t skipped_bytes) override;

    // A stop from outside (the service manager): reading ends at once, and
    // publishing no longer waits for a broker that takes nothing, so that
    // the end of data, the health state and the exit follow within a bound.
    // Any thread.
    void request_stop();

    const RelayCounters& counters() const { return m_counters; }

    // Starts the earlybird thread; run() does this once both ports are open.
    void start_earlybird_thread();

    // Runs fn on the RX reader's thread every period while it reads: whoever
    // needs proof that reading goes on (the watchdog). Before run().
    void every_read_period(std::chrono::milliseconds period, std::function<void()> fn) {
        m_reader.every(period, std::move(fn));
    }

    // Settings written by start-up before run(), read-only afterwards.
    std::string m_queue_rx;
    std::string m_queue_tx;
    std::set<std::uint32_t> m_log_rt_signals;
    bool m_log_queue_size{};
    // Statistics every so often on the broker (0: never; start-up sets the
    // configured period); the version they name.
    std::chrono::seconds m_stats_interval{};
    std::string m_version;

private:
    // The unit tests' view of the state below (tests/unit/bridge_test.cpp).
    friend struct IPCdTestPeer;

    std::shared_ptr<com::ITransportClient> m_transport;
    std::map<std::uint32_t, RequestTopic> m_rt_topics;
    std::uint32_t m_requested_count{};
    ipc::TxQueuePort m_writer;
    ipc::RxQueuePort m_reader;
    std::deque<EarlybirdData> m_earlybird;
    std::thread m_earlybird_thread;
    // Records are held for the earlybird thread: from its start until the
    // reader joins it after its drain. Written by the start-up and reader
    // threads.
    std::atomic<bool> m_earlybird_holding{};
    std::mutex m_earlybird_mutex;
    bool m_earlybird_done{};
    std::mutex m_target_mutex;
    std::condition_variable m_target_cv;
    bool m_target_reached{};
    std::unordered_map<std::string, rt::SignalGroup> m_tx_groups;

    RelayCounters m_counters;
    std::unique_ptr<StatsReporter> m_reporter;  // made by run()

    // Removes what an earlier run left retained on the broker that no longer
    // holds: its subscription status and its end of data.
    void clear_stale_state();

    // The reader thread's frame of the record being relayed, reused for every
    // record (consume() only).
    com::Message m_relay_frame;

    void earlybird_flush();
    void send_to_rt(const std::string& topic, const com::Message& msg);
    void handle_system_state(const com::Message& msg);
    void handle_announcement(const com::Message& msg);
    void handle_tpa_status(const std::string& topic, const com::Message& msg);
    void report_target_reached();
};

}  // namespace ecu::kora::ipcd
