// Where ipcd's instructions go for each relayed 64 B record: ipcd under
// callgrind, instrumented only while records are relayed (after start-up and
// the earlybird flush). Its own share is everything but what runs inside
// libmosquitto's publish and network loop (ipcd's callbacks from there count
// as its own); the note splits the total by library.

#include <unistd.h>

#include <map>
#include <regex>
#include <sstream>

#include "bench.h"

namespace bench {

void profile(const Config& cfg, Report& report, int port) {
    const std::size_t count = cfg.profile_count;
    if (run({"/bin/sh", "-c", "command -v valgrind callgrind_control callgrind_annotate"}).status !=
        0) {
        report.notes.push_back(
            "profile: valgrind is not installed (IPCD_DEPS_BENCH=1 "
            "scripts/install-deps installs it)");
        return;
    }
    progress("profile: " + std::to_string(count) + " records under callgrind");
    Daemon daemon(port);
    const std::string out = daemon.dir().file("callgrind.out");
    daemon.start({}, {},
                 {"/usr/bin/valgrind", "--tool=callgrind", "--instr-atstart=no",
                  "--callgrind-out-file=" + out});
    release(daemon, port);
    const std::string pid = std::to_string(daemon.process().pid());
    run({"/usr/bin/callgrind_control", "-i", "on", pid});
    Subscriber sub(port, g_data_topic, count);
    write_records(daemon.rx(), g_data_id, 64, count);
    sub.tally->wait();
    run({"/usr/bin/callgrind_control", "-i", "off", pid});
    daemon.stop();
    // Lines "N (P%)  file:function [object]": the exclusive count per object,
    // and the inclusive count of what ipcd hands to libmosquitto (publish, the
    // network thread's loop) and of ipcd's callbacks that it calls back.
    std::map<std::string, double> by_object;
    double total = 0;
    double in_mosquitto = 0;
    const std::regex row(R"(^\s*([\d,]+) \([ \d.]+%\)\s+\S*?:(\S.*) \[(.+)\]\s*$)");
    for (const char* inclusive : {"no", "yes"}) {
        const Outcome annotated = run({"/usr/bin/callgrind_annotate", "--threshold=100",
                                       std::string("--inclusive=") + inclusive, out});
        std::istringstream lines(annotated.out);
        for (std::string line; std::getline(lines, line);) {
            std::smatch m;
            if (!std::regex_match(line, m, row)) {
                continue;
            }
            std::string digits = m[1];
            digits.erase(std::remove(digits.begin(), digits.end(), ','), digits.end());
            const double n = std::stod(digits);
            const std::string function = m[2];
            if (inclusive == std::string("no")) {
                const std::string object = m[3].str().substr(m[3].str().rfind('/') + 1);
                by_object[object.substr(0, object.find(".so"))] += n;
                total += n;
            } else if (function == "mosquitto_publish" || function == "mosquitto_loop_forever") {
                in_mosquitto += n;
            } else if (function.find("MqttClient::on_") != std::string::npos) {
                in_mosquitto -= n;
            }
        }
    }
    if (total == 0) {
        report.notes.push_back("profile: callgrind_annotate gave no figures");
        return;
    }
    const double records = static_cast<double>(count);
    const double own = (total - in_mosquitto) / records;
    report.rows.push_back({"RT->broker 64 B, ipcd instructions per record (callgrind)",
                           fmt("%.0f", total / records), "", "", "", "", ""});
    report.rows.push_back({"RT->broker 64 B, of them ipcd's own (outside libmosquitto)",
                           fmt("%.0f", own), "", "", "", "<= 1220", met(own <= 1220)});
    std::string split;
    for (const auto& [object, n] : by_object) {
        if (n / records >= 1) {
            split += (split.empty() ? "" : ", ") + object + " " + fmt("%.0f", n / records);
        }
    }
    report.notes.push_back("profile: " + std::to_string(count) +
                           " records; instructions per record by object (libc and the C++ "
                           "libraries as called by either side): " +
                           split);
}

}  // namespace bench
