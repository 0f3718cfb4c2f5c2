#include "mqtt_peer.h"

#include <algorithm>
#include <mutex>
#include <stdexcept>

namespace ipcd_test {

MqttPeer::MqttPeer(int port, const std::string& id) {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
    m_mosq = mosquitto_new(id.empty() ? nullptr : id.c_str(), true, this);
    mosquitto_message_callback_set(m_mosq, &MqttPeer::on_message);
    mosquitto_subscribe_callback_set(m_mosq, &MqttPeer::on_subscribe);
    mosquitto_publish_callback_set(m_mosq, &MqttPeer::on_publish);
    if (mosquitto_connect(m_mosq, "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("test peer cannot connect to port " + std::to_string(port));
    }
    mosquitto_loop_start(m_mosq);
}

MqttPeer::~MqttPeer() {
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, false);
    mosquitto_destroy(m_mosq);
}

void MqttPeer::on_message(mosquitto*, void* self, const mosquitto_message* msg) {
    auto* peer = static_cast<MqttPeer*>(self);
    Received r;
    r.topic = msg->topic;
    const auto* bytes = static_cast<const std::uint8_t*>(msg->payload);
    r.payload.assign(bytes, bytes + msg->payloadlen);
    r.qos = msg->qos;
    r.retained = msg->retain;
    std::lock_guard<std::mutex> lock(peer->m_mutex);
    peer->m_received.push_back(std::move(r));
    peer->m_cv.notify_all();
}

void MqttPeer::on_subscribe(mosquitto*, void* self, int mid, int, const int*) {
    on_publish(nullptr, self, mid);
}

void MqttPeer::on_publish(mosquitto*, void* self, int mid) {
    auto* peer = static_cast<MqttPeer*>(self);
    std::lock_guard<std::mutex> lock(peer->m_mutex);
    peer->m_acked.push_back(mid);
    peer->m_cv.notify_all();
}

void MqttPeer::subscribe(const std::string& topic, int qos) {
    int mid = 0;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (mosquitto_subscribe(m_mosq, &mid, topic.c_str(), qos) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("test peer cannot subscribe " + topic);
    }
    if (!m_cv.wait_for(lock, std::chrono::seconds(10), [&] {
            return std::find(m_acked.begin(), m_acked.end(), mid) != m_acked.end();
        })) {
        throw std::runtime_error("no SUBACK for " + topic);
    }
}

void MqttPeer::publish(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
                       bool retained) {
    int mid = 0;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (mosquitto_publish(m_mosq, &mid, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), qos, retained) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("test peer cannot publish on " + topic);
    }
    m_cv.wait_for(lock, std::chrono::seconds(10),
                  [&] { return std::find(m_acked.begin(), m_acked.end(), mid) != m_acked.end(); });
}

std::vector<Received> MqttPeer::received() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}

std::vector<Received> MqttPeer::received_on(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Received> out;
    for (const auto& r : m_received) {
        if (r.topic == topic) {
            out.push_back(r);
        }
    }
    return out;
}

bool MqttPeer::wait_for(const std::string& topic, std::size_t count,
                        std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, deadline, [&] {
        return static_cast<std::size_t>(
                   std::count_if(m_received.begin(), m_received.end(),
                                 [&](const Received& r) { return r.topic == topic; })) >= count;
    });
}

void MqttPeer::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_received.clear();
}

}  // namespace ipcd_test
