#include "broker_listener.h"

#include <thread>

#include "cli_text.h"
#include "mosquitto_text.h"

namespace ipcd_tools {

namespace com = ecu::kora::com;
using com::detail::describe;
using com::detail::describe_connack;
using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;

namespace {
constexpr auto g_connack_timeout = 5s;
constexpr auto g_retry_delay = 1s;
}  // namespace

BrokerListener::BrokerListener(com::MqttSettings settings, std::vector<std::string> filters,
                               int qos)
    : m_settings(std::move(settings)), m_filters(std::move(filters)), m_qos(qos) {
    mosquitto_lib_init();
    m_mosq = mosquitto_new(m_settings.client_name.c_str(), true, this);
    if (m_mosq != nullptr) {
        mosquitto_connect_callback_set(m_mosq, &on_connect);
        mosquitto_subscribe_callback_set(m_mosq, &on_subscribe);
        mosquitto_unsubscribe_callback_set(m_mosq, &on_unsubscribe);
        mosquitto_message_callback_set(m_mosq, &on_message);
        mosquitto_log_callback_set(m_mosq, &on_log);
    }
}

BrokerListener::~BrokerListener() {
    if (m_mosq != nullptr) {
        mosquitto_disconnect(m_mosq);
        mosquitto_destroy(m_mosq);
    }
    mosquitto_lib_cleanup();
}

std::string BrokerListener::where() const {
    return m_settings.host + ":" + std::to_string(m_settings.port);
}

bool BrokerListener::open() {
    if (m_mosq == nullptr) {
        error_line("cannot make an MQTT client: out of memory");
        return false;
    }
    int rc = com::apply_login_and_tls(m_mosq, m_settings);
    if (rc == MOSQ_ERR_SUCCESS) {
        rc = mosquitto_connect(m_mosq, m_settings.host.c_str(), m_settings.port,
                               m_settings.keepalive);
    }
    const auto deadline = Clock::now() + g_connack_timeout;
    while (rc == MOSQ_ERR_SUCCESS && m_connack < 0 && Clock::now() < deadline) {
        rc = mosquitto_loop(m_mosq, 50, 1);
    }
    std::string reason;
    if (rc != MOSQ_ERR_SUCCESS) {
        reason = m_log_error.empty() ? describe(rc) : m_log_error;
    } else if (m_connack < 0) {
        reason = "no answer within 5 s";
    } else if (m_connack != 0) {
        reason = "refused by the broker: " + describe_connack(m_connack);
    }
    if (!reason.empty()) {
        error_line("cannot connect to broker " + where() + " as '" + m_settings.client_name +
                   "': " + reason);
        return false;
    }
    return true;
}

bool BrokerListener::next(std::pair<std::string, com::Message>& out,
                          std::chrono::milliseconds wait) {
    if (m_inbox.empty()) {
        if (!m_connected) {
            const auto now = Clock::now();
            if (now < m_retry_at) {
                std::this_thread::sleep_for(std::min<Clock::duration>(wait, m_retry_at - now));
                return false;
            }
            m_retry_at = now + g_retry_delay;
            if (mosquitto_reconnect(m_mosq) != MOSQ_ERR_SUCCESS) {
                return false;
            }
            m_connected = true;
        }
        const int rc = mosquitto_loop(m_mosq, static_cast<int>(wait.count()), 1);
        if (rc != MOSQ_ERR_SUCCESS && m_connected) {
            error_line("lost the connection to broker " + where() + ": " + describe(rc) +
                       "; trying again every second");
            m_connected = false;
            m_retry_at = Clock::now() + g_retry_delay;
        }
    }
    if (m_inbox.empty()) {
        return false;
    }
    out = std::move(m_inbox.front());
    m_inbox.pop_front();
    return true;
}

void BrokerListener::on_connect(mosquitto* mosq, void* self, int rc) {
    auto& l = *static_cast<BrokerListener*>(self);
    const bool first = l.m_connack < 0;
    l.m_connack = rc;
    l.m_connected = rc == 0;
    if (rc != 0) {
        if (!first) {
            error_line("broker " + l.where() + " refuses again: " + describe_connack(rc));
        }
        return;
    }
    for (const auto& filter : l.m_filters) {
        int mid = 0;
        mosquitto_subscribe(mosq, &mid, filter.c_str(), l.m_qos);
        if (first) {
            l.m_last_mid = mid;
        }
    }
    if (first) {
        // Never subscribed: the broker only answers, after the subscriptions
        // and the retained messages they brought.
        const std::string mark = "ipcd-ctl/" + l.m_settings.client_name + "/mark";
        mosquitto_unsubscribe(mosq, &l.m_mark_mid, mark.c_str());
    }
}

void BrokerListener::on_subscribe(mosquitto*, void* self, int mid, int count, const int* granted) {
    auto& l = *static_cast<BrokerListener*>(self);
    const int first_mid = l.m_last_mid - static_cast<int>(l.m_filters.size()) + 1;
    if (l.m_subscribed || mid < first_mid || mid > l.m_last_mid) {
        return;  // a renewal after a reconnection
    }
    for (int i = 0; i < count; ++i) {
        if (granted[i] > 2) {
            ++l.m_refused;
            error_line("broker " + l.where() + " refused the subscription to '" +
                       l.m_filters[static_cast<std::size_t>(mid - first_mid)] +
                       "' (its access rules)");
        }
    }
    l.m_subscribed = mid == l.m_last_mid;
}

void BrokerListener::on_unsubscribe(mosquitto*, void* self, int mid) {
    auto& l = *static_cast<BrokerListener*>(self);
    l.m_marked = l.m_marked || mid == l.m_mark_mid;
}

void BrokerListener::on_message(mosquitto*, void* self, const mosquitto_message* message) {
    com::Message m;
    m.qos = static_cast<std::uint8_t>(message->qos);
    m.retained = message->retain;
    const auto* bytes = static_cast<const std::uint8_t*>(message->payload);
    m.payload.assign(bytes, bytes + message->payloadlen);
    static_cast<BrokerListener*>(self)->m_inbox.emplace_back(message->topic, std::move(m));
}

void BrokerListener::on_log(mosquitto*, void* self, int level, const char* text) {
    if (level == MOSQ_LOG_ERR && text != nullptr) {
        static_cast<BrokerListener*>(self)->m_log_error = text;
    }
}

}  // namespace ipcd_tools
