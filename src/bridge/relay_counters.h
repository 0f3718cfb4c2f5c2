#pragma once

// What the relay has done since the daemon started, counted where it happens
// and read by the statistics reporter. Relaxed atomics: each count is exact,
// the set of counts is not a snapshot, and counting costs one uncontended add.

#include <atomic>
#include <cstdint>

namespace ecu::kora::ipcd {

struct RelayCounters {
    using Count = std::atomic<std::uint64_t>;

    Count rt_to_broker{};         // RT records published on the broker
    Count broker_to_rt{};         // records written to TX
    Count dropped_unrequested{};  // RT records of topics no client requested
    Count rx_damaged{};           // stretches of damage skipped in RX
    Count unknown_ids{};          // RT records of ids the catalogue lacks
    Count rttx_refused{};         // rttx messages not written to TX
    Count earlybird_depth{};      // RT records held for the start-up target now

    static void add(Count& count, std::uint64_t n = 1) {
        count.fetch_add(n, std::memory_order_relaxed);
    }
    static std::uint64_t get(const Count& count) { return count.load(std::memory_order_relaxed); }
};

}  // namespace ecu::kora::ipcd
