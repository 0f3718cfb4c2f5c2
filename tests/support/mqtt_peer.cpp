#include <stdexcept>

#include "harness.h"

namespace ipcd_test {

MqttPeer::MqttPeer(int port, Handler handler) : m_handler(std::move(handler)) {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
    m_mosq = mosquitto_new(nullptr, true, this);
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_reconnect_delay_set(m_mosq, 1, 1, false);
    mosquitto_connect_callback_set(m_mosq, [](mosquitto* mosq, void* self, int rc) {
        auto* peer = static_cast<MqttPeer*>(self);
        std::lock_guard<std::mutex> lock(peer->m_mutex);
        for (const auto& [topic, qos] : peer->m_subscriptions) {
            if (rc == 0) {
                mosquitto_subscribe(mosq, nullptr, topic.c_str(), qos);
            }
        }
    });
    mosquitto_message_callback_set(m_mosq, [](mosquitto*, void* self, const mosquitto_message* m) {
        auto* peer = static_cast<MqttPeer*>(self);
        if (peer->m_handler) {
            peer->m_handler(*m);
            return;
        }
        const auto* bytes = static_cast<const std::uint8_t*>(m->payload);
        std::lock_guard<std::mutex> lock(peer->m_mutex);
        peer->m_received.push_back({m->topic, {bytes, bytes + m->payloadlen}, m->qos, m->retain});
    });
    static const auto done = [](mosquitto*, void* self, int mid) {
        auto* peer = static_cast<MqttPeer*>(self);
        std::lock_guard<std::mutex> lock(peer->m_mutex);
        peer->m_done.insert(mid);
        peer->m_cv.notify_all();
    };
    mosquitto_subscribe_callback_set(
        m_mosq, [](mosquitto* m, void* self, int mid, int, const int*) { done(m, self, mid); });
    mosquitto_publish_callback_set(m_mosq, done);
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

void MqttPeer::wait_done(int mid) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cv.wait_for(lock, 10s, [&] { return m_done.erase(mid) > 0; })) {
        throw std::runtime_error("test peer: no acknowledgement");
    }
}

void MqttPeer::subscribe(const std::string& topic, int qos) {
    int mid = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_subscriptions.emplace_back(topic, qos);
    }
    if (mosquitto_subscribe(m_mosq, &mid, topic.c_str(), qos) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("test peer cannot subscribe " + topic);
    }
    wait_done(mid);
}

void MqttPeer::publish(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
                       bool retained) {
    int mid = 0;
    if (mosquitto_publish(m_mosq, &mid, topic.c_str(), static_cast<int>(payload.size()),
                          payload.data(), qos, retained) != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("test peer cannot publish on " + topic);
    }
    wait_done(mid);
}

std::vector<Received> MqttPeer::received(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Received> out;
    for (const auto& r : m_received) {
        if (topic.empty() || r.topic == topic) {
            out.push_back(r);
        }
    }
    return out;
}

}  // namespace ipcd_test
