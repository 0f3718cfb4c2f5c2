#pragma once

// What the fault and soak tests share: a record stream of numbered records
// written into the daemon's RX FIFO at a fixed rate, and a subscriber that
// collects the numbers of the records relayed to the broker.

#include <mosquitto.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "daemon_harness.h"

namespace ipcd_test {

namespace fault_pb = ecu::kora::pb;

inline std::vector<std::uint8_t> seq_bytes(std::uint32_t seq) {
    return {static_cast<std::uint8_t>(seq), static_cast<std::uint8_t>(seq >> 8U),
            static_cast<std::uint8_t>(seq >> 16U), static_cast<std::uint8_t>(seq >> 24U)};
}

// The numbers seen on one topic, shared by any number of subscribers (a
// restarted broker needs a fresh one).
class SeqCollector {
public:
    using Clock = std::chrono::steady_clock;

    void add(std::uint32_t seq) {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (seq >= m_seen.size()) {
            m_seen.resize(static_cast<std::size_t>(seq) + 1, 0);
        }
        if (m_seen[seq] == 0) {
            ++m_distinct;
        }
        ++m_seen[seq];
        m_order.push_back(seq);
        if (m_mark && !m_first_after_mark) {
            m_first_after_mark = Clock::now();
        }
    }
    // Remembers the time of the first arrival from now on.
    void mark() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_mark = true;
        m_first_after_mark.reset();
    }
    std::optional<Clock::time_point> first_after_mark() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_first_after_mark;
    }
    std::size_t distinct() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_distinct;
    }
    bool has(std::uint32_t seq) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return seq < m_seen.size() && m_seen[seq] != 0;
    }
    std::size_t duplicates() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_order.size() - m_distinct;
    }
    std::vector<std::uint32_t> order() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_order;
    }
    // Numbers below count that never arrived.
    std::size_t missing_below(std::uint32_t count) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::size_t missing = 0;
        for (std::uint32_t s = 0; s < count; ++s) {
            missing += (s >= m_seen.size() || m_seen[s] == 0) ? 1 : 0;
        }
        return missing;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<std::uint8_t> m_seen;
    std::vector<std::uint32_t> m_order;
    std::size_t m_distinct = 0;
    bool m_mark = false;
    std::optional<Clock::time_point> m_first_after_mark;
};

// A libmosquitto subscriber that takes the record number out of each RtSignal
// on its topic. It subscribes on every connection, so that after a broker
// restart its own reconnection resubscribes too.
class SeqSubscriber {
public:
    SeqSubscriber(int port, std::string topic, std::shared_ptr<SeqCollector> collector)
        : m_topic(std::move(topic)), m_collector(std::move(collector)) {
        m_mosq = mosquitto_new(nullptr, true, this);
        mosquitto_connect_callback_set(m_mosq, &SeqSubscriber::on_connect);
        mosquitto_subscribe_callback_set(m_mosq, &SeqSubscriber::on_subscribe);
        mosquitto_message_callback_set(m_mosq, &SeqSubscriber::on_message);
        mosquitto_reconnect_delay_set(m_mosq, 1, 1, false);
        if (mosquitto_connect(m_mosq, "127.0.0.1", port, 30) != MOSQ_ERR_SUCCESS) {
            throw std::runtime_error("subscriber cannot connect to port " + std::to_string(port));
        }
        mosquitto_loop_start(m_mosq);
        if (!wait_until([this] { return m_subscribed.load() > 0; })) {
            throw std::runtime_error("subscriber got no SUBACK for " + m_topic);
        }
    }
    ~SeqSubscriber() {
        mosquitto_disconnect(m_mosq);
        mosquitto_loop_stop(m_mosq, false);
        mosquitto_destroy(m_mosq);
    }
    SeqSubscriber(const SeqSubscriber&) = delete;
    SeqSubscriber& operator=(const SeqSubscriber&) = delete;

private:
    static void on_connect(mosquitto* mosq, void* self, int rc) {
        if (rc == 0) {
            mosquitto_subscribe(mosq, nullptr, static_cast<SeqSubscriber*>(self)->m_topic.c_str(),
                                1);
        }
    }
    static void on_subscribe(mosquitto*, void* self, int, int, const int*) {
        ++static_cast<SeqSubscriber*>(self)->m_subscribed;
    }
    static void on_message(mosquitto*, void* self, const mosquitto_message* msg) {
        const auto* bytes = static_cast<const std::uint8_t*>(msg->payload);
        auto body =
            unframed<fault_pb::RtSignal>(std::vector<std::uint8_t>(bytes, bytes + msg->payloadlen));
        const std::string& data = body.data();
        if (data.size() != 4) {
            return;
        }
        std::uint32_t seq = 0;
        for (int i = 3; i >= 0; --i) {
            seq = (seq << 8U) | static_cast<std::uint8_t>(data[static_cast<std::size_t>(i)]);
        }
        static_cast<SeqSubscriber*>(self)->m_collector->add(seq);
    }

    std::string m_topic;
    std::shared_ptr<SeqCollector> m_collector;
    mosquitto* m_mosq = nullptr;
    std::atomic<int> m_subscribed{0};
};

// Writes records numbered 0, 1, 2, ... of one RT id into the RX FIFO at a
// fixed rate from a thread of its own, until stopped or limit is reached.
class RecordStream {
public:
    RecordStream(Daemon& daemon, std::uint32_t id, unsigned per_second,
                 std::uint32_t limit = UINT32_MAX)
        : m_thread([this, &daemon, id, per_second, limit] {
              using Clock = std::chrono::steady_clock;
              const auto start = Clock::now();
              std::uint32_t seq = 0;
              while (!m_stop && seq < limit) {
                  const auto elapsed =
                      std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start);
                  const auto due =
                      static_cast<std::uint64_t>(elapsed.count()) * per_second / 1000000U;
                  while (seq < due && seq < limit && !m_stop) {
                      daemon.write_record(id, seq_bytes(seq), seq);
                      m_written = ++seq;
                  }
                  // Pacing only: the next batch is due in a millisecond.
                  std::this_thread::sleep_for(std::chrono::milliseconds(1));
              }
          }) {}
    ~RecordStream() { stop(); }
    RecordStream(const RecordStream&) = delete;
    RecordStream& operator=(const RecordStream&) = delete;

    // Stops writing and returns how many records were written.
    std::uint32_t stop() {
        m_stop = true;
        if (m_thread.joinable()) {
            m_thread.join();
        }
        return m_written;
    }
    std::uint32_t written() const { return m_written; }

private:
    std::atomic<bool> m_stop{false};
    std::atomic<std::uint32_t> m_written{0};
    std::thread m_thread;
};

// Starts the daemon and requests topic with the target already reached, so
// that its records are published at once.
inline void start_relaying(Daemon& daemon, int port, const char* topic,
                           std::vector<std::string> extra = {}) {
    daemon.start_ready(std::move(extra));
    MqttPeer control(port);
    control.publish("subscription/announcement", announcement({topic}), 1);
    control.publish("system/tpa/status", tpa(false, false), 1);
    if (!daemon.process().wait_out("Earlybird message processing done.")) {
        throw std::runtime_error("earlybird queue not released: " + daemon.process().out());
    }
}

}  // namespace ipcd_test
