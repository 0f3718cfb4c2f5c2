#pragma once

// The broker transport as the daemon uses it. create_client() gives the real
// MQTT client; tests of the bridge implement ITransportClient with a fake.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "message.h"
#include "poll_source.h"

namespace ecu::kora::config {
class Configuration;
}

namespace ecu::kora::com {

class ISubscriptionObserver {
public:
    virtual ~ISubscriptionObserver() = default;
    // Called on the client's delivery thread, one message at a time, in
    // arrival order.
    virtual void message(const std::string& topic, const Message& msg) = 0;
};

enum class TransportType : int { mqtt };

// How the client's link to the broker stands, for statistics and the service
// manager's status line.
struct LinkStatus {
    bool connected{};
    std::uint64_t reconnects{};       // connections made after the first
    std::uint64_t dropped_offline{};  // dropped beyond the offline queue
    std::size_t offline_depth{};      // kept for the broker's return now
    std::string waiting_reason;       // why the last attempt failed, while not connected
};

class ITransportClient {
public:
    virtual ~ITransportClient() = default;

    // True once the broker has accepted the connection; false when it refused
    // or did not answer in time. Called once.
    virtual bool connect() = 0;
    // Publishes msg.payload with msg.qos and msg.retained. Above 0 when the
    // message was accepted. Safe from several threads at once; may wait while
    // too many messages are waiting for the socket.
    virtual int publish(const std::string& topic, Message& msg) = 0;
    // Delivers every message matching topic (MQTT wildcards allowed) to the
    // observer, which the client keeps while it lives. option is the QoS.
    virtual bool subscribe(const std::string& topic, int option,
                           std::shared_ptr<ISubscriptionObserver> observer) = 0;
    virtual bool start() = 0;
    virtual bool stop() = 0;
    virtual const std::string& client_name() const = 0;

    // The message the broker publishes on topic when the link is lost without
    // a clean disconnect (the process died, the link timed out). Before
    // connect(); false when the client cannot carry one.
    virtual bool set_will(const std::string& topic, const Message& msg) = 0;
    // The owner is stopping: from now on publishers wait for room only
    // briefly, and what finds none by then is dropped. Any thread.
    virtual void interrupt() {}
    virtual LinkStatus link_status() const { return {}; }
    // What a poll loop on the RT side must serve so that QoS 0 messages
    // published on its thread go to the socket without changing threads
    // (null: the client needs no loop). Once asked for, it carries every QoS
    // 0 message, and the loop must run until stop().
    virtual loop::IPollSource* poll_source() { return nullptr; }
};

// The client for the type, configured from "host", "port", "client_name" and
// the optional transport keys; an empty pointer (and an ERROR line) for an
// unknown type. The configuration stays the caller's and must outlive the client.
std::shared_ptr<ITransportClient> create_client(std::unique_ptr<config::Configuration>& config,
                                                TransportType type);

}  // namespace ecu::kora::com
