#pragma once

// A publish-only MQTT connection of its own for QoS 0 RT data, driven by the
// thread that reads the RT device (through loop::IPollSource): a record goes
// from the device to the socket without changing threads, and the PUBLISH
// packets of everything one wake-up found leave in one write. libmosquitto
// writes every packet with a call of its own and hands each one to its
// network thread; at RT rates that was most of ipcd's CPU.
//
// It carries QoS 0 only (no acknowledgements, nothing to resend), under its
// own client id ("<client_name>-rt") with the same login and TLS settings as
// the main connection, which keeps subscriptions, QoS 1, and the last will.
// The end of data goes here too, so that it stays behind the last record.
// Losses and reconnections follow the same ReconnectPolicy; the offline
// queue, the pending bound and the retained set are its Outbox's.
//
// Threads: fill/serve/flush on the loop's thread; send() (through the
// Outbox) from any thread, waking the loop when it is not the caller;
// close() from the owner once the loop has ended.

#include <openssl/ssl.h>
#include <sys/socket.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "descriptor.h"
#include "mqtt_packets.h"
#include "mqtt_settings.h"
#include "outbox.h"
#include "poll_source.h"
#include "reconnect_policy.h"

namespace ecu::kora::com {

class PublishLink : public loop::IPollSource, public Outbox::Link {
public:
    explicit PublishLink(const MqttSettings& settings);
    ~PublishLink() override;
    PublishLink(const PublishLink&) = delete;
    PublishLink& operator=(const PublishLink&) = delete;

    // Publishing from any thread, as on the main connection.
    Outbox& outbox() { return m_outbox; }
    const Outbox& outbox() const { return m_outbox; }
    bool on_loop_thread() const { return m_loop_thread.load() == std::this_thread::get_id(); }
    bool connected() const { return m_up.load(); }

    std::size_t fill(pollfd* slots, std::size_t max) override;
    void serve(const pollfd* slots, std::size_t count) override;
    Clock::time_point due() const override;
    void flush() override;
    bool accepts_more() const override;

    Outbox::Sent send(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
                      bool retained, int& mid, std::string& reason) override;

    // Writes what is buffered within bound, says goodbye and closes. The
    // loop must have ended.
    void close(std::chrono::milliseconds bound);

private:
    enum class State { down, connecting, handshaking, awaiting_connack, up };

    void attempt();
    // Closes the socket and forgets what it held.
    void go_down();
    void failed(const std::string& reason);
    void lost(const std::string& reason);
    void shut_socket();
    void start_session();
    // Reads what the broker sent; false when the link broke (reported).
    bool read_incoming();
    // Writes buffered bytes until done or the socket is full; false when the
    // link broke (reported).
    bool write_out();
    // One TLS step of the handshake; false when it failed (reported).
    bool handshake();
    std::string tls_reason(int rc);
    void wake();

    const MqttSettings& m_settings;
    const std::string m_client_id;
    Outbox m_outbox;
    ReconnectPolicy m_policy;
    std::atomic<std::thread::id> m_loop_thread{};
    std::atomic<bool> m_up{};
    std::atomic<bool> m_ever_up{};

    // The loop thread's own.
    struct Address {
        sockaddr_storage storage;
        socklen_t length;
    };
    std::vector<Address> m_addresses;  // still to try in this attempt, the next one last
    State m_state = State::down;
    loop::Descriptor m_socket;
    SSL_CTX* m_tls = nullptr;
    SSL* m_ssl = nullptr;
    bool m_want_write{};  // the TLS layer needs the socket writable
    Clock::time_point m_retry_at{};
    Clock::time_point m_deadline = Clock::time_point::max();  // CONNACK or PINGRESP
    Clock::time_point m_last_sent{};
    bool m_reported_down{};
    packets::PacketReader m_incoming;
    std::vector<std::uint8_t> m_packet;

    // What waits for the socket: whole packets, written from m_sent on.
    mutable std::mutex m_out_mutex;
    std::vector<std::uint8_t> m_out;
    std::size_t m_sent{};
    std::size_t m_out_messages{};         // PUBLISH packets in m_out
    std::vector<std::uint8_t> m_writing;  // the loop's side of a swap
    std::size_t m_writing_messages{};

    const loop::Descriptor m_wake;  // eventfd: another thread buffered something
};

}  // namespace ecu::kora::com
