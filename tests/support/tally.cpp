#include "tally.h"

#include <algorithm>
#include <ctime>

#include "bridge_bodies.pb.h"

namespace ipcd_test {

std::uint64_t mono_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

std::vector<std::uint8_t> seq_payload(std::uint64_t seq, std::uint64_t sent_ns, std::size_t size) {
    std::vector<std::uint8_t> data(std::max<std::size_t>(size, 16), 0x5A);
    for (int i = 0; i < 8; ++i) {
        data[static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(seq >> (8 * i));
        data[static_cast<std::size_t>(8 + i)] = static_cast<std::uint8_t>(sent_ns >> (8 * i));
    }
    return data;
}

void Tally::on_message(const mosquitto_message& msg) {
    const std::uint64_t now = mono_ns();
    // An 18-byte frame header, then the RtSignal.
    const auto* p = static_cast<const std::uint8_t*>(msg.payload);
    ecu::kora::pb::RtSignal body;
    if (msg.payloadlen < 18 || !body.ParseFromArray(p + 18, msg.payloadlen - 18) ||
        body.data().size() < 16) {
        return;
    }
    Arrival a{0, 0, now};
    for (int i = 7; i >= 0; --i) {
        a.seq = a.seq << 8U | static_cast<std::uint8_t>(body.data()[static_cast<std::size_t>(i)]);
        a.sent_ns = a.sent_ns << 8U |
                    static_cast<std::uint8_t>(body.data()[8 + static_cast<std::size_t>(i)]);
    }
    add(a);
}

void Tally::add(const Arrival& arrival) {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (arrival.seq >= m_seen.size()) {
        m_seen.resize(std::max<std::size_t>(arrival.seq + 1, m_seen.size() * 2));
    }
    m_arrivals.push_back(arrival);
    if (!m_seen[arrival.seq]) {
        m_seen[arrival.seq] = true;
        ++m_unique;
    }
    m_cv.notify_all();
}

std::size_t Tally::unique() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_unique;
}

std::size_t Tally::duplicates() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_arrivals.size() - m_unique;
}

std::vector<std::uint64_t> Tally::order() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<std::uint64_t> seqs;
    for (const auto& a : m_arrivals) {
        seqs.push_back(a.seq);
    }
    return seqs;
}

std::vector<Tally::Arrival> Tally::arrivals() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_arrivals;
}

bool Tally::wait_for(std::size_t count, std::chrono::milliseconds quiet) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    for (;;) {
        const std::size_t seen = m_arrivals.size();
        if (m_unique >= count) {
            return true;
        }
        if (!m_cv.wait_for(lock, quiet, [&] { return m_arrivals.size() != seen; })) {
            return false;
        }
    }
}

}  // namespace ipcd_test
