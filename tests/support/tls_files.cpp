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
    auto file = [this](const std::string& name) { return m_dir.file(name); };
    auto key = [&](const std::string& name) {  // EC: quick to make
        must({"/usr/bin/openssl", "genpkey", "-algorithm", "EC", "-pkeyopt",
              "ec_paramgen_curve:P-256", "-out", file(name + ".key")});
    };
    for (const char* name : {"ca", "other-ca"}) {
        key(name);
        must({"/usr/bin/openssl", "req", "-x509", "-new", "-key", file(std::string(name) + ".key"),
              "-days", "2", "-subj", std::string("/CN=") + name, "-out",
              file(std::string(name) + ".crt")});
    }
    for (const auto& [name, san] :
         {std::pair<std::string, std::string>{"server", "IP:127.0.0.1,DNS:localhost"},
          {"wrong-name", "DNS:broker.invalid"},
          {"client", "DNS:ipcd"}}) {
        key(name);
        must({"/usr/bin/openssl", "req", "-new", "-key", file(name + ".key"), "-subj",
              "/CN=" + (name == "client" ? std::string("ipcd") : name), "-out",
              file(name + ".csr")});
        must({"/usr/bin/openssl", "x509", "-req", "-in", file(name + ".csr"), "-CA", file("ca.crt"),
              "-CAkey", file("ca.key"), "-CAcreateserial", "-days", "2", "-out",
              file(name + ".crt"), "-extfile",
              m_dir.write(name + ".ext", "subjectAltName=" + san + "\n")});
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
    const std::string server = m_dir.file(wrong_name ? "wrong-name" : "server");
    return "listener " + std::to_string(port) + " 127.0.0.1\ncafile " + ca() + "\ncertfile " +
           server + ".crt\nkeyfile " + server + ".key\n" +
           (login ? "allow_anonymous false\npassword_file " + m_dir.file("passwords") + "\n"
                  : "require_certificate true\nuse_identity_as_username true\n");
}

}  // namespace ipcd_test
