#pragma once

// Something a thread's poll loop serves besides its own descriptors: the
// RX reader's thread also drives the broker connection that carries RT data,
// so that a record goes from the device to the socket without changing
// threads. Called on that thread only.

#include <poll.h>

#include <chrono>
#include <cstddef>

namespace ecu::kora::loop {

class IPollSource {
public:
    using Clock = std::chrono::steady_clock;

    virtual ~IPollSource() = default;
    // Fills up to max slots with the descriptors and events to wait for now;
    // returns how many it used.
    virtual std::size_t fill(pollfd* slots, std::size_t max) = 0;
    // After poll(): the slots it filled, with their revents; also called when
    // due() has come (revents all 0 then).
    virtual void serve(const pollfd* slots, std::size_t count) = 0;
    // When serve() must run even without an event (max(): never).
    virtual Clock::time_point due() const = 0;
    // The loop handed on what one wake-up found: write it out now, in as few
    // writes as possible.
    virtual void flush() = 0;
    // False while it holds as much as it may: the loop reads no more input
    // until it drains (the RT side waits).
    virtual bool accepts_more() const = 0;
};

}  // namespace ecu::kora::loop
