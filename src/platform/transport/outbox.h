#pragma once

// The outgoing side of the broker client: what happens to a message between
// publish() and the socket.
//
// - The pending bound: messages handed to the connection but not yet written
//   (QoS 0) or acknowledged (QoS 1) are counted, and a publisher waits while
//   max_pending are outstanding, so that a fast RT side is held to the
//   broker's pace instead of growing memory. A publish from the connection's
//   own thread (an observer answering a message) never waits: it would wait
//   for itself.
// - The offline queue: QoS 0 messages published while the broker is away are
//   kept (at most offline_limit; beyond that the oldest go, counted in one
//   WARNING) and sent in order as soon as the connection is back, before any
//   newer message. QoS 1 messages are kept by the connection itself.
// - The retained set: the newest retained message of every topic published
//   here is sent again after a reconnection, because a broker that restarted
//   without persistence has lost it and nobody else would publish it again.
//
// The connection is reached through a Link, so that this runs without a
// broker in tests. Threads: publish() from any thread; connected(),
// disconnected() and written() from the connection's thread; open() and
// close() from the owner.

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <unordered_set>
#include <vector>

#include "message.h"

namespace ecu::kora::com {

class Outbox {
public:
    enum class Sent { ok, no_connection, failed };

    // The connection, as the outbox uses it.
    class Link {
    public:
        virtual ~Link() = default;
        // Hands one message to the connection. For QoS 1 it sets mid to the
        // id that written() will report; a QoS 1 message that the connection
        // keeps for its return counts as ok. On failed, reason says why.
        virtual Sent send(const std::string& topic, const std::vector<std::uint8_t>& payload,
                          int qos, bool retained, int& mid, std::string& reason) = 0;
    };

    // What connected() sent again, for the owner's log line.
    struct Resumed {
        bool reconnection{};
        std::size_t sent{};      // from the offline queue
        std::size_t restored{};  // retained messages
        std::size_t dropped{};   // oldest dropped while the broker was away
    };

    // What close() left behind.
    struct Unsent {
        std::size_t unconfirmed;  // handed to the connection, not confirmed
        std::size_t offline;      // never sent
    };

    Outbox(Link& link, std::size_t max_pending, std::size_t offline_limit);
    Outbox(const Outbox&) = delete;
    Outbox& operator=(const Outbox&) = delete;

    // Publishing is accepted from now on (until close()).
    void open();
    // Above 0 when the message was sent, or kept for the connection's return.
    int publish(const std::string& topic, const Message& msg, bool from_connection_thread);

    // The connection is up: retained messages (after a reconnection) and then
    // the offline queue go out, in order, before anything published later.
    Resumed connected();
    // The connection is gone: QoS 0 messages on their way are lost with it.
    void disconnected();
    // The connection wrote a QoS 0 message, or the broker acknowledged QoS 1.
    void written(int mid);
    // The connection wrote n QoS 0 messages (a connection that reports them
    // in batches, with no ids).
    void written_qos0(std::size_t n);

    // Waits up to bound for what is pending to be confirmed (or for the
    // connection to go), then refuses every publish, waiting ones too.
    Unsent close(std::chrono::milliseconds bound);
    // Publishers wait for room until the deadline at most: waiting ones and
    // later ones that find none by then return 0 (their messages are dropped).
    void interrupt(std::chrono::steady_clock::time_point deadline);

    bool is_connected() const;
    std::size_t pending() const;
    std::size_t pending_high_water() const;
    std::size_t offline_queued() const;
    // Dropped beyond the offline limit since the outbox was made.
    std::uint64_t dropped_offline() const;

private:
    struct Kept {
        std::string topic;
        std::vector<std::uint8_t> payload;
        bool retained;
    };
    struct Retained {
        std::vector<std::uint8_t> payload;
        int qos;
    };

    // The rest hold m_mutex.
    std::size_t pending_locked() const { return m_pending_qos0 + m_pending_qos1; }
    void add_pending(int qos);
    void remove_pending(int qos);
    bool keep_offline(const std::string& topic, const Message& msg);
    Sent send_locked(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
                     bool retained);
    Sent send(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
              bool retained, std::string& reason);

    Link& m_link;
    const std::size_t m_max_pending;
    const std::size_t m_offline_limit;

    mutable std::mutex m_mutex;
    // Publishers waiting for room, close() waiting for zero.
    std::condition_variable m_cv;
    bool m_open{};
    // Set by interrupt(): the end of every wait for room.
    std::chrono::steady_clock::time_point m_wait_deadline =
        std::chrono::steady_clock::time_point::max();
    bool m_connected{};
    bool m_ever_connected{};
    std::uint64_t m_generation{};  // counts connection losses
    std::size_t m_pending_qos0{};
    std::size_t m_pending_qos1{};
    std::size_t m_pending_high{};
    std::deque<Kept> m_offline;
    std::size_t m_dropped{};  // since the connection was lost
    std::uint64_t m_dropped_total{};
    std::map<std::string, Retained> m_retained;

    // Ids of unacknowledged QoS 1 messages, to tell their written() from a
    // QoS 0 one. Held across the QoS 1 send, so that an early acknowledgement
    // cannot overtake the record of its id; QoS 0 traffic never takes it.
    std::mutex m_qos1_mutex;
    std::unordered_set<int> m_qos1_ids;
};

}  // namespace ecu::kora::com
