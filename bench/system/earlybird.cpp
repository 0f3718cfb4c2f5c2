// The earlybird queue: records held by a fresh ipcd until the start-up target
// is reached, its resident memory per held record, then how long the flush
// takes and whether all of it arrives.

#include "bench.h"

namespace bench {

void earlybird(const Config& cfg, Report& report, int port) {
    const std::size_t count = cfg.earlybird_count;
    progress("earlybird x " + std::to_string(count));
    Daemon daemon(port);
    daemon.start();
    Subscriber sub(port, g_data_topic, count);
    // A retained topic is published at once even while the rest is held: its
    // arrival says that every record before it has been taken in.
    Subscriber marker(port, g_marker_topic, 1);
    if (ctl(port, {"announce", g_data_topic}).status != 0) {
        throw std::runtime_error("ipcd-ctl announce failed");
    }
    std::this_thread::sleep_for(300ms);
    const std::size_t rss_before = vm_rss_bytes(daemon.process().pid());
    write_records(daemon.rx(), g_data_id, 64, count);
    daemon.write_record(g_marker_id, payload(16, 0, 0));
    if (!wait_until([&] { return marker.tally->lost() == 0; }, 300s)) {
        throw std::runtime_error("the earlybird marker never arrived");
    }
    std::this_thread::sleep_for(300ms);
    const std::size_t rss_after = vm_rss_bytes(daemon.process().pid());
    const double per_record = (static_cast<double>(rss_after) - static_cast<double>(rss_before)) /
                              static_cast<double>(count);

    const std::uint64_t t0 = mono_ns();
    if (ctl(port, {"tpa", "--wait-for-target", "--target-reached"}).status != 0) {
        throw std::runtime_error("ipcd-ctl tpa failed");
    }
    double flush_line_s = -1;
    if (daemon.process().wait_out(g_flush_line, 300s)) {
        flush_line_s = seconds_between(t0, mono_ns());
    }
    sub.tally->wait();
    const auto& t = *sub.tally;
    report.rows.push_back({"earlybird RSS per held 64 B record, B", fmt("%.0f", per_record), "", "",
                           "", "<= 250", met(per_record <= 250)});
    report.rows.push_back(
        {"earlybird flush, TPA -> done line, s", fmt("%.2f", flush_line_s), "", "", "", "", ""});
    report.rows.push_back({"earlybird flush, TPA -> all received, s",
                           fmt("%.2f", seconds_between(t0, t.last_ns())), "", "", "", "", ""});
    report.rows.push_back({"earlybird lost / dup",
                           std::to_string(t.lost()) + " / " + std::to_string(t.duplicated()), "",
                           "", "", "0 / 0", met(t.lost() == 0 && t.duplicated() == 0)});
    report.notes.push_back("earlybird: " + std::to_string(count) + " records held; VmRSS " +
                           fmt("%.1f", static_cast<double>(rss_before) / 1048576.0) + " -> " +
                           fmt("%.1f", static_cast<double>(rss_after) / 1048576.0) +
                           " MiB; the flush is timed from ipcd-ctl tpa's start");
    daemon.stop();
}

}  // namespace bench
