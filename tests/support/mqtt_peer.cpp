#include "mqtt_peer.h"

#include <algorithm>
#include <stdexcept>

namespace ipcd_test {

namespace {
constexpr std::size_t g_stream_bound = 4096;
}

MqttPeer::MqttPeer(int port, Handler handler) : m_handler(std::move(handler)) {
    static std::once_flag once;
    std::call_once(once, [] { mosquitto_lib_init(); });
    m_mosq = mosquitto_new(nullptr, true, this);
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(m_mosq, &MqttPeer::on_connect);
    mosquitto_message_callback_set(m_mosq, &MqttPeer::on_message);
    mosquitto_subscribe_callback_set(m_mosq, &MqttPeer::on_subscribe);
    mosquitto_publish_callback_set(m_mosq, &MqttPeer::on_publish);
    mosquitto_reconnect_delay_set(m_mosq, 1, 1, false);
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

void MqttPeer::on_connect(mosquitto* mosq, void* self, int rc) {
    auto* peer = static_cast<MqttPeer*>(self);
    if (rc != 0) {
        return;
    }
    std::lock_guard<std::mutex> lock(peer->m_mutex);
    for (const auto& [topic, qos] : peer->m_subscriptions) {
        mosquitto_subscribe(mosq, nullptr, topic.c_str(), qos);
    }
}

void MqttPeer::on_message(mosquitto*, void* self, const mosquitto_message* msg) {
    auto* peer = static_cast<MqttPeer*>(self);
    if (peer->m_handler) {
        peer->m_handler(*msg);
        return;
    }
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

// Also on SUBACK. The mid was recorded before: its sender holds the mutex
// across the call that hands it out.
void MqttPeer::on_publish(mosquitto*, void* self, int mid) {
    auto* peer = static_cast<MqttPeer*>(self);
    std::lock_guard<std::mutex> lock(peer->m_mutex);
    peer->m_outstanding -= peer->m_outstanding > 0 ? 1 : 0;
    auto waited = std::find(peer->m_waiting.begin(), peer->m_waiting.end(), mid);
    if (waited != peer->m_waiting.end()) {
        peer->m_waiting.erase(waited);
        peer->m_done.push_back(mid);
    }
    peer->m_cv.notify_all();
}

void MqttPeer::wait_done(int mid) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cv.wait_for(lock, 10s, [&] {
            return std::find(m_done.begin(), m_done.end(), mid) != m_done.end();
        })) {
        throw std::runtime_error("test peer: no acknowledgement");
    }
    m_done.erase(std::find(m_done.begin(), m_done.end(), mid));
}

void MqttPeer::subscribe(const std::string& topic, int qos) {
    int mid = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_subscriptions.emplace_back(topic, qos);
        ++m_outstanding;
        if (mosquitto_subscribe(m_mosq, &mid, topic.c_str(), qos) != MOSQ_ERR_SUCCESS) {
            throw std::runtime_error("test peer cannot subscribe " + topic);
        }
        m_waiting.push_back(mid);
    }
    wait_done(mid);
}

void MqttPeer::publish(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
                       bool retained) {
    int mid = 0;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_outstanding;
        if (mosquitto_publish(m_mosq, &mid, topic.c_str(), static_cast<int>(payload.size()),
                              payload.data(), qos, retained) != MOSQ_ERR_SUCCESS) {
            throw std::runtime_error("test peer cannot publish on " + topic);
        }
        m_waiting.push_back(mid);
    }
    wait_done(mid);
}

void MqttPeer::publish_stream(const std::string& topic, const std::uint8_t* data,
                              std::size_t size) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (!m_cv.wait_for(lock, 30s, [this] { return m_outstanding < g_stream_bound; })) {
        throw std::runtime_error("test peer: publisher stuck");
    }
    ++m_outstanding;
    lock.unlock();
    // Its mid is not waited for: on_publish counts it down.
    const int rc =
        mosquitto_publish(m_mosq, nullptr, topic.c_str(), static_cast<int>(size), data, 0, false);
    if (rc != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("test peer cannot publish on " + topic + ": " +
                                 mosquitto_strerror(rc));
    }
}

void MqttPeer::drain() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait_for(lock, 30s, [this] { return m_outstanding == 0; });
}

std::vector<Received> MqttPeer::received() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_received;
}

std::vector<Received> MqttPeer::received_on(const std::string& topic) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Received> out;
    std::copy_if(m_received.begin(), m_received.end(), std::back_inserter(out),
                 [&](const Received& r) { return r.topic == topic; });
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
