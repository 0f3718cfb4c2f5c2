#pragma once

// Settings the transport client takes from the configuration, and the two
// well-known topics of the subscription protocol.

#include <map>
#include <set>
#include <string>

namespace ecu::kora::com {

inline const std::map<std::string, std::string> transport_defaults = {
    {"host", "localhost"},
    {"port", "1883"},
};
inline const std::set<std::string> transport_required_keys = {"host", "port", "client_name"};
inline const std::string subscription_announcement_topic = "subscription/announcement";
inline const std::string subscription_status_topic = "system/ipc/subscriptions";

}  // namespace ecu::kora::com
