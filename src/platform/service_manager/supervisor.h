#pragma once

// Takes the signals a service manager or a terminal sends a running daemon,
// on one thread of the supervisor's own that does nothing else, never in a
// signal handler, so that the daemon's code runs without restrictions and no
// other work can keep a stop from being seen.
//
// Construct it on the main thread before any other thread exists: it blocks
// SIGTERM, SIGINT and SIGHUP there, later threads inherit the mask, and so the
// signals reach nobody but the supervisor's sigwaitinfo.

#include <atomic>
#include <functional>
#include <thread>

namespace ecu::kora {

class Supervisor {
public:
    Supervisor();
    ~Supervisor();
    Supervisor(const Supervisor&) = delete;
    Supervisor& operator=(const Supervisor&) = delete;

    // Starts the thread. on_stop(signal) runs on it for the first SIGTERM or
    // SIGINT and must not wait for long; a second one ends the process at once
    // (status 128 + signal), for someone at a terminal whose daemon does not
    // end. SIGHUP is logged at NOTICE and changes nothing: the daemon has no
    // log file to reopen and reads its configuration only at start.
    void start(std::function<void(int)> on_stop);

private:
    void run();

    std::function<void(int)> m_on_stop;
    std::atomic<bool> m_ending{false};
    std::thread m_thread;
};

}  // namespace ecu::kora
