#include "mqtt_client.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <climits>

#include "configuration.h"
#include "mosquitto_text.h"

namespace ecu::kora::com {

namespace {

using namespace std::chrono_literals;
using detail::describe;
using detail::describe_connack;

// How long stop() lets outstanding messages reach the broker: the service
// manager's stop has to be over within half a second, whatever the broker does.
constexpr auto g_stop_flush_timeout = 250ms;
// How long a publisher may still wait for room once the owner is stopping.
constexpr auto g_interrupt_wait = 150ms;

const std::shared_ptr<logging::LogModule>& log_module() {
    return detail::transport_log();
}

// libmosquitto is C: nothing may be thrown through its callbacks.
template <typename Fn>
void guarded(const char* what, Fn&& fn) {
    try {
        fn();
    } catch (const std::exception& e) {
        logging::ERROR << log_module() << what << ": " << e.what();
    }
}

void init_library() {
    // Never cleaned up: clients may live until the process ends.
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
}

}  // namespace

std::shared_ptr<ITransportClient> create_client(std::unique_ptr<config::Configuration>& config,
                                                TransportType type) {
    if (!config) {
        logging::ERROR << log_module() << "cannot create a transport client without configuration";
        return {};
    }
    switch (type) {
        case TransportType::mqtt: {
            auto settings = read_mqtt_settings(*config);
            if (!settings) {
                return {};
            }
            auto client = std::make_shared<MqttClient>(std::move(*settings));
            return client->usable() ? client : nullptr;
        }
    }
    logging::ERROR << log_module() << "unknown transport type " << static_cast<int>(type);
    return {};
}

MqttClient::MqttClient(MqttSettings settings)
    : m_settings(std::move(settings)),
      m_outbox(*this, m_settings.max_pending, m_settings.offline_queue),
      m_wake(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)),
      m_policy(ReconnectPolicy::seed_for(m_settings.client_name)),
      m_subscriptions(std::make_shared<const SubscriptionList>()) {
    init_library();
    // A clean session: the broker keeps nothing for us, so subscriptions are
    // renewed on every connection.
    const std::string& id = m_settings.client_name;
    m_mosq = mosquitto_new(id.empty() ? nullptr : id.c_str(), true, this);
    if (m_mosq == nullptr) {
        logging::ERROR << log_module() << "cannot create MQTT client '" << id
                       << "': " << describe(MOSQ_ERR_ERRNO);
        return;
    }
    mosquitto_connect_callback_set(m_mosq, &MqttClient::on_connect);
    mosquitto_disconnect_callback_set(m_mosq, &MqttClient::on_disconnect);
    mosquitto_publish_callback_set(m_mosq, &MqttClient::on_publish);
    mosquitto_message_callback_set(m_mosq, &MqttClient::on_message);
    mosquitto_log_callback_set(m_mosq, &MqttClient::on_log);
}

MqttClient::~MqttClient() {
    stop();
    if (m_mosq != nullptr) {
        mosquitto_destroy(m_mosq);
    }
}

bool MqttClient::set_will(const std::string& topic, const Message& msg) {
    if (m_mosq == nullptr || msg.payload.size() > static_cast<std::size_t>(INT_MAX)) {
        return false;
    }
    const int rc = mosquitto_will_set(m_mosq, topic.c_str(), static_cast<int>(msg.payload.size()),
                                      msg.payload.data(), msg.qos, msg.retained);
    if (rc != MOSQ_ERR_SUCCESS) {
        logging::ERROR << log_module() << "cannot set the last will on '" << topic
                       << "': " << describe(rc);
        return false;
    }
    return true;
}

void MqttClient::interrupt() {
    // What is still to go out (the end of data, say) gets a moment; together
    // with stop()'s flush the stop stays within half a second.
    const auto deadline = std::chrono::steady_clock::now() + g_interrupt_wait;
    m_outbox.interrupt(deadline);
    if (PublishLink* rt = m_rt.load()) {
        rt->outbox().interrupt(deadline);
    }
}

loop::IPollSource* MqttClient::poll_source() {
    if (!m_link) {
        m_link = std::make_unique<PublishLink>(m_settings);
        m_rt.store(m_link.get());
    }
    return m_link.get();
}

LinkStatus MqttClient::link_status() const {
    LinkStatus status;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        status.connected = m_link_up;
        if (!m_link_up) {
            status.waiting_reason = m_waiting_reason;
        }
    }
    status.reconnects = m_reconnects.load(std::memory_order_relaxed);
    status.dropped_offline = m_outbox.dropped_offline();
    status.offline_depth = m_outbox.offline_queued();
    if (const PublishLink* rt = m_rt.load()) {
        status.connected = status.connected && rt->connected();
        status.dropped_offline += rt->outbox().dropped_offline();
        status.offline_depth += rt->outbox().offline_queued();
    }
    return status;
}

std::string MqttClient::where() const {
    return m_settings.host + ":" + std::to_string(m_settings.port);
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
    bool loop_running = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        loop_running = m_loop_running;
    }
    if (loop_running && on_network_thread()) {
        logging::ERROR << log_module() << "stop() cannot be called on the delivery thread";
        return false;
    }
    if (m_stopped) {
        return true;  // what was left behind has been said once
    }
    m_stopped = true;
    // Publishers return 0 from now on, waiting ones too. The RT data link
    // writes what it holds itself: its loop has ended.
    const auto end = std::chrono::steady_clock::now() + g_stop_flush_timeout;
    const auto left = [&end] {
        return std::max(0ms, std::chrono::duration_cast<std::chrono::milliseconds>(
                                 end - std::chrono::steady_clock::now()));
    };
    Outbox::Unsent unsent{0, 0};
    if (PublishLink* rt = m_rt.load()) {
        rt->close(left());
        unsent = rt->outbox().close(0ms);
    }
    const Outbox::Unsent main = m_outbox.close(loop_running ? left() : 0ms);
    unsent.unconfirmed += main.unconfirmed;
    unsent.offline += main.offline;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_state = State::closed;
        m_cv.notify_all();
    }
    if (unsent.unconfirmed > 0 || unsent.offline > 0) {
        logging::WARNING << log_module() << "stopping with " << unsent.unconfirmed
                         << " messages not confirmed by the broker and " << unsent.offline
                         << " messages never sent";
    }
    shut_down_loop();
    return true;
}

bool MqttClient::on_network_thread() const {
    return m_network_thread.load() == std::this_thread::get_id();
}

int MqttClient::publish(const std::string& topic, Message& msg) {
    if (msg.qos > 2 || msg.payload.size() > static_cast<std::size_t>(INT_MAX)) {
        logging::ERROR << log_module() << "cannot publish on '" << topic << "': QoS "
                       << static_cast<int>(msg.qos) << ", " << msg.payload.size() << " bytes";
        return 0;
    }
    if (PublishLink* rt = m_rt.load(); rt != nullptr && msg.qos == 0) {
        return rt->outbox().publish(topic, msg, rt->on_loop_thread());
    }
    // libmosquitto checks the topic itself, so the hot path does not twice.
    return m_outbox.publish(topic, msg, on_network_thread());
}

Outbox::Sent MqttClient::send(const std::string& topic, const std::vector<std::uint8_t>& payload,
                              int qos, bool retained, int& mid, std::string& reason) {
    const int rc =
        mosquitto_publish(m_mosq, qos == 0 ? nullptr : &mid, topic.c_str(),
                          static_cast<int>(payload.size()), payload.data(), qos, retained);
    if (rc == MOSQ_ERR_SUCCESS) {
        return Outbox::Sent::ok;
    }
    // With the socket down libmosquitto still keeps a QoS 1 message and sends
    // it after reconnecting; it merely reports NO_CONN.
    if (rc == MOSQ_ERR_NO_CONN && qos != 0 && mid != 0) {
        return Outbox::Sent::ok;
    }
    reason = describe(rc);
    return rc == MOSQ_ERR_NO_CONN ? Outbox::Sent::no_connection : Outbox::Sent::failed;
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

void MqttClient::on_connect(mosquitto*, void* self, int rc) {
    guarded("on connect", [&] { static_cast<MqttClient*>(self)->handle_connect(rc); });
}

void MqttClient::on_disconnect(mosquitto*, void* self, int rc) {
    guarded("on disconnect", [&] { static_cast<MqttClient*>(self)->handle_disconnect(rc); });
}

void MqttClient::on_publish(mosquitto*, void* self, int mid) {
    guarded("on publish", [&] { static_cast<MqttClient*>(self)->m_outbox.written(mid); });
}

void MqttClient::on_message(mosquitto*, void* self, const mosquitto_message* message) {
    if (message != nullptr && message->topic != nullptr) {
        guarded("on message", [&] { static_cast<MqttClient*>(self)->handle_message(*message); });
    }
}

// libmosquitto's own lines. While the first connection is tried, its errors
// are the real reason of a failure (the TLS library's, say) and connect()
// reports the last one; otherwise they are detail, at DEBUG.
void MqttClient::on_log(mosquitto*, void* self, int level, const char* text) {
    guarded("on log", [&] {
        auto* client = static_cast<MqttClient*>(self);
        if (level == MOSQ_LOG_ERR && text != nullptr) {
            std::lock_guard<std::mutex> lock(client->m_mutex);
            if (!client->m_ever_connected && !client->m_connack) {
                client->m_connect_error = text;
                client->m_cv.notify_all();
                return;
            }
        }
        logging::DEBUG << log_module() << "libmosquitto: " << text;
    });
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
            // The reason first: whoever has read the line finds it in the status.
            m_end_reason = "refused: " + describe_connack(rc);
            {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_waiting_reason = m_end_reason;
            }
            logging::WARNING << log_module() << "broker " << where()
                             << " refused the reconnection: " << describe_connack(rc);
        }
        return;
    }
    // Subscriptions first: the broker then routes the queued messages to
    // them too.
    resubscribe_all();
    const Outbox::Resumed resumed = m_outbox.connected();
    const bool tell = m_policy.connected(ReconnectPolicy::Clock::now());
    m_session_up = true;
    m_end_reason.clear();
    if (resumed.reconnection) {
        m_reconnects.fetch_add(1, std::memory_order_relaxed);
    }
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_ever_connected = true;
        m_link_up = true;
        m_waiting_reason.clear();
        if (!m_connack) {
            m_connack = 0;
        }
        m_cv.notify_all();
    }
    // From now on libmosquitto's lines are DEBUG detail only. Without a
    // reader it formats none of them; with one it would format a line for
    // every message published.
    if (!logging::DEBUG.admits(log_module().get())) {
        mosquitto_log_callback_set(m_mosq, nullptr);
    }
    if (resumed.reconnection && tell) {
        logging::NOTICE << log_module() << "connection to broker " << where() << " re-established; "
                        << resumed.sent << " queued messages sent, " << resumed.restored
                        << " retained messages restored";
    }
    if (resumed.dropped > 0) {
        logging::WARNING << log_module() << resumed.dropped
                         << " messages were dropped while the broker was unreachable (limit "
                         << m_settings.offline_queue << ")";
    }
}

void MqttClient::handle_disconnect(int rc) {
    m_network_thread.store(std::this_thread::get_id());
    {
        std::lock_guard<std::mutex> lock(m_subscription_mutex);
        m_subscriptions_live = false;
    }
    const bool was_connected = m_outbox.is_connected();
    bool report = false;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        report = was_connected && m_state == State::running;
        m_link_up = false;
        if (report) {
            m_waiting_reason = "connection lost: " + describe(rc);
        }
        if (!m_ever_connected && !m_connack) {
            m_early_disconnect = rc;
        }
        m_cv.notify_all();
    }
    m_outbox.disconnected();
    if (report) {
        m_end_reason = describe(rc);  // the loop tells it, as the policy says
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
