#pragma once

// The MQTT client's settings, read from the configuration once and checked
// before any connection: a value that cannot work ends start-up with the key
// named, rather than a connection that fails later for a reason nobody sees.

#include <cstddef>
#include <optional>
#include <string>

#include "configuration.h"

struct mosquitto;

namespace ecu::kora::com {

// Read from the configuration (read_mqtt_settings), which holds the defaults.
struct MqttSettings {
    std::string host;
    int port{};
    std::string client_name;
    int keepalive{};
    std::string username;
    std::string password;
    std::string tls_cafile;
    std::string tls_certfile;
    std::string tls_keyfile;
    std::size_t max_pending{};
    std::size_t offline_queue{};
};

// The settings; nothing (after one ERROR line naming the key and the reason)
// when a set value cannot work: a number out of range or not a number, a TLS
// file that cannot be read or used (a CA file without a certificate, a key
// that is not the certificate's), a certificate without its key or the other
// way round, a client certificate without a CA, a password without a user, a
// client name or user the protocol cannot carry. Secret values are never
// logged.
std::optional<MqttSettings> read_mqtt_settings(const config::Configuration& config);

// Gives a libmosquitto client the login and TLS files of the settings, as
// ipcd's own connection uses them; a libmosquitto error code (0: done).
int apply_login_and_tls(mosquitto* mosq, const MqttSettings& settings);

}  // namespace ecu::kora::com
