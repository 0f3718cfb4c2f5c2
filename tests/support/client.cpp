#include "harness.h"

namespace ipcd_test {

Client::Client(int port, const std::map<std::string, std::string>& settings)
    : config(std::make_unique<ecu::kora::config::Configuration>()) {
    config->values() = {
        {"host", "127.0.0.1"}, {"port", std::to_string(port)}, {"client_name", "test"}};
    for (const auto& [key, value] : settings) {
        config->values()[key] = value;
    }
    client = std::dynamic_pointer_cast<ecu::kora::com::MqttClient>(
        ecu::kora::com::create_client(config, ecu::kora::com::TransportType::mqtt));
}

}  // namespace ipcd_test
