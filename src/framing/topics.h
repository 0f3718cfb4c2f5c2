#pragma once

// The broker topics of ipcd's protocol with client applications and the
// platform. ipcd and its tools use these definitions; nothing else spells
// them out.

#include <string>

namespace ecu::kora::com::topics {

// Clients announce the rt/ topics they want (SubscriptionMessage).
inline const std::string announcement = "subscription/announcement";
// ipcd's answer: every topic requested so far (SubscriptionStatus, retained, QoS 1).
inline const std::string subscription_status = "system/ipc/subscriptions";
// The RT side's system state (RtSignal; first data byte, 4 = shutdown).
inline const std::string system_state = "system/state/rt";
// The platform's start-up status (TPAStatus), which releases held RT data.
inline const std::string tpa_status = "system/tpa/status";
// One raw byte 0x01, retained: RT data has ended.
inline const std::string end_of_data = "system/rt/eod";

// RT data goes out on the catalogue's topics, which begin with rt_prefix;
// clients write to the RT side under rttx_prefix followed by the same path.
inline const std::string rt_prefix = "rt/";
inline const std::string rttx_prefix = "rttx/";
inline const std::string rttx_all = "rttx/#";

// The catalogue topic of a topic that begins with rttx_prefix: "rttx/a/b"
// gives "rt/a/b". Nothing else in the topic is changed or checked.
inline std::string catalogue_topic(const std::string& rttx_topic) {
    return rt_prefix + rttx_topic.substr(rttx_prefix.size());
}

// Catalogue topics whose RT ids ipcd needs at start.
inline const std::string time_sync = "rt/system/time_sync";
inline const std::string frame_start = "rt/system/timestamp";

// ipcd's own state for the fleet and for operators: a flat JSON object of
// counters, and its health ("up", or "down" as its last will), both retained.
inline const std::string stats = "system/ipc/stats";
inline const std::string health = "system/ipc/health";

}  // namespace ecu::kora::com::topics
