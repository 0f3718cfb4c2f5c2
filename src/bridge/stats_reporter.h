#pragma once

// What ipcd shows of itself from outside, beside the relay:
// - "system/ipc/stats": a retained JSON object with the relay's counts, every
//   interval (0: never);
// - "system/ipc/health": retained {"state":"up",...} on every connection (the
//   transport restores it after a reconnection), {"state":"down"} as the last
//   will for a death or a link that timed out, and sent on an orderly stop;
// - the service manager's STATUS= line: connected or waiting (and why),
//   records per second, dropped so far; at most once a second.
//
// Threads: arm() and connected() on the start-up thread, tick() on the RX
// reader's thread (its timer), stopping() on the start-up thread at the end.

#include <chrono>
#include <cstdint>
#include <string>

#include "relay_counters.h"
#include "transport.h"

namespace ecu::kora::ipcd {

class StatsReporter {
public:
    StatsReporter(const RelayCounters& counters, std::string version);

    // Before connect(): the last will.
    void arm(com::ITransportClient& transport);
    // After the first connection: health up.
    void connected(com::ITransportClient& transport);
    // The timer's work, once a period of a second or more: the status line
    // when it changed and, when publish_stats, the statistics message.
    void tick(com::ITransportClient& transport, bool publish_stats);
    // An orderly stop: health down, published by ipcd itself.
    void stopping(com::ITransportClient& transport);

    // The statistics object as published.
    std::string stats_json(const com::LinkStatus& link) const;
    // The STATUS= text for the link and the records per second.
    static std::string status_line(const com::LinkStatus& link, double per_second,
                                   std::uint64_t dropped);

private:
    using Clock = std::chrono::steady_clock;

    const RelayCounters& m_counters;
    const std::string m_version;
    const Clock::time_point m_started;
    std::uint64_t m_since_boot_s;
    Clock::time_point m_last_status;  // of the last tick, or the start
    std::uint64_t m_last_relayed{};
    std::string m_last_status_text;
};

}  // namespace ecu::kora::ipcd
