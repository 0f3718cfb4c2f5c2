// ipcd-ctl: the client-application side of ipcd on the broker. It publishes
// the framed bodies that ipcd listens to, and decodes what ipcd publishes.

#include <fcntl.h>
#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "broker_listener.h"
#include "cli_text.h"
#include "configuration.h"
#include "date_time.h"
#include "message_adapter.h"
#include "message_text.h"
#include "mqtt_client.h"
#include "mqtt_settings.h"
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
    "Talks to ipcd over the MQTT broker as a client application would. Options\n"
    "may come before or after the command; -- ends them.\n"
    "\n"
    "Broker:\n"
    "  -h, -H, --host HOST  broker host (default localhost); overrides the file\n"
    "  -p, --port PORT      broker port (default 1883); overrides the file\n"
    "  -c, --config FILE    take the broker settings (host, port, TLS, login) from\n"
    "                       ipcd's configuration file, e.g. /etc/kirn/ipcd.conf\n"
    "  -u, --username USER  broker login; overrides the file\n"
    "  -P, --password PASS  its password; others may see it until ipcd-ctl has\n"
    "                       started, so prefer:\n"
    "  --password-file FILE the password is the file's first line; without -P or\n"
    "                       this: $IPCD_PASSWORD when there is a user name, else\n"
    "                       the configuration file's\n"
    "  --cafile FILE        TLS to the broker, trusting this CA; overrides the file\n"
    "  --cert FILE, --key FILE\n"
    "                       client certificate and key for TLS; override the file\n"
    "\n"
    "Messages:\n"
    "  --catalogue FILE     signal catalogue (default $KIRN_RT_CATALOGUE, else\n"
    "                       /etc/kirn/rt_catalogue.json); send needs it, watch shows\n"
    "                       signal values by it when there is one\n"
    "  -q, --qos QOS        0, 1 or 2: what announce, tpa, state and send publish\n"
    "                       (default 1); watch's subscriptions (default 2)\n"
    "  -r, --retain         announce, tpa and send: a retained message, which ipcd\n"
    "                       also gets at each later start (remove it with\n"
    "                       mosquitto_pub -r -n -t TOPIC)\n"
    "  -t, --topic TOPIC    watch: a topic filter (+ and # wildcards), repeatable,\n"
    "                       like the FILTER operands; send: the rttx/ topic\n"
    "  -C, --count N        watch: end after N messages\n"
    "  -W, --timeout SECONDS\n"
    "                       how long to wait: for acknowledgements (default 5), for\n"
    "                       status, stats and health (default 2), for watch (default:\n"
    "                       no limit)\n"
    "  -v, --verbose        watch, status: print the topic in front of each message\n"
    "  --json               watch, status: one JSON object per message, its topic\n"
    "                       included; stats, health: ipcd's JSON as published\n"
    "  -d, --debug          also print the transport's log lines\n"
    "  --help               this text\n"
    "\n"
    "Commands:\n"
    "  announce TOPIC...                  request rt/ topics (subscription/announcement)\n"
    "  tpa [--wait-for-target] [--target-reached]\n"
    "                                     start-up status (system/tpa/status)\n"
    "  state VALUE                        system state 0..255 (system/state/rt; 4 = shutdown)\n"
    "  send rttx/PATH NAME=VALUE...       signal values of the catalogue group rt/PATH,\n"
    "                                     decimal or 0x-hex, little-endian\n"
    "  watch [FILTER...]                  print the messages of the filters (default #),\n"
    "                                     decoded, until -C, -W, SIGINT or SIGTERM\n"
    "  status                             print the subscription status ipcd keeps\n"
    "  stats                              print ipcd's statistics (system/ipc/stats)\n"
    "  health                             print ipcd's health (system/ipc/health);\n"
    "                                     exit status 3 when it says down\n"
    "  ping                               succeed when the broker accepts a connection\n"
    "                                     (what ipcd's service unit waits for)\n"
    "\n"
    "Publishing commands return once the broker has acknowledged the message (at\n"
    "QoS 0: once it is sent). watch only subscribes; it says \"watching\" on\n"
    "standard error once the broker has taken its subscriptions.\n"
    "Exit status: 0 done, 1 broker or timeout failure, fewer than -C messages or\n"
    "nothing retained, 2 bad arguments, configuration file or catalogue, 3 ipcd\n"
    "down (health).\n";

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
    int qos = -1;         // command default
    bool retain = false;
    std::vector<std::string> topics;  // -t
    std::uint64_t count = 0;          // -C; 0: no limit
    bool verbose = false;             // topics in front of text lines
    bool json = false;
    bool debug = false;
    bool wait_for_target = false;
    bool target_reached = false;
};

// A connected client with its configuration, which must outlive it.
struct Connection {
    std::unique_ptr<config::Configuration> config;
    std::shared_ptr<com::ITransportClient> client;
};

std::string broker_of(const Connection& c) {
    return c.config->get("host") + ":" + c.config->get("port");
}

// The broker settings: defaults, then ipcd's file, then the options. 0 when
// they can work; g_bad_input (after an error line) when not.
int configure(const Options& o, Connection& c) {
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
    return c.config->verify() ? 0 : g_bad_input;
}

// Connects through the transport. 0 when connected; g_bad_input for settings
// that cannot work (the file, or what the transport refuses); 1 when the
// broker cannot be reached or refuses, after the transport's error line.
int connect(const Options& o, Connection& c) {
    if (const int rc = configure(o, c); rc != 0) {
        return rc;
    }
    c.client = com::create_client(c.config, com::TransportType::mqtt);
    if (!c.client) {
        error_line("cannot create an MQTT client");
        return g_bad_input;
    }
    if (!c.client->connect() || !c.client->start()) {
        c.client.reset();
        return 1;
    }
    return 0;
}

// A listener on filters. The transport connects first and goes: it says why
// a broker cannot be reached or refuses (and never starts TLS on a refused
// socket); the listener then connects with the same settings.
int listen(const Options& o, const std::vector<std::string>& filters, int qos,
           std::unique_ptr<BrokerListener>& out) {
    Connection c;
    if (const int rc = connect(o, c); rc != 0) {
        return rc;
    }
    c.client->stop();
    auto settings = com::read_mqtt_settings(*c.config);
    if (!settings) {
        return g_bad_input;
    }
    out = std::make_unique<BrokerListener>(*settings, filters, qos);
    return out->open() ? 0 : 1;
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
    framed.message.qos = static_cast<std::uint8_t>(o.qos < 0 ? 1 : o.qos);
    framed.message.retained = o.retain;
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

// The catalogue; null after the catalogue's error line. Not required, and
// none named (option or environment) and none at the default place: an empty
// one, so that a watcher shows messages without signal names.
std::unique_ptr<Catalogue> load_catalogue(const Options& o, bool required) {
    const std::string path = catalogue_path(o.catalogue);
    auto catalogue = std::make_unique<Catalogue>();
    const char* env = std::getenv("KIRN_RT_CATALOGUE");
    const bool named = !o.catalogue.empty() || (env != nullptr && *env != '\0');
    if (!required && !named && access(path.c_str(), F_OK) != 0) {
        return catalogue;
    }
    return catalogue->load(path) ? std::move(catalogue) : nullptr;
}

// Prints the messages of the filters until -C were printed, the time runs
// out or a signal comes. Exit status 1 when fewer than -C came.
int watch(const Options& o, const std::vector<std::string>& filters) {
    auto catalogue = load_catalogue(o, false);
    if (!catalogue) {
        return g_bad_input;
    }
    sigset_t mask;
    sigemptyset(&mask);
    sigaddset(&mask, SIGINT);
    sigaddset(&mask, SIGTERM);
    // Blocked before the transport's threads start, so that only the signalfd sees them.
    sigprocmask(SIG_BLOCK, &mask, nullptr);
    const int sig_fd = signalfd(-1, &mask, SFD_CLOEXEC | SFD_NONBLOCK);

    std::unique_ptr<BrokerListener> listener;
    if (const int rc = listen(o, filters, o.qos < 0 ? 2 : o.qos, listener); rc != 0) {
        return rc;
    }
    const bool limited = o.timeout >= 0;
    const auto deadline =
        Clock::now() + std::chrono::duration_cast<Clock::duration>(
                           std::chrono::duration<double>(limited ? o.timeout : 0));
    std::uint64_t printed = 0;
    bool ready = false;
    while (o.count == 0 || printed < o.count) {
        signalfd_siginfo info{};
        if (read(sig_fd, &info, sizeof info) == static_cast<ssize_t>(sizeof info)) {
            break;
        }
        if (limited && Clock::now() >= deadline) {
            break;
        }
        std::pair<std::string, com::Message> m;
        const bool got = listener->next(m, std::chrono::milliseconds(50));
        if (!ready && listener->subscribed()) {
            if (listener->all_refused()) {
                return 1;
            }
            error_line("watching " + flat(Json(filters)));
            ready = true;
        }
        if (got) {
            const Json j = decode(catalogue.get(), m.first, m.second);
            print_line(o.json ? j.dump() : text_line(j, o.verbose));
            ++printed;
        }
    }
    if (o.count != 0 && printed < o.count) {
        error_line("watch: " + std::to_string(printed) + " of " + std::to_string(o.count) +
                   " messages came");
        return 1;
    }
    return 0;
}

// The message retained on topic, if any. Once the broker has answered the
// mark the listener asks for after its subscription, every retained message
// of the topic has come, so "none" is known then, or at the timeout.
int retained(const Options& o, const std::string& topic, com::Message& out) {
    std::unique_ptr<BrokerListener> listener;
    if (const int rc = listen(o, {topic}, 2, listener); rc != 0) {
        return rc;
    }
    const auto wait = std::chrono::duration<double>(o.timeout < 0 ? 2 : o.timeout);
    const auto deadline = Clock::now() + std::chrono::duration_cast<Clock::duration>(wait);
    std::pair<std::string, com::Message> m;
    while (Clock::now() < deadline) {
        if (listener->next(m, std::chrono::milliseconds(50))) {
            if (m.first == topic && !m.second.payload.empty()) {
                out = std::move(m.second);
                return 0;
            }
        } else if (listener->retained_sent()) {
            break;
        }
    }
    error_line("nothing retained on " + topic + " at broker " + listener->where() +
               " (is ipcd running there?)");
    return 1;
}
int status(const Options& o) {
    com::Message m;
    if (const int rc = retained(o, topics::subscription_status, m); rc != 0) {
        print_line("no subscription status");
        return rc;
    }
    const Json j = decode(nullptr, topics::subscription_status, m);
    print_line(o.json ? j.dump() : text_line(j, o.verbose));
    return 0;
}

// stats and health: ipcd's own JSON, as it is or readable.
int show_state(const Options& o, const std::string& command) {
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
    std::fputs(
        o.json ? (payload + "\n").c_str() : (text + (command == "stats" ? "" : "\n")).c_str(),
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

// Options that only some commands take; a mistake is said, not ignored.
int check_options(const Options& o, const std::string& command) {
    auto among = [&command](std::initializer_list<const char*> commands) {
        return std::any_of(commands.begin(), commands.end(),
                           [&command](const char* c) { return command == c; });
    };
    const struct {
        bool given;
        const char* option;
        bool applies;
    } checks[] = {
        {o.retain, "-r", among({"announce", "tpa", "send"})},
        {o.qos >= 0, "-q", among({"announce", "tpa", "state", "send", "watch"})},
        {!o.topics.empty(), "-t", among({"watch", "send"})},
        {o.count != 0, "-C", command == "watch"},
        {o.verbose, "-v", among({"watch", "status"})},
        {o.json, "--json", among({"watch", "status", "stats", "health"})},
        {o.wait_for_target || o.target_reached, "--wait-for-target/--target-reached",
         command == "tpa"},
    };
    for (const auto& c : checks) {
        if (c.given && !c.applies) {
            std::string text = std::string(c.option) + " does not apply to " + command;
            if (c.option[1] == 'v') {
                text += "; the transport's log lines are -d";
            } else if (c.option[1] == 'r' && command == "state") {
                text += ": a retained state would reach every ipcd that starts later";
            }
            return usage_error(text);
        }
    }
    return 0;
}

// A topic filter the broker takes: a wildcard fills a whole level, # only the last.
bool is_filter(const std::string& f) {
    for (std::size_t i = 0; i < f.size(); ++i) {
        const bool alone = (i == 0 || f[i - 1] == '/') && (i + 1 == f.size() || f[i + 1] == '/');
        if ((f[i] == '+' && !alone) || (f[i] == '#' && (!alone || i + 1 != f.size()))) {
            return false;
        }
    }
    return !f.empty();
}

int run(int argc, char** argv) {
    Options o;
    enum { catalogue = 1, password_file, cafile, cert, key, json, wait_for_target, target_reached };
    static const option long_options[] = {
        {"config", required_argument, nullptr, 'c'},
        {"host", required_argument, nullptr, 'h'},
        {"port", required_argument, nullptr, 'p'},
        {"username", required_argument, nullptr, 'u'},
        {"password", required_argument, nullptr, 'P'},
        {"password-file", required_argument, nullptr, password_file},
        {"cafile", required_argument, nullptr, cafile},
        {"cert", required_argument, nullptr, cert},
        {"key", required_argument, nullptr, key},
        {"catalogue", required_argument, nullptr, catalogue},
        {"qos", required_argument, nullptr, 'q'},
        {"retain", no_argument, nullptr, 'r'},
        {"topic", required_argument, nullptr, 't'},
        {"count", required_argument, nullptr, 'C'},
        {"timeout", required_argument, nullptr, 'W'},
        {"verbose", no_argument, nullptr, 'v'},
        {"json", no_argument, nullptr, json},
        {"wait-for-target", no_argument, nullptr, wait_for_target},
        {"target-reached", no_argument, nullptr, target_reached},
        {"debug", no_argument, nullptr, 'd'},
        {"help", no_argument, nullptr, 'h' + 256},
        {nullptr, 0, nullptr, 0}};
    opterr = 0;
    for (int c;
         (c = getopt_long(argc, argv, ":c:h:H:p:u:P:q:rt:C:W:vd", long_options, nullptr)) != -1;) {
        switch (c) {
            case 'c':
                o.config_file = optarg;
                break;
            case 'h':
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
            case 'q': {
                const auto qos = parse_number(optarg);
                if (!qos || *qos > 2) {
                    return usage_error(std::string("QoS '") + optarg + "' is not 0, 1 or 2");
                }
                o.qos = static_cast<int>(*qos);
                break;
            }
            case 'r':
                o.retain = true;
                break;
            case 't':
                o.topics.emplace_back(optarg);
                break;
            case 'C': {
                const auto n = parse_number(optarg);
                if (!n || *n == 0) {
                    return usage_error(std::string("count '") + optarg +
                                       "' is not a number above 0");
                }
                o.count = *n;
                break;
            }
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
            case json:
                o.json = true;
                break;
            case wait_for_target:
                o.wait_for_target = true;
                break;
            case target_reached:
                o.target_reached = true;
                break;
            case 'd':
                o.debug = true;
                break;
            case 'h' + 256:
                std::fputs(g_usage, stdout);
                return 0;
            case ':':
                return usage_error(
                    std::string("option '") + argv[optind - 1] +
                    (optopt == 'h' ? "' needs a host; help is --help" : "' needs a value"));
            default:
                return usage_error(std::string("unknown option '") + argv[optind - 1] + "'");
        }
    }
    route_logging(o.debug);
    if (optind >= argc) {
        return usage_error("no command");
    }
    const std::string command = argv[optind];
    const std::vector<std::string> args(argv + optind + 1, argv + argc);
    if (const int rc = check_options(o, command); rc != 0) {
        return rc;
    }

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
        if (o.topics.size() > 1 || (o.topics.empty() && args.empty())) {
            return usage_error("send: expected rttx/PATH (or one -t rttx/PATH) NAME=VALUE...");
        }
        const bool operand = o.topics.empty();
        return send(o, operand ? args[0] : o.topics[0],
                    {args.begin() + (operand ? 1 : 0), args.end()});
    }
    if (command == "watch") {
        std::vector<std::string> filters = o.topics;
        filters.insert(filters.end(), args.begin(), args.end());
        for (const auto& f : filters) {
            if (!is_filter(f)) {
                return usage_error("watch: '" + f + "' is not a topic filter");
            }
        }
        return watch(o, filters.empty() ? std::vector<std::string>{"#"} : filters);
    }
    const bool known = command == "tpa" || command == "ping" || command == "status" ||
                       command == "stats" || command == "health";
    if (!known) {
        return usage_error("unknown command '" + command + "'");
    }
    if (!args.empty()) {
        return usage_error(command + ": unexpected argument '" + args[0] + "'");
    }
    if (command == "tpa") {
        pb::TPAStatus body;
        body.set_wait_for_target(o.wait_for_target);
        body.set_target_reached(o.target_reached);
        return publish(o, topics::tpa_status, body);
    }
    if (command == "ping") {
        Connection c;
        if (const int rc = connect(o, c); rc != 0) {
            return rc;
        }
        print_line("broker " + broker_of(c) + " accepted the connection");
        c.client->stop();
        return 0;
    }
    return command == "status" ? status(o) : show_state(o, command);
}

}  // namespace

int main(int argc, char** argv) {
    set_program("ipcd-ctl");
    route_logging(false);
    signal(SIGPIPE, SIG_IGN);
    return run(argc, argv);
}
