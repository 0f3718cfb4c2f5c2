// The soak: a steady stream for a while (a minute at scale 1); ipcd's
// resident memory before and after, its CPU, and whether everything arrived.

#include <thread>

#include "bench.h"

namespace bench {

void soak(const Config& cfg, Report& report, int port) {
    constexpr std::size_t rate = 5000;  // records per second, in 10 ms steps
    const auto count = static_cast<std::size_t>(cfg.soak_seconds * rate);
    progress("soak: " + std::to_string(rate) + "/s for " + fmt("%.0f", cfg.soak_seconds) + " s");
    Daemon daemon(port);
    daemon.start();
    release(daemon, port);
    Subscriber sub(port, g_data_topic, count);
    const pid_t pid = daemon.process().pid();
    const std::size_t rss0 = vm_rss_bytes(pid);
    const std::uint64_t cpu0 = cpu_ns(pid);
    const std::uint64_t t0 = mono_ns();
    for (std::size_t i = 0; i < count; ++i) {
        if (i % (rate / 100) == 0) {
            std::this_thread::sleep_until(std::chrono::steady_clock::time_point(
                std::chrono::nanoseconds(t0 + i * (1000000000ULL / rate))));
        }
        daemon.write_record(g_data_id, payload(64, i, 0), i);
    }
    sub.tally->wait();
    const double cpu =
        100.0 * static_cast<double>(cpu_ns(pid) - cpu0) / static_cast<double>(mono_ns() - t0);
    const double grown_kib =
        (static_cast<double>(vm_rss_bytes(pid)) - static_cast<double>(rss0)) / 1024;
    report.rows.push_back({"soak " + std::to_string(rate / 1000) + "k/s, RSS growth, KiB",
                           fmt("%.0f", grown_kib), "", "", "", "", ""});
    report.rows.push_back({"soak, ipcd CPU, % of one core", fmt("%.1f", cpu), "", "", "", "", ""});
    report.rows.push_back(
        {"soak lost / dup",
         std::to_string(sub.tally->lost()) + " / " + std::to_string(sub.tally->duplicated()), "",
         "", "", "0 / 0", met(sub.tally->lost() == 0 && sub.tally->duplicated() == 0)});
    daemon.stop();
}

}  // namespace bench
