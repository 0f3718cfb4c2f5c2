#include "publish_link.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/err.h>
#include <openssl/x509v3.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>

#include "logging.h"

namespace ecu::kora::com {

namespace {

using namespace std::chrono_literals;

constexpr auto g_connack_timeout = 5s;

const std::shared_ptr<logging::LogModule>& log_module() {
    static const auto module = logging::module("kora.com.transport");
    return module;
}

std::string errno_text(int error) {
    return std::strerror(error);
}

}  // namespace

PublishLink::PublishLink(const MqttSettings& settings)
    : m_settings(settings),
      m_client_id(settings.client_name + "-rt"),
      m_outbox(*this, settings.max_pending, settings.offline_queue),
      m_policy(ReconnectPolicy::seed_for(m_client_id)),
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    // What one read of RX makes, so that the buffers do not grow under load.
    m_out.reserve(std::size_t{128} * 1024);
    m_writing.reserve(std::size_t{128} * 1024);
    m_outbox.open();
}

PublishLink::~PublishLink() {
    shut_socket();
    if (m_tls != nullptr) {
        SSL_CTX_free(m_tls);
    }
}

std::size_t PublishLink::fill(pollfd* slots, std::size_t max) {
    if (m_loop_thread.load() != std::this_thread::get_id()) {
        m_loop_thread.store(std::this_thread::get_id());
    }
    std::size_t used = 0;
    if (max > used) {
        slots[used++] = {m_wake.get(), POLLIN, {}};
    }
    if (max > used && m_socket.valid()) {
        short events = 0;
        switch (m_state) {
            case State::connecting:
                events = POLLOUT;
                break;
            case State::handshaking:
                events = m_want_write ? POLLOUT : POLLIN;
                break;
            default: {
                events = POLLIN;
                std::lock_guard<std::mutex> lock(m_out_mutex);
                if (m_sent < m_writing.size() || !m_out.empty() || m_want_write) {
                    events |= POLLOUT;
                }
            }
        }
        slots[used++] = {m_socket.get(), events, {}};
    }
    return used;
}

PublishLink::Clock::time_point PublishLink::due() const {
    switch (m_state) {
        case State::down:
            return m_retry_at;
        case State::up:
            // A ping on its way: its answer is due; else the next ping.
            if (m_settings.keepalive > 0 && m_deadline == Clock::time_point::max()) {
                return m_last_sent + std::chrono::seconds(m_settings.keepalive);
            }
            return m_deadline;
        default:
            return m_deadline;
    }
}

void PublishLink::serve(const pollfd* slots, std::size_t count) {
    if (count > 0 && slots[0].revents != 0) {
        std::uint64_t n = 0;
        [[maybe_unused]] const auto r = ::read(m_wake.get(), &n, sizeof n);
    }
    const short revents = count > 1 ? slots[1].revents : 0;
    const auto now = Clock::now();
    switch (m_state) {
        case State::down:
            if (now >= m_retry_at) {
                attempt();
            }
            return;
        case State::connecting: {
            if (revents != 0) {
                int error = 0;
                socklen_t len = sizeof error;
                getsockopt(m_socket.get(), SOL_SOCKET, SO_ERROR, &error, &len);
                if (error != 0) {
                    failed(errno_text(error));
                    return;
                }
                if (m_tls != nullptr) {
                    m_state = State::handshaking;
                    handshake();
                } else {
                    start_session();
                }
            } else if (now >= m_deadline) {
                failed("no connection within " + std::to_string(g_connack_timeout.count()) + " s");
            }
            return;
        }
        case State::handshaking:
            if (revents != 0) {
                handshake();
            } else if (now >= m_deadline) {
                failed("no TLS handshake within " + std::to_string(g_connack_timeout.count()) +
                       " s");
            }
            return;
        case State::awaiting_connack:
        case State::up:
            if ((revents & (POLLIN | POLLHUP | POLLERR)) != 0 && !read_incoming()) {
                return;
            }
            if (m_state == State::awaiting_connack && Clock::now() >= m_deadline) {
                failed("no CONNACK within " + std::to_string(g_connack_timeout.count()) + " s");
                return;
            }
            if (m_state == State::up) {
                if (Clock::now() >= m_deadline) {
                    lost("no answer to a keep-alive ping");
                    return;
                }
                if (m_settings.keepalive > 0 && m_deadline == Clock::time_point::max() &&
                    Clock::now() >= m_last_sent + std::chrono::seconds(m_settings.keepalive)) {
                    std::lock_guard<std::mutex> lock(m_out_mutex);
                    packets::append_pingreq(m_out);
                    m_deadline = Clock::now() + std::chrono::seconds(m_settings.keepalive);
                }
            }
            flush();
            return;
    }
}

void PublishLink::attempt() {
    if (m_addresses.empty()) {
        addrinfo hints{};
        hints.ai_socktype = SOCK_STREAM;
        addrinfo* found = nullptr;
        if (const int rc = getaddrinfo(m_settings.host.c_str(),
                                       std::to_string(m_settings.port).c_str(), &hints, &found);
            rc != 0) {
            failed(gai_strerror(rc));
            return;
        }
        for (const addrinfo* a = found; a != nullptr; a = a->ai_next) {
            Address address{};
            std::memcpy(&address.storage, a->ai_addr, a->ai_addrlen);
            address.length = a->ai_addrlen;
            m_addresses.push_back(address);
        }
        freeaddrinfo(found);
        std::reverse(m_addresses.begin(), m_addresses.end());
    }
    // One address after the other, in the resolver's order ("localhost" may
    // be ::1 first while the broker listens on 127.0.0.1 only); the name is
    // resolved again once the last one failed.
    const Address address = m_addresses.back();
    m_addresses.pop_back();
    const auto* where = reinterpret_cast<const sockaddr*>(&address.storage);
    m_socket.reset(socket(where->sa_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    if (!m_socket.valid()) {
        failed(errno_text(errno));
        return;
    }
    const int one = 1;
    setsockopt(m_socket.get(), IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    m_deadline = Clock::now() + g_connack_timeout;
    if (::connect(m_socket.get(), where, address.length) != 0 && errno != EINPROGRESS) {
        failed(errno_text(errno));
        return;
    }
    m_state = State::connecting;
    if (m_settings.tls_cafile.empty()) {
        return;
    }
    if (m_tls == nullptr) {
        m_tls = SSL_CTX_new(TLS_client_method());
        const auto file = [](const std::string& f) { return f.empty() ? nullptr : f.c_str(); };
        if (m_tls == nullptr ||
            SSL_CTX_load_verify_locations(m_tls, m_settings.tls_cafile.c_str(), nullptr) != 1 ||
            (!m_settings.tls_certfile.empty() &&
             (SSL_CTX_use_certificate_chain_file(m_tls, file(m_settings.tls_certfile)) != 1 ||
              SSL_CTX_use_PrivateKey_file(m_tls, file(m_settings.tls_keyfile), SSL_FILETYPE_PEM) !=
                  1))) {
            failed(tls_reason(0));
            if (m_tls != nullptr) {
                SSL_CTX_free(m_tls);
                m_tls = nullptr;
            }
            return;
        }
        SSL_CTX_set_verify(m_tls, SSL_VERIFY_PEER, nullptr);
        SSL_CTX_set_mode(m_tls,
                         SSL_MODE_ENABLE_PARTIAL_WRITE | SSL_MODE_ACCEPT_MOVING_WRITE_BUFFER);
    }
    m_ssl = SSL_new(m_tls);
    SSL_set_fd(m_ssl, m_socket.get());
    in6_addr literal_address{};
    const bool literal = inet_pton(AF_INET, m_settings.host.c_str(), &literal_address) == 1 ||
                         inet_pton(AF_INET6, m_settings.host.c_str(), &literal_address) == 1;
    if (literal) {
        X509_VERIFY_PARAM_set1_ip_asc(SSL_get0_param(m_ssl), m_settings.host.c_str());
    } else {
        SSL_set1_host(m_ssl, m_settings.host.c_str());
        SSL_set_tlsext_host_name(m_ssl, m_settings.host.c_str());
    }
}

bool PublishLink::handshake() {
    ERR_clear_error();
    const int rc = SSL_connect(m_ssl);
    if (rc == 1) {
        m_want_write = false;
        start_session();
        return true;
    }
    const int error = SSL_get_error(m_ssl, rc);
    if (error == SSL_ERROR_WANT_READ || error == SSL_ERROR_WANT_WRITE) {
        m_want_write = error == SSL_ERROR_WANT_WRITE;
        return true;
    }
    failed("TLS handshake failed: " + tls_reason(error));
    return false;
}

std::string PublishLink::tls_reason(int error) {
    const unsigned long code = ERR_get_error();
    if (code != 0) {
        char text[256];
        ERR_error_string_n(code, text, sizeof text);
        return text;
    }
    if (error == SSL_ERROR_SYSCALL) {
        return errno != 0 ? errno_text(errno) : "the broker closed the connection";
    }
    return "TLS error " + std::to_string(error);
}

void PublishLink::start_session() {
    m_state = State::awaiting_connack;
    m_deadline = Clock::now() + g_connack_timeout;
    // The buffers are empty: the last socket took what they held with it, and
    // nothing is accepted before the CONNACK.
    std::lock_guard<std::mutex> lock(m_out_mutex);
    packets::append_connect(m_out, m_client_id, static_cast<std::uint16_t>(m_settings.keepalive),
                            m_settings.username, m_settings.password);
}

bool PublishLink::read_incoming() {
    std::uint8_t buffer[512];
    for (;;) {
        long n = 0;
        if (m_ssl != nullptr) {
            ERR_clear_error();
            n = SSL_read(m_ssl, buffer, sizeof buffer);
            if (n <= 0) {
                const int error = SSL_get_error(m_ssl, static_cast<int>(n));
                if (error == SSL_ERROR_WANT_READ) {
                    break;
                }
                if (error == SSL_ERROR_WANT_WRITE) {
                    m_want_write = true;
                    break;
                }
                lost(error == SSL_ERROR_ZERO_RETURN ? "the broker closed the connection"
                                                    : tls_reason(error));
                return false;
            }
        } else {
            n = ::read(m_socket.get(), buffer, sizeof buffer);
            if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) {
                break;
            }
            if (n <= 0) {
                lost(n == 0 ? "the broker closed the connection" : errno_text(errno));
                return false;
            }
        }
        m_incoming.feed(buffer, static_cast<std::size_t>(n));
    }
    std::uint8_t type = 0;
    while (m_incoming.next(type, m_packet)) {
        if (type == packets::connack && m_state == State::awaiting_connack) {
            const int rc = m_packet.size() >= 2 ? m_packet[1] : -1;
            if (rc != 0) {
                failed("refused by the broker (CONNACK " + std::to_string(rc) + ")");
                return false;
            }
            m_state = State::up;
            m_addresses.clear();
            m_deadline = Clock::time_point::max();
            m_last_sent = Clock::now();
            m_up = true;
            const bool tell = m_policy.connected(Clock::now());
            const bool again = m_ever_up.exchange(true);
            m_reported_down = false;
            const Outbox::Resumed resumed = m_outbox.connected();
            if (again && tell) {
                logging::NOTICE << log_module() << "RT data connection to broker "
                                << m_settings.host << ":" << m_settings.port << " re-established; "
                                << resumed.sent << " queued messages sent, " << resumed.restored
                                << " retained messages restored";
            }
            if (resumed.dropped > 0) {
                logging::WARNING << log_module() << resumed.dropped
                                 << " messages were dropped while the broker was unreachable "
                                    "(limit "
                                 << m_settings.offline_queue << ")";
            }
        } else if (type == packets::pingresp) {
            m_deadline = Clock::time_point::max();
        }
    }
    if (m_incoming.broken()) {
        lost("the broker sent a packet that cannot be read");
        return false;
    }
    return true;
}

Outbox::Sent PublishLink::send(const std::string& topic, const std::vector<std::uint8_t>& payload,
                               int qos, bool retained, int& mid, std::string& reason) {
    mid = 0;
    if (qos != 0) {
        reason = "the RT data connection carries QoS 0 only";
        return Outbox::Sent::failed;
    }
    if (!m_up.load()) {
        reason = "not connected";
        return Outbox::Sent::no_connection;
    }
    {
        std::lock_guard<std::mutex> lock(m_out_mutex);
        if (!packets::append_publish(m_out, topic, payload.data(), payload.size(), retained)) {
            reason = "topic or payload too long";
            return Outbox::Sent::failed;
        }
        ++m_out_messages;
    }
    if (!on_loop_thread()) {
        wake();
    }
    return Outbox::Sent::ok;
}

void PublishLink::wake() {
    const std::uint64_t one = 1;
    [[maybe_unused]] const auto n = ::write(m_wake.get(), &one, sizeof one);
}

bool PublishLink::accepts_more() const {
    return m_outbox.pending() < m_settings.max_pending;
}

void PublishLink::flush() {
    if (m_state != State::up && m_state != State::awaiting_connack) {
        return;
    }
    write_out();
}

bool PublishLink::write_out() {
    for (;;) {
        std::size_t finished_messages = 0;
        {
            std::lock_guard<std::mutex> lock(m_out_mutex);
            if (m_sent == m_writing.size()) {
                finished_messages = m_writing_messages;
                m_writing.clear();
                m_sent = 0;
                m_writing_messages = 0;
                // Until the broker has accepted the session only its CONNECT goes.
                if (!m_out.empty()) {
                    m_writing.swap(m_out);
                    m_writing_messages = m_out_messages;
                    m_out_messages = 0;
                }
            }
        }
        if (finished_messages > 0) {
            m_outbox.written_qos0(finished_messages);
        }
        if (m_writing.empty()) {
            return true;
        }
        const std::uint8_t* data = m_writing.data() + m_sent;
        const std::size_t size = m_writing.size() - m_sent;
        long n = 0;
        if (m_ssl != nullptr) {
            ERR_clear_error();
            n = SSL_write(m_ssl, data, static_cast<int>(std::min<std::size_t>(size, 1U << 30U)));
            if (n <= 0) {
                const int error = SSL_get_error(m_ssl, static_cast<int>(n));
                if (error == SSL_ERROR_WANT_WRITE || error == SSL_ERROR_WANT_READ) {
                    m_want_write = error == SSL_ERROR_WANT_WRITE;
                    return true;
                }
                lost(tls_reason(error));
                return false;
            }
            m_want_write = false;
        } else {
            n = ::send(m_socket.get(), data, size, MSG_NOSIGNAL);
            if (n < 0) {
                if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) {
                    return true;
                }
                lost(errno_text(errno));
                return false;
            }
        }
        m_sent += static_cast<std::size_t>(n);
        m_last_sent = Clock::now();
    }
}

void PublishLink::shut_socket() {
    if (m_ssl != nullptr) {
        SSL_free(m_ssl);
        m_ssl = nullptr;
    }
    m_socket.reset();
    m_want_write = false;
    m_incoming = packets::PacketReader();
    std::lock_guard<std::mutex> lock(m_out_mutex);
    m_out.clear();
    m_writing.clear();
    m_sent = 0;
    m_out_messages = 0;
    m_writing_messages = 0;
}

void PublishLink::go_down() {
    // QoS 0 messages on their way are lost with the socket, as the Outbox is told.
    if (m_up.exchange(false)) {
        m_outbox.disconnected();
    }
    shut_socket();
    m_state = State::down;
    m_deadline = Clock::time_point::max();
}

void PublishLink::failed(const std::string& reason) {
    go_down();
    if (!m_addresses.empty()) {
        m_retry_at = Clock::now();  // the host's next address, at once
        return;
    }
    const ReconnectPolicy::Decision next = m_policy.failed(reason, Clock::now());
    m_retry_at = Clock::now() + next.delay;
    // Before the first connection the main connection has said it all.
    if (next.log_line && m_ever_up.load()) {
        logging::WARNING << log_module() << "RT data connection to broker " << m_settings.host
                         << ":" << m_settings.port << ": " << *next.log_line;
    }
}

void PublishLink::lost(const std::string& reason) {
    go_down();
    const auto now = Clock::now();
    const ReconnectPolicy::Loss loss = m_policy.lost(reason, now);
    m_retry_at = now + loss.delay;
    if (loss.report) {
        logging::WARNING << log_module() << "RT data connection to broker " << m_settings.host
                         << ":" << m_settings.port << " lost: " << reason << "; reconnecting";
    } else if (loss.log_line) {
        logging::WARNING << log_module() << "RT data connection to broker " << m_settings.host
                         << ":" << m_settings.port << " keeps dropping: " << *loss.log_line
                         << "; is another client connected as '" << m_client_id << "'?";
    }
}

void PublishLink::close(std::chrono::milliseconds bound) {
    const auto end = Clock::now() + bound;
    if (m_state == State::up) {
        {
            std::lock_guard<std::mutex> lock(m_out_mutex);
            packets::append_disconnect(m_out);
        }
        while (write_out() && m_state == State::up) {
            {
                std::lock_guard<std::mutex> lock(m_out_mutex);
                if (m_sent == m_writing.size() && m_out.empty()) {
                    break;
                }
            }
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now());
            if (left.count() <= 0) {
                break;
            }
            pollfd pfd{m_socket.get(), POLLOUT, {}};
            ::poll(&pfd, 1, static_cast<int>(left.count()));
        }
    }
    m_up = false;
    shut_socket();
    m_state = State::down;
}

}  // namespace ecu::kora::com
