// Restarts: how long ipcd takes from its start to READY=1, and from a broker
// that comes back after a stop until ipcd's records arrive again (its
// reconnect back-off included).

#include <thread>

#include "bench.h"

namespace bench {

void restart(const Config& cfg, Report& report) {
    progress("restarts");
    Broker broker;
    const int port = broker.port();
    Daemon daemon(port);
    const std::uint64_t t0 = mono_ns();
    daemon.start();
    const double ready_s = seconds_between(t0, mono_ns());
    release(daemon, port);

    std::atomic<bool> stop{false};
    std::thread writer([&] {  // 1000 records/s until stopped
        for (std::uint64_t i = 0; !stop; ++i) {
            daemon.write_record(g_data_id, payload(64, i, mono_ns()), i);
            std::this_thread::sleep_for(1ms);
        }
    });
    broker.stop();
    std::this_thread::sleep_for(std::chrono::duration<double>(std::max(0.5, cfg.scale)));
    const std::uint64_t t1 = mono_ns();
    broker.start();
    double back_s = -1;
    {
        Subscriber sub(port, g_data_topic, 1);  // counts whatever comes
        if (wait_until([&] { return sub.tally->last_ns() != 0; }, 30s)) {
            back_s = seconds_between(t1, sub.tally->last_ns());
        }
    }
    stop = true;
    writer.join();
    report.rows.push_back({"ipcd start -> READY=1, s", fmt("%.2f", ready_s), "", "", "", "", ""});
    report.rows.push_back({"broker restart -> relayed again, s", fmt("%.2f", back_s), "", "", "",
                           "<= 0.3", met(back_s >= 0 && back_s <= 0.3)});
    daemon.stop();
}

}  // namespace bench
