#include "stats_reporter.h"

#include <cstdio>
#include <nlohmann/json.hpp>

#include "date_time.h"
#include "service_manager.h"
#include "topics.h"

namespace ecu::kora::ipcd {

namespace {

com::Message json_message(const std::string& text, std::uint8_t qos) {
    com::Message msg;
    msg.payload.assign(text.begin(), text.end());
    msg.qos = qos;
    msg.retained = true;
    return msg;
}

}  // namespace

StatsReporter::StatsReporter(const RelayCounters& counters, std::string version)
    : m_counters(counters),
      m_version(std::move(version)),
      m_started(Clock::now()),
      m_since_boot_s(
          static_cast<std::uint64_t>(std::chrono::duration_cast<std::chrono::seconds>(
                                         std::chrono::nanoseconds(DateTime::time_since_boot_ns()))
                                         .count())),
      m_last_status(m_started) {}

void StatsReporter::arm(com::ITransportClient& transport) {
    transport.set_will(com::topics::health, json_message(R"({"state":"down"})", 1));
}

void StatsReporter::connected(com::ITransportClient& transport) {
    // Retained, so the transport sends it again after every reconnection,
    // over the will the broker may have published meanwhile.
    const nlohmann::json up = {
        {"state", "up"}, {"version", m_version}, {"since_s", m_since_boot_s}};
    com::Message msg = json_message(up.dump(), 1);
    transport.publish(com::topics::health, msg);
}

void StatsReporter::stopping(com::ITransportClient& transport) {
    com::Message msg = json_message(R"({"state":"down"})", 1);
    transport.publish(com::topics::health, msg);
}

std::string StatsReporter::stats_json(const com::LinkStatus& link) const {
    const auto get = [](const RelayCounters::Count& c) { return RelayCounters::get(c); };
    const nlohmann::json stats = {
        {"version", m_version},
        {"uptime_s",
         std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - m_started).count()},
        {"connected", link.connected},
        {"reconnects", link.reconnects},
        {"rt_to_broker", get(m_counters.rt_to_broker)},
        {"broker_to_rt", get(m_counters.broker_to_rt)},
        {"dropped_offline", link.dropped_offline},
        {"dropped_unrequested", get(m_counters.dropped_unrequested)},
        {"rx_damaged", get(m_counters.rx_damaged)},
        {"unknown_ids", get(m_counters.unknown_ids)},
        {"rttx_refused", get(m_counters.rttx_refused)},
        {"earlybird_depth", get(m_counters.earlybird_depth)},
        {"offline_depth", link.offline_depth},
    };
    return stats.dump();
}

std::string StatsReporter::status_line(const com::LinkStatus& link, double per_second,
                                       std::uint64_t dropped) {
    std::string text =
        link.connected
            ? "connected to the broker"
            : "waiting for the broker" +
                  (link.waiting_reason.empty() ? std::string() : " (" + link.waiting_reason + ")");
    char figures[96];
    std::snprintf(figures, sizeof figures, "; %.0f records/s; %llu dropped so far", per_second,
                  static_cast<unsigned long long>(dropped));
    return text + figures;
}

void StatsReporter::tick(com::ITransportClient& transport, bool publish_stats) {
    const auto now = Clock::now();
    const com::LinkStatus link = transport.link_status();
    const std::uint64_t relayed = RelayCounters::get(m_counters.rt_to_broker);
    const double seconds = std::chrono::duration<double>(now - m_last_status).count();
    const std::uint64_t dropped = link.dropped_offline + RelayCounters::get(m_counters.rx_damaged) +
                                  RelayCounters::get(m_counters.unknown_ids);
    // Ticks are a timer period (a second or more) apart.
    const std::string text =
        status_line(link, static_cast<double>(relayed - m_last_relayed) / seconds, dropped);
    if (text != m_last_status_text) {
        application_status(text);
        m_last_status_text = text;
    }
    m_last_status = now;
    m_last_relayed = relayed;
    if (publish_stats) {
        com::Message msg = json_message(stats_json(link), 0);
        transport.publish(com::topics::stats, msg);
    }
}

}  // namespace ecu::kora::ipcd
