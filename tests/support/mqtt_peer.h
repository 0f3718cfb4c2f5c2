#pragma once

#include <mosquitto.h>

#include <condition_variable>
#include <functional>
#include <mutex>
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

// A plain libmosquitto client, as a client application or the platform uses
// one. It renews its subscriptions on every connection, so it follows a
// broker restart. With a handler every message goes to it (on the client's
// thread); without, they are kept for received().
class MqttPeer {
public:
    using Handler = std::function<void(const mosquitto_message&)>;
    explicit MqttPeer(int port, Handler handler = {});
    ~MqttPeer();
    MqttPeer(const MqttPeer&) = delete;
    MqttPeer& operator=(const MqttPeer&) = delete;
    void subscribe(const std::string& topic, int qos = 1);  // waits for the SUBACK
    // Waits until the message has left (QoS 0) or been acknowledged.
    void publish(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos = 0,
                 bool retained = false);
    std::vector<Received> received() const;
    std::vector<Received> received_on(const std::string& topic) const;
    bool wait_for(const std::string& topic, std::size_t count = 1,
                  std::chrono::milliseconds deadline = 10s) const;

private:
    void done(int mid);
    void wait_done(int mid);

    mosquitto* m_mosq = nullptr;
    Handler m_handler;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    std::vector<std::pair<std::string, int>> m_subscriptions;
    std::vector<Received> m_received;
    std::vector<int> m_waiting;  // mids someone waits for; done ones leave it
};

}  // namespace ipcd_test
