#include "tls_files.h"

#include <filesystem>
#include <stdexcept>

#include "process.h"

namespace ipcd_test {

namespace {

void must(const std::vector<std::string>& argv) {
    const Outcome r = run(argv);
    if (r.status != 0) {
        throw std::runtime_error(argv[0] + " " + argv[1] + " failed: " + r.err);
    }
}

}  // namespace

TlsFiles::TlsFiles() {
    const std::string openssl = "/usr/bin/openssl";
    // EC keys: quick to make, and as good for a test as for a car.
    auto key = [&](const std::string& name) {
        must({openssl, "genpkey", "-algorithm", "EC", "-pkeyopt", "ec_paramgen_curve:P-256", "-out",
              m_dir.file(name + ".key")});
    };
    auto ca = [&](const std::string& name) {
        key(name);
        must({openssl, "req", "-x509", "-new", "-key", m_dir.file(name + ".key"), "-days", "2",
              "-subj", "/CN=" + name, "-out", m_dir.file(name + ".crt")});
    };
    auto signed_cert = [&](const std::string& name, const std::string& cn, const std::string& san) {
        key(name);
        must({openssl, "req", "-new", "-key", m_dir.file(name + ".key"), "-subj", "/CN=" + cn,
              "-out", m_dir.file(name + ".csr")});
        std::vector<std::string> argv{openssl,
                                      "x509",
                                      "-req",
                                      "-in",
                                      m_dir.file(name + ".csr"),
                                      "-CA",
                                      m_dir.file("ca.crt"),
                                      "-CAkey",
                                      m_dir.file("ca.key"),
                                      "-CAcreateserial",
                                      "-days",
                                      "2",
                                      "-out",
                                      m_dir.file(name + ".crt")};
        if (!san.empty()) {
            argv.insert(argv.end(),
                        {"-extfile", m_dir.write(name + ".ext", "subjectAltName=" + san + "\n")});
        }
        must(argv);
    };
    ca("ca");
    ca("other-ca");
    signed_cert("server", "localhost", "IP:127.0.0.1,DNS:localhost");
    signed_cert("wrong-name", "broker.invalid", "DNS:broker.invalid");
    signed_cert("client", user, "");
    m_dir.write("passwords", "");
    must({"/usr/bin/mosquitto_passwd", "-b", m_dir.file("passwords"), user, password});
    // mosquitto started as root reads them as its own user.
    std::filesystem::permissions(
        m_dir.path(), std::filesystem::perms::owner_all | std::filesystem::perms::group_read |
                          std::filesystem::perms::group_exec | std::filesystem::perms::others_read |
                          std::filesystem::perms::others_exec);
    for (const auto& entry : std::filesystem::directory_iterator(m_dir.path())) {
        std::filesystem::permissions(entry.path(), std::filesystem::perms::owner_read |
                                                       std::filesystem::perms::owner_write |
                                                       std::filesystem::perms::group_read |
                                                       std::filesystem::perms::others_read);
    }
}

std::string TlsFiles::listener(int port, bool login, bool wrong_name) const {
    const std::string server = wrong_name ? "wrong-name" : "server";
    std::string lines = "listener " + std::to_string(port) + " 127.0.0.1\n" + "cafile " + ca() +
                        "\n" + "certfile " + m_dir.file(server + ".crt") + "\n" + "keyfile " +
                        m_dir.file(server + ".key") + "\n";
    if (login) {
        lines += "allow_anonymous false\npassword_file " + m_dir.file("passwords") + "\n";
    } else {
        lines += "require_certificate true\nuse_identity_as_username true\n";
    }
    return lines;
}

}  // namespace ipcd_test
