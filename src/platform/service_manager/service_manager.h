#pragma once

// Notifications to the service manager (systemd Type=notify). Each is a no-op
// when NOTIFY_SOCKET is not set, so the daemon also runs outside systemd.
// None ever blocks: when the service manager's queue is full the notification
// is dropped, so any thread may send one, also on the way out. Safe from any
// thread.

#include <chrono>
#include <string>

namespace ecu::kora {

// Sends "STATUS=starting".
void application_starting();
// Sends "READY=1".
void application_ready();
// Sends "STATUS=" + text: the line `systemctl status` shows. Each call is one
// datagram; callers send it at most about once a second.
void application_status(const std::string& text);

// The watchdog period the service manager asked for (WATCHDOG_USEC, for this
// process); zero when it asked for none.
std::chrono::microseconds watchdog_period();
// Sends "WATCHDOG=1": the daemon is alive. Whoever proves progress calls it,
// at about half the period.
void watchdog_alive();

// The RT side's service on this partition, which the daemon stops when the
// RT partition can no longer be written to.
inline constexpr const char* rt_service = "norvex";
// Runs "systemctl stop " + rt_service and waits for it; its outcome is not
// examined (the caller ends either way).
void stop_rt_service();

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
