// MqttClient, its session (the rest of the class is in mqtt_client.cpp):
// setting the connection up, the first connection with its bounded wait and
// its reason when it fails, the network thread with its reconnections, and
// stopping that thread.

#include <arpa/inet.h>
#include <netdb.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <memory>
#include <utility>

#include "mosquitto_text.h"
#include "mqtt_client.h"

namespace ecu::kora::com {

namespace {

using namespace std::chrono_literals;
using detail::describe;
using detail::describe_connack;

// How long connect() waits for the broker's CONNACK.
constexpr auto g_connack_timeout = 5s;
// How long one reconnection attempt may wait for the broker's socket.
constexpr auto g_reconnect_connect_timeout = 2s;

const std::shared_ptr<logging::LogModule>& log_module() {
    return detail::transport_log();
}

// Whether host:port accepts a TCP connection within the bound; the system's
// reason when not. libmosquitto's TLS connection on a refused socket spins in
// the TLS library and never ends, so it is not started then; and its blocking
// connect could hold a stop for minutes on an unreachable host. A readable
// wake descriptor ends the wait early ("stopping").
std::string tcp_refusal(const std::string& host, int port, std::chrono::milliseconds bound,
                        int wake = -1) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    if (const int rc = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
        rc != 0) {
        return gai_strerror(rc);
    }
    std::unique_ptr<addrinfo, void (*)(addrinfo*)> addresses(found, &freeaddrinfo);
    std::string reason = "no address";
    for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
        const loop::Descriptor fd(
            socket(a->ai_family, a->ai_socktype | SOCK_NONBLOCK | SOCK_CLOEXEC, a->ai_protocol));
        if (!fd.valid()) {
            reason = describe(MOSQ_ERR_ERRNO);
            continue;
        }
        int error = 0;
        if (::connect(fd.get(), a->ai_addr, a->ai_addrlen) != 0) {
            error = errno;
            pollfd pfd[2] = {{fd.get(), POLLOUT, {}}, {wake, POLLIN, {}}};
            if (error == EINPROGRESS) {
                const int ready = poll(pfd, wake >= 0 ? 2 : 1, static_cast<int>(bound.count()));
                if (ready > 0 && pfd[0].revents == 0) {
                    return "stopping";
                }
                error = ready > 0 ? 0 : ETIMEDOUT;
                socklen_t len = sizeof error;
                if (error == 0) {
                    getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &len);
                }
            }
        }
        if (error == 0) {
            return {};
        }
        reason = describe(MOSQ_ERR_ERRNO, error);
    }
    return reason;
}

}  // namespace

bool MqttClient::configure_session() {
    int rc = mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = apply_login_and_tls(m_mosq, m_settings);
    }
    if (rc != MOSQ_ERR_SUCCESS) {
        logging::ERROR << log_module() << "cannot set up the connection to broker " << where()
                       << ": " << describe(rc);
        return false;
    }
    return true;
}

bool MqttClient::connect() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_state != State::idle) {
            logging::ERROR << log_module() << "connect() called more than once";
            return false;
        }
        m_state = State::closed;  // until the loop runs
    }
    if (m_mosq == nullptr || !configure_session()) {
        return false;
    }
    if (!m_settings.tls_cafile.empty()) {
        if (const std::string refusal =
                tcp_refusal(m_settings.host, m_settings.port, g_connack_timeout);
            !refusal.empty()) {
            logging::ERROR << log_module() << "cannot connect to broker " << where() << ": "
                           << refusal;
            return false;
        }
    }
    int rc = mosquitto_connect_async(m_mosq, m_settings.host.c_str(), m_settings.port,
                                     m_settings.keepalive);
    if (rc != MOSQ_ERR_SUCCESS) {
        std::string reason = describe(rc);
        {
            // A handshake that failed at once has told its reason to the log.
            std::lock_guard<std::mutex> lock(m_mutex);
            if (!m_connect_error.empty()) {
                reason = failure_reason();
            }
        }
        logging::ERROR << log_module() << "cannot connect to broker " << where() << ": " << reason;
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::running;
        m_loop_running = true;
    }
    m_outbox.open();
    mosquitto_threaded_set(m_mosq, true);
    m_network = std::thread([this] { network_loop(); });

    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait_for(lock, g_connack_timeout,
                  [this] { return m_connack || m_early_disconnect || !m_connect_error.empty(); });
    if (m_connack && *m_connack == 0) {
        return true;
    }
    const std::string reason = failure_reason();
    m_state = State::closed;
    m_cv.notify_all();
    lock.unlock();
    logging::ERROR << log_module() << "cannot connect to broker " << where() << " as '"
                   << m_settings.client_name << "': " << reason;
    m_outbox.close(0ms);
    shut_down_loop();
    return false;
}

// Why the first connection failed, in the words of whoever knew: the broker's
// CONNACK, the TLS library (through libmosquitto's log), or the socket.
std::string MqttClient::failure_reason() {
    if (m_connack) {
        return "refused by the broker: " + describe_connack(*m_connack);
    }
    if (!m_connect_error.empty()) {
        // The TLS library's words, through libmosquitto's log.
        const bool eof = m_connect_error.find("unexpected eof") != std::string::npos ||
                         m_connect_error.find("wrong version number") != std::string::npos;
        const bool tls = m_connect_error.rfind("OpenSSL", 0) == 0;
        return (tls ? "TLS handshake failed: " : "") + m_connect_error +
               (eof ? " (is it a plain port?)" : "");
    }
    if (m_early_disconnect) {
        return "the broker closed the connection before answering" +
               std::string(m_settings.tls_cafile.empty() ? " (is it a TLS port?)" : "") + ": " +
               describe(*m_early_disconnect);
    }
    return "no CONNACK within " + std::to_string(g_connack_timeout.count()) + " s";
}

// libmosquitto's own loop gives up for good after some errors while it
// reconnects (a TLS error from a broker that died mid-session, say), although
// the broker may well come back. So the loop is ours: libmosquitto reads and
// writes, and every loss, whatever its kind, goes to the ReconnectPolicy and
// another attempt, until the client is stopped. Before the first connection
// connect() decides, not this loop.
void MqttClient::network_loop() {
    // Idle, the thread sleeps until the socket or a publisher wakes it; the
    // bound only lets libmosquitto keep the link alive in time.
    const int idle_ms = std::max(1000, m_settings.keepalive * 1000 / 2);
    bool down = false;
    std::chrono::milliseconds delay{0};
    for (;;) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_state != State::running) {
                return;
            }
        }
        if (down) {
            if (!wait_while_running(delay)) {
                return;
            }
            std::string reason;
            if (!reconnect(reason)) {
                delay = attempt_failed(reason);
                continue;
            }
            down = false;
        }
        const int rc = mosquitto_loop(m_mosq, idle_ms, 1);
        if (rc == MOSQ_ERR_SUCCESS) {
            continue;
        }
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            if (m_state != State::running || !m_ever_connected) {
                return;
            }
        }
        // A lost session is told here, as the policy says; an attempt that
        // got no CONNACK is one more failure.
        down = true;
        const std::string reason =
            m_end_reason.empty() ? describe(rc) : std::exchange(m_end_reason, {});
        if (m_session_up) {
            m_session_up = false;
            const ReconnectPolicy::Loss loss = m_policy.lost(reason, ReconnectPolicy::Clock::now());
            if (loss.report) {
                logging::WARNING << log_module() << "connection to broker " << where()
                                 << " lost: " << reason << "; reconnecting";
            } else if (loss.log_line) {
                logging::WARNING << log_module() << "connection to broker " << where()
                                 << " keeps dropping: " << *loss.log_line
                                 << "; is another client connected as '" << m_settings.client_name
                                 << "'?";
            }
            delay = loss.delay;
            continue;
        }
        delay = attempt_failed(reason);
    }
}

std::chrono::milliseconds MqttClient::attempt_failed(const std::string& reason) {
    const ReconnectPolicy::Decision next = m_policy.failed(reason, ReconnectPolicy::Clock::now());
    if (next.log_line) {
        logging::WARNING << log_module() << "broker " << where() << ": " << *next.log_line;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_waiting_reason = reason;
    return next.delay;
}

bool MqttClient::wait_while_running(std::chrono::milliseconds delay) {
    std::unique_lock<std::mutex> lock(m_mutex);
    return !m_cv.wait_for(lock, delay, [this] { return m_state != State::running; });
}

bool MqttClient::reconnect(std::string& reason) {
    reason =
        tcp_refusal(m_settings.host, m_settings.port, g_reconnect_connect_timeout, m_wake.get());
    if (!reason.empty()) {
        return false;
    }
    // Asynchronous: the TLS handshake and the CONNACK come through the loop,
    // so that a broker that accepts the socket but never answers (paused, half
    // up) cannot hold this thread, and with it a stop.
    const int rc = mosquitto_reconnect_async(m_mosq);
    if (rc != MOSQ_ERR_SUCCESS) {
        reason = describe(rc);
        return false;
    }
    return true;
}

void MqttClient::shut_down_loop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_loop_running) {
            return;
        }
    }
    if (m_wake.valid()) {
        const std::uint64_t one = 1;
        [[maybe_unused]] const auto n = write(m_wake.get(), &one, sizeof one);
    }
    // The network thread ends once it sees the disconnecting state. A
    // reconnection that was under way at that moment can overwrite the state,
    // so the request is repeated until the thread has ended.
    std::mutex nudge_mutex;
    std::condition_variable nudge_cv;
    bool joined = false;
    std::thread nudger([&] {
        std::unique_lock<std::mutex> lock(nudge_mutex);
        do {
            mosquitto_disconnect(m_mosq);
        } while (!nudge_cv.wait_for(lock, 200ms, [&] { return joined; }));
    });
    // A first connection that never succeeded may have left the thread
    // spinning inside the TLS library, deaf to the request: cancel it.
    bool connected_once = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        connected_once = m_ever_connected;
    }
    if (!connected_once) {
        pthread_cancel(m_network.native_handle());
    }
    m_network.join();
    {
        std::lock_guard<std::mutex> lock(nudge_mutex);
        joined = true;
    }
    nudge_cv.notify_all();
    nudger.join();
    std::lock_guard<std::mutex> lock(m_mutex);
    m_loop_running = false;
    m_cv.notify_all();
}

}  // namespace ecu::kora::com
