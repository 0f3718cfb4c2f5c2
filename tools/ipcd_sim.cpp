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

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <fstream>
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
    "The RT side of ipcd's queue ports: writes records into RX and prints the\n"
    "records ipcd writes into TX, decoded through the signal catalogue.\n"
    "\n"
    "  --rx PATH          RX port (default " KORA_QPORT_DEFAULT_RX
    ")\n"
    "  --tx PATH          TX port (default " KORA_QPORT_DEFAULT_TX
    ")\n"
    "  --catalogue FILE   signal catalogue (default $KIRN_RT_CATALOGUE, else\n"
    "                     /etc/kirn/rt_catalogue.json)\n"
    "  --capture FILE     also append every RX record to FILE (replay: ipcd -r FILE)\n"
    "  --scenario FILE    write the records of FILE, one per line:\n"
    "                       TOPIC_OR_ID TAG TIMESTAMP|now PAYLOAD\n"
    "                     PAYLOAD: hex:01a0ff, 0x01a0ff, or name=value pairs of the\n"
    "                     catalogue group (decimal or 0x-hex, little-endian);\n"
    "                     'sleep MS' pauses; blank lines and # comments are ignored\n"
    "  --generate TOPICS  comma-separated topics (a trailing * takes every topic with\n"
    "                     that prefix), written round-robin with a counter as values\n"
    "  --rate N           records per second and topic when generating (default 10)\n"
    "  --count N          records in all when generating (default: until stopped)\n"
    "  --keep-open        keep RX open and print TX after the records are written,\n"
    "                     until SIGINT/SIGTERM (the default without records to write)\n"
    "  --quiet            do not print the RX records\n"
    "  -h, --help         this text\n"
    "\n"
    "Exit status: 0 when done or stopped by a signal, 1 when ipcd went away or a\n"
    "port failed, 2 for bad arguments, catalogue or scenario.\n";

constexpr int g_bad_input = 2;

struct Step {
    bool sleep = false;
    unsigned sleep_ms = 0;
    bool now = false;  // stamp with the boot clock when written
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
        step.sleep_ms = static_cast<unsigned>(*ms);
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

struct Options {
    std::string rx = ipc::default_rx_port;
    std::string tx = ipc::default_tx_port;
    std::string catalogue;
    std::string capture;
    std::string scenario;
    std::string generate;
    double rate = 10.0;
    std::uint64_t count = 0;
    bool keep_open = false;
    bool quiet = false;
};

bool parse_options(int argc, char** argv, Options& o) {
    enum { rx = 1, tx, catalogue, capture, scenario, generate, rate, count, keep_open, quiet };
    static const option long_options[] = {{"rx", required_argument, nullptr, rx},
                                          {"tx", required_argument, nullptr, tx},
                                          {"catalogue", required_argument, nullptr, catalogue},
                                          {"capture", required_argument, nullptr, capture},
                                          {"scenario", required_argument, nullptr, scenario},
                                          {"generate", required_argument, nullptr, generate},
                                          {"rate", required_argument, nullptr, rate},
                                          {"count", required_argument, nullptr, count},
                                          {"keep-open", no_argument, nullptr, keep_open},
                                          {"quiet", no_argument, nullptr, quiet},
                                          {"help", no_argument, nullptr, 'h'},
                                          {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, "h", long_options, nullptr)) != -1;) {
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
            case scenario:
                o.scenario = optarg;
                break;
            case generate:
                o.generate = optarg;
                break;
            case rate: {
                char* end = nullptr;
                o.rate = std::strtod(optarg, &end);
                if (*optarg == '\0' || *end != '\0' || !(o.rate > 0.0) || o.rate > 100000.0) {
                    error_line(std::string("--rate '") + optarg +
                               "' is not a number above 0 and up to 100000");
                    return false;
                }
                break;
            }
            case count: {
                auto n = parse_number(optarg);
                if (!n) {
                    error_line(std::string("--count '") + optarg + "' is not a number");
                    return false;
                }
                o.count = *n;
                break;
            }
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
    if (!o.scenario.empty() && !o.generate.empty()) {
        error_line("--scenario and --generate exclude each other");
        return false;
    }
    return true;
}

// The records to write: a scenario, or generated ones, or none.
class Source {
public:
    explicit Source(std::vector<Step> steps) : m_steps(std::move(steps)) {}
    Source(std::vector<const ecu::kora::rt::SignalGroup*> groups, double rate, std::uint64_t count)
        : m_groups(std::move(groups)),
          m_interval(std::chrono::duration_cast<Clock::duration>(
              std::chrono::duration<double>(1.0 / (rate * static_cast<double>(m_groups.size()))))),
          m_count(count),
          m_generating(true) {}

    bool done() const {
        return m_generating ? (m_count != 0 && m_made >= m_count) : m_next >= m_steps.size();
    }
    Clock::time_point due() const { return m_due; }

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
                m_due = now + std::chrono::milliseconds(step.sleep_ms);
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

std::string describe(const Catalogue& catalogue, const ipc::IpcSignal& r) {
    const auto* group = catalogue.by_id(r.id);
    std::string text = (group != nullptr ? group->topic() : std::string("unknown")) +
                       " id=" + std::to_string(r.id) + " tag=" + std::to_string(r.tag) +
                       " ts=" + std::to_string(r.timestamp) + " ";
    if (group != nullptr && r.data.size() >= group->size()) {
        return text + join_values(Catalogue::decode(*group, r.data.data(), r.data.size()));
    }
    return text + "hex:" + to_hex(r.data);
}

void print_line(const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
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

    std::unique_ptr<Source> source;
    if (!opts.scenario.empty()) {
        std::vector<Step> steps;
        if (!load_scenario(catalogue, opts.scenario, steps)) {
            return g_bad_input;
        }
        source = std::make_unique<Source>(std::move(steps));
    } else if (!opts.generate.empty()) {
        std::vector<const ecu::kora::rt::SignalGroup*> groups;
        std::stringstream list(opts.generate);
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
            return g_bad_input;
        }
        source = std::make_unique<Source>(std::move(groups), opts.rate, opts.count);
    }
    const bool keep_open = opts.keep_open || !source;

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
        capture_fd = open(opts.capture.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
        if (capture_fd < 0) {
            error_line("cannot open capture file " + opts.capture + ": " + std::strerror(errno));
            return g_bad_input;
        }
    }
    if (!make_fifo(opts.rx) || !make_fifo(opts.tx)) {
        return 1;
    }
    // TX first: ipcd opens TX for writing before it opens RX.
    int tx_fd = open_tx(opts.tx);
    if (tx_fd < 0) {
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
            print_line("TX " + describe(catalogue, r));
        }
    };
    auto signalled = [&] {
        signalfd_siginfo info{};
        return read(sig_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info);
    };

    int rx_fd = -1;
    bool told = false;
    while ((rx_fd = open(opts.rx.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC)) < 0) {
        if (errno != ENXIO) {
            error_line("cannot open RX " + opts.rx + ": " + std::strerror(errno));
            return 1;
        }
        if (!told) {
            print_line("waiting for ipcd to open RX " + opts.rx + " ...");
            told = true;
        }
        pollfd fds[2] = {{sig_fd, POLLIN, 0}, {tx_fd, POLLIN, 0}};
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

    std::vector<std::uint8_t> pending;  // bytes of RX records not yet written
    std::size_t sent = 0;
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
            if (!opts.quiet) {
                print_line("RX " + describe(catalogue, record));
            }
        }
        const bool source_done = !source || source->done();
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
        pollfd fds[3] = {{sig_fd, POLLIN, 0},
                         {tx_fd, POLLIN, 0},
                         {rx_fd, static_cast<short>(sent < pending.size() ? POLLOUT : 0), 0}};
        if (poll(fds, 3, timeout) < 0 && errno != EINTR) {
            error_line(std::string("poll: ") + std::strerror(errno));
            return 1;
        }
        if (fds[0].revents != 0 && signalled()) {
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
            if (n < 0 && write_errno != EAGAIN) {
                drain_tx();  // what ipcd wrote before it went
                print_line(write_errno == EPIPE
                               ? "ipcd closed RX " + opts.rx + "; ending"
                               : "cannot write RX " + opts.rx + ": " + std::strerror(write_errno));
                return 1;
            }
            if (n > 0) {
                sent += static_cast<std::size_t>(n);
            }
            if (sent == pending.size()) {
                pending.clear();
                sent = 0;
            }
        }
    }
}
