#pragma once

// A plain libmosquitto client for tests: what a client application or the
// platform would do on the broker, without any of the project's own transport.

#include <mosquitto.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

namespace ipcd_test {

struct Received {
    std::string topic;
    std::vector<std::uint8_t> payload;
    int qos = 0;
    bool retained = false;
};

class MqttPeer {
public:
    explicit MqttPeer(int port, const std::string& id = "");
    ~MqttPeer();
    MqttPeer(const MqttPeer&) = delete;
    MqttPeer& operator=(const MqttPeer&) = delete;

    // Subscribes and waits for the broker's SUBACK.
    void subscribe(const std::string& topic, int qos = 1);
    // Publishes and waits until the message has left (QoS 0) or been acknowledged.
    void publish(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos = 0,
                 bool retained = false);

    std::vector<Received> received() const;
    std::vector<Received> received_on(const std::string& topic) const;
    bool wait_for(const std::string& topic, std::size_t count = 1,
                  std::chrono::milliseconds deadline = std::chrono::seconds(10)) const;
    void clear();

private:
    static void on_message(mosquitto*, void* self, const mosquitto_message* msg);
    static void on_subscribe(mosquitto*, void* self, int mid, int, const int*);
    static void on_publish(mosquitto*, void* self, int mid);

    mosquitto* m_mosq = nullptr;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    std::vector<Received> m_received;
    std::vector<int> m_acked;
};

}  // namespace ipcd_test
