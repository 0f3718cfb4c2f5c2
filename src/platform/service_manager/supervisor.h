#pragma once

// What the service manager asks of a running daemon besides readiness: to stop
// in order on SIGTERM (and SIGINT, from a terminal), and to prove it is alive
// to the watchdog. Both are handled on one thread of the supervisor's own,
// never in a signal handler, so the daemon's code runs without restrictions.
//
// Construct it on the main thread before any other thread exists: it blocks
// SIGTERM and SIGINT there, later threads inherit the mask, and so the signals
// reach nobody but the supervisor's sigtimedwait.

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
    // SIGINT; a second one ends the process at once (status 128 + signal), for
    // someone at a terminal whose daemon does not end. While the service
    // manager wants a watchdog, the thread pings it every half period, but only
    // when alive() says the daemon has made progress since the last ping.
    void start(std::function<void(int)> on_stop, std::function<bool()> alive);

private:
    void run();

    std::function<void(int)> m_on_stop;
    std::function<bool()> m_alive;
    std::atomic<bool> m_ending{false};
    std::thread m_thread;
};

}  // namespace ecu::kora
