#pragma once

// The configuration keys the transport client reads, its defaults and the
// keys that must have a value. Whoever builds a configuration for a client
// registers these (add_transport_settings) before verifying it.

#include <map>
#include <set>
#include <string>

#include "configuration.h"

namespace ecu::kora::com {

inline const std::map<std::string, std::string> transport_defaults = {
    {"host", "localhost"},
    {"port", "1883"},
};
inline const std::set<std::string> transport_required_keys = {"host", "port", "client_name"};
inline const std::set<std::string> transport_optional_keys = {
    "keepalive",    "username",    "password",    "tls_cafile",
    "tls_certfile", "tls_keyfile", "max_pending", "offline_queue"};

inline void add_transport_settings(config::Configuration& config) {
    config.defaults().insert(transport_defaults.begin(), transport_defaults.end());
    config.required_keys().insert(transport_required_keys.begin(), transport_required_keys.end());
    config.optional_keys().insert(transport_optional_keys.begin(), transport_optional_keys.end());
}

}  // namespace ecu::kora::com
