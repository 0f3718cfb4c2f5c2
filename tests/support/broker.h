#pragma once

#include <csignal>
#include <memory>
#include <string>

#include "process.h"
#include "temp_dir.h"

namespace ipcd_test {

int free_port();              // on 127.0.0.1, bound and released
bool port_accepts(int port);  // something accepts TCP connections there

// A mosquitto of the test's own on 127.0.0.1 and a free port, never the
// system's: nothing persisted, QoS 0 queueing unlimited (a slow subscriber
// loses nothing), TCP_NODELAY as for ipcd.
class Broker {
public:
    // extra_config: mosquitto.conf lines after the plain anonymous listener,
    // e.g. TLS listeners with their own settings (TlsFiles::listener).
    explicit Broker(std::string extra_config = {});
    ~Broker() { stop(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;
    int port() const { return m_port; }
    pid_t pid() const { return m_process ? m_process->pid() : -1; }
    void stop(bool hard = false);  // SIGTERM, or SIGKILL when hard; waits for the end
    void start();                  // again, on the same ports
    void pause() { m_process->signal(SIGSTOP); }  // connections stay, nothing is answered
    void resume() { m_process->signal(SIGCONT); }

private:
    TempDir m_dir;
    int m_port;
    std::unique_ptr<Process> m_process;
};

}  // namespace ipcd_test
