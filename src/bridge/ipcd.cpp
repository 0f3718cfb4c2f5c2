#include "ipcd.h"

#include <cstdlib>
#include <ctime>
#include <utility>

#include "bridge_bodies.pb.h"
#include "logging.h"
#include "message_adapter.h"
#include "rt_signal_frame.h"
#include "service_manager.h"
#include "topics.h"

namespace ecu::kora::ipcd {

namespace {

// Process-wide: tells the service manager "STOPPING=1" when the process ends.
ipc::Systemd g_systemd;

const std::string& g_announcement_topic = com::topics::announcement;
const std::string& g_subscriptions_topic = com::topics::subscription_status;
const std::string& g_frame_start_topic = com::topics::frame_start;
const std::string& g_time_sync_topic = com::topics::time_sync;
const std::string& g_state_topic = com::topics::system_state;
const std::string& g_tpa_topic = com::topics::tpa_status;
const std::string& g_rttx_prefix = com::topics::rttx_prefix;
const std::string& g_rt_prefix = com::topics::rt_prefix;
const std::string& g_eod_topic = com::topics::end_of_data;
const auto g_log = logging::module("daemon");

constexpr std::uint8_t g_shutdown_indication = 4;

void append_hex_byte(std::string& text, std::uint8_t byte) {
    static constexpr char digits[] = "0123456789abcdef";
    text += "0x";
    text += digits[byte >> 4U];
    text += digits[byte & 0x0FU];
    text += ' ';
}

// The first four payload bytes as a little-endian number; missing bytes are 0.
std::uint32_t queue_size_of(const std::vector<std::uint8_t>& data) {
    std::uint32_t value = 0;
    for (std::size_t i = 0; i < data.size() && i < 4; ++i) {
        value |= static_cast<std::uint32_t>(data[i]) << (8U * i);
    }
    return value;
}

}  // namespace

std::uint32_t g_time_sync_id = 0;

IPCd::IPCd(std::shared_ptr<com::ITransportClient>& transport)
    : m_queue_rx(ipc::default_rx_port),
      m_queue_tx(ipc::default_tx_port),
      m_transport(std::move(transport)),
      m_reader(*this) {
    m_tx_groups.reserve(10);
    m_tx_groups.max_load_factor(1.0F);

    const rt::SignalAdapter& catalogue = rt::SignalAdapter::instance();
    for (const auto& topic : catalogue.get_topics("")) {
        auto id = static_cast<std::uint32_t>(catalogue.map_topic_to_rtid(topic));
        auto [it, inserted] =
            m_rt_topics.try_emplace(id, topic, catalogue.is_topic_retained(topic));
        if (!inserted) {
            logging::ALERT << g_log << "Failed to build rt-signal subscription map!";
        }
    }
    logging::INFO << g_log << "RT signal subscription map initialized with " << m_rt_topics.size()
                  << " topics";
}

IPCd::~IPCd() {
    // The daemon never gets here with the earlybird thread running: run() ends
    // the process. Anyone else who does (tests, a failed connection after a
    // started thread) gets the thread released instead of a terminate.
    if (m_earlybird_thread.joinable()) {
        report_target_reached();
        m_earlybird_thread.join();
    }
}

void IPCd::run() {
    application_starting();

    const rt::SignalAdapter& catalogue = rt::SignalAdapter::instance();
    g_time_sync_id = catalogue.map_topic_to_rtid(g_time_sync_topic);
    if (g_time_sync_id == 0) {
        logging::ERROR << g_log << "Unable to set time_sync_id";
        std::exit(1);
    }
    logging::INFO << g_log << "Time sync id: " << g_time_sync_id;

    m_reporter = std::make_unique<StatsReporter>(m_counters, m_version);
    m_reporter->arm(*m_transport);
    if (!m_transport->connect()) {
        logging::ERROR << g_log << "Unable to connect to MQTT broker!";
        return;
    }

    // The bridge lives on main's stack and outlives the client's use of it
    // (every path from here ends the process), so the observer pointers the
    // client keeps must never delete it: they own nothing.
    auto observer = [this] {
        return std::shared_ptr<com::ISubscriptionObserver>(std::shared_ptr<void>(), this);
    };
    m_transport->subscribe(com::topics::rttx_all, 0, observer());
    m_transport->subscribe(g_announcement_topic, 0, observer());
    logging::INFO << g_log << "Subscribed to: '" << g_announcement_topic << "'";
    m_transport->subscribe(g_state_topic, 0, observer());
    logging::INFO << g_log << "Subscribed to: '" << g_state_topic << "'";
    m_transport->subscribe(g_tpa_topic, 0, observer());
    clear_stale_state();
    m_reporter->connected(*m_transport);

    if (catalogue.map_topic_to_rtid(g_frame_start_topic) == 0) {
        logging::EMERG << g_log << "Unable to find FRAME_START_ID topic in SignalAdapter data"
                       << " definition " << g_frame_start_topic;
        std::exit(1);
    }

    if (!m_writer.open(m_queue_tx)) {
        logging::ERROR << g_log << "Unable to open TX queue device for writing: " << m_queue_tx;
        std::exit(1);
    }
    if (!m_reader.open(m_queue_rx)) {
        logging::ERROR << g_log << "Unable to open RX queue device for reading: " << m_queue_rx;
        std::exit(1);
    }

    // The statistics timer runs on the reader's thread: it wakes only for it.
    // With statistics off it still updates the status line, every 10 s.
    const bool stats = m_stats_interval.count() > 0;
    m_reader.every(stats ? m_stats_interval : std::chrono::seconds(10),
                   [this, stats] { m_reporter->tick(*m_transport, stats); });
    // The reader's thread writes RT data to the broker itself.
    if (loop::IPollSource* source = m_transport->poll_source()) {
        m_reader.add_source(*source);
    }
    start_earlybird_thread();
    std::thread reader_thread([this] { m_reader.read_loop(); });
    m_transport->start();

    timespec one_second{1, 0};
    nanosleep(&one_second, nullptr);
    application_ready();

    reader_thread.join();
    // The reader joins a drained earlybird thread only on its next record; if
    // none came, join it here rather than leave a finished thread unjoined.
    // One still waiting for the target is left to the process's end.
    const bool earlybird_done = [this] {
        std::lock_guard<std::mutex> lock(m_earlybird_mutex);
        return m_earlybird_done;
    }();
    if (earlybird_done && m_earlybird_holding.exchange(false)) {
        m_earlybird_thread.join();
    }
    m_reporter->stopping(*m_transport);
    m_transport->stop();
    std::exit(0);
}

void IPCd::clear_stale_state() {
    for (const std::string* topic : {&g_subscriptions_topic, &g_eod_topic}) {
        com::Message clear;  // empty and retained: the broker forgets the topic
        clear.retained = true;
        clear.qos = 1;
        m_transport->publish(*topic, clear);
    }
}

void IPCd::request_stop() {
    m_transport->interrupt();
    m_reader.stop_requested = true;
}

void IPCd::resynchronised(std::size_t) {
    RelayCounters::add(m_counters.rx_damaged);
}

void IPCd::finished() {
    logging::NOTICE << g_log << "Queue reading has been finished.";
    com::Message eod;
    eod.payload = {0x01};
    eod.retained = true;
    m_transport->publish(g_eod_topic, eod);
}

void IPCd::start_earlybird_thread() {
    if (m_earlybird_holding.exchange(true)) {
        std::terminate();  // started twice
    }
    m_earlybird_thread = std::thread([this] { earlybird_flush(); });
}

void IPCd::consume(const ipc::IpcSignal& signal) {
    if (!m_log_rt_signals.empty() && m_log_rt_signals.count(signal.id) != 0 &&
        logging::DEBUG.admits(g_log.get())) {
        std::string dump = "[RT_SIGNAL_LOG] received: '" + std::to_string(signal.id) + "' val: ";
        for (auto it = signal.data.rbegin(); it != signal.data.rend(); ++it) {
            append_hex_byte(dump, *it);
        }
        logging::DEBUG << g_log << dump;
    }
    if (signal.id == g_time_sync_id && m_log_queue_size) {
        logging::NOTICE << g_log << "QUEUE-SIZE: " << queue_size_of(signal.data)
                        << " timestamp: " << signal.timestamp;
    }

    auto entry = m_rt_topics.find(signal.id);
    if (entry == m_rt_topics.end()) {
        RelayCounters::add(m_counters.unknown_ids);
        logging::ERROR << g_log << "Unable to find rt-id " << signal.id
                       << " in the active subscription map";
        return;
    }
    RequestTopic& rt_topic = entry->second;
    const bool requested = rt_topic.requested.load(std::memory_order_relaxed);
    if (logging::INFO.admits(g_log.get())) {
        auto line = logging::INFO << g_log;
        line << "Data for topic '" << rt_topic.topic << "' received "
             << "(rt id: " << signal.id << ") ";
        if (rt_topic.retained) {
            line << "(retained) ";
        }
        if (requested) {
            line << "(subscribed) ";
        }
    }
    const bool holding = m_earlybird_holding.load();
    if (!requested && !holding && !rt_topic.retained) {
        RelayCounters::add(m_counters.dropped_unrequested);
        return;
    }

    // The RtSignal of the record, framed straight into the reader thread's
    // buffer: no body object, no allocation once the buffer has grown.
    com::frame_rt_signal({signal.timestamp, signal.data.data(), signal.data.size(), signal.tag},
                         m_transport->client_name(), m_relay_frame);
    m_relay_frame.retained = rt_topic.retained;

    if (holding && !rt_topic.retained) {
        std::unique_lock<std::mutex> lock(m_earlybird_mutex);
        if (m_earlybird_done) {
            m_earlybird_thread.join();
            m_earlybird_holding.store(false);
            if (!rt_topic.requested.load(std::memory_order_relaxed)) {
                RelayCounters::add(m_counters.dropped_unrequested);
                return;
            }
        } else {
            m_earlybird.emplace_back(signal.id, rt_topic.topic, m_relay_frame);
            RelayCounters::add(m_counters.earlybird_depth);
            logging::DEBUG << g_log << "Queue Message for topic: " << rt_topic.topic
                           << " new queue-size: " << m_earlybird.size();
            return;
        }
    }
    if (m_transport->publish(rt_topic.topic, m_relay_frame) > 0) {
        RelayCounters::add(m_counters.rt_to_broker);
    }
}

void IPCd::earlybird_flush() {
    {
        std::unique_lock<std::mutex> lock(m_target_mutex);
        m_target_cv.wait(lock, [this] { return m_target_reached; });
    }
    std::unique_lock<std::mutex> lock(m_earlybird_mutex);
    const std::size_t initial_size = m_earlybird.size();
    logging::NOTICE << g_log << "kirn.target"
                    << " has been reached on both partitions, start publishing"
                    << " earlybird data (queue size: " << initial_size << ")";
    unsigned processed = 0;
    unsigned published = 0;
    while (!m_earlybird.empty()) {
        std::deque<EarlybirdData> batch;
        batch.swap(m_earlybird);
        m_counters.earlybird_depth.fetch_sub(batch.size(), std::memory_order_relaxed);
        lock.unlock();
        processed += static_cast<unsigned>(batch.size());
        for (auto& held : batch) {
            auto entry = m_rt_topics.find(held.rt_id);
            // The requested flag counts as it stands now, not when the record
            // was queued: a topic announced during the hold gets its records.
            if (entry == m_rt_topics.end() ||
                !entry->second.requested.load(std::memory_order_relaxed)) {
                RelayCounters::add(m_counters.dropped_unrequested);
            } else if (m_transport->publish(held.topic, held.message) > 0) {
                ++published;
                RelayCounters::add(m_counters.rt_to_broker);
            }
        }
        batch.clear();
        lock.lock();
    }
    logging::NOTICE << g_log << "Earlybird message processing done. " << processed
                    << " entries have been processed through"
                    << " the ipcd earlybird queue and " << published << " have been published"
                    << " to subscribed topics. The initial queue size was " << initial_size;
    m_earlybird_done = true;
}

void IPCd::message(const std::string& topic, const com::Message& msg) {
    logging::DEBUG << g_log << "Message received on topic: '" << topic;
    if (topic == g_state_topic) {
        handle_system_state(msg);
    } else if (topic == g_announcement_topic) {
        handle_announcement(msg);
    } else if (topic.compare(0, g_rttx_prefix.size(), g_rttx_prefix) == 0) {
        send_to_rt(topic, msg);
    } else if (topic == g_tpa_topic) {
        handle_tpa_status(topic, msg);
    } else {
        logging::INFO << g_log << "Message received on unhandled topic "
                      << "'" << topic << "'";
    }
}

void IPCd::handle_system_state(const com::Message& msg) {
    com::PbInternalMessageAdapter<pb::RtSignal> adapter(1);
    auto result = adapter.deserialize(msg);
    if (!result.success) {
        logging::ERROR << g_log << "Unable to deserialize message on " << g_state_topic
                       << " topic. error(" << static_cast<int>(result.error) << ")";
        return;
    }
    const std::string& data = result.body.data();
    const unsigned value = data.empty() ? 0U : static_cast<std::uint8_t>(data[0]);
    logging::DEBUG << g_log << "system-state value: '" << value << "'";
    if (value == g_shutdown_indication) {
        logging::NOTICE << g_log << "Received shutdown indication!";
        m_reader.stop_requested = true;
    }
}

void IPCd::handle_announcement(const com::Message& msg) {
    com::PbInternalMessageAdapter<pb::SubscriptionMessage> adapter(1);
    auto result = adapter.deserialize(msg);
    if (!result.success) {
        logging::ERROR << g_log << "Received a subscription announcement, but NO"
                       << " SubscriptionMessage was included! error("
                       << static_cast<int>(result.error) << ")";
        return;
    }
    const rt::SignalAdapter& catalogue = rt::SignalAdapter::instance();
    for (const auto& topic : result.body.topics()) {
        if (topic.compare(0, g_rt_prefix.size(), g_rt_prefix) != 0) {
            logging::INFO << g_log
                          << "Client App request data for non rt-topic (ignored): " << topic;
            continue;
        }
        std::uint32_t id = catalogue.map_topic_to_rtid(topic);
        if (id == 0) {
            logging::INFO << g_log << "Client App request data for non recognized"
                          << " rt-topic(ignored): " << topic;
            continue;
        }
        auto entry = m_rt_topics.find(id);
        if (entry == m_rt_topics.end()) {
            logging::INFO << g_log << "Client App requested data for rt-topic missing "
                          << "in subscription map (ignored): " << topic;
            continue;
        }
        logging::INFO << g_log << "Client App request data for: " << topic;
        entry->second.requested.store(true, std::memory_order_relaxed);
    }

    std::uint32_t count = 0;
    for (const auto& [id, entry] : m_rt_topics) {
        count += entry.requested.load(std::memory_order_relaxed) ? 1U : 0U;
    }
    if (count == m_requested_count) {
        return;
    }
    // Updated before the status is sent: a status that fails to frame is not
    // retried until the count grows again.
    m_requested_count = count;

    pb::SubscriptionStatus status;
    for (const auto& [id, entry] : m_rt_topics) {
        if (entry.requested.load(std::memory_order_relaxed)) {
            status.add_topics(entry.topic);
        }
    }
    status.set_topic_count(static_cast<std::uint32_t>(m_rt_topics.size()));
    status.set_requested_count(count);

    com::PbInternalMessageAdapter<pb::SubscriptionStatus> status_adapter(1);
    auto framed = status_adapter.serialize(status);
    if (!framed.success) {
        return;
    }
    com::Message out = framed.message;
    out.qos = 1;
    out.retained = true;
    m_transport->publish(g_subscriptions_topic, out);
}

void IPCd::handle_tpa_status(const std::string& topic, const com::Message& msg) {
    com::PbInternalMessageAdapter<pb::TPAStatus> adapter(1);
    auto result = adapter.deserialize(msg);
    if (!result.success) {
        logging::WARNING << g_log << "Failed to deserialize: " << topic;
        return;
    }
    if (result.body.wait_for_target() && !result.body.target_reached()) {
        return;
    }
    report_target_reached();
}

void IPCd::report_target_reached() {
    {
        std::lock_guard<std::mutex> lock(m_target_mutex);
        m_target_reached = true;
    }
    m_target_cv.notify_one();
}

void IPCd::send_to_rt(const std::string& topic, const com::Message& msg) {
    const std::string catalogue_topic = com::topics::catalogue_topic(topic);
    const rt::SignalAdapter& catalogue = rt::SignalAdapter::instance();
    std::uint32_t id = catalogue.map_topic_to_rtid(catalogue_topic);
    if (id == 0) {
        RelayCounters::add(m_counters.rttx_refused);
        logging::ERROR << g_log << "Unable to find id for '" << catalogue_topic
                       << "', unable to send data to RT.";
        return;
    }
    if (m_log_rt_signals.count(id) != 0) {
        logging::DEBUG << g_log << "[RT_SIGNAL_LOG] send: " << id;
    }
    logging::INFO << g_log << "Send data to RT for topic '" << topic << "' (rt id: " << id << ")";

    auto [ok, fresh, error_text] = catalogue.unpack(catalogue_topic, msg);
    if (!ok) {
        RelayCounters::add(m_counters.rttx_refused);
        logging::ERROR << g_log << "Unpacking of SignalGroup for topic '" << catalogue_topic
                       << "' failed";
        return;
    }
    ipc::IpcSignal record;
    record.id = id;
    record.tag = 0;
    record.timestamp = fresh.timestamp();

    std::string image;
    auto cached = m_tx_groups.find(catalogue_topic);
    if (cached != m_tx_groups.end()) {
        // Signals the message does not carry keep their last value.
        const std::vector<std::string> names = fresh.signal_names();
        for (const auto& name : names) {
            cached->second.set_signal_data(name, fresh.signal(name).data());
        }
        image = catalogue.add_padding(cached->second);
    } else {
        image = catalogue.add_padding(fresh);
        m_tx_groups.emplace(catalogue_topic, std::move(fresh));
    }
    record.data.assign(image.begin(), image.end());

    if (m_writer.transmit_data(record)) {
        RelayCounters::add(m_counters.broker_to_rt);
        return;
    }
    RelayCounters::add(m_counters.rttx_refused);
    logging::ALERT << g_log << "TX queue port is gone, there's nothing more to do."
                   << " The ECU will be restarted!";
    stop_rt_service();
    m_reader.stop_requested = true;
}

}  // namespace ecu::kora::ipcd
