#pragma once

// The receiving side of ipcd-ctl (watch, and reading what ipcd keeps
// retained), on libmosquitto itself rather than the transport: it sees the
// broker's answers to its SUBSCRIBE and UNSUBSCRIBE, so it knows when its
// subscriptions are in place and when the broker has sent what it retains,
// without publishing anything. One thread: the caller's, in next().

#include <chrono>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "message.h"
#include "mqtt_settings.h"

struct mosquitto;
struct mosquitto_message;

namespace ipcd_tools {

class BrokerListener {
public:
    // Subscribes every filter at qos on each connection (after a reconnection
    // too, as mosquitto_sub does).
    BrokerListener(ecu::kora::com::MqttSettings settings, std::vector<std::string> filters,
                   int qos);
    ~BrokerListener();
    BrokerListener(const BrokerListener&) = delete;
    BrokerListener& operator=(const BrokerListener&) = delete;

    // Connects; false after an error line with the reason.
    bool open();
    // Serves the connection for up to wait; true with the next message when
    // one came. A lost connection is said once and tried again every second.
    bool next(std::pair<std::string, ecu::kora::com::Message>& out, std::chrono::milliseconds wait);
    // The broker has answered every SUBSCRIBE of the first connection.
    bool subscribed() const { return m_subscribed; }
    // The broker has also sent every message it retains for the filters (it
    // answers in order, and the mark is asked after the subscriptions).
    bool retained_sent() const { return m_marked; }
    // Every filter was refused by the broker (its access rules).
    bool all_refused() const { return m_refused == m_filters.size(); }
    // "host:port".
    std::string where() const;

private:
    static void on_connect(mosquitto* mosq, void* self, int rc);
    static void on_subscribe(mosquitto* mosq, void* self, int mid, int count, const int* granted);
    static void on_unsubscribe(mosquitto* mosq, void* self, int mid);
    static void on_message(mosquitto* mosq, void* self, const mosquitto_message* message);
    static void on_log(mosquitto* mosq, void* self, int level, const char* text);

    const ecu::kora::com::MqttSettings m_settings;
    const std::vector<std::string> m_filters;
    const int m_qos;
    mosquitto* m_mosq = nullptr;
    std::deque<std::pair<std::string, ecu::kora::com::Message>> m_inbox;
    int m_connack = -1;  // the last CONNACK's result; -1: none yet
    bool m_connected = false;
    int m_last_mid = 0;  // the last SUBSCRIBE of the first connection
    int m_mark_mid = 0;
    bool m_subscribed = false;
    bool m_marked = false;
    std::size_t m_refused = 0;
    std::string m_log_error;  // libmosquitto's last error line (the TLS library's reason)
    std::chrono::steady_clock::time_point m_retry_at{};
};

}  // namespace ipcd_tools
