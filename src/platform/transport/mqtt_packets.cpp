#include "mqtt_packets.h"

namespace ecu::kora::com::packets {

namespace {

void append_length(std::vector<std::uint8_t>& out, std::size_t length) {
    do {
        auto byte = static_cast<std::uint8_t>(length % 128);
        length /= 128;
        if (length > 0) {
            byte |= 0x80U;
        }
        out.push_back(byte);
    } while (length > 0);
}

void append_u16(std::vector<std::uint8_t>& out, std::size_t value) {
    out.push_back(static_cast<std::uint8_t>(value >> 8U));
    out.push_back(static_cast<std::uint8_t>(value & 0xFFU));
}

void append_string(std::vector<std::uint8_t>& out, const std::string& text) {
    append_u16(out, text.size());
    out.insert(out.end(), text.begin(), text.end());
}

}  // namespace

void append_connect(std::vector<std::uint8_t>& out, const std::string& client_id,
                    std::uint16_t keepalive_s, const std::string& user,
                    const std::string& password) {
    std::uint8_t flags = 0x02;  // clean session
    std::size_t length = 10 + 2 + client_id.size();
    if (!user.empty()) {
        flags |= 0x80U;
        length += 2 + user.size();
        if (!password.empty()) {
            flags |= 0x40U;
            length += 2 + password.size();
        }
    }
    out.push_back(static_cast<std::uint8_t>(connect << 4U));
    append_length(out, length);
    append_string(out, "MQTT");
    out.push_back(4);  // protocol level: 3.1.1
    out.push_back(flags);
    append_u16(out, keepalive_s);
    append_string(out, client_id);
    if (!user.empty()) {
        append_string(out, user);
        if (!password.empty()) {
            append_string(out, password);
        }
    }
}

bool append_publish(std::vector<std::uint8_t>& out, const std::string& topic,
                    const std::uint8_t* payload, std::size_t size, bool retained) {
    const std::size_t length = 2 + topic.size() + size;
    if (topic.size() > 65535 || size > max_remaining || length > max_remaining) {
        return false;
    }
    out.push_back(static_cast<std::uint8_t>((publish << 4U) | (retained ? 1U : 0U)));
    append_length(out, length);
    append_string(out, topic);
    out.insert(out.end(), payload, payload + size);
    return true;
}

void append_pingreq(std::vector<std::uint8_t>& out) {
    out.push_back(static_cast<std::uint8_t>(pingreq << 4U));
    out.push_back(0);
}

void append_disconnect(std::vector<std::uint8_t>& out) {
    out.push_back(static_cast<std::uint8_t>(disconnect << 4U));
    out.push_back(0);
}

void PacketReader::feed(const std::uint8_t* data, std::size_t size) {
    m_bytes.insert(m_bytes.end(), data, data + size);
}

bool PacketReader::next(std::uint8_t& type, std::vector<std::uint8_t>& body) {
    // A broken stream stays broken: its bad length stays at the front.
    std::size_t length = 0;
    std::size_t at = 1;
    for (unsigned shift = 0;; shift += 7) {
        if (at >= m_bytes.size()) {
            return false;  // the length is still coming
        }
        const std::uint8_t byte = m_bytes[at++];
        length |= static_cast<std::size_t>(byte & 0x7FU) << shift;
        if ((byte & 0x80U) == 0) {
            break;
        }
        if (at > 4) {
            m_broken = true;
            return false;
        }
    }
    if (length > max_packet) {
        m_broken = true;
        return false;
    }
    if (m_bytes.size() < at + length) {
        return false;
    }
    type = static_cast<std::uint8_t>(m_bytes[0] >> 4U);
    body.assign(m_bytes.begin() + static_cast<long>(at),
                m_bytes.begin() + static_cast<long>(at + length));
    m_bytes.erase(m_bytes.begin(), m_bytes.begin() + static_cast<long>(at + length));
    return true;
}

}  // namespace ecu::kora::com::packets
