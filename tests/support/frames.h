#pragma once

// Broker messages and bodies built and read as clients and the platform do it.

#include <initializer_list>
#include <string>
#include <vector>

#include "message_adapter.h"
#include "support.h"

namespace ipcd_test {

template <typename Payload>
ecu::kora::com::Message message(const Payload& payload, int qos = 0, bool retained = false) {
    ecu::kora::com::Message m;
    m.payload.assign(std::begin(payload), std::end(payload));
    m.qos = static_cast<std::uint8_t>(qos);
    m.retained = retained;
    return m;
}

template <typename T>
Bytes framed(const T& body) {
    return ecu::kora::com::PbInternalMessageAdapter<T>().serialize(body).message.payload;
}

template <typename T>
T unframed(const Bytes& payload) {
    return ecu::kora::com::PbInternalMessageAdapter<T>().deserialize(message(payload)).body;
}

inline Bytes announcement(std::initializer_list<const char*> topics) {
    ecu::kora::pb::SubscriptionMessage body;
    for (const char* t : topics) {
        body.add_topics(t);
    }
    return framed(body);
}

inline Bytes tpa(bool wait_for_target, bool target_reached) {
    ecu::kora::pb::TPAStatus body;
    body.set_wait_for_target(wait_for_target);
    body.set_target_reached(target_reached);
    return framed(body);
}

// What clients send on "rttx/...": named signal values, and a timestamp unless 0.
inline Bytes group_data(std::initializer_list<std::pair<const char*, std::string>> values,
                        std::uint64_t timestamp = 0) {
    ecu::kora::pb::SignalGroupData body;
    if (timestamp != 0) {
        body.set_timestamp(timestamp);
    }
    for (const auto& [name, data] : values) {
        auto* value = body.add_signals();
        value->set_name(name);
        value->set_data(data);
    }
    return framed(body);
}

}  // namespace ipcd_test
