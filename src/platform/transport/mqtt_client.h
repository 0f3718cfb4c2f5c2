#pragma once

// The MQTT transport on libmosquitto: the broker session (connect, reconnect
// after any loss as the ReconnectPolicy says, subscriptions renewed on every
// connection) and the delivery of incoming messages. The outgoing side (the
// pending bound, the offline queue, retained messages restored) is its Outbox.
//
// Threads: the client's network thread (started by connect()) runs
// libmosquitto's loop: it writes and reads the socket, reconnects and runs
// every callback, so deliveries to observers happen on it one at a time in
// arrival order. publish() may be called from any number of threads.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "descriptor.h"
#include "mqtt_settings.h"
#include "outbox.h"
#include "publish_link.h"
#include "reconnect_policy.h"
#include "transport.h"

struct mosquitto;
struct mosquitto_message;

namespace ecu::kora::com {

class MqttClient : public ITransportClient, private Outbox::Link {
public:
    explicit MqttClient(MqttSettings settings);
    ~MqttClient() override;
    MqttClient(const MqttClient&) = delete;
    MqttClient& operator=(const MqttClient&) = delete;

    bool connect() override;
    int publish(const std::string& topic, Message& msg) override;
    bool subscribe(const std::string& topic, int option,
                   std::shared_ptr<ISubscriptionObserver> observer) override;
    bool start() override;
    bool stop() override;
    const std::string& client_name() const override { return m_settings.client_name; }
    bool set_will(const std::string& topic, const Message& msg) override;
    void interrupt() override;
    LinkStatus link_status() const override;
    loop::IPollSource* poll_source() override;

    // False when libmosquitto could not make the client (out of memory).
    bool usable() const { return m_mosq != nullptr; }

    // Messages the broker has not taken yet (ipcd-ctl waits for none).
    std::size_t pending() const { return m_outbox.pending(); }

private:
    enum class State { idle, running, closed };

    struct Subscription {
        std::string topic;
        int qos;
        std::shared_ptr<ISubscriptionObserver> observer;
    };
    using SubscriptionList = std::vector<Subscription>;

    static void on_connect(mosquitto* mosq, void* self, int rc);
    static void on_disconnect(mosquitto* mosq, void* self, int rc);
    static void on_publish(mosquitto* mosq, void* self, int mid);
    static void on_message(mosquitto* mosq, void* self, const mosquitto_message* message);
    static void on_log(mosquitto* mosq, void* self, int level, const char* text);

    Outbox::Sent send(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
                      bool retained, int& mid, std::string& reason) override;

    void handle_connect(int rc);
    void handle_disconnect(int rc);
    void handle_message(const mosquitto_message& message);
    bool configure_session();
    std::string failure_reason();
    void network_loop();
    // One attempt to connect again; false (with the reason) when it failed.
    bool reconnect(std::string& reason);
    // An attempt failed: logged as the policy says; the delay to the next one.
    std::chrono::milliseconds attempt_failed(const std::string& reason);
    // Sleeps for delay unless the client is closed first; false when closed.
    bool wait_while_running(std::chrono::milliseconds delay);
    void shut_down_loop();
    bool on_network_thread() const;
    void resubscribe_all();
    std::string where() const;

    const MqttSettings m_settings;
    Outbox m_outbox;
    // QoS 0 messages once a loop serves it (poll_source()).
    std::unique_ptr<PublishLink> m_link;
    std::atomic<PublishLink*> m_rt{nullptr};
    mosquitto* m_mosq = nullptr;
    std::atomic<std::thread::id> m_network_thread{};
    std::thread m_network;
    // Wakes the network thread out of a connection attempt when stopping.
    const loop::Descriptor m_wake;  // an eventfd, made by the constructor (none if that failed)
    // The network thread's own: when to try again.
    ReconnectPolicy m_policy;
    bool m_session_up{};  // a CONNACK accepted the connection the loop runs
    // How the last attempt or session ended, in the callbacks' words (a
    // refused CONNACK, the disconnect's reason), until the loop counts it:
    // they say more than the loop's error code.
    std::string m_end_reason;
    std::atomic<std::uint64_t> m_reconnects{};

    // Guards the session state below; m_cv signals the CONNACK, the end of
    // the first attempt and the start of deliveries.
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    State m_state = State::idle;
    bool m_loop_running{};
    bool m_ever_connected{};
    // Deliveries wait for start(): the owner sets up what its observers use
    // (ports, threads) between connect() and start().
    bool m_delivering{};
    std::optional<int> m_connack;           // first CONNACK result
    std::optional<int> m_early_disconnect;  // connection closed before any CONNACK
    // libmosquitto's last error-level log line while the first connection is
    // attempted: it carries the TLS library's reason.
    std::string m_connect_error;
    bool m_link_up{};              // a CONNACK accepted the current connection
    std::string m_waiting_reason;  // the last failed attempt's reason, while down

    // Subscriptions: replaced as a whole, so that a delivery reads a snapshot
    // and an observer may subscribe without deadlock.
    std::mutex m_subscription_mutex;
    std::shared_ptr<const SubscriptionList> m_subscriptions;
    bool m_subscriptions_live{};  // SUBSCRIBE can be sent now

    std::mutex m_stop_mutex;
    bool m_stopped{};  // under m_stop_mutex
};

}  // namespace ecu::kora::com
