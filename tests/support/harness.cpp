// The harness's real parts: processes and the tools, the broker and its TLS
// material, ipcd with its ports.

#include <arpa/inet.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <sstream>
#include <stdexcept>
#include <tuple>

#include "harness.h"

extern char** environ;

namespace ipcd_test {

Process::Process(std::vector<std::string> argv, const std::vector<std::string>& env) {
    std::map<std::string, std::string> vars;  // built before fork: nothing but syscalls after
    for (char** e = environ; *e != nullptr; ++e) {
        vars[std::string(*e).substr(0, std::string(*e).find('='))] = *e;
    }
    for (const auto& e : env) {
        vars[e.substr(0, e.find('='))] = e;
    }
    std::vector<char*> cargv;
    std::vector<char*> cenv;
    for (auto& a : argv) {
        cargv.push_back(a.data());
    }
    for (auto& entry : vars) {
        cenv.push_back(entry.second.data());
    }
    cargv.push_back(nullptr);
    cenv.push_back(nullptr);
    const int out = open(m_dir.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = open(m_dir.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(out, 1);
        dup2(err, 2);
        dup2(open("/dev/null", O_RDONLY), 0);
        setpgid(0, 0);  // a group of its own, so that a kill reaches what it starts
        execve(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
    close(out);
    close(err);
}

Process::~Process() {
    if (running()) {
        kill(-m_pid, SIGKILL);
        kill(m_pid, SIGKILL);
        wait(5s);
    }
}

std::optional<int> Process::wait(std::chrono::milliseconds deadline) {
    wait_until(
        [this] {
            int status = 0;
            if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            return m_status.has_value();
        },
        deadline);
    return m_status;
}

Outcome run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    Process p(argv, env);
    if (!p.wait(30s)) {
        throw std::runtime_error(argv[0] + " did not end: " + p.err());
    }
    return {*p.wait(), p.out(), p.err()};
}

Outcome ctl(int port, std::vector<std::string> args, const std::vector<std::string>& options) {
    args.insert(args.begin(), options.begin(), options.end());
    args.insert(args.begin(), {g_ctl, "-H", "127.0.0.1", "-p", std::to_string(port), "--catalogue",
                               g_sample_catalogue});
    return run(args);
}

std::unique_ptr<Process> watch(int port, std::vector<std::string> args,
                               const std::vector<std::string>& options) {
    args.insert(args.begin(), {"watch", "--json"});
    args.insert(args.begin(), options.begin(), options.end());
    args.insert(args.begin(), {g_ctl, "-H", "127.0.0.1", "-p", std::to_string(port), "--catalogue",
                               g_sample_catalogue});
    auto p = std::make_unique<Process>(args);
    // One that is done before its marker came back (retained messages only) never says so.
    if (!wait_until(
            [&] { return p->err().find("watching") != std::string::npos || !p->running(); })) {
        throw std::runtime_error("ipcd-ctl does not watch: " + p->err());
    }
    return p;
}

std::vector<std::string> login(const std::string& identity) {
    return {"-u", identity, "-P", identity + "-pw"};
}

std::string ipcd_login(const TempDir& dir) {
    return dir.write("ipcd-login.conf", "username=ipcd\npassword=ipcd-pw\n");
}

std::vector<nlohmann::json> json_lines(const std::string& text) {
    std::vector<nlohmann::json> values;
    std::istringstream lines(text.substr(0, text.rfind('\n') + 1));  // whole lines only
    for (std::string line; std::getline(lines, line);) {
        values.push_back(nlohmann::json::parse(line));
    }
    return values;
}

Client::Client(int port, const std::map<std::string, std::string>& settings)
    : config(std::make_unique<ecu::kora::config::Configuration>()) {
    config->values() = {
        {"host", "127.0.0.1"}, {"port", std::to_string(port)}, {"client_name", "test"}};
    for (const auto& [key, value] : settings) {
        config->values()[key] = value;
    }
    client = std::dynamic_pointer_cast<ecu::kora::com::MqttClient>(
        ecu::kora::com::create_client(config, ecu::kora::com::TransportType::mqtt));
}

int free_port() {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t len = sizeof addr;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), len) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        throw std::runtime_error("free_port: bind failed");
    }
    close(fd);
    return ntohs(addr.sin_port);
}

namespace {
// mosquitto started as root reads and writes the broker's files as its own user.
void open_to_broker(const TempDir& dir) {
    namespace fs = std::filesystem;
    fs::permissions(dir.path(), fs::perms::others_read | fs::perms::others_exec,
                    fs::perm_options::add);
    for (const auto& entry : fs::directory_iterator(dir.path())) {
        fs::permissions(entry.path(),
                        entry.is_directory() ? fs::perms::others_all : fs::perms::others_read,
                        fs::perm_options::add);
    }
}
}  // namespace

Broker::Broker(std::string extra_config, bool persistent) : m_port(free_port()) {
    if (persistent) {
        std::filesystem::create_directory(m_dir.file("store"));
        extra_config += "persistence true\npersistence_location " + m_dir.file("store/\n");
        open_to_broker(m_dir);
    }
    m_dir.write("mosquitto.conf",
                "per_listener_settings true\npersistence false\nmax_queued_messages 0\n"
                "set_tcp_nodelay true\nlog_dest stderr\nlog_type information\nlistener " +
                    std::to_string(m_port) + " 127.0.0.1\nallow_anonymous true\n" + extra_config);
    start();
}

Broker::Broker(Shipped shipped) : m_port(free_port()) {
    const std::string dist = IPCD_BROKER_EXAMPLES "/";
    // The shipped lines that name the vehicle's ports and paths, as the test's;
    // the test's fleet broker speaks plain MQTT (no bridge_*file lines).
    const std::map<std::string, std::string> lines_for = {
        {"listener", "listener " + std::to_string(m_port) + " 127.0.0.1"},
        {"password_file", "password_file " + m_dir.file("passwd")},
        {"acl_file", "acl_file " + m_dir.file("acl")},
        {"address", "address 127.0.0.1:" + std::to_string(shipped.upstream_port)},
        {"bridge_cafile", ""},
        {"bridge_certfile", ""},
        {"bridge_keyfile", ""}};
    std::string config;
    for (const std::string file : {"local.conf", "bridge.conf"}) {
        std::istringstream lines(
            file == "local.conf" || shipped.upstream_port != 0 ? read_file(dist + file) : "");
        for (std::string line; std::getline(lines, line);) {
            const auto found = lines_for.find(line.substr(0, line.find(' ')));
            config += (found != lines_for.end() ? found->second : line) + "\n";
        }
    }
    m_dir.write("mosquitto.conf",
                config + "persistence_location " + m_dir.file("store/") + "\nlog_dest stderr\n");
    m_dir.write("acl", read_file(dist + "acl"));
    m_dir.write("passwd", read_file(dist + "passwd"));
    for (const char* identity : {"ipcd", "platform", "hmi"}) {
        run({"/usr/bin/mosquitto_passwd", "-b", m_dir.file("passwd"), identity,
             identity + std::string("-pw")});
    }
    std::filesystem::create_directory(m_dir.file("store"));
    open_to_broker(m_dir);
    start();
}

void Broker::start() {
    m_process = std::make_unique<Process>(
        std::vector<std::string>{"/usr/sbin/mosquitto", "-c", m_dir.file("mosquitto.conf")});
    // Its "running" line comes once every listener is open.
    if (!wait_until([&] { return m_process->err().find(" running") != std::string::npos; })) {
        throw std::runtime_error("mosquitto did not start: " + m_process->err());
    }
}

void Broker::stop(bool hard) {
    m_process->signal(SIGCONT);
    m_process->signal(hard ? SIGKILL : SIGTERM);
    m_process->wait(10s);
}

TlsFiles::TlsFiles() {
    auto must = [](const std::vector<std::string>& argv) {
        if (const Outcome r = run(argv); r.status != 0) {
            throw std::runtime_error(argv[0] + " " + argv[1] + " failed: " + r.err);
        }
    };
    for (const auto& [name, issuer, san] :
         {std::tuple<std::string, std::string, std::string>{"ca", "", ""},
          {"other-ca", "", ""},
          {"server", "ca", "IP:127.0.0.1"},
          {"wrong-name", "ca", "DNS:broker.invalid"},
          {"client", "ca", "DNS:ipcd"}}) {
        // EC keys: quick to make.
        must({"/bin/sh", "-c",
              "openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:P-256 -nodes -days 2 "
              "-keyout " +
                  file(name + ".key") + " -out " + file(name + ".crt") +
                  " -subj /CN=" + (name == "client" ? "ipcd" : name) +
                  (issuer.empty() ? ""
                                  : " -CA " + file(issuer + ".crt") + " -CAkey " +
                                        file(issuer + ".key") + " -addext subjectAltName=" + san +
                                        " -addext basicConstraints=CA:FALSE")});
    }
    must({"/usr/bin/mosquitto_passwd", "-c", "-b", file("passwords"), "ipcd", "Hunter2"});
    must({"/usr/bin/mosquitto_passwd", "-c", "-b", file("strangers"), "someone", "else"});
    open_to_broker(m_dir);
}

std::string TlsFiles::listener(int port, bool login, bool wrong_name) const {
    const std::string server = file(wrong_name ? "wrong-name" : "server");
    return "listener " + std::to_string(port) + " 127.0.0.1\ncafile " + file("ca.crt") +
           "\ncertfile " + server + ".crt\nkeyfile " + server + ".key\n" +
           (login ? "allow_anonymous false\npassword_file " + file("passwords") + "\n"
                  : "require_certificate true\nuse_identity_as_username true\n");
}

Daemon::Daemon(int port, std::string catalogue)
    : m_port(port),
      m_catalogue(std::move(catalogue)),
      m_notify_fd(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0)) {
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, m_dir.file("notify").c_str(), sizeof addr.sun_path - 1);
    bind(m_notify_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr);
    m_dir.fifo("rx");
    signal(SIGPIPE, SIG_IGN);  // RX closed by ipcd: a failed write, not the test's end
    m_tx_fd = open(m_dir.fifo("tx").c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    fcntl(m_tx_fd, F_SETPIPE_SZ, 1 << 20);  // a slow reader must not look like a lost port
    // Read all the time, as the service manager does: a test that looks only
    // now and then must not fill the queue and hold ipcd up. Started last,
    // once nothing here can throw.
    m_drain = std::thread([this] {
        for (char buf[512]; m_draining;) {
            pollfd ready{m_notify_fd, POLLIN, 0};
            const ssize_t n = poll(&ready, 1, 20) > 0 ? recv(m_notify_fd, buf, sizeof buf, 0) : 0;
            if (n > 0) {
                std::lock_guard<std::mutex> lock(m_notify_mutex);
                m_notifications.emplace_back(buf, static_cast<std::size_t>(n));
            }
        }
    });
}

Daemon::~Daemon() {
    m_process.reset();  // ipcd ends before its notification socket is left unread
    stop_draining();
    close(m_rx_fd);
    close(m_tx_fd);
    close(m_notify_fd);
}

void Daemon::start(std::vector<std::string> extra, std::vector<std::string> env,
                   std::vector<std::string> argv) {
    argv.insert(argv.end(), {g_ipcd, "-L", "-H", "127.0.0.1", "-p", std::to_string(m_port), "-r",
                             m_dir.file("rx"), "-t", m_dir.file("tx")});
    argv.insert(argv.end(), extra.begin(), extra.end());
    env.push_back("KIRN_RT_CATALOGUE=" + m_catalogue);
    env.push_back("NOTIFY_SOCKET=" + m_dir.file("notify"));
    m_process = std::make_unique<Process>(argv, env);
    if (!wait_until([this] { return notified("READY=1") > 0; }, 60s) || !wait_until([this] {
            m_rx_fd = open(m_dir.file("rx").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            return m_rx_fd >= 0;
        })) {
        throw std::runtime_error("ipcd not ready: " + m_process->out());
    }
    fcntl(m_rx_fd, F_SETFL, 0);
    fcntl(m_rx_fd, F_SETPIPE_SZ, 1 << 20);
}

std::size_t Daemon::notified(const std::string& message) {
    std::lock_guard<std::mutex> lock(m_notify_mutex);
    return static_cast<std::size_t>(
        std::count(m_notifications.begin(), m_notifications.end(), message));
}

std::vector<std::string> Daemon::notifications(const std::string& prefix) {
    std::lock_guard<std::mutex> lock(m_notify_mutex);
    std::vector<std::string> found;
    std::copy_if(m_notifications.begin(), m_notifications.end(), std::back_inserter(found),
                 [&](const std::string& n) { return n.rfind(prefix, 0) == 0; });
    return found;
}

void Daemon::stop_draining() {
    if (!m_drain.joinable()) {
        return;
    }
    m_draining = false;
    m_drain.join();
    // As small a queue as the kernel allows, then filled to the brim from a
    // socket of the test's own: ipcd's next notification finds no room.
    const int smallest = 1;
    setsockopt(m_notify_fd, SOL_SOCKET, SO_RCVBUF, &smallest, sizeof smallest);
    const int filler = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    sockaddr_un addr{};
    addr.sun_family = AF_UNIX;
    std::strncpy(addr.sun_path, m_dir.file("notify").c_str(), sizeof addr.sun_path - 1);
    while (sendto(filler, "X=1", 3, MSG_DONTWAIT, reinterpret_cast<sockaddr*>(&addr),
                  sizeof addr) == 3) {
    }
    close(filler);
}

void Daemon::write_record(std::uint32_t id, const std::vector<std::uint8_t>& data,
                          std::uint64_t timestamp) {
    std::vector<std::uint8_t> bytes;
    ecu::kora::ipc::encode_record({id, 0, timestamp, data}, bytes);
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(m_rx_fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            throw std::runtime_error("cannot write into the RX FIFO");
        }
        done += static_cast<std::size_t>(n);
    }
}

std::optional<int> Daemon::stop() {
    close(m_rx_fd);
    m_rx_fd = -1;
    return m_process->wait(15s);
}

void Daemon::close_tx() {
    close(m_tx_fd);
    m_tx_fd = -1;
}

std::vector<ecu::kora::ipc::IpcSignal> Daemon::tx_records(std::size_t count) {
    std::vector<std::uint8_t> buf(64 * 1024);
    wait_until([&] {
        const ssize_t n = read(m_tx_fd, buf.data(), buf.size());
        m_tx_decoder.feed(buf.data(), static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
        for (ecu::kora::ipc::IpcSignal r; m_tx_decoder.next(r);) {
            m_tx_out.push_back(r);
        }
        return m_tx_out.size() >= count;
    });
    return m_tx_out;
}

void release(Daemon& daemon, int port, const std::vector<std::string>& login) {
    if (ctl(port, {"announce", "rt/vehicle/battery"}, login).status != 0 ||
        ctl(port, {"tpa", "--wait-for-target", "--target-reached"}, login).status != 0 ||
        !daemon.process().wait_out("Earlybird message processing done.")) {
        throw std::runtime_error("ipcd did not release: " + daemon.process().out());
    }
}

std::unique_ptr<Process> generate(const Daemon& daemon, const std::string& topics, unsigned rate,
                                  unsigned count) {
    const TempDir& dir = daemon.dir();
    std::vector<std::string> argv{g_sim, "--rx", dir.file("rx"), "--tx", dir.file("sim-tx")};
    argv.insert(argv.end(), {"--generate", topics, "--rate", std::to_string(rate)});
    argv.insert(argv.end(), {"--catalogue", g_sample_catalogue});
    if (count != 0) {
        argv.insert(argv.end(), {"--count", std::to_string(count), "--keep-open"});
    }
    return std::make_unique<Process>(argv);
}

std::size_t generated(const Process& sim) {
    return count_of(sim.out(), "\nRX rt/");
}

}  // namespace ipcd_test
