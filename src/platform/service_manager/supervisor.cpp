#include "supervisor.h"

#include <pthread.h>
#include <signal.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <ctime>

#include "service_manager.h"

namespace ecu::kora {

namespace {

sigset_t stop_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    return set;
}

}  // namespace

Supervisor::Supervisor() {
    // A parent may have left SIGTERM ignored, and an ignored signal is never
    // waited for: the service manager's stop must work whatever we inherited.
    // (SIGINT stays as inherited: a shell ignores it for background jobs.)
    signal(SIGTERM, SIG_DFL);
    const sigset_t set = stop_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Supervisor::~Supervisor() {
    if (m_thread.joinable()) {
        m_ending = true;
        // Wakes the thread's wait; the flag tells it that this one is ours.
        pthread_kill(m_thread.native_handle(), SIGTERM);
        m_thread.join();
    }
}

void Supervisor::start(std::function<void(int)> on_stop, std::function<bool()> alive) {
    m_on_stop = std::move(on_stop);
    m_alive = std::move(alive);
    m_thread = std::thread([this] { run(); });
}

void Supervisor::run() {
    const sigset_t set = stop_signals();
    const std::chrono::microseconds period = watchdog_period();
    // Half the period, as the service manager advises: a late ping is a kill.
    const auto half = std::max(period / 2, std::chrono::microseconds(1000));
    timespec wait{static_cast<time_t>(half.count() / 1000000),
                  static_cast<long>(half.count() % 1000000) * 1000};
    bool stopping = false;
    for (;;) {
        const int signal =
            period.count() > 0 ? sigtimedwait(&set, nullptr, &wait) : sigwaitinfo(&set, nullptr);
        if (m_ending) {
            return;
        }
        if (signal > 0) {
            if (stopping) {
                std::_Exit(128 + signal);
            }
            stopping = true;
            m_on_stop(signal);
        } else if (errno == EAGAIN && m_alive()) {
            watchdog_alive();
        }
    }
}

}  // namespace ecu::kora
