#pragma once

// Numbered records of a stream as a subscriber sees them. A record's number
// and send time travel as the first 16 bytes of its RtSignal data
// (seq_payload); the tally keeps every arrival in order.

#include <mosquitto.h>

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

namespace ipcd_test {

// CLOCK_MONOTONIC in nanoseconds: send and arrival times on one machine.
std::uint64_t mono_ns();

// The data of record seq: its number and send time, then filler up to size.
std::vector<std::uint8_t> seq_payload(std::uint64_t seq, std::uint64_t sent_ns = 0,
                                      std::size_t size = 16);

class Tally {
public:
    struct Arrival {
        std::uint64_t seq;
        std::uint64_t sent_ns;
        std::uint64_t at_ns;
    };

    // An MqttPeer handler: a framed RtSignal that carries a number is counted.
    void on_message(const mosquitto_message& msg);
    void add(const Arrival& arrival);

    std::size_t unique() const;
    std::size_t duplicates() const;
    std::vector<std::uint64_t> order() const;
    std::vector<Arrival> arrivals() const;
    // Until count distinct numbers arrived, or nothing came for quiet.
    bool wait_for(std::size_t count,
                  std::chrono::milliseconds quiet = std::chrono::seconds(2)) const;

private:
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    std::vector<bool> m_seen;
    std::vector<Arrival> m_arrivals;
    std::size_t m_unique = 0;
};

}  // namespace ipcd_test
