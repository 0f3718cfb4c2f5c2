// Latency at a fixed pace: one 64 B record at a time, its send time in the
// payload, RX write (or publish) to subscriber receipt; ipcd next to the
// plain publisher, and what ipcd adds (reader wake-up, lookup, framing,
// hand-over to the client's network thread).

#include <time.h>
#include <unistd.h>

#include "bench.h"

namespace bench {

namespace {

void sleep_until_ns(std::uint64_t t) {
    const timespec ts{static_cast<time_t>(t / 1000000000ULL), static_cast<long>(t % 1000000000ULL)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

// send(i) at i / rate from now on; the subscriber's tally.
template <typename Send>
std::shared_ptr<Tally> paced(int port, const std::string& topic, const Config& cfg, Send send) {
    Subscriber sub(port, topic, cfg.latency_count, true);
    const std::uint64_t step = 1000000000ULL / cfg.latency_rate;
    const std::uint64_t t0 = mono_ns() + 10000000ULL;
    for (std::size_t i = 0; i < cfg.latency_count; ++i) {
        sleep_until_ns(t0 + i * step);
        send(i, payload(64, i, mono_ns()));
    }
    sub.tally->wait();
    return sub.tally;
}

}  // namespace

void latency(const Config& cfg, Report& report, int port, Daemon& daemon) {
    progress("latency at " + std::to_string(cfg.latency_rate) + "/s x " +
             std::to_string(cfg.latency_count));
    const auto relayed = paced(port, g_data_topic, cfg, [&](std::size_t i, const Bytes& data) {
        daemon.write_record(g_data_id, data, i);
    });
    PlainPublisher pub(port);
    const auto plain =
        paced(port, "bench/plain-latency", cfg, [&](std::size_t i, const Bytes& data) {
            pub.publish("bench/plain-latency", framed_rt(data, i));
        });
    const std::string pace = std::to_string(cfg.latency_rate / 1000) + "k/s";
    for (double q : {0.5, 0.99}) {
        const double ipcd = relayed->latency_us(q);
        const double base = plain->latency_us(q);
        report.rows.push_back({"latency p" + fmt("%.0f", q * 100) + " @" + pace + ", us",
                               fmt("%.0f", ipcd), fmt("%.0f", base), "",
                               fmt("%.2f", base > 0 ? ipcd / base : 0), "", ""});
    }
    const double added = relayed->latency_us(0.5) - plain->latency_us(0.5);
    report.rows.push_back({"latency p50 added by ipcd, us", fmt("%.0f", added), "", "", "", "<= 10",
                           met(added <= 10)});
    report.rows.push_back({"latency lost", std::to_string(relayed->lost()),
                           std::to_string(plain->lost()), "", "", "0", met(relayed->lost() == 0)});
}

}  // namespace bench
