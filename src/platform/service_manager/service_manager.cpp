#include "service_manager.h"

#include <systemd/sd-daemon.h>

#include <cstdint>

namespace ecu::kora {

void application_starting() {
    sd_notify(0, "STATUS=starting");
}

void application_ready() {
    sd_notify(0, "READY=1");
}

void application_status(const std::string& text) {
    sd_notify(0, ("STATUS=" + text).c_str());
}

std::chrono::microseconds watchdog_period() {
    std::uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0) {
        return std::chrono::microseconds::zero();
    }
    return std::chrono::microseconds(usec);
}

void watchdog_alive() {
    sd_notify(0, "WATCHDOG=1");
}

namespace ipc {

Systemd::~Systemd() {
    sd_notify(0, "STOPPING=1");
}

}  // namespace ipc
}  // namespace ecu::kora
