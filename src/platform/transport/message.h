#pragma once

// The broker message as the transport client takes and delivers it: payload
// bytes with their QoS, retain flag and framing stamp.

#include <cstdint>
#include <vector>

namespace ecu::kora::com {

// One broker message: what is published and what is delivered.
struct Message {
    Message() = default;
    Message(const Message&) = default;
    Message(Message&&) noexcept = default;
    Message& operator=(const Message&) = default;
    Message& operator=(Message&&) noexcept = default;
    virtual ~Message() = default;

    std::uint8_t qos{};
    // Nanoseconds since boot when the message was framed; 0 for raw messages.
    std::uint64_t timestamp{};
    // 1 for framed messages, 0 for raw ones.
    std::uint8_t format{};
    std::vector<std::uint8_t> payload;
    bool retained{};
};

}  // namespace ecu::kora::com
