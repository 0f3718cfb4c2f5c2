// ipcd-sim: the RT partition's side of the queue ports on a plain machine.
// It writes records into RX (from a scenario file or generated) and prints
// every record that ipcd writes into TX, decoded through the catalogue.
//
// One thread: a poll loop over a signalfd, the TX FIFO and the RX FIFO, so
// that a signal, a TX record and room in RX are all handled without locks.

#include <errno.h>
#include <fcntl.h>
#include <getopt.h>
#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <deque>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "cli_text.h"
#include "date_time.h"
#include "queue_port.h"
#include "signal_values.h"

namespace ipc = ecu::kora::ipc;
using namespace ipcd_tools;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* g_usage =
    "Usage: ipcd-sim [OPTIONS]\n"
    "       ipcd-sim --print FILE [--hex] [--catalogue FILE]\n"
    "The RT side of ipcd's queue ports: writes records into RX and prints the\n"
    "records ipcd writes into TX, decoded through the signal catalogue.\n"
    "\n"
    "  --rx PATH          RX port (default " KORA_QPORT_DEFAULT_RX
    "): a FIFO,\n"
    "                     made when missing, written once ipcd has opened it; or an\n"
    "                     existing regular file, written (truncated unless --append)\n"
    "                     for ipcd -r FILE, then ipcd-sim ends (no TX)\n"
    "  --tx PATH          TX port (default " KORA_QPORT_DEFAULT_TX
    "), a FIFO,\n"
    "                     made when missing\n"
    "  --catalogue FILE   signal catalogue (default $KIRN_RT_CATALOGUE, else\n"
    "                     /etc/kirn/rt_catalogue.json)\n"
    "  --capture FILE     also write every RX record to FILE, truncated first\n"
    "  --append           --capture and a regular --rx file: append instead\n"
    "  --scenario FILE    write the records of FILE, one per line:\n"
    "                       TOPIC_OR_ID TAG TIMESTAMP|now PAYLOAD\n"
    "                     PAYLOAD: hex:01a0ff, 0x01a0ff, or name=value pairs of the\n"
    "                     catalogue group (decimal or 0x-hex, little-endian);\n"
    "                     'sleep MS' pauses; blank lines and # comments are ignored\n"
    "  --generate TOPICS  comma-separated topics (a trailing * takes every topic with\n"
    "                     that prefix), written round-robin with a counter as values\n"
    "  --rate N           records per second and topic when generating (default 10)\n"
    "  --count N          records in all when generating (default: until stopped)\n"
    "  --replay FILE      write the records of a capture file as they are, at the\n"
    "                     pace of their timestamps (a gap over 10 s is shortened to\n"
    "                     10 s, a timestamp going back waits for nothing; both said\n"
    "                     on stderr)\n"
    "  --speed X          replay X times as fast (default 1), or 'max': as fast as\n"
    "                     ipcd reads\n"
    "  --print FILE       print the records of a capture file decoded, then end\n"
    "  --hex              also show each record's payload bytes in wire order\n"
    "  -W, --timeout SECONDS\n"
    "                     how long to wait for ipcd to open RX (default: no limit)\n"
    "  --keep-open        keep RX open and print TX after the records are written,\n"
    "                     until SIGINT/SIGTERM (the default without records to write)\n"
    "  --quiet            do not print the RX records\n"
    "  -h, --help         this text\n"
    "\n"
    "Once the records are written, a summary says how many of each topic there\n"
    "were and what ipcd does with them: records of retained topics are published\n"
    "at once; ipcd holds the others until system/tpa/status releases them, then\n"
    "publishes those of topics a client has requested and drops the rest.\n"
    "Exit status: 0 when done or stopped by a signal, 1 when ipcd went away or\n"
    "did not open RX in time, or a port or the capture file failed, 2 for bad\n"
    "arguments, catalogue, scenario or capture.\n";

constexpr int g_bad_input = 2;
// The longest pause a replay keeps: captures that mix literal timestamps with
// ones taken from the boot clock would otherwise wait for hours.
constexpr auto g_longest_gap = std::chrono::seconds(10);

struct Step {
    bool sleep = false;
    Clock::duration pause{};  // a sleep's
    bool paced = false;       // a replay's gap: from the last record's due time, not now
    bool now = false;         // stamp with the boot clock when written
    ipc::IpcSignal record;
};

std::vector<std::string> split_words(const std::string& line) {
    std::istringstream in(line);
    std::vector<std::string> words;
    for (std::string w; in >> w;) {
        words.push_back(w);
    }
    return words;
}

// The step of one scenario line; false with the reason in error.
bool parse_line(const Catalogue& catalogue, const std::vector<std::string>& words, Step& step,
                std::string& error) {
    if (words[0] == "sleep") {
        auto ms = words.size() == 2 ? parse_number(words[1]) : std::nullopt;
        if (!ms || *ms > 3600000) {
            error = "expected 'sleep MS' with MS from 0 to 3600000";
            return false;
        }
        step.sleep = true;
        step.pause = std::chrono::milliseconds(*ms);
        return true;
    }
    if (words.size() < 4) {
        error = "expected TOPIC_OR_ID TAG TIMESTAMP|now PAYLOAD";
        return false;
    }
    const ecu::kora::rt::SignalGroup* group = nullptr;
    if (auto id = parse_number(words[0])) {
        if (*id > UINT32_MAX) {
            error = "RT id " + words[0] + " is larger than 32 bits";
            return false;
        }
        step.record.id = static_cast<std::uint32_t>(*id);
        group = catalogue.by_id(step.record.id);
    } else {
        group = catalogue.by_topic(words[0]);
        if (group == nullptr) {
            error = "unknown topic '" + words[0] + "'";
            return false;
        }
        step.record.id = group->id();
    }
    auto tag = parse_number(words[1]);
    if (!tag || *tag > 255) {
        error = "tag '" + words[1] + "' is not a number from 0 to 255";
        return false;
    }
    step.record.tag = static_cast<std::uint8_t>(*tag);
    if (words[2] == "now") {
        step.now = true;
    } else if (auto ts = parse_number(words[2])) {
        step.record.timestamp = *ts;
    } else {
        error = "timestamp '" + words[2] + "' is neither a number nor 'now'";
        return false;
    }
    const std::string& payload = words[3];
    if (words.size() == 4 && payload.find('=') == std::string::npos) {
        std::string digits;
        if (payload.rfind("hex:", 0) == 0 || payload.rfind("0x", 0) == 0) {
            digits = payload.substr(payload[0] == 'h' ? 4 : 2);
        } else {
            error = "payload '" + payload + "' is neither hex:.. / 0x.. nor name=value";
            return false;
        }
        if (!digits.empty()) {
            auto bytes = parse_hex(digits);
            if (!bytes || bytes->size() > ipc::record_max_payload) {
                error = "payload '" + payload + "' is not whole hex bytes";
                return false;
            }
            step.record.data = std::move(*bytes);
        }
        return true;
    }
    if (group == nullptr) {
        error = "no catalogue group with id " + words[0] + " for name=value pairs";
        return false;
    }
    std::vector<std::pair<std::string, std::vector<std::uint8_t>>> values;
    if (!catalogue.encode_pairs(*group, {words.begin() + 3, words.end()}, values, error)) {
        return false;
    }
    step.record.data = Catalogue::image(*group, values);
    return true;
}

// The whole scenario, validated before anything is written.
bool load_scenario(const Catalogue& catalogue, const std::string& path, std::vector<Step>& steps) {
    std::ifstream in(path);
    if (!in) {
        error_line("cannot read scenario " + path + ": " + std::strerror(errno));
        return false;
    }
    std::string line;
    for (unsigned number = 1; std::getline(in, line); ++number) {
        auto words = split_words(line);
        if (words.empty() || words[0][0] == '#') {
            continue;
        }
        Step step;
        std::string error;
        if (!parse_line(catalogue, words, step, error)) {
            error_line("scenario " + path + ":" + std::to_string(number) + ": " += error);
            return false;
        }
        steps.push_back(std::move(step));
    }
    return true;
}

// The records of a capture file; false after an error line. Damage is
// skipped (the records after it kept) and said.
bool load_capture(const std::string& path, std::vector<ipc::IpcSignal>& records) {
    std::ifstream in(path, std::ios::binary);
    if (!in) {
        error_line("cannot read capture " + path + ": " + std::strerror(errno));
        return false;
    }
    const std::vector<char> bytes((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
    ipc::RecordDecoder decoder;
    decoder.feed(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    decoder.finish();
    for (ipc::IpcSignal r; decoder.next(r);) {
        records.push_back(std::move(r));
    }
    if (const std::size_t skipped = decoder.take_skipped(); skipped != 0) {
        error_line("capture " + path + ": " + std::to_string(skipped) +
                   " bytes are no record and were skipped");
    }
    if (records.empty()) {
        error_line("capture " + path + " holds no record");
        return false;
    }
    return true;
}

// The steps that write the records at the pace of their timestamps, speed
// times as fast (0: no pauses). A record's pause runs from the latest
// timestamp before it, so that one going back (a literal one among boot
// clock ones) does not make the next one wait.
std::vector<Step> replay_steps(const std::string& path, std::vector<ipc::IpcSignal> records,
                               double speed) {
    std::vector<Step> steps;
    std::size_t back = 0;
    std::size_t long_gaps = 0;
    std::uint64_t latest = records.front().timestamp;
    for (auto& record : records) {
        const std::uint64_t at = record.timestamp;
        back += at < latest ? 1 : 0;
        const auto gap = std::chrono::duration<double, std::nano>(
            at <= latest || speed == 0 ? 0.0 : static_cast<double>(at - latest) / speed);
        latest = std::max(latest, at);
        if (gap.count() > 0) {
            Step pause;
            pause.sleep = pause.paced = true;
            pause.pause = std::chrono::duration_cast<Clock::duration>(
                std::min<std::chrono::duration<double, std::nano>>(gap, g_longest_gap));
            long_gaps += gap > g_longest_gap ? 1 : 0;
            steps.push_back(pause);
        }
        Step step;
        step.record = std::move(record);
        steps.push_back(std::move(step));
    }
    if (back != 0) {
        error_line("replay " + path + ": " + std::to_string(back) +
                   " timestamps go back; those records are written at once");
    }
    if (long_gaps != 0) {
        error_line("replay " + path + ": " + std::to_string(long_gaps) +
                   " gaps over 10 s are shortened to 10 s");
    }
    return steps;
}

struct Options {
    std::string rx = ipc::default_rx_port;
    std::string tx = ipc::default_tx_port;
    std::string catalogue;
    std::string capture;
    bool append = false;
    std::string scenario;
    std::string generate;
    double rate = 10.0;
    std::uint64_t count = 0;
    std::string replay;
    double speed = 1.0;              // 0: as fast as ipcd reads
    std::vector<std::string> given;  // options that only some sources take
    std::string print;
    bool hex = false;
    double timeout = -1;  // waiting for ipcd to open RX; below 0: no limit
    bool keep_open = false;
    bool quiet = false;
};

// A positive number up to limit ("max" gives 0 where allowed); false after an error line.
bool parse_positive(const char* option, const char* text, double limit, double& out,
                    bool max_allowed = false) {
    if (max_allowed && std::strcmp(text, "max") == 0) {
        out = 0;
        return true;
    }
    char* end = nullptr;
    out = std::strtod(text, &end);
    if (*text != '\0' && *end == '\0' && out > 0.0 && out <= limit) {
        return true;
    }
    error_line(std::string(option) + " '" + text + "' is not a number above 0 and up to " +
               std::to_string(static_cast<long>(limit)) + (max_allowed ? ", nor 'max'" : ""));
    return false;
}

bool parse_options(int argc, char** argv, Options& o) {
    enum {
        rx = 1,
        tx,
        catalogue,
        capture,
        append,
        scenario,
        generate,
        rate,
        count,
        replay,
        speed,
        print,
        hex,
        keep_open,
        quiet
    };
    static const option long_options[] = {{"rx", required_argument, nullptr, rx},
                                          {"tx", required_argument, nullptr, tx},
                                          {"catalogue", required_argument, nullptr, catalogue},
                                          {"capture", required_argument, nullptr, capture},
                                          {"append", no_argument, nullptr, append},
                                          {"scenario", required_argument, nullptr, scenario},
                                          {"generate", required_argument, nullptr, generate},
                                          {"rate", required_argument, nullptr, rate},
                                          {"count", required_argument, nullptr, count},
                                          {"replay", required_argument, nullptr, replay},
                                          {"speed", required_argument, nullptr, speed},
                                          {"print", required_argument, nullptr, print},
                                          {"hex", no_argument, nullptr, hex},
                                          {"timeout", required_argument, nullptr, 'W'},
                                          {"keep-open", no_argument, nullptr, keep_open},
                                          {"quiet", no_argument, nullptr, quiet},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, "hW:", long_options, nullptr)) != -1;) {
        switch (c) {
            case rx:
                o.rx = optarg;
                break;
            case tx:
                o.tx = optarg;
                break;
            case catalogue:
                o.catalogue = optarg;
                break;
            case capture:
                o.capture = optarg;
                break;
            case append:
                o.append = true;
                break;
            case scenario:
                o.scenario = optarg;
                break;
            case generate:
                o.generate = optarg;
                break;
            case rate:
                o.given.emplace_back("--rate");
                if (!parse_positive("--rate", optarg, 100000, o.rate)) {
                    return false;
                }
                break;
            case count: {
                o.given.emplace_back("--count");
                auto n = parse_number(optarg);
                if (!n) {
                    error_line(std::string("--count '") + optarg + "' is not a number");
                    return false;
                }
                o.count = *n;
                break;
            }
            case replay:
                o.replay = optarg;
                break;
            case speed:
                o.given.emplace_back("--speed");
                if (!parse_positive("--speed", optarg, 1000000, o.speed, true)) {
                    return false;
                }
                break;
            case print:
                o.print = optarg;
                break;
            case hex:
                o.hex = true;
                break;
            case 'W':
                if (std::strcmp(optarg, "0") != 0 &&
                    !parse_positive("--timeout", optarg, 86400, o.timeout)) {
                    return false;
                }
                o.timeout = std::max(o.timeout, 0.0);
                break;
            case keep_open:
                o.keep_open = true;
                break;
            case quiet:
                o.quiet = true;
                break;
            case 'h':
                std::fputs(g_usage, stdout);
                std::exit(0);
            default:
                error_line(std::string("unknown or incomplete option '") + argv[optind - 1] +
                           "' (see --help)");
                return false;
        }
    }
    if (optind < argc) {
        error_line(std::string("unexpected argument '") + argv[optind] + "' (see --help)");
        return false;
    }
    if (!o.scenario.empty() + !o.generate.empty() + !o.replay.empty() + !o.print.empty() > 1) {
        error_line("--scenario, --generate, --replay and --print exclude each other");
        return false;
    }
    for (const auto& option : o.given) {
        if (option == "--speed" ? o.replay.empty() : o.generate.empty()) {
            error_line(option + " applies to " + (option == "--speed" ? "--replay" : "--generate"));
            return false;
        }
    }
    return true;
}

// The records to write: a scenario or a replay, or generated ones, or none.
class Source {
public:
    explicit Source(std::vector<Step> steps) : m_steps(std::move(steps)) {}
    Source(std::vector<const ecu::kora::rt::SignalGroup*> groups, double rate, std::uint64_t count)
        : m_groups(std::move(groups)),
          m_interval(std::chrono::duration_cast<Clock::duration>(
              std::chrono::duration<double>(1.0 / (rate * static_cast<double>(m_groups.size()))))),
          m_count(count),
          m_generating(true) {}

    // Pauses count from now: RX has just been opened.
    void start() { m_due = Clock::now(); }
    bool done() const {
        return m_generating ? (m_count != 0 && m_made >= m_count) : m_next >= m_steps.size();
    }
    Clock::time_point due() const { return m_due; }
    // Records still to come; 0 when generating without a count.
    std::uint64_t left() const {
        if (m_generating) {
            return m_count == 0 ? 0 : m_count - m_made;
        }
        return static_cast<std::uint64_t>(std::count_if(m_steps.begin() + m_next, m_steps.end(),
                                                        [](const Step& s) { return !s.sleep; }));
    }

    // The next record when one is due now; sleeps move the due time.
    bool take(ipc::IpcSignal& out) {
        const auto now = Clock::now();
        while (!done() && now >= m_due) {
            if (m_generating) {
                make(out);
                m_due = std::max(m_due + m_interval, now - m_interval * 8);
                return true;
            }
            Step& step = m_steps[m_next++];
            if (step.sleep) {
                m_due = (step.paced ? m_due : now) + step.pause;
                continue;
            }
            out = std::move(step.record);
            if (step.now) {
                out.timestamp = ecu::kora::DateTime::time_since_boot_ns();
            }
            return true;
        }
        return false;
    }

private:
    // A group image with changing values.
    void make(ipc::IpcSignal& out) {
        const auto& group = *m_groups[m_made % m_groups.size()];
        const std::uint64_t seq = m_made / m_groups.size() + 1;
        out.id = group.id();
        out.tag = 0;
        out.timestamp = ecu::kora::DateTime::time_since_boot_ns();
        out.data.assign(group.size(), 0);
        std::size_t index = 0;
        for (const auto& d : group.definitions()) {
            // The first signal counts; one-byte signals after it are flags
            // that toggle, wider ones count at their own pace.
            const std::uint64_t value =
                index == 0 ? seq : (d.size() == 1 ? (seq + index) % 2 : seq * (index + 1));
            ++index;
            for (std::size_t i = 0; i < d.size() && i < 8; ++i) {
                out.data[d.offset() + i] = static_cast<std::uint8_t>(value >> (8 * i));
            }
        }
        ++m_made;
    }

    std::vector<Step> m_steps;
    std::size_t m_next = 0;
    std::vector<const ecu::kora::rt::SignalGroup*> m_groups;
    Clock::duration m_interval{};
    std::uint64_t m_count = 0;
    std::uint64_t m_made = 0;
    bool m_generating = false;
    Clock::time_point m_due = Clock::now();
};

// One record as a line: topic, id, tag, timestamp, then the signal values,
// or the payload bytes in wire order when the catalogue cannot name them
// (and with hex, always).
std::string describe(const Catalogue& catalogue, const ipc::IpcSignal& r, bool hex) {
    const auto* group = catalogue.by_id(r.id);
    std::string text = (group != nullptr ? group->topic() : std::string("unknown")) +
                       " id=" + std::to_string(r.id) + " tag=" + std::to_string(r.tag) +
                       " ts=" + std::to_string(r.timestamp) + " ";
    if (group != nullptr && r.data.size() >= group->size()) {
        text += join_values(Catalogue::decode(*group, r.data.data(), r.data.size()));
        return hex ? text + " hex:" + to_hex(r.data) : text;
    }
    return text + "hex:" + to_hex(r.data);
}

void print_line(const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

// The records of each RT id, in the order the ids first came, and what ipcd
// does with them: nothing it drops goes unsaid.
class Tally {
public:
    void add(std::uint32_t id) {
        auto it = std::find_if(m_counts.begin(), m_counts.end(),
                               [id](const auto& c) { return c.first == id; });
        if (it == m_counts.end()) {
            m_counts.emplace_back(id, 1);
        } else {
            ++it->second;
        }
        ++m_total;
    }
    std::uint64_t total() const { return m_total; }

    void print(const Catalogue& catalogue, const std::string& heading) const {
        print_line(heading + ": " + std::to_string(m_total) + " record" +
                   (m_total == 1 ? "" : "s"));
        bool held = false;
        for (const auto& [id, n] : m_counts) {
            const auto* group = catalogue.by_id(id);
            std::string fate = "not in the catalogue: ipcd drops them";
            if (group != nullptr) {
                fate = group->retained()
                           ? "retained: ipcd publishes them at once"
                           : "not retained: ipcd publishes them only if requested, once released";
                held = held || !group->retained();
            }
            print_line("  " + std::to_string(n) + " " +
                       (group != nullptr ? group->topic() : "id " + std::to_string(id)) + " (" +
                       fate + ")");
        }
        if (held) {
            print_line(
                "  ipcd holds records of topics that are not retained until system/tpa/status\n"
                "  releases them (ipcd-ctl tpa), then publishes those of topics a client has\n"
                "  requested (ipcd-ctl announce) and drops the others (dropped_unrequested);\n"
                "  held records are lost when RX ends before the release.");
        }
    }

private:
    std::vector<std::pair<std::uint32_t, std::uint64_t>> m_counts;
    std::uint64_t m_total = 0;
};

int print_capture(const Options& o, const Catalogue& catalogue) {
    std::vector<ipc::IpcSignal> records;
    if (!load_capture(o.print, records)) {
        return g_bad_input;
    }
    Tally tally;
    for (const auto& r : records) {
        print_line(describe(catalogue, r, o.hex));
        tally.add(r.id);
    }
    tally.print(catalogue, o.print);
    return 0;
}

int open_tx(const std::string& path) {
    return open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
}

bool make_fifo(const std::string& path) {
    if (mkfifo(path.c_str(), 0660) == 0 || errno == EEXIST) {
        return true;
    }
    error_line("cannot create FIFO " + path + ": " + std::strerror(errno));
    return false;
}

bool is_regular_file(const std::string& path) {
    struct stat st {};
    return stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// The source of the options: null without records to write; false after an
// error line.
bool make_source(const Options& o, const Catalogue& catalogue, std::unique_ptr<Source>& source) {
    if (!o.scenario.empty() || !o.replay.empty()) {
        std::vector<Step> steps;
        std::vector<ipc::IpcSignal> records;
        if (o.replay.empty() ? !load_scenario(catalogue, o.scenario, steps)
                             : !load_capture(o.replay, records)) {
            return false;
        }
        if (!o.replay.empty()) {
            steps = replay_steps(o.replay, std::move(records), o.speed);
        }
        source = std::make_unique<Source>(std::move(steps));
        return true;
    }
    if (o.generate.empty()) {
        return true;
    }
    std::vector<const ecu::kora::rt::SignalGroup*> groups;
    std::stringstream list(o.generate);
    for (std::string topic; std::getline(list, topic, ',');) {
        if (!topic.empty() && topic.back() == '*') {
            const auto matches = catalogue.topics(topic.substr(0, topic.size() - 1));
            for (const auto& t : matches) {
                groups.push_back(catalogue.by_topic(t));
            }
            if (!matches.empty()) {
                continue;
            }
        } else if (const auto* group = catalogue.by_topic(topic)) {
            groups.push_back(group);
            continue;
        }
        error_line("unknown topic '" + topic + "' in --generate");
        return false;
    }
    source = std::make_unique<Source>(std::move(groups), o.rate, o.count);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    set_program("ipcd-sim");
    route_logging(false);
    Options opts;
    if (!parse_options(argc, argv, opts)) {
        return g_bad_input;
    }
    Catalogue catalogue;
    if (!catalogue.load(catalogue_path(opts.catalogue))) {
        return g_bad_input;
    }
    if (!opts.print.empty()) {
        return print_capture(opts, catalogue);
    }
    std::unique_ptr<Source> source;
    if (!make_source(opts, catalogue, source)) {
        return g_bad_input;
    }
    // A regular file as RX is written and done: no ipcd reads it now.
    const bool rx_file = is_regular_file(opts.rx);
    if (rx_file && (!source || opts.keep_open)) {
        error_line("RX " + opts.rx + " is a regular file: it takes records to write (" +
                   (source ? "--keep-open needs a FIFO" : "none given") + ")");
        return g_bad_input;
    }
    const bool keep_open = opts.keep_open || !source;
    const int file_flags = O_WRONLY | O_CREAT | O_CLOEXEC | (opts.append ? O_APPEND : O_TRUNC);

    // Signals arrive on the signalfd only; a gone reader shows up as EPIPE.
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    signal(SIGPIPE, SIG_IGN);
    const int sig_fd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);

    int capture_fd = -1;
    if (!opts.capture.empty()) {
        capture_fd = open(opts.capture.c_str(), file_flags, 0644);
        if (capture_fd < 0) {
            error_line("cannot open capture file " + opts.capture + ": " + std::strerror(errno));
            return g_bad_input;
        }
    }
    if (!rx_file && (!make_fifo(opts.rx) || !make_fifo(opts.tx))) {
        return 1;
    }
    // TX first: ipcd opens TX for writing before it opens RX.
    int tx_fd = rx_file ? -1 : open_tx(opts.tx);
    if (!rx_file && tx_fd < 0) {
        error_line("cannot open TX " + opts.tx + ": " + std::strerror(errno));
        return 1;
    }

    ipc::RecordDecoder tx_decoder;
    auto drain_tx = [&] {
        std::uint8_t buf[8192];
        for (;;) {
            const ssize_t n = read(tx_fd, buf, sizeof buf);
            if (n > 0) {
                tx_decoder.feed(buf, static_cast<std::size_t>(n));
                continue;
            }
            if (n == 0) {
                // The writer left: reopen, so that poll waits for the next one.
                close(tx_fd);
                tx_fd = open_tx(opts.tx);
            }
            break;
        }
        for (ipc::IpcSignal r; tx_decoder.next(r);) {
            print_line("TX " + describe(catalogue, r, opts.hex));
        }
    };
    auto signalled = [&] {
        signalfd_siginfo info{};
        return read(sig_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info);
    };

    int rx_fd = -1;
    bool told = false;
    const auto give_up = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                            std::chrono::duration<double>(opts.timeout));
    while ((rx_fd = rx_file ? open(opts.rx.c_str(), file_flags, 0644)
                            : open(opts.rx.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0) {
        if (errno != ENXIO) {
            error_line("cannot open RX " + opts.rx + ": " + std::strerror(errno));
            return 1;
        }
        if (opts.timeout >= 0 && Clock::now() >= give_up) {
            error_line("ipcd did not open RX " + opts.rx + " within " +
                       std::to_string(static_cast<long>(std::ceil(opts.timeout))) + " s");
            return 1;
        }
        if (!told) {
            print_line("waiting for ipcd to open RX " + opts.rx + " ...");
            told = true;
        }
        pollfd fds[2] = {{sig_fd, POLLIN, {}}, {tx_fd, POLLIN, {}}};
        if (poll(fds, 2, 50) > 0) {
            if (signalled()) {
                return 0;
            }
            if (fds[1].revents != 0) {
                drain_tx();
            }
        }
    }
    print_line("RX " + opts.rx + " open");
    if (source) {
        source->start();
    }

    std::vector<std::uint8_t> pending;  // bytes of RX records not yet written
    std::size_t sent = 0;
    // Where each record in pending ends, and its RT id.
    std::deque<std::pair<std::size_t, std::uint32_t>> ends;
    std::uint64_t taken = 0;
    Tally written;
    bool summarised = false;
    auto unwritten = [&] {
        const std::uint64_t left = taken - written.total() + (source ? source->left() : 0);
        return left == 0 ? std::string() : "; " + std::to_string(left) + " records not written";
    };
    for (;;) {
        ipc::IpcSignal record;
        while (source && pending.size() - sent < 65536 && source->take(record)) {
            std::vector<std::uint8_t> bytes;
            ipc::encode_record(record, bytes);
            if (capture_fd >= 0 && write(capture_fd, bytes.data(), bytes.size()) !=
                                       static_cast<ssize_t>(bytes.size())) {
                error_line("cannot write capture file " + opts.capture + ": " +
                           std::strerror(errno));
                return 1;
            }
            pending.insert(pending.end(), bytes.begin(), bytes.end());
            ends.emplace_back(pending.size(), record.id);
            ++taken;
            if (!opts.quiet) {
                print_line("RX " + describe(catalogue, record, opts.hex));
            }
        }
        const bool source_done = !source || source->done();
        if (source && source_done && sent == pending.size() && !summarised) {
            written.print(catalogue, "RX " + opts.rx + " written");
            summarised = true;
        }
        if (source_done && sent == pending.size() && !keep_open) {
            close(rx_fd);  // ipcd sees the end of data
            return 0;
        }
        int timeout = -1;
        if (!source_done && sent == pending.size()) {
            const auto wait =
                std::chrono::ceil<std::chrono::milliseconds>(source->due() - Clock::now());
            timeout = static_cast<int>(std::max<long long>(0, wait.count()));
        }
        pollfd fds[3] = {{sig_fd, POLLIN, {}},
                         {tx_fd, POLLIN, {}},
                         {rx_fd, static_cast<short>(sent < pending.size() ? POLLOUT : 0), 0}};
        if (poll(fds, 3, timeout) < 0 && errno != EINTR) {
            error_line(std::string("poll: ") + std::strerror(errno));
            return 1;
        }
        if (fds[0].revents != 0 && signalled()) {
            print_line("stopped" + unwritten());
            close(rx_fd);
            close(tx_fd);
            return 0;
        }
        if (fds[1].revents != 0) {
            drain_tx();
        }
        if ((fds[2].revents & (POLLOUT | POLLERR)) != 0) {
            const ssize_t n = sent < pending.size()
                                  ? write(rx_fd, pending.data() + sent, pending.size() - sent)
                                  : (errno = EPIPE, -1);
            const int write_errno = errno;
            if (n > 0) {
                sent += static_cast<std::size_t>(n);
            }
            for (; !ends.empty() && ends.front().first <= sent; ends.pop_front()) {
                written.add(ends.front().second);
            }
            if (n < 0 && write_errno != EAGAIN) {
                drain_tx();  // what ipcd wrote before it went
                error_line((write_errno == EPIPE ? "ipcd closed RX " + opts.rx + "; ending"
                                                 : "cannot write RX " + opts.rx + ": " +
                                                       std::strerror(write_errno)) +
                           unwritten());
                return 1;
            }
            if (sent == pending.size()) {
                pending.clear();
                sent = 0;
            }
        }
    }
}
