#include "outbox.h"

#include <algorithm>

#include "logging.h"

namespace ecu::kora::com {

namespace {

const std::shared_ptr<logging::LogModule>& log_module() {
    static const auto module = logging::module("kora.com.transport");
    return module;
}

}  // namespace

Outbox::Outbox(Link& link, std::size_t max_pending, std::size_t offline_limit)
    : m_link(link), m_max_pending(max_pending), m_offline_limit(offline_limit) {}

void Outbox::open() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_open = true;
}

void Outbox::add_pending(int qos) {
    std::size_t& count = qos == 0 ? m_pending_qos0 : m_pending_qos1;
    ++count;
    m_pending_high = std::max(m_pending_high, pending_locked());
}

void Outbox::remove_pending(int qos) {
    std::size_t& count = qos == 0 ? m_pending_qos0 : m_pending_qos1;
    count -= count > 0 ? 1 : 0;
}

bool Outbox::keep_offline(const std::string& topic, const Message& msg) {
    if (m_offline_limit == 0) {
        return false;
    }
    if (m_offline.size() >= m_offline_limit) {
        m_offline.pop_front();
        ++m_dropped_total;
        if (m_dropped++ == 0) {
            logging::WARNING << log_module() << "broker unreachable and " << m_offline_limit
                             << " messages waiting: dropping the oldest from now on";
        }
    }
    m_offline.push_back({topic, msg.payload, msg.retained});
    return true;
}

Outbox::Sent Outbox::send(const std::string& topic, const std::vector<std::uint8_t>& payload,
                          int qos, bool retained, std::string& reason) {
    int mid = 0;
    if (qos == 0) {
        return m_link.send(topic, payload, 0, retained, mid, reason);
    }
    std::lock_guard<std::mutex> ids(m_qos1_mutex);
    const Sent sent = m_link.send(topic, payload, qos, retained, mid, reason);
    if (sent == Sent::ok) {
        m_qos1_ids.insert(mid);
    }
    return sent;
}

Outbox::Sent Outbox::send_locked(const std::string& topic, const std::vector<std::uint8_t>& payload,
                                 int qos, bool retained) {
    add_pending(qos);
    std::string reason;
    const Sent sent = send(topic, payload, qos, retained, reason);
    if (sent != Sent::ok) {
        remove_pending(qos);
    }
    return sent;
}

int Outbox::publish(const std::string& topic, const Message& msg, bool from_connection_thread) {
    const int qos = msg.qos;
    std::unique_lock<std::mutex> lock(m_mutex);
    if (msg.retained) {
        if (msg.payload.empty()) {
            // An empty retained message clears the topic on the broker.
            m_retained.erase(topic);
        } else {
            Retained& kept = m_retained[topic];
            kept.payload.assign(msg.payload.begin(), msg.payload.end());
            kept.qos = qos;
        }
    }
    for (;;) {
        for (;;) {
            if (!m_open) {
                return 0;
            }
            // While older messages wait offline, newer ones queue behind them.
            if (qos == 0 && (!m_connected || !m_offline.empty())) {
                return keep_offline(topic, msg) ? 1 : 0;
            }
            if (from_connection_thread || pending_locked() < m_max_pending) {
                break;
            }
            if (m_wait_deadline == std::chrono::steady_clock::time_point::max()) {
                m_cv.wait(lock);
            } else if (m_cv.wait_until(lock, m_wait_deadline) == std::cv_status::timeout &&
                       pending_locked() >= m_max_pending) {
                return 0;
            }
        }
        add_pending(qos);
        const std::uint64_t generation = m_generation;
        lock.unlock();

        std::string reason;
        const Sent sent = send(topic, msg.payload, qos, msg.retained, reason);
        if (sent == Sent::ok) {
            return 1;
        }

        lock.lock();
        // A loss since then has already reset the QoS 0 count.
        if (qos != 0 || generation == m_generation) {
            remove_pending(qos);
        }
        m_cv.notify_all();
        if (sent == Sent::failed || qos != 0 || !m_open) {
            lock.unlock();
            logging::ERROR << log_module() << "cannot publish on '" << topic << "': " << reason;
            return 0;
        }
        // The connection went away under us. Already back: try again;
        // otherwise the message waits offline for the next connection.
        if (!(m_connected && generation != m_generation && m_offline.empty())) {
            return keep_offline(topic, msg) ? 1 : 0;
        }
    }
}

Outbox::Resumed Outbox::connected() {
    Resumed resumed;
    std::lock_guard<std::mutex> lock(m_mutex);
    resumed.reconnection = m_ever_connected;
    m_ever_connected = true;
    // Retained first: what waits offline is newer. Under the lock, so that no
    // new publish overtakes them; a send that fails means the connection is
    // lost again, and the next one tries the rest.
    if (resumed.reconnection) {
        for (const auto& [topic, kept] : m_retained) {
            if (send_locked(topic, kept.payload, kept.qos, true) != Sent::ok) {
                break;
            }
            ++resumed.restored;
        }
    }
    while (!m_offline.empty()) {
        const Kept& kept = m_offline.front();
        if (send_locked(kept.topic, kept.payload, 0, kept.retained) != Sent::ok) {
            break;
        }
        m_offline.pop_front();
        ++resumed.sent;
    }
    m_connected = true;
    resumed.dropped = m_dropped;
    m_dropped = 0;
    m_cv.notify_all();
    return resumed;
}

void Outbox::disconnected() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_connected = false;
    ++m_generation;
    // QoS 0 messages on their way were dropped with the connection and will
    // never be reported written; QoS 1 ones are sent again by the connection.
    m_pending_qos0 = 0;
    m_cv.notify_all();
}

void Outbox::written(int mid) {
    std::lock_guard<std::mutex> lock(m_mutex);
    bool qos1 = false;
    if (m_pending_qos1 > 0) {
        std::lock_guard<std::mutex> ids(m_qos1_mutex);
        qos1 = m_qos1_ids.erase(mid) > 0;
    }
    remove_pending(qos1 ? 1 : 0);
    // Waiters (publishers that need room, a close() that needs zero) check
    // for themselves; with none waiting this costs next to nothing.
    m_cv.notify_all();
}

void Outbox::written_qos0(std::size_t n) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_pending_qos0 -= std::min(n, m_pending_qos0);
    m_cv.notify_all();
}

Outbox::Unsent Outbox::close(std::chrono::milliseconds bound) {
    std::unique_lock<std::mutex> lock(m_mutex);
    if (m_open) {
        m_cv.wait_for(lock, bound, [this] { return !m_connected || pending_locked() == 0; });
    }
    Unsent unsent{pending_locked(), m_offline.size()};
    m_offline.clear();
    m_open = false;
    m_cv.notify_all();
    return unsent;
}

void Outbox::interrupt(std::chrono::steady_clock::time_point deadline) {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_wait_deadline = deadline;
    m_cv.notify_all();
}

std::uint64_t Outbox::dropped_offline() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_dropped_total;
}

bool Outbox::is_connected() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_connected;
}

std::size_t Outbox::pending() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return pending_locked();
}

std::size_t Outbox::pending_high_water() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_pending_high;
}

std::size_t Outbox::offline_queued() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_offline.size();
}

}  // namespace ecu::kora::com
