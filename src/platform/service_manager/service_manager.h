#pragma once

// Notifications to the service manager (systemd Type=notify). Each is a no-op
// when NOTIFY_SOCKET is not set, so the daemon also runs outside systemd.

#include <chrono>
#include <string>

namespace ecu::kora {

// Sends "STATUS=starting".
void application_starting();
// Sends "READY=1".
void application_ready();
// Sends "STATUS=text": what `systemctl status` shows.
void application_status(const std::string& text);

// The watchdog period the service manager asked for (WATCHDOG_USEC, for this
// process); zero when it asked for none.
std::chrono::microseconds watchdog_period();
// Sends "WATCHDOG=1": the daemon is alive.
void watchdog_alive();

namespace ipc {

// The process-wide notifier object: one static instance lives for the whole
// process, and its destruction at exit tells the service manager "STOPPING=1".
class Systemd {
public:
    Systemd() = default;
    Systemd(const Systemd&) = delete;
    Systemd& operator=(const Systemd&) = delete;
    ~Systemd();
};

}  // namespace ipc
}  // namespace ecu::kora
