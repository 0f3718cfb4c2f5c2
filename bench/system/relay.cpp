// RT->broker: records written into ipcd's RX as fast as it takes them, next
// to a plain libmosquitto publisher of the same frames and mosquitto_pub -l
// fed text lines; what ipcd costs the machine for each record.

#include <fcntl.h>
#include <unistd.h>

#include <cstdio>
#include <thread>

#include "bench.h"

namespace bench {

namespace {

struct Turn {
    double rate = 0;
    std::size_t lost = 0;
    std::size_t duplicated = 0;
};

Turn relayed(int port, Daemon& daemon, std::size_t size, std::size_t count) {
    Subscriber sub(port, g_data_topic, count);
    const std::uint64_t start = mono_ns();
    write_records(daemon, g_data_id, size, count);
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

std::string join(const std::vector<double>& rates) {
    std::string text;
    for (double r : rates) {
        text += (text.empty() ? "" : " ") + fmt("%.0f", r);
    }
    return text;
}

std::string lost_dup(const Turn& t) {
    return std::to_string(t.lost) + " / " + std::to_string(t.duplicated);
}

}  // namespace

void relay(const Config& cfg, Report& report, int port, Daemon& daemon, pid_t broker) {
    for (std::size_t size : {std::size_t{64}, std::size_t{1024}}) {
        const std::string label = "RT->broker " + std::to_string(size) + " B";
        // The publishers take turns, cfg.repeats times, and the median rate of
        // each counts: the machine is shared, and a burst of other work then
        // spoils one turn instead of one publisher's figure.
        std::vector<double> rates[3];
        Turn sums[3];
        Costs ipcd;
        std::uint64_t broker_ns[2] = {0, 0};
        std::uint64_t self_ns[2] = {0, 0};
        const CostMeter meter(daemon.process().pid(), daemon.dir().file("allocs"));
        for (int round = 1; round <= cfg.repeats; ++round) {
            const std::string of = std::to_string(size) + " B x " +
                                   std::to_string(cfg.relay_count) + " (" + std::to_string(round) +
                                   "/" + std::to_string(cfg.repeats) + ")";
            auto add = [&](int which, const Turn& t) {
                rates[which].push_back(t.rate);
                sums[which].lost += t.lost;
                sums[which].duplicated += t.duplicated;
            };
            progress("relay " + of);
            const Costs before = meter.now();
            const std::uint64_t broker0 = cpu_ns(broker);
            const std::uint64_t self0 = self_cpu_ns();
            add(0, relayed(port, daemon, size, cfg.relay_count));
            ipcd += meter.now() - before;
            const std::uint64_t broker1 = cpu_ns(broker);
            const std::uint64_t self1 = self_cpu_ns();
            broker_ns[0] += broker1 - broker0;
            self_ns[0] += self1 - self0;
            progress("plain publisher " + of);
            add(1, published(port, size, cfg.relay_count));
            broker_ns[1] += cpu_ns(broker) - broker1;
            self_ns[1] += self_cpu_ns() - self1;
            progress("mosquitto_pub -l " + of);
            add(2, lines(port, size, cfg.relay_count));
        }
        const double ratio = median(rates[1]) > 0 ? median(rates[0]) / median(rates[1]) : 0;
        report.rows.push_back({label + ", msg/s", fmt("%.0f", median(rates[0])),
                               fmt("%.0f", median(rates[1])), fmt("%.0f", median(rates[2])),
                               fmt("%.2f", ratio), ">= 0.95 x baseline", met(ratio >= 0.95)});
        report.rows.push_back({label + ", lost / dup", lost_dup(sums[0]), lost_dup(sums[1]),
                               lost_dup(sums[2]), "", "0 / 0",
                               met(sums[0].lost == 0 && sums[0].duplicated == 0)});
        const double records = static_cast<double>(cfg.relay_count) * cfg.repeats;
        auto per = [&](std::uint64_t n, const char* format = "%.2f") {
            return fmt(format, static_cast<double>(n) / records);
        };
        auto us = [&](std::uint64_t ns) {
            return fmt("%.2f", static_cast<double>(ns) / records / 1e3);
        };
        const double cpu_us = static_cast<double>(ipcd.cpu_ns) / records / 1e3;
        report.rows.push_back({label + ", ipcd CPU per record, us", us(ipcd.cpu_ns), "", "", "",
                               size == 64 ? "<= 1.5" : "", size == 64 ? met(cpu_us <= 1.5) : ""});
        report.notes.push_back(label + ": rates per turn, ipcd " + join(rates[0]) + "; baseline " +
                               join(rates[1]) + "; mosquitto_pub " + join(rates[2]));
        // On a small machine the processes share the cores: the sum is what a
        // record costs the machine (bench = RX writer or publisher, and the
        // subscriber).
        report.notes.push_back(label + ": CPU per message, broker " + us(broker_ns[0]) +
                               " us (relay turns), " + us(broker_ns[1]) +
                               " us (baseline turns); all processes: relay " +
                               us(self_ns[0] + ipcd.cpu_ns + broker_ns[0]) + " us, baseline " +
                               us(self_ns[1] + broker_ns[1]) + " us");
        if (size == 64) {
            report.rows.push_back({label + ", ipcd instructions per record",
                                   meter.has_instructions() ? per(ipcd.instructions, "%.0f")
                                                            : "n/a (no perf counters)",
                                   "", "", "", "", ""});
            const bool counted = meter.has_allocations();
            report.rows.push_back({label + ", C++ heap allocations per record",
                                   counted ? per(ipcd.news, "%.3f") : "n/a", "", "", "", "0",
                                   counted ? met(ipcd.news * 1000 < records) : ""});
            report.notes.push_back(label +
                                   ": per record, ipcd's malloc/calloc/realloc (libmosquitto "
                                   "included) " +
                                   (counted ? per(ipcd.mallocs) : "n/a") +
                                   "; read-class system calls " + per(ipcd.reads) + " (RX reader " +
                                   per(ipcd.max_reads) + "), write-class " + per(ipcd.writes));
        }
    }
}

}  // namespace bench
