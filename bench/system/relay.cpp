// RT->broker: records written into ipcd's RX as fast as it takes them, next
// to the simplest relay fed the same way, a plain libmosquitto publisher of
// the same frames and mosquitto_pub -l fed text lines; what ipcd and the
// simplest relay cost the machine for each record.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <functional>
#include <thread>

#include "bench.h"

namespace bench {

namespace {

struct Turn {
    double rate = 0;
    std::size_t lost = 0;
    std::size_t duplicated = 0;
};

// Records into rx (ipcd's or the simplest relay's), counted on topic.
Turn relayed(int port, int rx, const std::string& topic, std::size_t size, std::size_t count) {
    Subscriber sub(port, topic, count);
    const std::uint64_t start = mono_ns();
    write_records(rx, g_data_id, size, count);
    sub.tally->wait();
    return {sub.tally->rate(start), sub.tally->lost(), sub.tally->duplicated()};
}

// The same frames, framed one by one as the publisher goes.
Turn published(int port, std::size_t size, std::size_t count) {
    const std::string topic = "bench/plain";
    Subscriber sub(port, topic, count);
    PlainPublisher pub(port);
    const std::uint64_t start = mono_ns();
    for (std::size_t i = 0; i < count; ++i) {
        pub.publish(topic, framed_rt(payload(size, i, 0), i));
    }
    sub.tally->wait();
    return {sub.tally->rate(start), sub.tally->lost(), sub.tally->duplicated()};
}

// mosquitto_pub -l reading lines from a FIFO: "%010zu " and filler, size
// bytes each. Counted by arrival only (its payload is text).
Turn lines(int port, std::size_t size, std::size_t count) {
    const std::string topic = "bench/lines";
    auto arrived = std::make_shared<Arrivals>();
    Subscriber sub(port, topic, arrived);
    TempDir dir;
    const std::string fifo = dir.fifo("lines");
    Process pub({"/bin/sh", "-c",
                 "exec mosquitto_pub -l -t " + topic + " -h 127.0.0.1 -p " + std::to_string(port) +
                     " < " + fifo});
    const int fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    std::this_thread::sleep_for(200ms);  // connected before the clock starts, as the others
    const std::uint64_t start = mono_ns();
    std::string buffer;
    char seq[32];
    for (std::size_t i = 0; i < count && fd >= 0;) {
        buffer.clear();
        for (std::size_t j = 0; j < 4096 && i < count; ++j, ++i) {
            std::snprintf(seq, sizeof seq, "%010zu ", i);
            std::string line(seq);
            line.resize(std::max<std::size_t>(size, line.size()), 'x');
            buffer += line + '\n';
        }
        for (std::size_t done = 0; done < buffer.size();) {
            const ssize_t n = ::write(fd, buffer.data() + done, buffer.size() - done);
            if (n <= 0) {
                break;
            }
            done += static_cast<std::size_t>(n);
        }
    }
    close(fd);
    std::size_t seen = 0;
    while (arrived->count < count && wait_until([&] { return arrived->count != seen; }, 2s)) {
        seen = arrived->count;
    }
    pub.wait(10s);
    const std::size_t got = arrived->count;
    const double s = seconds_between(start, arrived->last_ns);
    return {s > 0 ? static_cast<double>(got) / s : 0, count - std::min(count, got), 0};
}

enum { ipcd_turns, relay_turns, plain_turns, lines_turns, kinds };
const std::string g_names[kinds] = {"relay", "simplest relay", "plain publisher",
                                    "mosquitto_pub -l"};

std::string lost_dup(const Turn& t) {
    return std::to_string(t.lost) + " / " + std::to_string(t.duplicated);
}

}  // namespace

void relay(const Config& cfg, Report& report, int port, Daemon& daemon, SimpleRelay& simple,
           pid_t broker) {
    for (std::size_t size : {std::size_t{64}, std::size_t{1024}}) {
        const std::string label = "RT->broker " + std::to_string(size) + " B";
        // The publishers take turns, cfg.repeats times, and the median rate of
        // each counts: the machine is shared, and a burst of other work then
        // spoils one turn instead of one publisher's figure.
        std::vector<double> rates[kinds];
        Turn sums[kinds];
        Costs ipcd;
        Costs relay;
        std::uint64_t broker_ns[kinds] = {};
        std::uint64_t self_ns[kinds] = {};
        const CostMeter meter(daemon.process().pid(), daemon.dir().file("allocs"));
        const CostMeter relay_meter(simple.pid(), simple.alloc_counts());
        // A relay's turn: records into its RX, what it spent counted.
        auto relay_turn = [&](const CostMeter& m, Costs& spent, int rx, const std::string& topic) {
            const Costs before = m.now();
            const Turn t = relayed(port, rx, topic, size, cfg.relay_count);
            spent += m.now() - before;
            return t;
        };
        const std::function<Turn()> runs[kinds] = {
            [&] { return relay_turn(meter, ipcd, daemon.rx(), g_data_topic); },
            [&] { return relay_turn(relay_meter, relay, simple.rx(), g_relay_topic); },
            [&] { return published(port, size, cfg.relay_count); },
            [&] { return lines(port, size, cfg.relay_count); },
        };
        for (int round = 1; round <= cfg.repeats; ++round) {
            const std::string of = " " + std::to_string(size) + " B x " +
                                   std::to_string(cfg.relay_count) + " (" + std::to_string(round) +
                                   "/" + std::to_string(cfg.repeats) + ")";
            // Each round led by another publisher, so that none always
            // follows the same one; its broker and bench CPU counted.
            for (int k = 0; k < kinds; ++k) {
                const int which = (round - 1 + k) % kinds;
                progress(g_names[which] + of);
                const std::uint64_t broker0 = cpu_ns(broker);
                const std::uint64_t self0 = self_cpu_ns();
                const Turn t = runs[which]();
                broker_ns[which] += cpu_ns(broker) - broker0;
                self_ns[which] += self_cpu_ns() - self0;
                rates[which].push_back(t.rate);
                sums[which].lost += t.lost;
                sums[which].duplicated += t.duplicated;
            }
        }
        // The ratio is taken within each round, as the latency's: the
        // machine's pace drifts over a run by more than the margin, and a
        // round's turns are seconds apart.
        std::vector<double> ratios;
        std::string turns;
        for (std::size_t r = 0; r < rates[ipcd_turns].size(); ++r) {
            const double plain_rate = rates[plain_turns][r];
            ratios.push_back(plain_rate > 0 ? rates[ipcd_turns][r] / plain_rate : 0);
            turns += fmt(r ? ", %.1f" : "%.1f", rates[ipcd_turns][r] / 1e3) +
                     fmt("/%.1f", rates[relay_turns][r] / 1e3) + fmt("/%.1f", plain_rate / 1e3) +
                     fmt(" (%.2f)", ratios.back());
        }
        const double plain = median(rates[plain_turns]);
        const double ratio = median(ratios);
        Row rate{label + ", msg/s",          spread(rates[ipcd_turns]), spread(rates[plain_turns]),
                 spread(rates[lines_turns]), fmt("%.2f", ratio),        ">= 0.95 x plain",
                 met(ratio >= 0.95),         spread(rates[relay_turns])};
        report.rows.push_back(rate);
        Row losses{label + ", lost / dup",
                   lost_dup(sums[ipcd_turns]),
                   lost_dup(sums[plain_turns]),
                   lost_dup(sums[lines_turns]),
                   "",
                   "0 / 0",
                   met(sums[ipcd_turns].lost == 0 && sums[ipcd_turns].duplicated == 0),
                   lost_dup(sums[relay_turns])};
        report.rows.push_back(losses);
        const double records = static_cast<double>(cfg.relay_count) * cfg.repeats;
        auto per = [&](std::uint64_t n, const char* format = "%.2f") {
            return fmt(format, static_cast<double>(n) / records);
        };
        auto us = [&](std::uint64_t ns) {
            return fmt("%.2f", static_cast<double>(ns) / records / 1e3);
        };
        // Both relays' CPU from the same turns: an absolute figure depends on
        // the machine, the ratio much less.
        const double cpu_ratio =
            relay.cpu_ns > 0 ? static_cast<double>(ipcd.cpu_ns) / static_cast<double>(relay.cpu_ns)
                             : 0;
        Row cpu{label + ", ipcd CPU / simplest relay CPU",
                us(ipcd.cpu_ns) + " us",
                "",
                "",
                fmt("%.2f", cpu_ratio),
                size == 64 ? "<= 0.65" : "",
                size == 64 ? met(cpu_ratio <= 0.65) : "",
                us(relay.cpu_ns) + " us"};
        report.rows.push_back(cpu);
        report.notes.push_back(
            label + " per round, k msg/s, ipcd/simplest relay/plain (ipcd / plain): " + turns +
            "; ratio of the medians " +
            fmt("%.2f", plain > 0 ? median(rates[ipcd_turns]) / plain : 0));
        report.notes.push_back(label + ": rate ratios to plain, simplest relay " +
                               fmt("%.2f", plain > 0 ? median(rates[relay_turns]) / plain : 0) +
                               ", mosquitto_pub " +
                               fmt("%.2f", plain > 0 ? median(rates[lines_turns]) / plain : 0));
        // On a small machine the processes share the cores: the sum is what a
        // record costs the machine (bench = RX writer or publisher, and the
        // subscriber).
        report.notes.push_back(
            label + ": CPU per message, broker " + us(broker_ns[ipcd_turns]) +
            " us (ipcd turns), " + us(broker_ns[relay_turns]) + " us (simplest relay turns), " +
            us(broker_ns[plain_turns]) + " us (plain turns); all processes: ipcd " +
            us(self_ns[ipcd_turns] + ipcd.cpu_ns + broker_ns[ipcd_turns]) + " us, simplest relay " +
            us(self_ns[relay_turns] + relay.cpu_ns + broker_ns[relay_turns]) + " us, plain " +
            us(self_ns[plain_turns] + broker_ns[plain_turns]) + " us");
        if (size == 64) {
            const bool counted = meter.has_instructions() && relay_meter.has_instructions();
            Row instructions{label + ", instructions per record",
                             counted ? per(ipcd.instructions, "%.0f") : "n/a (no perf counters)",
                             "",
                             "",
                             "",
                             "",
                             "",
                             counted ? per(relay.instructions, "%.0f") : "n/a"};
            report.rows.push_back(instructions);
            const bool allocs = meter.has_allocations();
            report.rows.push_back({label + ", C++ heap allocations per record",
                                   allocs ? per(ipcd.news, "%.3f") : "n/a", "", "", "", "0",
                                   allocs ? met(ipcd.news * 1000 < records) : ""});
            auto calls = [&](const Costs& c, bool alloc_counted) {
                return "malloc/calloc/realloc (libmosquitto included) " +
                       (alloc_counted ? per(c.mallocs) : std::string("n/a")) +
                       ", read-class system calls " + per(c.reads) + " (RX reader " +
                       per(c.max_reads) + "), write-class " + per(c.writes);
            };
            report.notes.push_back(label + ": per record, ipcd's " + calls(ipcd, allocs));
            report.notes.push_back(label + ": per record, the simplest relay's " +
                                   calls(relay, relay_meter.has_allocations()));
        }
    }
}

}  // namespace bench
