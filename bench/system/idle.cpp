// Idle: a released ipcd with nothing to relay, all threads' run time as the
// scheduler accounts it.

#include "bench.h"

namespace bench {

void idle(const Config& cfg, Report& report, Daemon& daemon) {
    progress("idle CPU for " + fmt("%.0f", cfg.idle_seconds) + " s");
    std::this_thread::sleep_for(500ms);
    const std::uint64_t cpu0 = cpu_ns(daemon.process().pid());
    const std::uint64_t t0 = mono_ns();
    std::this_thread::sleep_for(std::chrono::duration<double>(cfg.idle_seconds));
    const double share = 100.0 * static_cast<double>(cpu_ns(daemon.process().pid()) - cpu0) /
                         static_cast<double>(mono_ns() - t0);
    report.rows.push_back(
        {"idle CPU, % of one core", fmt("%.3f", share), "", "", "", "< 0.1", met(share < 0.1)});
}

}  // namespace bench
