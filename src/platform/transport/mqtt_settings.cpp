#include "mqtt_settings.h"

#include <mosquitto.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>
#include <memory>

#include "logging.h"

namespace ecu::kora::com {

namespace {

const std::shared_ptr<logging::LogModule>& log_module() {
    static const auto module = logging::module("kora.com.transport");
    return module;
}

// The longest string MQTT can carry (a two-byte length).
constexpr std::size_t max_mqtt_string = 65535;

void refuse(const std::string& key, const std::string& reason) {
    logging::ERROR << log_module() << "transport setting '" << key << "' " << reason;
}

// A whole number within [low, high], written in decimal digits only (leading
// zeros allowed: the value decides). Unset gives fallback.
std::optional<long> number(const config::Configuration& config, const std::string& key,
                           long fallback, long low, long high) {
    const std::string& text = config.get(key);
    if (text.empty()) {
        return fallback;
    }
    const std::optional<long> value = config::whole_number(text, low, high);
    if (!value) {
        refuse(key, "is '" + text + "', not a number from " + std::to_string(low) + " to " +
                        std::to_string(high));
    }
    return value;
}

// A string the protocol can carry: valid UTF-8 without NUL, at most 65,535
// bytes. The value itself is not logged: it may be a secret, or megabytes.
bool mqtt_string(const std::string& key, const std::string& value) {
    if (value.size() > max_mqtt_string) {
        refuse(key, "is " + std::to_string(value.size()) + " bytes long; MQTT carries at most " +
                        std::to_string(max_mqtt_string));
        return false;
    }
    if (value.find('\0') != std::string::npos ||
        mosquitto_validate_utf8(value.c_str(), static_cast<int>(value.size())) !=
            MOSQ_ERR_SUCCESS) {
        refuse(key, "is not valid UTF-8 text without NUL");
        return false;
    }
    return true;
}

// A file the TLS library will be asked to read, as this process can.
bool readable_file(const std::string& key, const std::string& path) {
    struct stat st {};
    std::string reason;
    // A path that stat cannot see fails fopen with the same reason.
    if (::stat(path.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) {
        reason = "not a regular file";
    } else if (std::FILE* file = std::fopen(path.c_str(), "rb"); file != nullptr) {
        std::fclose(file);
    } else {
        reason = std::strerror(errno);
    }
    if (!reason.empty()) {
        refuse(key, "names '" + path + "', which cannot be read: " + reason);
        return false;
    }
    return true;
}

// The reason OpenSSL gives first for its last failure; its error queue is
// left empty.
std::string openssl_reason() {
    const unsigned long first = ERR_get_error();
    ERR_clear_error();
    const char* reason = first != 0 ? ERR_reason_error_string(first) : nullptr;
    return reason != nullptr ? reason : "no reason given";
}

// A PEM key needing a passphrase cannot be used by a daemon: refuse rather
// than prompt on a terminal.
int no_passphrase(char*, int, int, void*) {
    return 0;
}

// The TLS files as the handshake will use them. Without this a CA file with
// no certificate in it, or a key of another certificate, fails only in the
// handshake, where the key at fault is not known any more.
bool usable_tls_files(const MqttSettings& s) {
    if (s.tls_cafile.empty()) {
        return true;
    }
    std::unique_ptr<SSL_CTX, void (*)(SSL_CTX*)> tls(SSL_CTX_new(TLS_client_method()),
                                                     &SSL_CTX_free);
    if (!tls) {
        refuse("tls_cafile", "cannot be checked: " + openssl_reason());
        return false;
    }
    if (SSL_CTX_load_verify_locations(tls.get(), s.tls_cafile.c_str(), nullptr) != 1) {
        refuse("tls_cafile", "names '" + s.tls_cafile +
                                 "', which holds no usable CA certificate: " + openssl_reason());
        return false;
    }
    if (s.tls_certfile.empty()) {
        return true;
    }
    if (SSL_CTX_use_certificate_chain_file(tls.get(), s.tls_certfile.c_str()) != 1) {
        refuse("tls_certfile", "names '" + s.tls_certfile +
                                   "', which holds no usable certificate: " + openssl_reason());
        return false;
    }
    std::unique_ptr<BIO, int (*)(BIO*)> file(BIO_new_file(s.tls_keyfile.c_str(), "r"), &BIO_free);
    std::unique_ptr<EVP_PKEY, void (*)(EVP_PKEY*)> key(
        file ? PEM_read_bio_PrivateKey(file.get(), nullptr, &no_passphrase, nullptr) : nullptr,
        &EVP_PKEY_free);
    if (!key) {
        refuse("tls_keyfile",
               "names '" + s.tls_keyfile +
                   "', which holds no usable private key (PEM, without a passphrase): " +
                   openssl_reason());
        return false;
    }
    if (SSL_CTX_use_PrivateKey(tls.get(), key.get()) != 1 ||
        SSL_CTX_check_private_key(tls.get()) != 1) {
        ERR_clear_error();
        refuse("tls_keyfile", "names '" + s.tls_keyfile +
                                  "', whose key does not belong to the certificate of "
                                  "'tls_certfile'");
        return false;
    }
    return true;
}

}  // namespace

std::optional<MqttSettings> read_mqtt_settings(const config::Configuration& config) {
    MqttSettings s;
    s.host = config.get("host");
    s.client_name = config.get("client_name");
    s.username = config.get("username");
    s.password = config.get("password");
    s.tls_cafile = config.get("tls_cafile");
    s.tls_certfile = config.get("tls_certfile");
    s.tls_keyfile = config.get("tls_keyfile");

    const auto port = number(config, "port", 0, 1, 65535);
    const auto keepalive = number(config, "keepalive", 60, 0, 65535);
    const auto max_pending = number(config, "max_pending", 4096, 1, INT_MAX);
    const auto offline_queue = number(config, "offline_queue", 10000, 0, INT_MAX);
    if (!port || !keepalive || !max_pending || !offline_queue) {
        return std::nullopt;
    }
    if (*port == 0) {
        refuse("port", "is not set");
        return std::nullopt;
    }
    s.port = static_cast<int>(*port);
    // libmosquitto takes at least 5 seconds. Its loop takes its sleep from the
    // keepalive and, without one, never sleeps: "off" is the longest the
    // protocol allows, a ping every 18 hours on an idle link.
    s.keepalive = *keepalive == 0 ? 65535 : std::max(5, static_cast<int>(*keepalive));
    s.max_pending = static_cast<std::size_t>(*max_pending);
    s.offline_queue = static_cast<std::size_t>(*offline_queue);

    if (s.host.empty()) {
        refuse("host", "is not set");
        return std::nullopt;
    }
    if (!mqtt_string("client_name", s.client_name) || !mqtt_string("username", s.username) ||
        !mqtt_string("password", s.password)) {
        return std::nullopt;
    }
    if (!s.password.empty() && s.username.empty()) {
        refuse("password", "is set without 'username'");
        return std::nullopt;
    }
    if (s.tls_certfile.empty() != s.tls_keyfile.empty()) {
        refuse(s.tls_certfile.empty() ? "tls_keyfile" : "tls_certfile",
               s.tls_certfile.empty() ? "is set without 'tls_certfile'"
                                      : "is set without 'tls_keyfile'");
        return std::nullopt;
    }
    if (!s.tls_certfile.empty() && s.tls_cafile.empty()) {
        refuse("tls_certfile", "is set without 'tls_cafile': a client certificate needs TLS");
        return std::nullopt;
    }
    for (const auto& [key, path] :
         {std::pair<const char*, const std::string&>{"tls_cafile", s.tls_cafile},
          {"tls_certfile", s.tls_certfile},
          {"tls_keyfile", s.tls_keyfile}}) {
        if (!path.empty() && !readable_file(key, path)) {
            return std::nullopt;
        }
    }
    if (!usable_tls_files(s)) {
        return std::nullopt;
    }
    return s;
}

int apply_login_and_tls(mosquitto* mosq, const MqttSettings& settings) {
    int rc = MOSQ_ERR_SUCCESS;
    if (!settings.username.empty()) {
        const std::string& password = settings.password;
        rc = mosquitto_username_pw_set(mosq, settings.username.c_str(),
                                       password.empty() ? nullptr : password.c_str());
    }
    if (rc == MOSQ_ERR_SUCCESS && !settings.tls_cafile.empty()) {
        auto file = [](const std::string& path) { return path.empty() ? nullptr : path.c_str(); };
        rc = mosquitto_tls_set(mosq, settings.tls_cafile.c_str(), nullptr,
                               file(settings.tls_certfile), file(settings.tls_keyfile), nullptr);
    }
    return rc;
}

}  // namespace ecu::kora::com
