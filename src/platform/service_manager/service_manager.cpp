#include "service_manager.h"

#include <systemd/sd-daemon.h>

namespace ecu::kora {

void application_starting() {
    sd_notify(0, "STATUS=starting");
}

void application_ready() {
    sd_notify(0, "READY=1");
}

namespace ipc {

Systemd::~Systemd() {
    sd_notify(0, "STOPPING=1");
}

}  // namespace ipc
}  // namespace ecu::kora
