// End-to-end figures of the real ipcd binary against a private mosquitto on
// 127.0.0.1. Every rate stands next to a baseline measured in the same run on
// the same broker, because absolute rates depend on the machine and on
// whatever else it is doing. Nothing here asserts on time; it only prints.
//
//   system_bench [--quick] [--scale=X]      (or BENCH_SCALE=X)
//
// --quick is --scale=0.05. Counts and periods shrink with the scale; below
// 0.5 each relay publisher runs once instead of three times. BENCH_IPCD=path
// measures another ipcd binary (an older build, for a before/after table).

#include <mosquitto.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "bench.h"

namespace bench {
namespace {

int run_all(const Config& cfg) {
    Report report;
    {
        Broker broker;
        const int port = broker.port();
        progress("starting ipcd, requesting " + g_data_topic + ", releasing the target");
        Daemon daemon(port);
        daemon.start({}, alloc_env(daemon.dir().file("allocs")));
        release(daemon, port);
        idle(cfg, report, daemon);
        relay(cfg, report, port, daemon, broker.pid());
        latency(cfg, report, port, daemon);
        broker_to_rt(cfg, report, port, daemon);
        const auto status = daemon.stop();
        report.notes.push_back("ipcd exit status after the relay runs: " +
                               std::to_string(status ? *status : -1) + " (0 expected)");
        earlybird(cfg, report, port);
        soak(cfg, report, port);
        profile(cfg, report, port);
    }
    restart(cfg, report);
    stop(cfg, report);
    report.print(cfg.scale);
    std::printf(
        "  RT->broker: %zu records per size and turn into RX in ~256 KiB writes; rate = unique\n"
        "    messages a subscriber got / (first write .. last receipt), median of the turns;\n"
        "    baseline = plain libmosquitto publisher (threaded, QoS 0, at most %zu unwritten,\n"
        "    same frames); mosquitto_pub = mosquitto_pub -l fed one text line per record.\n"
        "    CPU: all of ipcd's threads (schedstat); instructions: perf counters, user space;\n"
        "    allocations: a counting allocator preloaded into ipcd.\n"
        "  latency: %zu records of 64 B at %zu/s, RX write (or publish) -> subscriber receipt;\n"
        "    added by ipcd = ipcd's p50 - the plain publisher's.\n"
        "  broker->RT: %zu framed SignalGroupData on %s from a bounded QoS 0 publisher;\n"
        "    ipcd = records out of TX per second, baseline = a plain subscriber of the same.\n"
        "  idle: %.0f s, all threads' schedstat run time. soak: %.0f s.\n"
        "  outside libmosquitto: goal half of the 2439 instructions per record measured the\n"
        "    same way before the per-record work was cut.\n",
        cfg.relay_count, g_max_outstanding, cfg.latency_count, cfg.latency_rate, cfg.rttx_count,
        g_rttx_topic.c_str(), cfg.idle_seconds, cfg.soak_seconds);
    return 0;
}

}  // namespace
}  // namespace bench

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    bench::Config cfg;
    if (const char* env = std::getenv("BENCH_SCALE")) {
        cfg.scale = std::strtod(env, nullptr);
    }
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            cfg.scale = 0.05;
        } else if (arg.compare(0, 8, "--scale=") == 0) {
            cfg.scale = std::strtod(arg.c_str() + 8, nullptr);
        } else if (arg.compare(0, 12, "--benchmark_") != 0) {  // those are Google Benchmark's
            std::fprintf(stderr, "usage: system_bench [--quick] [--scale=X]\n");
            return 2;
        }
    }
    if (!(cfg.scale > 0)) {
        cfg.scale = 1.0;
    }
    cfg.apply_scale();
    mosquitto_lib_init();
    int status = 1;
    try {
        status = bench::run_all(cfg);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "system_bench: %s\n", e.what());
    }
    mosquitto_lib_cleanup();
    return status;
}
