#pragma once

#include <algorithm>
#include <initializer_list>
#include <string>
#include <vector>

#include "message_adapter.h"

namespace ipcd_test {

// Broker bodies framed and unframed as clients and the platform do it.
template <typename T>
std::vector<std::uint8_t> framed(const T& body) {
    return ecu::kora::com::PbInternalMessageAdapter<T>().serialize(body).message.payload;
}

template <typename T>
T unframed(const std::vector<std::uint8_t>& payload) {
    ecu::kora::com::Message msg;
    msg.payload = payload;
    return ecu::kora::com::PbInternalMessageAdapter<T>().deserialize(msg).body;
}

inline std::vector<std::uint8_t> announcement(std::initializer_list<const char*> topics) {
    ecu::kora::pb::SubscriptionMessage body;
    for (const char* t : topics) {
        body.add_topics(t);
    }
    return framed(body);
}

// The data of record seq of a stream: its number, then filler up to size.
inline std::vector<std::uint8_t> seq_payload(std::uint64_t seq, std::size_t size = 16) {
    std::vector<std::uint8_t> data(std::max<std::size_t>(size, 8), 0x5A);
    for (std::size_t i = 0; i < 8; ++i) {
        data[i] = static_cast<std::uint8_t>(seq >> (8 * i));
    }
    return data;
}

// The number of a relayed seq_payload record (a framed RtSignal).
inline std::uint64_t seq_of(const std::vector<std::uint8_t>& framed_rt_signal) {
    const std::string data = unframed<ecu::kora::pb::RtSignal>(framed_rt_signal).data();
    std::uint64_t seq = 0;
    for (std::size_t i = std::min<std::size_t>(data.size(), 8); i-- > 0;) {
        seq = seq << 8U | static_cast<std::uint8_t>(data[i]);
    }
    return seq;
}

inline std::vector<std::uint8_t> tpa(bool wait_for_target, bool target_reached) {
    ecu::kora::pb::TPAStatus body;
    body.set_wait_for_target(wait_for_target);
    body.set_target_reached(target_reached);
    return framed(body);
}

}  // namespace ipcd_test
