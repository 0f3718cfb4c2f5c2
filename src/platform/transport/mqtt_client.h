#pragma once

// The MQTT transport on libmosquitto in threaded mode.
//
// Threads: libmosquitto's network thread (started by connect()) writes and
// reads the socket, reconnects after a broker loss and runs every callback, so
// deliveries to observers happen on it one at a time in arrival order.
// publish() may be called from any number of threads.
//
// Back-pressure: libmosquitto queues published messages without limit, so the
// client counts messages accepted but not yet written (QoS 0) or acknowledged
// (QoS 1) and makes publish() wait while "max_pending" are outstanding.
// A publish from the network thread itself (an observer answering a message)
// never waits: it would wait for its own thread.
//
// Broker loss: QoS 0 messages published while the connection is down go to a
// bounded offline queue ("offline_queue"; the oldest are dropped first) and
// are sent, in order, as soon as the connection is back, after every kept
// subscription has been renewed. QoS 1 messages are kept by libmosquitto.

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "transport.h"

struct mosquitto;
struct mosquitto_message;

namespace ecu::kora::com {

class MqttClient : public ITransportClient {
public:
    // Reads the settings at once; the configuration is not used afterwards.
    explicit MqttClient(const config::Configuration& config);
    ~MqttClient() override;
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    bool connect() override;
    int publish(const std::string& topic, Message& msg) override;
    bool subscribe(const std::string& topic, int option,
                   std::shared_ptr<ISubscriptionObserver> observer) override;
    bool start() override;
    bool stop() override;
    const std::string& client_name() const override { return m_client_name; }

    // State for monitoring and tests.
    bool connected() const;
    // Messages handed to libmosquitto and not yet written or acknowledged.
    std::size_t pending() const;
    // The largest pending() seen so far.
    std::size_t pending_high_water() const;
    std::size_t offline_queued() const;
    std::size_t max_pending() const { return m_max_pending; }

private:
    enum class State { idle, running, closed };

    struct Subscription {
        std::string topic;
        int qos;
        std::shared_ptr<ISubscriptionObserver> observer;
    };
    using SubscriptionList = std::vector<Subscription>;

    struct RetainedMessage {
        std::vector<std::uint8_t> payload;
        int qos;
    };

    struct OfflineMessage {
        std::string topic;
        std::vector<std::uint8_t> payload;
        bool retained;
    };

    static void on_connect(mosquitto* mosq, void* self, int rc);
    static void on_disconnect(mosquitto* mosq, void* self, int rc);
    static void on_publish(mosquitto* mosq, void* self, int mid);
    static void on_message(mosquitto* mosq, void* self, const mosquitto_message* message);

    void remember_retained(const std::string& topic, const Message& msg);
    std::size_t restore_retained();
    void handle_connect(int rc);
    void handle_disconnect(int rc);
    void handle_publish(int mid);
    void handle_message(const mosquitto_message& message);

    bool configure_session();
    void shut_down_loop();
    bool on_network_thread() const;
    // Appends to the offline queue (false when there is none); m_mutex held.
    bool queue_offline(const std::string& topic, const Message& msg);
    // Sends the offline queue in order; m_mutex held, network thread only.
    std::size_t flush_offline();
    void add_pending(int qos);
    void resubscribe_all();

    // Settings.
    std::string m_host;
    int m_port = 0;
    std::string m_client_name;
    int m_keepalive = 60;
    std::string m_username;
    std::string m_password;
    std::string m_tls_cafile;
    std::string m_tls_certfile;
    std::string m_tls_keyfile;
    std::size_t m_max_pending = 4096;
    std::size_t m_offline_limit = 10000;

    mosquitto* m_mosq = nullptr;
    std::atomic<std::thread::id> m_network_thread{};

    // Guards everything below up to m_subscription_mutex; m_cv signals
    // CONNACK, connection changes and falling pending counts.
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    State m_state = State::idle;
    bool m_loop_running = false;
    bool m_connected = false;
    bool m_ever_connected = false;
    // Deliveries wait for start(): the owner sets up what its observers use
    // (ports, threads) between connect() and start().
    bool m_delivering = false;
    std::optional<int> m_connack;           // first CONNACK result
    std::optional<int> m_early_disconnect;  // connection closed before any CONNACK
    std::uint64_t m_generation = 0;         // counts connection losses
    std::size_t m_pending_qos0 = 0;
    std::size_t m_pending_qos1 = 0;
    std::size_t m_pending_high = 0;
    std::deque<OfflineMessage> m_offline;
    std::size_t m_offline_dropped = 0;  // since the connection was lost

    // Mids of unacknowledged QoS 1 messages, to tell their on_publish from a
    // QoS 0 one. Held across the QoS 1 mosquitto_publish so that an early
    // acknowledgement cannot overtake the record of its mid.
    std::mutex m_qos1_mutex;
    std::unordered_set<int> m_qos1_mids;

    // Subscriptions: replaced as a whole, so that a delivery reads a snapshot
    // and an observer may subscribe without deadlock.
    std::mutex m_subscription_mutex;
    std::shared_ptr<const SubscriptionList> m_subscriptions;
    bool m_subscriptions_live = false;  // SUBSCRIBE can be sent now

    std::mutex m_stop_mutex;

    // The newest retained message of every topic published here: a broker
    // that restarts without persistence has lost them, and nobody else would
    // publish them again (the subscription status changes only rarely).
    std::mutex m_retained_mutex;
    std::map<std::string, RetainedMessage> m_retained;
};

}  // namespace ecu::kora::com
