#pragma once

// A mosquitto of the test's own on 127.0.0.1 and a free port, never the
// system's. QoS 0 queueing is unlimited (max_queued_messages 0), so that a
// slow subscriber loses nothing, and TCP_NODELAY is on, as for ipcd.

#include <sys/types.h>

#include <memory>
#include <string>

#include "process.h"
#include "temp_dir.h"

namespace ipcd_test {

// A free TCP port on 127.0.0.1 (bound and released; a race is unlikely).
int free_port();
// Whether something accepts TCP connections on 127.0.0.1:port.
bool port_accepts(int port);

class Broker {
public:
    // extra_config: mosquitto.conf lines after the plain anonymous listener,
    // e.g. further listeners with TLS and a password file (each listener's
    // settings are its own).
    explicit Broker(std::string extra_config = {});
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;

    int port() const { return m_port; }
    pid_t pid() const;
    const TempDir& dir() const { return m_dir; }
    // Stops it (SIGTERM, or SIGKILL when hard) and waits for the exit.
    void stop(bool hard = false);
    // Starts it again on the same ports and waits until it accepts connections.
    void start();
    // SIGSTOP / SIGCONT: connections stay open, nothing is answered.
    void pause();
    void resume();

private:
    TempDir m_dir;
    int m_port;
    std::unique_ptr<Process> m_process;
};

}  // namespace ipcd_test
