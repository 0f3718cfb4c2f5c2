#pragma once

// The few MQTT 3.1.1 packets a publish-only connection needs, built straight
// into an output buffer, and a reader that splits the broker's bytes into
// packets. No allocation per packet once the buffers have grown.

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace ecu::kora::com::packets {

enum Type : std::uint8_t {
    connect = 1,
    connack = 2,
    publish = 3,
    pingreq = 12,
    pingresp = 13,
    disconnect = 14,
};

// The most a remaining length can say (four bytes of seven bits).
inline constexpr std::size_t max_remaining = 268435455;

// CONNECT with a clean session; user and password only when not empty.
void append_connect(std::vector<std::uint8_t>& out, const std::string& client_id,
                    std::uint16_t keepalive_s, const std::string& user,
                    const std::string& password);
// PUBLISH at QoS 0. False (and nothing appended) when the topic is longer
// than 65,535 bytes or the packet longer than max_remaining.
bool append_publish(std::vector<std::uint8_t>& out, const std::string& topic,
                    const std::uint8_t* payload, std::size_t size, bool retained);
void append_pingreq(std::vector<std::uint8_t>& out);
void append_disconnect(std::vector<std::uint8_t>& out);

// The broker's bytes, split into packets as they come.
class PacketReader {
public:
    // The broker of a publish-only client sends small packets only.
    static constexpr std::size_t max_packet = 65536;

    void feed(const std::uint8_t* data, std::size_t size);
    // The next whole packet's type (high nibble of its first byte) and body;
    // false when none is complete yet or the stream is broken (see broken()).
    bool next(std::uint8_t& type, std::vector<std::uint8_t>& body);
    // A remaining length of more than four bytes, or a packet over max_packet:
    // the connection cannot be read any further.
    bool broken() const { return m_broken; }

private:
    std::vector<std::uint8_t> m_bytes;
    bool m_broken{};
};

}  // namespace ecu::kora::com::packets
