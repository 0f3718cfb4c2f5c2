// Idle: a released ipcd with nothing to relay, all threads' run time as the
// scheduler accounts it.

#include "bench.h"

namespace bench {

void idle(const Config& cfg, Report& report, Daemon& daemon) {
    progress("idle CPU for " + fmt("%.0f", cfg.idle_seconds) + " s");
    std::this_thread::sleep_for(500ms);
    const pid_t pid = daemon.process().pid();
    const std::uint64_t cpu0 = cpu_ns(pid);
    const std::uint64_t woken0 = wakeups(pid);
    const std::uint64_t t0 = mono_ns();
    std::this_thread::sleep_for(std::chrono::duration<double>(cfg.idle_seconds));
    const double elapsed_s = seconds_between(t0, mono_ns());
    const double share = 100.0 * static_cast<double>(cpu_ns(pid) - cpu0) / (elapsed_s * 1e9);
    const double per_second = static_cast<double>(wakeups(pid) - woken0) / elapsed_s;
    report.rows.push_back(
        {"idle CPU, % of one core", fmt("%.3f", share), "", "", "", "< 0.1", met(share < 0.1)});
    // The statistics timer (every 10 s) and the keep-alive are all that is due.
    report.rows.push_back({"idle wake-ups per second, all threads", fmt("%.2f", per_second), "", "",
                           "", "<= 0.3 (stats, keep-alive)", met(per_second <= 0.3)});
}

}  // namespace bench
