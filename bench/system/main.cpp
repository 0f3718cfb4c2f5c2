// End-to-end figures of the real ipcd binary against a private mosquitto on
// 127.0.0.1. Every rate stands next to a baseline measured in the same run on
// the same broker, because absolute rates depend on the machine and on
// whatever else it is doing. Nothing here asserts on time; it only prints.
//
//   system_bench [--quick] [--scale=X] [--only=PHASE,...]   (or BENCH_SCALE=X)
//
// Phases: idle, relay, latency, broker-to-rt, earlybird, soak, profile,
// restart, stop (default: all). --only is for looking at one figure closely;
// the summary then holds only that phase's rows.
// --quick is --scale=0.05. Counts and periods shrink with the scale; the
// turns and rounds do not. BENCH_IPCD=path measures another ipcd binary (an
// older build, for a before/after table).

#include <mosquitto.h>
#include <signal.h>

#include <cstdio>
#include <cstdlib>

#include "bench.h"

namespace bench {
namespace {

bool wanted(const Config& cfg, const std::string& phase) {
    if (cfg.only.empty()) {
        return true;
    }
    const std::string list = "," + cfg.only + ",";
    return list.find("," + phase + ",") != std::string::npos;
}

int run_all(const Config& cfg) {
    Report report;
    const bool relay_phases = wanted(cfg, "idle") || wanted(cfg, "relay") ||
                              wanted(cfg, "latency") || wanted(cfg, "broker-to-rt");
    if (relay_phases) {
        Broker broker;
        const int port = broker.port();
        progress("starting ipcd, requesting " + g_data_topic + ", releasing the target");
        Daemon daemon(port);
        daemon.start({}, alloc_env(daemon.dir().file("allocs")));
        release(daemon, port);
        progress("starting the simplest relay");
        SimpleRelay simple(port);
        if (wanted(cfg, "idle")) {
            idle(cfg, report, daemon, port);
        }
        if (wanted(cfg, "relay")) {
            relay(cfg, report, port, daemon, simple, broker.pid());
        }
        if (wanted(cfg, "latency")) {
            latency(cfg, report, port, daemon, simple);
        }
        if (wanted(cfg, "broker-to-rt")) {
            broker_to_rt(cfg, report, port, daemon);
        }
        const auto status = daemon.stop();
        report.notes.push_back("ipcd exit status after the relay runs: " +
                               std::to_string(status ? *status : -1) + " (0 expected)");
    }
    if (wanted(cfg, "earlybird") || wanted(cfg, "soak") || wanted(cfg, "profile")) {
        Broker broker;
        const int port = broker.port();
        if (wanted(cfg, "earlybird")) {
            earlybird(cfg, report, port);
        }
        if (wanted(cfg, "soak")) {
            soak(cfg, report, port);
        }
        if (wanted(cfg, "profile")) {
            profile(cfg, report, port);
        }
    }
    if (wanted(cfg, "restart")) {
        restart(cfg, report);
    }
    if (wanted(cfg, "stop")) {
        stop(cfg, report);
    }
    report.print(cfg.scale);
    std::printf(
        "  baselines, in the same run on the same broker: the plain publisher = libmosquitto\n"
        "    in threaded mode publishing the same frames itself (QoS 0, TCP_NODELAY, at most\n"
        "    %zu unwritten), no device in between; the simplest relay = a small program that\n"
        "    reads records from a FIFO as ipcd does, frames each as ipcd does and publishes it\n"
        "    the same way (mosquitto_loop_start): what any relay on this machine costs.\n"
        "    Cells of rounds and turns: median (min..max).\n"
        "  RT->broker: %zu records per size and turn into RX in ~256 KiB writes, %d rounds\n"
        "    of ipcd, simplest relay, plain, mosquitto_pub, each round led by another; rate =\n"
        "    unique messages a subscriber got / (first write .. last receipt); ratio = ipcd /\n"
        "    plain in the same round, median of rounds.\n"
        "    mosquitto_pub = mosquitto_pub -l fed one text line per record.\n"
        "    CPU: all threads of ipcd / of the simplest relay over the same turns (schedstat);\n"
        "    instructions: perf counters, user space; allocations: a counting allocator\n"
        "    preloaded into both.\n"
        "  latency: %zu records of 64 B at %zu/s, RX write (or publish) -> subscriber receipt,\n"
        "    %d rounds of ipcd, simplest relay, plain, each round led by another; added by\n"
        "    ipcd = ipcd's p50 - the plain publisher's (or the simplest relay's) in the same\n"
        "    round, median of rounds;\n"
        "    in its column, what the simplest relay itself adds over the plain publisher.\n"
        "  broker->RT: %zu framed SignalGroupData on %s from a bounded QoS 0 publisher;\n"
        "    ipcd = records out of TX per second, baseline = a plain subscriber of the same.\n"
        "  idle: %.0f s, all threads' schedstat run time; keepalive=0, stats off: then a\n"
        "    second ipcd with that configuration. soak: %.0f s.\n"
        "  outside libmosquitto: goal half of the 2439 instructions per record measured the\n"
        "    same way before the per-record work was cut.\n",
        g_max_outstanding, cfg.relay_count, cfg.repeats, cfg.latency_count, cfg.latency_rate,
        cfg.latency_rounds, cfg.rttx_count, g_rttx_topic.c_str(), cfg.idle_seconds,
        cfg.soak_seconds);
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
        } else if (arg.compare(0, 7, "--only=") == 0) {
            cfg.only = arg.substr(7);
        } else if (arg.compare(0, 12, "--benchmark_") != 0) {  // those are Google Benchmark's
            std::fprintf(stderr, "usage: system_bench [--quick] [--scale=X] [--only=PHASE,...]\n");
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
