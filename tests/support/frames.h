#pragma once

// Broker bodies framed and unframed as client applications and the platform
// do it, for tests that speak to ipcd directly.

#include <initializer_list>
#include <vector>

#include "message_adapter.h"

namespace ipcd_test {

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

// A framed announcement of the topics, as a client application sends it.
inline std::vector<std::uint8_t> announcement(std::initializer_list<const char*> topics) {
    ecu::kora::pb::SubscriptionMessage body;
    for (const char* t : topics) {
        body.add_topics(t);
    }
    return framed(body);
}

// A framed start-up status, as the platform sends it.
inline std::vector<std::uint8_t> tpa(bool wait_for_target, bool target_reached) {
    ecu::kora::pb::TPAStatus body;
    body.set_wait_for_target(wait_for_target);
    body.set_target_reached(target_reached);
    return framed(body);
}

}  // namespace ipcd_test
