#include "supervisor.h"

#include <pthread.h>
#include <signal.h>

#include <cstdlib>

#include "logging.h"

namespace ecu::kora {

namespace {

sigset_t taken_signals() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGTERM);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGHUP);
    return set;
}

}  // namespace

Supervisor::Supervisor() {
    // A parent may have left SIGTERM ignored, and an ignored signal is never
    // waited for: the service manager's stop must work whatever we inherited.
    // (SIGINT stays as inherited: a shell ignores it for background jobs.)
    signal(SIGTERM, SIG_DFL);
    const sigset_t set = taken_signals();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

Supervisor::~Supervisor() {
    if (m_thread.joinable()) {
        m_ending = true;
        // Wakes the thread's wait with a signal it takes and that stops
        // nothing by itself; the flag tells it that this one is ours.
        pthread_kill(m_thread.native_handle(), SIGHUP);
        m_thread.join();
    }
}

void Supervisor::start(std::function<void(int)> on_stop) {
    m_on_stop = std::move(on_stop);
    m_thread = std::thread([this] { run(); });
}

void Supervisor::run() {
    static const auto log = logging::module("supervisor");
    const sigset_t set = taken_signals();
    bool stopping = false;
    for (;;) {
        const int signal = sigwaitinfo(&set, nullptr);
        if (m_ending) {
            return;
        }
        if (signal == SIGHUP) {
            logging::NOTICE << log
                            << "Received SIGHUP, ignored: ipcd has no log file to reopen and "
                               "reads its configuration only at start";
        } else if (signal > 0) {
            if (stopping) {
                std::_Exit(128 + signal);
            }
            stopping = true;
            m_on_stop(signal);
        }
    }
}

}  // namespace ecu::kora
