#pragma once

#include <string>

#include "temp_dir.h"

namespace ipcd_test {

// Made at test time with openssl and mosquitto_passwd: a CA, a server
// certificate for 127.0.0.1 and localhost, one for another host name, a client
// certificate, a CA that signed none of them, and one user with a password.
class TlsFiles {
public:
    TlsFiles();
    std::string ca() const { return m_dir.file("ca.crt"); }
    std::string other_ca() const { return m_dir.file("other-ca.crt"); }
    std::string client_cert() const { return m_dir.file("client.crt"); }
    std::string client_key() const { return m_dir.file("client.key"); }
    // mosquitto.conf lines of a TLS listener on 127.0.0.1:port. login: user
    // and password required, else the client certificate's name is the user;
    // wrong_name: its certificate names another host.
    std::string listener(int port, bool login = true, bool wrong_name = false) const;

private:
    TempDir m_dir;
};

}  // namespace ipcd_test
