#pragma once

// The one place where libmosquitto's results become text, and the transport's
// log module. For the client's own files only: it includes libmosquitto.

#include <mosquitto.h>

#include <cerrno>
#include <memory>
#include <string>
#include <system_error>

#include "logging.h"

namespace ecu::kora::com::detail {

inline const std::shared_ptr<logging::LogModule>& transport_log() {
    static const auto module = logging::module("kora.com.transport");
    return module;
}

// saved_errno is read at the call site, right after the failing call.
inline std::string describe(int rc, int saved_errno = errno) {
    if (rc == MOSQ_ERR_ERRNO) {
        return std::error_code(saved_errno, std::generic_category()).message();
    }
    return std::string(mosquitto_strerror(rc)) + " (" + std::to_string(rc) + ")";
}

inline std::string describe_connack(int rc) {
    return std::string(mosquitto_connack_string(rc)) + " (" + std::to_string(rc) + ")";
}

}  // namespace ecu::kora::com::detail
