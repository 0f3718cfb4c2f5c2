// Idle: a released ipcd with nothing to relay, all threads' run time as the
// scheduler accounts it; then a second one with keepalive=0 and the
// statistics off, where only the status line's refresh (every 10 s) is due.

#include "bench.h"

namespace bench {

namespace {

struct Idle {
    double cpu_share;  // % of one core
    double wakeups;    // per second
};

Idle measure(const Config& cfg, pid_t pid) {
    progress("idle CPU for " + fmt("%.0f", cfg.idle_seconds) + " s");
    std::this_thread::sleep_for(500ms);
    const std::uint64_t cpu0 = cpu_ns(pid);
    const std::uint64_t woken0 = wakeups(pid);
    const std::uint64_t t0 = mono_ns();
    std::this_thread::sleep_for(std::chrono::duration<double>(cfg.idle_seconds));
    const double elapsed_s = seconds_between(t0, mono_ns());
    return {100.0 * static_cast<double>(cpu_ns(pid) - cpu0) / (elapsed_s * 1e9),
            static_cast<double>(wakeups(pid) - woken0) / elapsed_s};
}

}  // namespace

void idle(const Config& cfg, Report& report, Daemon& daemon, int port) {
    const Idle usual = measure(cfg, daemon.process().pid());
    report.rows.push_back({"idle CPU, % of one core", fmt("%.3f", usual.cpu_share), "", "", "",
                           "< 0.1", met(usual.cpu_share < 0.1)});
    // The statistics timer (every 10 s) and the keep-alive are all that is due.
    report.rows.push_back({"idle wake-ups per second, all threads", fmt("%.2f", usual.wakeups), "",
                           "", "", "<= 0.3 (stats, keep-alive)", met(usual.wakeups <= 0.3)});

    // A name of its own: two clients of one name take the broker's session
    // from each other.
    Daemon quiet(port);
    quiet.start({"-c", quiet.dir().write("ipcd.conf",
                                         "client_name=ipcd-quiet\nkeepalive=0\n"
                                         "stats_interval=0\n")});
    release(quiet, port);
    const Idle off = measure(cfg, quiet.process().pid());
    // A thread that never sleeps is seldom put on a CPU anew: its CPU shows it.
    report.rows.push_back({"idle CPU, keepalive=0, stats off, %", fmt("%.3f", off.cpu_share), "",
                           "", "", "< 0.1", met(off.cpu_share < 0.1)});
    report.rows.push_back({"idle wake-ups per second, keepalive=0, stats off",
                           fmt("%.2f", off.wakeups), "", "", "", "<= 0.3 (status line)",
                           met(off.wakeups <= 0.3)});
}

}  // namespace bench
