#include "service_manager.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

namespace ecu::kora {

namespace {

// One datagram to $NOTIFY_SOCKET, never waiting: the service manager queues
// only a few, and a daemon that blocks on a full queue can neither ping nor
// stop. A dropped WATCHDOG=1 is simply sent again next time. The variable is
// read on each call (it is never changed while threads run).
void notify(const std::string& message) {
    const char* where = std::getenv("NOTIFY_SOCKET");
    if (where == nullptr) {
        return;
    }
    const std::size_t length = std::strlen(where);
    sockaddr_un address{};
    // A path, or an abstract name written with a leading '@'. Anything else
    // (another address family) is not ours to reach.
    if (length < 2 || length >= sizeof address.sun_path || (where[0] != '/' && where[0] != '@')) {
        return;
    }
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, where, length);
    if (where[0] == '@') {
        address.sun_path[0] = '\0';
    }
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return;
    }
    // The length counts the abstract name's bytes only, not up to the end of sun_path.
    const auto size = static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + length);
    // EAGAIN (full), EINTR, ECONNREFUSED: the message is dropped; none is worth a wait.
    (void)sendto(fd, message.data(), message.size(), MSG_DONTWAIT | MSG_NOSIGNAL,
                 reinterpret_cast<const sockaddr*>(&address), size);
    close(fd);
}

}  // namespace

void application_starting() {
    notify("STATUS=starting");
}

void application_ready() {
    notify("READY=1");
}

void application_status(const std::string& text) {
    notify("STATUS=" + text);
}

void stop_rt_service() {
    const std::string command = std::string("systemctl stop ") + rt_service;
    [[maybe_unused]] const int status = std::system(command.c_str());
}

std::chrono::microseconds watchdog_period() {
    std::uint64_t usec = 0;
    if (sd_watchdog_enabled(0, &usec) <= 0) {
        return std::chrono::microseconds::zero();
    }
    return std::chrono::microseconds(usec);
}

void watchdog_alive() {
    notify("WATCHDOG=1");
}

namespace ipc {

Systemd::~Systemd() {
    notify("STOPPING=1");
}

}  // namespace ipc
}  // namespace ecu::kora
