#include <arpa/inet.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>
#include <tuple>

#include "harness.h"

namespace ipcd_test {

namespace {

void must(const std::vector<std::string>& argv) {
    const Outcome r = run(argv);
    if (r.status != 0) {
        throw std::runtime_error(argv[0] + " " + argv[1] + " failed: " + r.err);
    }
}

}  // namespace

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

Broker::Broker(std::string extra_config) : m_port(free_port()) {
    m_dir.write("mosquitto.conf",
                "per_listener_settings true\npersistence false\nmax_queued_messages 0\n"
                "set_tcp_nodelay true\nlog_dest stderr\nlog_type information\nlistener " +
                    std::to_string(m_port) + " 127.0.0.1\nallow_anonymous true\n" + extra_config);
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
