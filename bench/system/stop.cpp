// Stop: SIGTERM to exit while the broker is paused with ipcd's socket full
// (the RT side kept waiting) and while the broker is gone.

#include <signal.h>

#include <thread>

#include "bench.h"

namespace bench {

void stop(const Config&, Report& report) {
    for (bool paused : {true, false}) {
        progress(std::string("SIGTERM with the broker ") + (paused ? "paused" : "gone"));
        Broker broker;
        Daemon daemon(broker.port());
        daemon.start({"-c", daemon.dir().write("ipcd.conf", "max_pending=1\n")},
                     {"WATCHDOG_USEC=200000"});
        release(daemon, broker.port());
        auto sim = generate(daemon, "rt/vehicle/battery", 20000);
        wait_until([&] { return generated(*sim) >= 1000; });
        if (paused) {
            broker.pause();
            wait_until(
                [&] {  // the socket and the RX FIFO are full: the RT side waits
                    const std::size_t before = generated(*sim);
                    std::this_thread::sleep_for(600ms);
                    return generated(*sim) == before;
                },
                60s);
        } else {
            broker.stop(true);
            daemon.process().wait_out("lost:");
        }
        const std::uint64_t t0 = mono_ns();
        daemon.process().signal(SIGTERM);
        const auto status = daemon.process().wait(200s);
        const double s = status ? seconds_between(t0, mono_ns()) : -1;
        report.rows.push_back({std::string("SIGTERM -> exit, broker ") +
                                   (paused ? "paused, socket full" : "gone") + ", s",
                               fmt("%.2f", s), "", "", "", "<= 0.5", met(s >= 0 && s <= 0.5)});
        broker.resume();
    }
}

}  // namespace bench
