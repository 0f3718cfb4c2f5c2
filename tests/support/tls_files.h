#pragma once

// What a broker with TLS and login needs, and what its clients need: made at
// test time with openssl (a CA, a server certificate for 127.0.0.1 and
// localhost, one for another host name, a client certificate, and a CA that
// signed none of them) and mosquitto_passwd (one user).

#include <string>

#include "temp_dir.h"

namespace ipcd_test {

class TlsFiles {
public:
    static constexpr const char* user = "ipcd";
    static constexpr const char* password = "Hunter2";

    TlsFiles();

    std::string ca() const { return m_dir.file("ca.crt"); }
    std::string other_ca() const { return m_dir.file("other-ca.crt"); }
    std::string client_cert() const { return m_dir.file("client.crt"); }
    std::string client_key() const { return m_dir.file("client.key"); }

    // mosquitto.conf lines of a TLS listener on 127.0.0.1:port. wrong_name:
    // its certificate names another host. login: user and password required;
    // else the client certificate's name is the user.
    std::string listener(int port, bool login = true, bool wrong_name = false) const;

private:
    TempDir m_dir;
};

}  // namespace ipcd_test
