// ipcd-ctl: the client-application side of ipcd on the broker. It publishes
// the framed bodies that ipcd listens to, and decodes what ipcd publishes.

#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <fstream>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "cli_text.h"
#include "configuration.h"
#include "date_time.h"
#include "message_adapter.h"
#include "message_text.h"
#include "mqtt_client.h"
#include "signal_values.h"
#include "topics.h"
#include "transport.h"
#include "transport_settings.h"

namespace com = ecu::kora::com;
namespace config = ecu::kora::config;
namespace pb = ecu::kora::pb;
namespace topics = ecu::kora::com::topics;
using topics::catalogue_topic;
using namespace ipcd_tools;
using Clock = std::chrono::steady_clock;

namespace {

constexpr const char* g_usage =
    "Usage: ipcd-ctl [OPTIONS] COMMAND [ARGS]\n"
    "Talks to ipcd over the MQTT broker as a client application would.\n"
    "\n"
    "Options:\n"
    "  -c, --config FILE    take the broker settings (host, port, TLS, login) from\n"
    "                       ipcd's configuration file, e.g. /etc/kirn/ipcd.conf\n"
    "  -H, --host HOST      broker host (default localhost); overrides the file\n"
    "  -p, --port PORT      broker port (default 1883); overrides the file\n"
    "  -u, --username USER  broker login; overrides the file\n"
    "  -P, --password PASS  its password; others may see it until ipcd-ctl has\n"
    "                       started, so prefer:\n"
    "  --password-file FILE the password is the file's first line; without -P or\n"
    "                       this: $IPCD_PASSWORD when there is a user name, else\n"
    "                       the configuration file's\n"
    "  --cafile FILE        TLS to the broker, trusting this CA; overrides the file\n"
    "  --cert FILE, --key FILE\n"
    "                       client certificate and key for TLS; override the file\n"
    "  --catalogue FILE     signal catalogue (default $KIRN_RT_CATALOGUE, else\n"
    "                       /etc/kirn/rt_catalogue.json)\n"
    "  -W, --timeout SECONDS\n"
    "                       how long to wait: for acknowledgements (default 5), for\n"
    "                       status, stats and health (default 2), for watch (default:\n"
    "                       no limit)\n"
    "  -v, --verbose        also print the transport's log lines\n"
    "  -h, --help           this text\n"
    "\n"
    "Commands:\n"
    "  announce TOPIC...                  request rt/ topics (subscription/announcement)\n"
    "  tpa [--wait-for-target] [--target-reached]\n"
    "                                     start-up status (system/tpa/status)\n"
    "  state VALUE                        system state 0..255 (system/state/rt; 4 = shutdown)\n"
    "  send rttx/PATH NAME=VALUE...       signal values of the catalogue group rt/PATH,\n"
    "                                     decimal or 0x-hex, little-endian\n"
    "  watch [--json] [--count N] [TOPIC...]\n"
    "                                     print messages decoded (default topic #)\n"
    "  status [--json]                    print the subscription status ipcd keeps\n"
    "  stats [--json]                     print ipcd's statistics (system/ipc/stats)\n"
    "  health [--json]                    print ipcd's health (system/ipc/health);\n"
    "                                     exit status 3 when it says down\n"
    "  ping                               succeed when the broker accepts a connection\n"
    "                                     (what ipcd's service unit waits for)\n"
    "\n"
    "Publishing commands return once the broker has acknowledged the message.\n"
    "Exit status: 0 done, 1 broker or timeout failure or nothing retained, 2 bad\n"
    "arguments, 3 ipcd down (health).\n";

constexpr int g_bad_input = 2;

struct Options {
    std::string config_file;
    std::string host;  // empty: the file's, else the default
    std::string port;
    // Empty: the file's, else none. The password is never printed.
    std::string username;
    std::optional<std::string> password;
    std::string cafile;
    std::string cert;
    std::string key;
    std::string catalogue;
    double timeout = -1;  // command default
    bool verbose = false;
};

// A connected client with its configuration, which must outlive it.
struct Connection {
    std::unique_ptr<config::Configuration> config;
    std::shared_ptr<com::ITransportClient> client;
};

class Inbox : public com::ISubscriptionObserver {
public:
    void message(const std::string& topic, const com::Message& msg) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_queue.emplace_back(topic, msg);
        m_cv.notify_all();
    }
    // The next message within the wait; false when none came.
    bool next(std::pair<std::string, com::Message>& out, std::chrono::milliseconds wait) {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cv.wait_for(lock, wait, [this] { return !m_queue.empty(); })) {
            return false;
        }
        out = std::move(m_queue.front());
        m_queue.pop_front();
        return true;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::deque<std::pair<std::string, com::Message>> m_queue;
};

std::string marker_topic(const std::string& client_name) {
    return "ipcd-ctl/" + client_name + "/ready";
}

std::string broker_of(const Connection& c) {
    return c.config->get("host") + ":" + c.config->get("port");
}

// Connects; inbox (if any) gets the topics, subscribed before the connection
// so that retained messages are not missed. 0 when connected; g_bad_input for
// settings that cannot work (the file, or what the transport refuses); 1 when
// the broker cannot be reached or refuses.
int connect(const Options& o, Connection& c, const std::vector<std::string>& topics = {},
            const std::shared_ptr<Inbox>& inbox = nullptr) {
    c.config = std::make_unique<config::Configuration>();
    if (!o.config_file.empty()) {
        std::ifstream file(o.config_file);
        if (!file) {
            error_line("cannot read configuration file " + o.config_file);
            return g_bad_input;
        }
        config::set_config_from_input(c.config, file);
    }
    com::add_transport_settings(*c.config);
    if (!o.host.empty()) {
        c.config->values()["host"] = o.host;
    }
    if (!o.port.empty()) {
        c.config->values()["port"] = o.port;
    }
    for (const auto& [key, value] : {std::pair{"username", &o.username},
                                     {"tls_cafile", &o.cafile},
                                     {"tls_certfile", &o.cert},
                                     {"tls_keyfile", &o.key}}) {
        if (!value->empty()) {
            c.config->values()[key] = *value;
        }
    }
    const char* env_password = std::getenv("IPCD_PASSWORD");
    if (o.password) {
        c.config->values()["password"] = *o.password;
    } else if (env_password != nullptr && !c.config->get("username").empty()) {
        // Only with a login to go with it: an anonymous broker stays reachable.
        c.config->values()["password"] = env_password;
    }
    // Never ipcd's own client id: the broker would close ipcd's session.
    c.config->values()["client_name"] = "ipcd-ctl-" + std::to_string(getpid());
    if (!c.config->verify()) {
        return g_bad_input;
    }
    c.client = com::create_client(c.config, com::TransportType::mqtt);
    if (!c.client) {
        error_line("cannot create an MQTT client");
        return g_bad_input;
    }
    for (const auto& topic : topics) {
        if (!c.client->subscribe(topic, 2, inbox)) {
            error_line("cannot subscribe '" + topic + "'");
            return g_bad_input;
        }
    }
    if (inbox) {
        c.client->subscribe(marker_topic(c.client->client_name()), 1, inbox);
    }
    // The transport has said why, in an error line of its own.
    if (!c.client->connect() || !c.client->start()) {
        c.client.reset();
        return 1;
    }
    return 0;
}

// Publishes and waits for the broker's acknowledgement.
template <typename T>
int publish(const Options& o, const std::string& topic, const T& body) {
    auto framed = com::PbInternalMessageAdapter<T>(1).serialize(body);
    if (!framed.success) {
        error_line("cannot frame the message for " + topic);
        return 1;
    }
    Connection c;
    if (const int rc = connect(o, c); rc != 0) {
        return rc;
    }
    framed.message.qos = 1;
    if (c.client->publish(topic, framed.message) <= 0) {
        error_line("cannot publish on " + topic);
        return 1;
    }
    auto* mqtt = dynamic_cast<com::MqttClient*>(c.client.get());
    const auto deadline =
        Clock::now() + std::chrono::duration<double>(o.timeout < 0 ? 5 : o.timeout);
    while (mqtt != nullptr && mqtt->pending() > 0 && Clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    const bool acked = mqtt == nullptr || mqtt->pending() == 0;
    c.client->stop();
    if (!acked) {
        error_line("no acknowledgement from broker " + broker_of(c) + " for " + topic);
        return 1;
    }
    return 0;
}

void print_line(const std::string& line) {
    std::fputs((line + "\n").c_str(), stdout);
    std::fflush(stdout);
}

std::unique_ptr<Catalogue> load_catalogue(const Options& o, bool required) {
    const std::string path = catalogue_path(o.catalogue);
    if (!required && o.catalogue.empty() && access(path.c_str(), R_OK) != 0) {
        return nullptr;  // decoding signal values is optional for watchers
    }
    auto catalogue = std::make_unique<Catalogue>();
    return catalogue->load(path) ? std::move(catalogue) : nullptr;
}

// Prints the messages of topics until count were printed, the time runs out
// or a signal comes. Exit status 1 when fewer than count came.
int watch(const Options& o, const std::vector<std::string>& topics, bool json,
          std::uint64_t count) {
    auto catalogue = load_catalogue(o, false);
    if (!catalogue && (!o.catalogue.empty() || std::getenv("KIRN_RT_CATALOGUE") != nullptr)) {
        return g_bad_input;
    }
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    // Blocked before the client's threads start, so that only the signalfd sees them.
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    const int sig_fd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);

    auto inbox = std::make_shared<Inbox>();
    Connection c;
    if (const int rc = connect(o, c, topics, inbox); rc != 0) {
        return rc;
    }
    const std::string marker = marker_topic(c.client->client_name());
    com::Message ping;
    ping.qos = 1;
    c.client->publish(marker, ping);

    const bool limited = o.timeout >= 0;
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(limited ? o.timeout : 0));
    std::uint64_t printed = 0;
    bool ready = false;
    while (count == 0 || printed < count) {
        signalfd_siginfo info{};
        if (read(sig_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            break;
        }
        if (limited && Clock::now() >= deadline) {
            break;
        }
        std::pair<std::string, com::Message> m;
        if (!inbox->next(m, std::chrono::milliseconds(50))) {
            continue;
        }
        if (m.first == marker) {
            // Our own message came back: every subscription is in place.
            if (!ready) {
                error_line("watching " + flat(Json(topics)));
                ready = true;
            }
            continue;
        }
        if (m.first.rfind("ipcd-ctl/", 0) == 0) {
            continue;  // other watchers' markers
        }
        const Json j = decode(catalogue.get(), m.first, m.second);
        print_line(json ? j.dump() : text_line(j));
        ++printed;
    }
    c.client->stop();
    return count != 0 && printed < count ? 1 : 0;
}

// The message retained on topic, if any. Once our own marker has come back,
// every retained message of the topic has (the broker sends them when it
// takes the subscription), so "none" is known then, or at the timeout.
int retained(const Options& o, const std::string& topic, com::Message& out) {
    auto inbox = std::make_shared<Inbox>();
    Connection c;
    if (const int rc = connect(o, c, {topic}, inbox); rc != 0) {
        return rc;
    }
    const std::string marker = marker_topic(c.client->client_name());
    com::Message ping;
    ping.qos = 1;
    c.client->publish(marker, ping);
    const auto wait = std::chrono::duration<double>(o.timeout < 0 ? 2 : o.timeout);
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(wait);
    std::pair<std::string, com::Message> m;
    int rc = 1;
    while (Clock::now() < deadline) {
        if (!inbox->next(m, std::chrono::milliseconds(50))) {
            continue;
        }
        if (m.first == topic && !m.second.payload.empty()) {
            out = std::move(m.second);
            rc = 0;
            break;
        }
        if (m.first == marker) {
            break;
        }
    }
    c.client->stop();
    if (rc != 0) {
        error_line("nothing retained on " + topic + " at broker " + broker_of(c) +
                   " (is ipcd running there?)");
    }
    return rc;
}

int status(const Options& o, bool json) {
    com::Message m;
    if (const int rc = retained(o, topics::subscription_status, m); rc != 0) {
        print_line("no subscription status");
        return rc;
    }
    const Json j = decode(nullptr, topics::subscription_status, m);
    print_line(json ? j.dump() : text_line(j));
    return 0;
}

// stats and health: ipcd's own JSON, as it is or readable.
int show_state(const Options& o, const std::string& command, bool json) {
    const std::string& topic = command == "stats" ? topics::stats : topics::health;
    com::Message m;
    if (const int rc = retained(o, topic, m); rc != 0) {
        return rc;
    }
    const std::string payload(m.payload.begin(), m.payload.end());
    bool up = false;
    const std::string text = command == "stats" ? stats_text(payload) : health_text(payload, up);
    if (text.empty()) {
        error_line(topic + " holds no " + command + " object: " + payload.substr(0, 200));
        return 1;
    }
    std::fputs(json ? (payload + "\n").c_str() : (text + (command == "stats" ? "" : "\n")).c_str(),
               stdout);
    return command == "health" && !up ? 3 : 0;
}

int send(const Options& o, const std::string& topic, const std::vector<std::string>& pairs) {
    if (topic.rfind(topics::rttx_prefix, 0) != 0 || topic.size() <= topics::rttx_prefix.size()) {
        error_line("send: topic '" + topic + "' does not begin with " + topics::rttx_prefix);
        return g_bad_input;
    }
    auto catalogue = load_catalogue(o, true);
    if (!catalogue) {
        return g_bad_input;
    }
    const std::string rt_topic = catalogue_topic(topic);
    const auto* group = catalogue->by_topic(rt_topic);
    if (group == nullptr) {
        error_line("send: unknown topic '" + rt_topic + "' in the catalogue");
        return g_bad_input;
    }
    if (pairs.empty()) {
        error_line("send: no NAME=VALUE given");
        return g_bad_input;
    }
    std::vector<std::pair<std::string, std::vector<std::uint8_t>>> values;
    std::string error;
    if (!catalogue->encode_pairs(*group, pairs, values, error)) {
        error_line("send: " + error);
        return g_bad_input;
    }
    pb::SignalGroupData body;
    body.set_timestamp(ecu::kora::DateTime::time_since_boot_ns());
    for (const auto& [name, bytes] : values) {
        auto* s = body.add_signals();
        s->set_name(name);
        s->set_data(bytes.data(), bytes.size());
    }
    return publish(o, topic, body);
}

int usage_error(const std::string& text) {
    error_line(text + " (see --help)");
    return g_bad_input;
}

int run(int argc, char** argv) {
    Options o;
    enum { catalogue = 1, password_file, cafile, cert, key };
    static const option long_options[] = {
        {"config", required_argument, nullptr, 'c'},
        {"host", required_argument, nullptr, 'H'},
        {"port", required_argument, nullptr, 'p'},
        {"username", required_argument, nullptr, 'u'},
        {"password", required_argument, nullptr, 'P'},
        {"password-file", required_argument, nullptr, password_file},
        {"cafile", required_argument, nullptr, cafile},
        {"cert", required_argument, nullptr, cert},
        {"key", required_argument, nullptr, key},
        {"catalogue", required_argument, nullptr, catalogue},
        {"timeout", required_argument, nullptr, 'W'},
        {"verbose", no_argument, nullptr, 'v'},
        {"help", no_argument, nullptr, 'h'},
        {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int c; (c = getopt_long(argc, argv, "+c:H:p:u:P:W:vh", long_options, nullptr)) != -1;) {
        switch (c) {
            case 'c':
                o.config_file = optarg;
                break;
            case 'H':
                o.host = optarg;
                break;
            case 'p':
                if (!config::is_port_number(optarg)) {
                    return usage_error(std::string("port '") + optarg + "' is not 1..65535");
                }
                o.port = optarg;
                break;
            case 'u':
                o.username = optarg;
                break;
            case 'P':
                o.password = optarg;
                // Not left readable in /proc/PID/cmdline for others on the machine.
                std::fill(optarg, optarg + std::strlen(optarg), '*');
                break;
            case password_file: {
                std::ifstream file(optarg);
                std::string line;
                if (!file || !std::getline(file, line)) {
                    return usage_error(std::string("cannot read a password from '") + optarg + "'");
                }
                if (!line.empty() && line.back() == '\r') {
                    line.pop_back();
                }
                o.password = line;
                break;
            }
            case cafile:
                o.cafile = optarg;
                break;
            case cert:
                o.cert = optarg;
                break;
            case key:
                o.key = optarg;
                break;
            case catalogue:
                o.catalogue = optarg;
                break;
            case 'W': {
                char* end = nullptr;
                o.timeout = std::strtod(optarg, &end);
                if (*optarg == '\0' || *end != '\0' || !(o.timeout >= 0) || o.timeout > 86400) {
                    return usage_error(std::string("timeout '") + optarg + "' is not 0..86400");
                }
                break;
            }
            case 'v':
                o.verbose = true;
                break;
            case 'h':
                std::fputs(g_usage, stdout);
                return 0;
            default:
                return usage_error(std::string("unknown or incomplete option '") +
                                   argv[optind - 1] + "'");
        }
    }
    route_logging(o.verbose);
    if (optind >= argc) {
        return usage_error("no command");
    }
    const std::string command = argv[optind];
    std::vector<std::string> args(argv + optind + 1, argv + argc);

    if (command == "announce") {
        if (args.empty()) {
            return usage_error("announce: no topic");
        }
        pb::SubscriptionMessage body;
        for (const auto& t : args) {
            body.add_topics(t);
        }
        return publish(o, topics::announcement, body);
    }
    if (command == "tpa") {
        pb::TPAStatus body;
        body.set_wait_for_target(false);
        body.set_target_reached(false);
        for (const auto& a : args) {
            if (a == "--wait-for-target") {
                body.set_wait_for_target(true);
            } else if (a == "--target-reached") {
                body.set_target_reached(true);
            } else {
                return usage_error("tpa: unknown argument '" + a + "'");
            }
        }
        return publish(o, topics::tpa_status, body);
    }
    if (command == "state") {
        auto value = args.size() == 1 ? parse_number(args[0]) : std::nullopt;
        if (!value || *value > 255) {
            return usage_error("state: expected one VALUE from 0 to 255");
        }
        pb::RtSignal body;
        body.set_timestamp(ecu::kora::DateTime::time_since_boot_ns());
        body.set_data(std::string(1, static_cast<char>(*value)));
        return publish(o, topics::system_state, body);
    }
    if (command == "send") {
        if (args.empty()) {
            return usage_error("send: expected rttx/PATH NAME=VALUE...");
        }
        return send(o, args[0], {args.begin() + 1, args.end()});
    }
    if (command == "ping") {
        if (!args.empty()) {
            return usage_error("ping: takes no argument");
        }
        Connection c;
        if (const int rc = connect(o, c); rc != 0) {
            return rc;
        }
        print_line("broker " + broker_of(c) + " accepted the connection");
        c.client->stop();
        return 0;
    }
    if (command == "watch" || command == "status" || command == "stats" || command == "health") {
        bool json = false;
        std::uint64_t count = 0;
        std::vector<std::string> topics;
        for (std::size_t i = 0; i < args.size(); ++i) {
            if (args[i] == "--json") {
                json = true;
            } else if (args[i] == "--count" && command == "watch") {
                auto n = i + 1 < args.size() ? parse_number(args[++i]) : std::nullopt;
                if (!n || *n == 0) {
                    return usage_error("watch: --count needs a number above 0");
                }
                count = *n;
            } else if (command == "watch" && args[i].rfind("--", 0) != 0) {
                topics.push_back(args[i]);
            } else {
                return usage_error(command + ": unknown argument '" + args[i] + "'");
            }
        }
        if (command == "status") {
            return status(o, json);
        }
        if (command != "watch") {
            return show_state(o, command, json);
        }
        return watch(o, topics.empty() ? std::vector<std::string>{"#"} : topics, json, count);
    }
    return usage_error("unknown command '" + command + "'");
}

}  // namespace

int main(int argc, char** argv) {
    set_program("ipcd-ctl");
    route_logging(false);
    signal(SIGPIPE, SIG_IGN);
    return run(argc, argv);
}
