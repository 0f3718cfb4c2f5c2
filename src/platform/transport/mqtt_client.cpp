#include "mqtt_client.h"

#include <mosquitto.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <climits>
#include <system_error>

#include "configuration.h"
#include "logging.h"

namespace ecu::kora::com {

namespace {

using namespace std::chrono_literals;

// How long connect() waits for the broker's CONNACK.
constexpr auto g_connack_timeout = 5s;
// How long stop() lets outstanding messages reach the broker.
constexpr auto g_stop_flush_timeout = 2s;
// Reconnection back-off: 1 s, then 2 s, never longer, so that relaying
// resumes within about 2 s of the broker's return.
constexpr unsigned g_reconnect_delay_s = 1;
constexpr unsigned g_reconnect_delay_max_s = 2;

const std::shared_ptr<logging::LogModule>& log_module() {
    static const auto module = logging::module("kora.com.transport");
    return module;
}

// The one place where a libmosquitto result becomes text. saved_errno is read
// at the call site, right after the failing call.
std::string describe(int rc, int saved_errno = errno) {
    if (rc == MOSQ_ERR_ERRNO) {
        return std::error_code(saved_errno, std::generic_category()).message();
    }
    return std::string(mosquitto_strerror(rc)) + " (" + std::to_string(rc) + ")";
}

// The one place where a CONNACK result becomes text.
std::string describe_connack(int rc) {
    return std::string(mosquitto_connack_string(rc)) + " (" + std::to_string(rc) + ")";
}

void init_library() {
    // Never cleaned up: clients may live until the process ends.
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

// A whole-number setting within [low, high]; fallback (with a WARNING when the
// value was set but unusable) otherwise.
long number_setting(const config::Configuration& config, const std::string& key, long fallback,
                    long low, long high) {
    const std::string& text = config.get(key);
    if (text.empty()) {
        return fallback;
    }
    long value = 0;
    auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (ec != std::errc() || end != text.data() + text.size() || value < low || value > high) {
        logging::WARNING << log_module() << "transport setting " << key << "='" << text
                         << "' is not a number from " << low << " to " << high << "; using "
                         << fallback;
        return fallback;
    }
    return value;
}

}  // namespace

std::shared_ptr<ITransportClient> create_client(std::unique_ptr<config::Configuration>& config,
                                                TransportType type) {
    if (!config) {
        logging::ERROR << log_module() << "cannot create a transport client without configuration";
        return {};
    }
    switch (type) {
        case TransportType::mqtt:
            return std::make_shared<MqttClient>(*config);
    }
    logging::ERROR << log_module() << "unknown transport type " << static_cast<int>(type);
    return {};
}

MqttClient::MqttClient(const config::Configuration& config)
    : m_host(config.get("host")),
      m_client_name(config.get("client_name")),
      m_username(config.get("username")),
      m_password(config.get("password")),
      m_tls_cafile(config.get("tls_cafile")),
      m_tls_certfile(config.get("tls_certfile")),
      m_tls_keyfile(config.get("tls_keyfile")),
      m_subscriptions(std::make_shared<const SubscriptionList>()) {
    init_library();
    m_port = static_cast<int>(number_setting(config, "port", 0, 1, 65535));
    // libmosquitto takes 0 (no keepalive) or at least 5 seconds.
    m_keepalive = static_cast<int>(number_setting(config, "keepalive", 60, 0, 65535));
    if (m_keepalive > 0 && m_keepalive < 5) {
        m_keepalive = 5;
    }
    m_max_pending =
        static_cast<std::size_t>(number_setting(config, "max_pending", 4096, 1, INT_MAX));
    m_offline_limit =
        static_cast<std::size_t>(number_setting(config, "offline_queue", 10000, 0, INT_MAX));

    // A clean session: the broker keeps nothing for us, so subscriptions are
    // renewed on every connection.
    m_mosq = mosquitto_new(m_client_name.empty() ? nullptr : m_client_name.c_str(), true, this);
    if (m_mosq == nullptr) {
        logging::ERROR << log_module() << "cannot create MQTT client '" << m_client_name
                       << "': " << describe(MOSQ_ERR_ERRNO);
        return;
    }
    mosquitto_connect_callback_set(m_mosq, &MqttClient::on_connect);
    mosquitto_disconnect_callback_set(m_mosq, &MqttClient::on_disconnect);
    mosquitto_publish_callback_set(m_mosq, &MqttClient::on_publish);
    mosquitto_message_callback_set(m_mosq, &MqttClient::on_message);
}

MqttClient::~MqttClient() {
    stop();
    if (m_mosq != nullptr) {
        mosquitto_destroy(m_mosq);
    }
}

bool MqttClient::configure_session() {
    int rc = mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    if (rc != MOSQ_ERR_SUCCESS) {
        logging::ERROR << log_module() << "cannot set TCP_NODELAY: " << describe(rc);
        return false;
    }
    if (!m_username.empty()) {
        rc = mosquitto_username_pw_set(m_mosq, m_username.c_str(),
                                       m_password.empty() ? nullptr : m_password.c_str());
        if (rc != MOSQ_ERR_SUCCESS) {
            logging::ERROR << log_module() << "cannot set the broker credentials: " << describe(rc);
            return false;
        }
    }
    if (!m_tls_cafile.empty()) {
        rc = mosquitto_tls_set(m_mosq, m_tls_cafile.c_str(), nullptr,
                               m_tls_certfile.empty() ? nullptr : m_tls_certfile.c_str(),
                               m_tls_keyfile.empty() ? nullptr : m_tls_keyfile.c_str(), nullptr);
        if (rc != MOSQ_ERR_SUCCESS) {
            logging::ERROR << log_module() << "cannot set up TLS with CA file " << m_tls_cafile
                           << ": " << describe(rc);
            return false;
        }
    }
    rc = mosquitto_reconnect_delay_set(m_mosq, g_reconnect_delay_s, g_reconnect_delay_max_s, false);
    if (rc != MOSQ_ERR_SUCCESS) {
        logging::ERROR << log_module() << "cannot set the reconnection delay: " << describe(rc);
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
    const std::string where = m_host + ":" + std::to_string(m_port);
    if (m_mosq == nullptr || m_port == 0 || !configure_session()) {
        logging::ERROR << log_module() << "cannot connect to broker " << where
                       << ": client not configured";
        return false;
    }
    int rc = mosquitto_connect_async(m_mosq, m_host.c_str(), m_port, m_keepalive);
    if (rc != MOSQ_ERR_SUCCESS) {
        logging::ERROR << log_module() << "cannot connect to broker " << where << ": "
                       << describe(rc);
        return false;
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::running;
        m_loop_running = true;
    }
    rc = mosquitto_loop_start(m_mosq);
    if (rc != MOSQ_ERR_SUCCESS) {
        logging::ERROR << log_module() << "cannot start the network thread: " << describe(rc);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::closed;
        m_loop_running = false;
        mosquitto_disconnect(m_mosq);
        return false;
    }

    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait_for(lock, g_connack_timeout, [this] { return m_connack || m_early_disconnect; });
    if (m_connack && *m_connack == 0) {
        return true;
    }
    std::string reason;
    if (m_connack) {
        reason = "refused by the broker: " + describe_connack(*m_connack);
    } else if (m_early_disconnect) {
        reason = "connection closed before CONNACK: " + describe(*m_early_disconnect);
    } else {
        reason = "no CONNACK within " + std::to_string(g_connack_timeout.count()) + " s";
    }
    m_state = State::closed;
    m_cv.notify_all();
    lock.unlock();
    logging::ERROR << log_module() << "cannot connect to broker " << where << " as '"
                   << m_client_name << "': " << reason;
    shut_down_loop();
    return false;
}

bool MqttClient::start() {
    std::lock_guard<std::mutex> lock(m_mutex);
    // connect() started the network thread; deliveries begin now.
    m_delivering = true;
    m_cv.notify_all();
    return m_state == State::running && m_loop_running;
}

bool MqttClient::stop() {
    std::lock_guard<std::mutex> stop_lock(m_stop_mutex);
    std::size_t left = 0;
    std::size_t offline = 0;
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_loop_running) {
            m_state = State::closed;
            m_cv.notify_all();
            return true;
        }
        if (on_network_thread()) {
            lock.unlock();
            logging::ERROR << log_module() << "stop() cannot be called on the delivery thread";
            return false;
        }
        m_cv.wait_for(lock, g_stop_flush_timeout,
                      [this] { return !m_connected || m_pending_qos0 + m_pending_qos1 == 0; });
        left = m_pending_qos0 + m_pending_qos1;
        offline = m_offline.size();
        m_offline.clear();
        // Publishers return 0 from now on, waiting ones too.
        m_state = State::closed;
        m_cv.notify_all();
    }
    if (left > 0 || offline > 0) {
        logging::WARNING << log_module() << "stopping with " << left
                         << " messages not confirmed by the broker and " << offline
                         << " messages never sent";
    }
    shut_down_loop();
    return true;
}

void MqttClient::shut_down_loop() {
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (!m_loop_running) {
            return;
        }
    }
    // The network thread ends once it sees the disconnecting state. A
    // reconnection that was under way at that moment can overwrite the state,
    // so the request is repeated until the thread has ended.
    std::mutex nudge_mutex;
    std::condition_variable nudge_cv;
    bool joined = false;
    mosquitto_disconnect(m_mosq);
    std::thread nudger([&] {
        std::unique_lock<std::mutex> lock(nudge_mutex);
        while (!nudge_cv.wait_for(lock, 200ms, [&] { return joined; })) {
            mosquitto_disconnect(m_mosq);
        }
    });
    int rc = mosquitto_loop_stop(m_mosq, false);
    {
        std::lock_guard<std::mutex> lock(nudge_mutex);
        joined = true;
    }
    nudge_cv.notify_all();
    nudger.join();
    if (rc != MOSQ_ERR_SUCCESS) {
        logging::WARNING << log_module() << "stopping the network thread: " << describe(rc);
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_loop_running = false;
    m_connected = false;
    m_cv.notify_all();
}

bool MqttClient::on_network_thread() const {
    return m_network_thread.load() == std::this_thread::get_id();
}

bool MqttClient::connected() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connected;
}

std::size_t MqttClient::pending() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pending_qos0 + m_pending_qos1;
}

std::size_t MqttClient::pending_high_water() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pending_high;
}

std::size_t MqttClient::offline_queued() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_offline.size();
}

void MqttClient::add_pending(int qos) {
    if (qos == 0) {
        ++m_pending_qos0;
    } else {
        ++m_pending_qos1;
    }
    m_pending_high = std::max(m_pending_high, m_pending_qos0 + m_pending_qos1);
}

bool MqttClient::queue_offline(const std::string& topic, const Message& msg) {
    if (m_offline_limit == 0) {
        return false;
    }
    if (m_offline.size() >= m_offline_limit) {
        m_offline.pop_front();
        if (m_offline_dropped++ == 0) {
            logging::WARNING << log_module() << "broker unreachable and " << m_offline_limit
                             << " messages waiting: dropping the oldest from now on";
        }
    }
    m_offline.push_back({topic, msg.payload, msg.retained});
    return true;
}

std::size_t MqttClient::flush_offline() {
    std::size_t sent = 0;
    while (!m_offline.empty()) {
        const OfflineMessage& m = m_offline.front();
        int rc =
            mosquitto_publish(m_mosq, nullptr, m.topic.c_str(), static_cast<int>(m.payload.size()),
                              m.payload.data(), 0, m.retained);
        if (rc != MOSQ_ERR_SUCCESS) {
            // Lost again already: the rest waits for the next connection.
            break;
        }
        add_pending(0);
        m_offline.pop_front();
        ++sent;
    }
    return sent;
}

void MqttClient::remember_retained(const std::string& topic, const Message& msg) {
    std::lock_guard<std::mutex> lock(m_retained_mutex);
    if (msg.payload.empty()) {
        // An empty retained message clears the topic on the broker.
        m_retained.erase(topic);
        return;
    }
    RetainedMessage& kept = m_retained[topic];
    kept.payload.assign(msg.payload.begin(), msg.payload.end());
    kept.qos = msg.qos;
}

// On the network thread, so no callback runs in between.
std::size_t MqttClient::restore_retained() {
    std::map<std::string, RetainedMessage> retained;
    {
        std::lock_guard<std::mutex> lock(m_retained_mutex);
        retained = m_retained;
    }
    std::size_t sent = 0;
    for (const auto& [topic, kept] : retained) {
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            add_pending(kept.qos);
        }
        int rc = MOSQ_ERR_SUCCESS;
        {
            std::lock_guard<std::mutex> mids(m_qos1_mutex);
            int mid = 0;
            rc = mosquitto_publish(m_mosq, &mid, topic.c_str(),
                                   static_cast<int>(kept.payload.size()), kept.payload.data(),
                                   kept.qos, true);
            if (rc == MOSQ_ERR_SUCCESS && kept.qos != 0) {
                m_qos1_mids.insert(mid);
            }
        }
        if (rc != MOSQ_ERR_SUCCESS) {
            std::lock_guard<std::mutex> lock(m_mutex);
            std::size_t& count = kept.qos == 0 ? m_pending_qos0 : m_pending_qos1;
            count -= count > 0 ? 1 : 0;
            break;  // lost again already; the next connection tries again
        }
        ++sent;
    }
    return sent;
}

int MqttClient::publish(const std::string& topic, Message& msg) {
    const int qos = msg.qos;
    if (qos > 2 || msg.payload.size() > static_cast<std::size_t>(INT_MAX) ||
        mosquitto_pub_topic_check(topic.c_str()) != MOSQ_ERR_SUCCESS) {
        logging::ERROR << log_module() << "cannot publish on '" << topic << "': QoS " << qos << ", "
                       << msg.payload.size() << " bytes, or topic not valid";
        return 0;
    }
    if (msg.retained) {
        remember_retained(topic, msg);
    }
    const bool network_thread = on_network_thread();
    const int length = static_cast<int>(msg.payload.size());

    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        // Wait for room, unless the message goes to the offline queue.
        for (;;) {
            if (m_state != State::running) {
                return 0;
            }
            // While older messages wait offline, newer ones queue behind them.
            if (qos == 0 && (!m_connected || !m_offline.empty())) {
                return queue_offline(topic, msg) ? 1 : 0;
            }
            if (network_thread || m_pending_qos0 + m_pending_qos1 < m_max_pending) {
                break;
            }
            m_cv.wait(lock);
        }
        add_pending(qos);
        const std::uint64_t generation = m_generation;
        lock.unlock();

        int rc = MOSQ_ERR_SUCCESS;
        if (qos == 0) {
            rc = mosquitto_publish(m_mosq, nullptr, topic.c_str(), length, msg.payload.data(), 0,
                                   msg.retained);
        } else {
            std::lock_guard<std::mutex> mids(m_qos1_mutex);
            int mid = 0;
            rc = mosquitto_publish(m_mosq, &mid, topic.c_str(), length, msg.payload.data(), qos,
                                   msg.retained);
            // With the socket down libmosquitto still keeps a QoS 1 message
            // and sends it after reconnecting; it merely reports NO_CONN.
            if (rc == MOSQ_ERR_NO_CONN && mid != 0) {
                rc = MOSQ_ERR_SUCCESS;
            }
            if (rc == MOSQ_ERR_SUCCESS) {
                m_qos1_mids.insert(mid);
            }
        }
        if (rc == MOSQ_ERR_SUCCESS) {
            return 1;
        }
        const int saved_errno = errno;

        lock.lock();
        if (qos != 0) {
            m_pending_qos1 -= m_pending_qos1 > 0 ? 1 : 0;
        } else if (generation == m_generation && m_pending_qos0 > 0) {
            // A loss since then has already reset the count.
            --m_pending_qos0;
        }
        m_cv.notify_all();
        if (rc != MOSQ_ERR_NO_CONN || qos != 0 || m_state != State::running) {
            lock.unlock();
            logging::ERROR << log_module() << "cannot publish on '" << topic
                           << "': " << describe(rc, saved_errno);
            return 0;
        }
        // The socket went away under us. Already reconnected: try again;
        // otherwise the message waits offline for the next connection.
        if (!(m_connected && generation != m_generation && m_offline.empty())) {
            return queue_offline(topic, msg) ? 1 : 0;
        }
    }
}

bool MqttClient::subscribe(const std::string& topic, int option,
                           std::shared_ptr<ISubscriptionObserver> observer) {
    if (!observer || mosquitto_sub_topic_check(topic.c_str()) != MOSQ_ERR_SUCCESS) {
        logging::ERROR << log_module() << "cannot subscribe '" << topic
                       << "': no observer or topic filter not valid";
        return false;
    }
    const int qos = option < 0 ? 0 : (option > 2 ? 2 : option);
    std::lock_guard<std::mutex> lock(m_subscription_mutex);
    auto list = std::make_shared<SubscriptionList>(*m_subscriptions);
    list->push_back({topic, qos, std::move(observer)});
    m_subscriptions = std::move(list);
    if (!m_subscriptions_live || m_mosq == nullptr) {
        return true;  // sent when the connection is made
    }
    int rc = mosquitto_subscribe(m_mosq, nullptr, topic.c_str(), qos);
    if (rc != MOSQ_ERR_SUCCESS && rc != MOSQ_ERR_NO_CONN) {
        logging::ERROR << log_module() << "cannot subscribe '" << topic << "': " << describe(rc);
        return false;
    }
    return true;
}

void MqttClient::resubscribe_all() {
    std::lock_guard<std::mutex> lock(m_subscription_mutex);
    m_subscriptions_live = true;
    for (const Subscription& s : *m_subscriptions) {
        int rc = mosquitto_subscribe(m_mosq, nullptr, s.topic.c_str(), s.qos);
        if (rc != MOSQ_ERR_SUCCESS) {
            logging::ERROR << log_module() << "cannot renew subscription '" << s.topic
                           << "': " << describe(rc);
        }
    }
}

// libmosquitto is C: nothing may be thrown through its callbacks.

void MqttClient::on_connect(mosquitto*, void* self, int rc) {
    try {
        static_cast<MqttClient*>(self)->handle_connect(rc);
    } catch (const std::exception& e) {
        logging::ERROR << log_module() << "on connect: " << e.what();
    }
}

void MqttClient::on_disconnect(mosquitto*, void* self, int rc) {
    try {
        static_cast<MqttClient*>(self)->handle_disconnect(rc);
    } catch (const std::exception& e) {
        logging::ERROR << log_module() << "on disconnect: " << e.what();
    }
}

void MqttClient::on_publish(mosquitto*, void* self, int mid) {
    try {
        static_cast<MqttClient*>(self)->handle_publish(mid);
    } catch (const std::exception& e) {
        logging::ERROR << log_module() << "on publish: " << e.what();
    }
}

void MqttClient::on_message(mosquitto*, void* self, const mosquitto_message* message) {
    try {
        if (message != nullptr && message->topic != nullptr) {
            static_cast<MqttClient*>(self)->handle_message(*message);
        }
    } catch (const std::exception& e) {
        logging::ERROR << log_module() << "on message: " << e.what();
    }
}

void MqttClient::handle_connect(int rc) {
    m_network_thread.store(std::this_thread::get_id());
    if (rc != 0) {
        bool first = false;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            first = !m_ever_connected && !m_connack;
            if (first) {
                m_connack = rc;
                m_cv.notify_all();
            }
        }
        if (!first) {
            logging::WARNING << log_module() << "broker " << m_host << ":" << m_port
                             << " refused the reconnection: " << describe_connack(rc);
        }
        return;
    }
    // Subscriptions first: the broker then routes the queued messages to
    // them too.
    resubscribe_all();
    bool reconnecting = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        reconnecting = m_ever_connected;
    }
    // Before the offline queue: what waits there is newer.
    const std::size_t restored = reconnecting ? restore_retained() : 0;
    bool reconnected = false;
    std::size_t sent = 0;
    std::size_t dropped = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        reconnected = m_ever_connected;
        m_ever_connected = true;
        if (!m_connack) {
            m_connack = 0;
        }
        // Under the lock, so that no new publish overtakes the queued ones.
        sent = flush_offline();
        m_connected = true;
        dropped = m_offline_dropped;
        m_offline_dropped = 0;
        m_cv.notify_all();
    }
    if (reconnected) {
        logging::NOTICE << log_module() << "connection to broker " << m_host << ":" << m_port
                        << " re-established; " << sent << " queued messages sent, " << restored
                        << " retained messages restored";
    }
    if (dropped > 0) {
        logging::WARNING << log_module() << dropped
                         << " messages were dropped while the broker was unreachable (limit "
                         << m_offline_limit << ")";
    }
}

void MqttClient::handle_disconnect(int rc) {
    m_network_thread.store(std::this_thread::get_id());
    {
        std::lock_guard<std::mutex> lock(m_subscription_mutex);
        m_subscriptions_live = false;
    }
    bool report = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        report = m_connected && m_state == State::running;
        m_connected = false;
        ++m_generation;
        // QoS 0 messages on their way were dropped with the connection and
        // will never be reported written; QoS 1 ones are sent again.
        m_pending_qos0 = 0;
        if (!m_ever_connected && !m_connack) {
            m_early_disconnect = rc;
        }
        m_cv.notify_all();
    }
    if (report) {
        logging::WARNING << log_module() << "connection to broker " << m_host << ":" << m_port
                         << " lost: " << describe(rc) << "; reconnecting";
    }
}

void MqttClient::handle_publish(int mid) {
    bool qos1 = false;
    {
        std::lock_guard<std::mutex> lock(m_qos1_mutex);
        qos1 = m_qos1_mids.erase(mid) > 0;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    const std::size_t before = m_pending_qos0 + m_pending_qos1;
    std::size_t& count = qos1 ? m_pending_qos1 : m_pending_qos0;
    if (count > 0) {
        --count;
    }
    const std::size_t after = m_pending_qos0 + m_pending_qos1;
    // Waiters: publishers need room, stop() needs zero.
    if (before >= m_max_pending || after == 0) {
        m_cv.notify_all();
    }
}

void MqttClient::handle_message(const mosquitto_message& message) {
    {
        // Holds the network thread; a stop() releases it as well.
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait(lock, [this] { return m_delivering || m_state == State::closed; });
        if (!m_delivering) {
            return;
        }
    }
    std::shared_ptr<const SubscriptionList> subscriptions;
    {
        std::lock_guard<std::mutex> lock(m_subscription_mutex);
        subscriptions = m_subscriptions;
    }
    const std::string topic(message.topic);
    Message msg;
    msg.qos = static_cast<std::uint8_t>(message.qos);
    msg.retained = message.retain;
    if (message.payloadlen > 0) {
        const auto* bytes = static_cast<const std::uint8_t*>(message.payload);
        msg.payload.assign(bytes, bytes + message.payloadlen);
    }
    for (const Subscription& s : *subscriptions) {
        bool match = false;
        if (mosquitto_topic_matches_sub(s.topic.c_str(), message.topic, &match) !=
                MOSQ_ERR_SUCCESS ||
            !match) {
            continue;
        }
        try {
            s.observer->message(topic, msg);
        } catch (const std::exception& e) {
            logging::ERROR << log_module() << "observer of '" << s.topic << "' failed on '" << topic
                           << "': " << e.what();
        } catch (...) {
            logging::ERROR << log_module() << "observer of '" << s.topic << "' failed on '" << topic
                           << "'";
        }
    }
}

}  // namespace ecu::kora::com
