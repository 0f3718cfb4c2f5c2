// The configuration parser and its check: any text, then verify() and the
// lookups. A "port" that passes the check must be digits whose value is from
// 1 to 65535.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <sstream>
#include <string>

#include "configuration.h"
#include "fuzz_common.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
    std::unique_ptr<ecu::kora::config::Configuration> config;
    std::istringstream input(text);
    IPCD_FUZZ_CHECK(ecu::kora::config::set_config_from_input(config, input) >= 0);
    for (const auto& [key, value] : config->values()) {
        IPCD_FUZZ_CHECK(config->get(key) == value);
        IPCD_FUZZ_CHECK(key.find('=') == std::string::npos);
    }
    const std::string& port = config->get("port");
    IPCD_FUZZ_CHECK(!config->verify() || port.empty() || ecu::kora::config::is_port_number(port));
    if (ecu::kora::config::is_port_number(text)) {
        IPCD_FUZZ_CHECK(text.find_first_not_of("0123456789") == std::string::npos);
        const long value = std::stol(text);
        IPCD_FUZZ_CHECK(value >= 1 && value <= 65535);
    }
    return 0;
}
