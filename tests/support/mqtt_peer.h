#pragma once

// A plain libmosquitto client: what a client application or the platform does
// on the broker, without any of the project's own transport. It renews its
// subscriptions on every connection, so it follows a broker restart.

#include <mosquitto.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "wait.h"

namespace ipcd_test {

struct Received {
    std::string topic;
    std::vector<std::uint8_t> payload;
    int qos = 0;
    bool retained = false;
};

class MqttPeer {
public:
    // With a handler every message goes to it (on the client's thread) and is
    // not kept; otherwise messages are kept for received().
    using Handler = std::function<void(const mosquitto_message&)>;
    explicit MqttPeer(int port, Handler handler = {});
    ~MqttPeer();
    MqttPeer(const MqttPeer&) = delete;
    MqttPeer& operator=(const MqttPeer&) = delete;

    // Subscribes and waits for the broker's SUBACK.
    void subscribe(const std::string& topic, int qos = 1);
    // Publishes and waits until the message has left (QoS 0) or been acknowledged.
    void publish(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos = 0,
                 bool retained = false);
    // Publishes QoS 0 waiting only while 4,096 messages are not yet written,
    // as ipcd's transport does: for streams.
    void publish_stream(const std::string& topic, const std::uint8_t* data, std::size_t size);
    // Waits until everything published has been written or acknowledged.
    void drain();

    std::vector<Received> received() const;
    std::vector<Received> received_on(const std::string& topic) const;
    bool wait_for(const std::string& topic, std::size_t count = 1,
                  std::chrono::milliseconds deadline = 10s) const;
    void clear();

private:
    static void on_connect(mosquitto*, void* self, int rc);
    static void on_message(mosquitto*, void* self, const mosquitto_message* msg);
    static void on_subscribe(mosquitto*, void* self, int mid, int, const int*);
    static void on_publish(mosquitto*, void* self, int mid);
    void wait_done(int mid);

    mosquitto* m_mosq = nullptr;
    Handler m_handler;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    std::vector<std::pair<std::string, int>> m_subscriptions;
    std::vector<Received> m_received;
    std::vector<int> m_waiting;  // mids someone waits for
    std::vector<int> m_done;     // of those, the ones written or acknowledged
    std::size_t m_outstanding = 0;
};

}  // namespace ipcd_test
