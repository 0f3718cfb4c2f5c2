// Latency at a fixed pace: one 64 B record at a time, its send time in the
// payload, RX write (or publish) to subscriber receipt; ipcd next to the
// simplest relay (the same device hop, then libmosquitto's threaded loop) and
// the plain publisher (no device at all), and what ipcd adds over each. One
// run of each proves little on a shared machine: they go in paired rounds,
// each round led by another of the three, and what ipcd adds is taken within
// each round before the median over the rounds.

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

void latency(const Config& cfg, Report& report, int port, Daemon& daemon, SimpleRelay& simple) {
    const std::string plain_topic = "bench/plain-latency";
    PlainPublisher pub(port);
    std::vector<double> p50[3];
    std::vector<double> p99[3];
    std::vector<double> added;        // ipcd - plain, per round
    std::vector<double> added_relay;  // ipcd - simplest relay
    std::vector<double> relay_added;  // simplest relay - plain
    std::size_t lost[3] = {0, 0, 0};
    // Round 0 warms up and is not counted: the broker may still be writing
    // out what the phase before left, and whoever ran first would pay for it.
    for (int round = 0; round <= cfg.latency_rounds; ++round) {
        progress("latency at " + std::to_string(cfg.latency_rate) + "/s x " +
                 std::to_string(cfg.latency_count) + " (" +
                 (round == 0 ? std::string("warm-up")
                             : std::to_string(round) + "/" + std::to_string(cfg.latency_rounds)) +
                 ")");
        // Each round starts with another of the three, so that none of them
        // always runs first (after the previous phase) or last.
        std::shared_ptr<Tally> tallies[3];
        for (int turn = 0; turn < 3; ++turn) {
            const int k = (round + 2 + turn) % 3;  // round 1 led by ipcd
            if (k == 0) {
                tallies[k] = paced(port, g_data_topic, cfg, [&](std::size_t i, const Bytes& data) {
                    write_record(daemon.rx(), g_data_id, data, i);
                });
            } else if (k == 1) {
                tallies[k] = paced(port, g_relay_topic, cfg, [&](std::size_t i, const Bytes& data) {
                    write_record(simple.rx(), g_data_id, data, i);
                });
            } else {
                tallies[k] = paced(port, plain_topic, cfg, [&](std::size_t i, const Bytes& data) {
                    pub.publish(plain_topic, framed_rt(data, i));
                });
            }
        }
        if (round == 0) {
            continue;
        }
        for (int k = 0; k < 3; ++k) {
            p50[k].push_back(tallies[k]->latency_us(0.5));
            p99[k].push_back(tallies[k]->latency_us(0.99));
            lost[k] += tallies[k]->lost();
        }
        added.push_back(p50[0].back() - p50[2].back());
        added_relay.push_back(p50[0].back() - p50[1].back());
        relay_added.push_back(p50[1].back() - p50[2].back());
    }
    const std::string pace = std::to_string(cfg.latency_rate / 1000) + "k/s";
    auto ratio = [](const std::vector<double>& a, const std::vector<double>& b) {
        return median(b) > 0 ? fmt("%.2f", median(a) / median(b)) : "";
    };
    const bool p99_met = median(p99[0]) <= median(p99[1]);
    report.rows.push_back({"latency p50 @" + pace + ", us", spread(p50[0]), spread(p50[2]), "",
                           ratio(p50[0], p50[2]), "", "", spread(p50[1])});
    report.rows.push_back({"latency p99 @" + pace + ", us", spread(p99[0]), spread(p99[2]), "",
                           ratio(p99[0], p99[2]), "<= simplest relay", met(p99_met),
                           spread(p99[1])});
    // The relay column: what the simplest relay itself adds over the plain
    // publisher, i.e. what the device hop costs any relay.
    report.rows.push_back({"latency p50 added by ipcd, us", spread(added), "", "", "", "<= 10",
                           met(median(added) <= 10), spread(relay_added)});
    report.rows.push_back(
        {"latency p50 added over the simplest relay, us", spread(added_relay), "", "", "", "", ""});
    report.rows.push_back(
        {"latency rounds", std::to_string(cfg.latency_rounds), "", "", "", "", ""});
    report.rows.push_back({"latency lost", std::to_string(lost[0]), std::to_string(lost[2]), "", "",
                           "0", met(lost[0] == 0), std::to_string(lost[1])});
    std::string rounds;
    for (std::size_t r = 0; r < added.size(); ++r) {
        rounds += (r ? ", " : "") + fmt("%+.0f", added[r]) + "/" + fmt("%+.0f", added_relay[r]);
    }
    report.notes.push_back(
        "latency p50 added by ipcd per round, over plain/over the simplest relay, us: " + rounds);
}

}  // namespace bench
