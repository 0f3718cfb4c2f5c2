// Broker->RT: framed SignalGroupData on an "rttx/" topic from a bounded QoS 0
// publisher as fast as it goes; records out of ipcd's TX per second next to a
// plain subscriber of the same messages.

#include "bench.h"

namespace bench {

void broker_to_rt(const Config& cfg, Report& report, int port, Daemon& daemon) {
    const std::size_t count = cfg.rttx_count;
    progress("broker->RT x " + std::to_string(count));
    auto seen = std::make_shared<Arrivals>();
    Subscriber sub(port, g_rttx_topic, seen);
    const std::size_t before = daemon.tx_records(0).size();
    PlainPublisher pub(port);
    const std::uint64_t start = mono_ns();
    std::uint64_t tx_last = start;
    std::thread reader([&] {
        // Reads TX as it fills (a TX that stays full is a lost port to ipcd).
        for (std::size_t got = before; got < before + count;) {
            const std::size_t now = daemon.tx_records(before + count).size();
            if (now == got) {
                break;  // nothing for the harness's wait
            }
            got = now;
            tx_last = mono_ns();
        }
    });
    for (std::size_t i = 0; i < count; ++i) {
        const std::string temp{static_cast<char>(i), static_cast<char>(i >> 8)};
        pub.publish(
            g_rttx_topic,
            group_data({{"target_temp", temp}, {"fan_level", std::string(1, char(i % 8))}}, i + 1));
    }
    pub.drain();
    reader.join();
    wait_until([&] { return seen->count >= count; }, 5s);
    const std::size_t tx = daemon.tx_records(0).size() - before;
    const double tx_rate =
        static_cast<double>(tx) / std::max(1e-9, seconds_between(start, tx_last));
    const double sub_rate =
        static_cast<double>(seen->count) / std::max(1e-9, seconds_between(start, seen->last_ns));
    report.rows.push_back({"broker->RT, msg/s", fmt("%.0f", tx_rate), fmt("%.0f", sub_rate), "",
                           fmt("%.2f", sub_rate > 0 ? tx_rate / sub_rate : 0), "", ""});
    report.rows.push_back({"broker->RT, received", std::to_string(tx), std::to_string(seen->count),
                           "", "", std::to_string(count), met(tx == count)});
}

}  // namespace bench
