#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

#include "harness.h"

namespace ipcd_test {

namespace {

// Connects to 127.0.0.1:port, or binds a free port when port is 0.
bool loopback(int& port) {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    auto* a = reinterpret_cast<sockaddr*>(&addr);
    socklen_t len = sizeof addr;
    const bool ok = port == 0 ? bind(fd, a, len) == 0 && getsockname(fd, a, &len) == 0
                              : connect(fd, a, len) == 0;
    port = ntohs(addr.sin_port);
    close(fd);
    return ok;
}

void must(const std::vector<std::string>& argv) {
    const Outcome r = run(argv);
    if (r.status != 0) {
        throw std::runtime_error(argv[0] + " " + argv[1] + " failed: " + r.err);
    }
}

}  // namespace

int free_port() {
    int port = 0;
    if (!loopback(port)) {
        throw std::runtime_error("free_port: bind failed");
    }
    return port;
}

Broker::Broker(std::string extra_config) : m_port(free_port()) {
    m_dir.write("mosquitto.conf",
                "per_listener_settings true\npersistence false\nmax_queued_messages 0\n"
                "set_tcp_nodelay true\nlog_dest stderr\nlog_type error\nlistener " +
                    std::to_string(m_port) + " 127.0.0.1\nallow_anonymous true\n" + extra_config);
    start();
}

void Broker::start() {
    m_process = std::make_unique<Process>(
        std::vector<std::string>{"/usr/sbin/mosquitto", "-c", m_dir.file("mosquitto.conf")});
    int port = m_port;
    if (!wait_until([&] { return loopback(port = m_port) || !m_process->running(); }) ||
        !m_process->running()) {
        throw std::runtime_error("mosquitto did not start: " + m_process->err());
    }
}

void Broker::stop(bool hard) {
    m_process->signal(SIGCONT);
    m_process->signal(hard ? SIGKILL : SIGTERM);
    m_process->wait(10s);
}

TlsFiles::TlsFiles() {
    const std::string openssl = "/usr/bin/openssl";
    for (const char* ca : {"ca", "other-ca"}) {  // EC keys: quick to make
        must({openssl, "req", "-x509", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256",
              "-nodes", "-keyout", file(ca + std::string(".key")), "-days", "2", "-subj",
              std::string("/CN=") + ca, "-out", file(ca + std::string(".crt"))});
    }
    for (const auto& [name, san] : {std::pair<std::string, std::string>{"server", "IP:127.0.0.1"},
                                    {"wrong-name", "DNS:broker.invalid"},
                                    {"client", "DNS:ipcd"}}) {
        must({openssl, "req", "-newkey", "ec", "-pkeyopt", "ec_paramgen_curve:P-256", "-nodes",
              "-keyout", file(name + ".key"), "-subj", "/CN=" + (name == "client" ? "ipcd" : name),
              "-out", file(name + ".csr")});
        must({openssl, "x509", "-req", "-in", file(name + ".csr"), "-CA", file("ca.crt"), "-CAkey",
              file("ca.key"), "-CAcreateserial", "-days", "2", "-out", file(name + ".crt"),
              "-extfile", m_dir.write(name + ".ext", "subjectAltName=" + san + "\n")});
    }
    must({"/usr/bin/mosquitto_passwd", "-c", "-b", file("passwords"), "ipcd", "Hunter2"});
    // mosquitto started as root reads them as its own user.
    namespace fs = std::filesystem;
    fs::permissions(m_dir.path(), fs::perms::others_read | fs::perms::others_exec,
                    fs::perm_options::add);
    for (const auto& entry : fs::directory_iterator(m_dir.path())) {
        fs::permissions(entry.path(), fs::perms::others_read, fs::perm_options::add);
    }
}

std::string TlsFiles::listener(int port, bool login, bool wrong_name) const {
    const std::string server = file(wrong_name ? "wrong-name" : "server");
    return "listener " + std::to_string(port) + " 127.0.0.1\ncafile " + file("ca.crt") +
           "\ncertfile " + server + ".crt\nkeyfile " + server + ".key\n" +
           (login ? "allow_anonymous false\npassword_file " + file("passwords") + "\n"
                  : "require_certificate true\nuse_identity_as_username true\n");
}

}  // namespace ipcd_test
