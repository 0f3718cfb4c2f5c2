// The real daemon end to end: a private broker, real FIFOs, the sample
// catalogue and a notification socket.

#include <gtest/gtest.h>
#include <sys/stat.h>

#include "daemon_harness.h"

using namespace ipcd_test;
namespace pb = ecu::kora::pb;

namespace {

// Sample catalogue ids used here.
constexpr std::uint32_t g_speed = 20;    // retained
constexpr std::uint32_t g_gear = 21;     // not retained
constexpr std::uint32_t g_battery = 23;  // not retained

std::vector<std::uint8_t> state(std::uint8_t value) {
    pb::RtSignal body;
    body.set_data(std::string(1, static_cast<char>(value)));
    return framed(body);
}

class DaemonTest : public ::testing::Test {
protected:
    // Checks the end of data and exit status 0 that every orderly end gives.
    void expect_orderly_end(Daemon& daemon, MqttPeer& peer) {
        auto status = daemon.process().wait(15s);
        ASSERT_TRUE(status.has_value()) << daemon.process().out();
        EXPECT_EQ(*status, 0) << daemon.process().out();
        EXPECT_NE(daemon.process().out().find("Queue reading has been finished."),
                  std::string::npos);
        ASSERT_TRUE(peer.wait_for("system/rt/eod"));
        auto eod = peer.received_on("system/rt/eod");
        EXPECT_EQ(eod.back().payload, std::vector<std::uint8_t>{0x01});
        MqttPeer late(broker.port());
        late.subscribe("system/rt/eod");
        ASSERT_TRUE(late.wait_for("system/rt/eod"));
        EXPECT_TRUE(late.received()[0].retained);
    }

    Broker broker;
};

TEST_F(DaemonTest, StartUpFailuresEndWithStatusOne) {
    TempDir dir;
    // Without the time-sync topic it ends before any broker contact.
    std::string no_sync =
        dir.write("a.json", R"({"groups": [{"topic": "rt/system/timestamp", "id": 2, "size": 8,
                     "signals": []}]})");
    Daemon d1(free_port(), no_sync);
    d1.start({"-l", "INFO"});
    EXPECT_EQ(d1.process().wait(), 1);
    EXPECT_NE(d1.process().out().find("ERROR daemon: Unable to set time_sync_id"),
              std::string::npos);
    EXPECT_EQ(d1.process().out().find("MQTT"), std::string::npos);
    EXPECT_TRUE(d1.notify().wait_for("STATUS=starting"));

    // Without the frame-start topic it connects and subscribes first.
    std::string no_frame =
        dir.write("b.json", R"({"groups": [{"topic": "rt/system/time_sync", "id": 1, "size": 8,
                     "signals": []}]})");
    Daemon d2(broker.port(), no_frame);
    d2.start({"-l", "INFO"});
    EXPECT_EQ(d2.process().wait(), 1);
    std::string out = d2.process().out();
    auto subscribed = out.find("Subscribed to: 'system/state/rt'");
    auto emerg = out.find(
        "EMERG daemon: Unable to find FRAME_START_ID topic in SignalAdapter "
        "data definition rt/system/timestamp");
    EXPECT_NE(subscribed, std::string::npos) << out;
    EXPECT_NE(emerg, std::string::npos) << out;
    EXPECT_LT(subscribed, emerg);

    // The TX port is opened first and named when it fails.
    Daemon d3(broker.port());
    d3.close_tx();
    unlink(d3.tx_path().c_str());
    d3.start();
    EXPECT_EQ(d3.process().wait(), 1);
    EXPECT_NE(
        d3.process().out().find("Unable to open TX queue device for writing: " + d3.tx_path()),
        std::string::npos);
    EXPECT_EQ(d3.process().out().find("RX queue"), std::string::npos);

    Daemon d4(broker.port());
    unlink(d4.rx_path().c_str());
    d4.start();
    EXPECT_EQ(d4.process().wait(), 1);
    EXPECT_NE(
        d4.process().out().find("Unable to open RX queue device for reading: " + d4.rx_path()),
        std::string::npos);
}

TEST_F(DaemonTest, BrokerDownReturnsFromRunWithStatusZero) {
    Daemon daemon(free_port());
    daemon.start();
    EXPECT_EQ(daemon.process().wait(), 0);
    EXPECT_NE(daemon.process().out().find("ERROR daemon: Unable to connect to MQTT broker!"),
              std::string::npos);
}

TEST_F(DaemonTest, RelaysRecordsAndEndsWhenTheRtSideCloses) {
    MqttPeer peer(broker.port());
    peer.subscribe("rt/#");
    peer.subscribe("system/rt/eod");
    Daemon daemon(broker.port());
    daemon.start_ready();

    // Service-manager notifications: starting first, ready a second later.
    auto messages = daemon.notify().messages();
    ASSERT_GE(messages.size(), 2U);
    EXPECT_EQ(messages[0].first, "STATUS=starting");
    EXPECT_EQ(messages[1].first, "READY=1");
    EXPECT_GE(messages[1].second - messages[0].second, 1s);

    peer.publish("subscription/announcement", announcement({"rt/vehicle/gear"}), 1);
    peer.publish("system/tpa/status", tpa(false, false), 1);
    ASSERT_TRUE(daemon.process().wait_out("Earlybird message processing done."));
    daemon.write_record(g_battery, {1}, 5);  // neither requested nor retained: dropped
    daemon.write_record(g_gear, {0x03, 0x01}, 0x1122334455667788ULL, 9);
    daemon.write_record(g_speed, {0x64, 0x00, 0x01}, 42);

    ASSERT_TRUE(peer.wait_for("rt/vehicle/speed"));
    ASSERT_TRUE(peer.wait_for("rt/vehicle/gear"));
    auto gear = peer.received_on("rt/vehicle/gear")[0];
    EXPECT_FALSE(gear.retained);
    // Header: protocol type 1, header length 18, body length; the record's time.
    ecu::kora::pb::QTXHeader header;
    ASSERT_TRUE(header.ParseFromArray(gear.payload.data(), 18));
    EXPECT_EQ(header.frame_info() & 0xFFFFFFFFU, (18U << 16U) | 1U);
    EXPECT_EQ(header.frame_info() >> 32U, gear.payload.size() - 18);
    EXPECT_EQ(header.timestamp(), 0x1122334455667788ULL);
    auto body = unframed<pb::RtSignal>(gear.payload);
    EXPECT_EQ(body.timestamp(), 0x1122334455667788ULL);
    EXPECT_EQ(body.data(), std::string("\x03\x01", 2));
    EXPECT_EQ(body.tag(), 9U);
    EXPECT_EQ(body.source(), "ipcd");
    EXPECT_TRUE(peer.received_on("rt/vehicle/battery").empty());

    MqttPeer late(broker.port());
    late.subscribe("rt/vehicle/speed");
    ASSERT_TRUE(late.wait_for("rt/vehicle/speed"));
    EXPECT_TRUE(late.received()[0].retained);
    EXPECT_EQ(unframed<pb::RtSignal>(late.received()[0].payload).timestamp(), 42U);

    daemon.close_rx();
    expect_orderly_end(daemon, peer);
}

TEST_F(DaemonTest, EarlybirdReleasesAnnouncedTopicsInArrivalOrder) {
    MqttPeer peer(broker.port());
    peer.subscribe("rt/#");
    Daemon daemon(broker.port());
    daemon.start_ready({"-l", "DEBUG"});
    for (std::uint8_t i = 0; i < 3; ++i) {
        daemon.write_record(g_gear, {i});
        daemon.write_record(g_battery, {i});
    }
    ASSERT_TRUE(daemon.process().wait_out("new queue-size: 6"));
    peer.publish("subscription/announcement", announcement({"rt/vehicle/gear"}), 1);
    peer.publish("system/tpa/status", tpa(true, false), 1);  // still waiting: holds
    peer.publish("system/tpa/status", tpa(true, true), 1);
    ASSERT_TRUE(daemon.process().wait_out(
        "Earlybird message processing done. 6 entries have been processed through the ipcd "
        "earlybird queue and 3 have been published"));
    ASSERT_TRUE(peer.wait_for("rt/vehicle/gear", 3));
    std::string order;
    for (const auto& r : peer.received_on("rt/vehicle/gear")) {
        order += unframed<pb::RtSignal>(r.payload).data();
    }
    EXPECT_EQ(order, std::string("\0\1\2", 3));
    EXPECT_TRUE(peer.received_on("rt/vehicle/battery").empty());
}

TEST_F(DaemonTest, AnnouncementGivesARetainedStatusInIdOrder) {
    Daemon daemon(broker.port());
    daemon.start_ready();
    MqttPeer peer(broker.port());
    peer.subscribe("system/ipc/subscriptions", 1);
    peer.publish("subscription/announcement",
                 announcement({"rt/vehicle/lights", "rt/vehicle/gear", "rt/nothing"}), 1);
    ASSERT_TRUE(peer.wait_for("system/ipc/subscriptions"));
    auto status = peer.received_on("system/ipc/subscriptions")[0];
    EXPECT_EQ(status.qos, 1);
    auto body = unframed<pb::SubscriptionStatus>(status.payload);
    EXPECT_EQ(std::vector<std::string>(body.topics().begin(), body.topics().end()),
              (std::vector<std::string>{"rt/vehicle/gear", "rt/vehicle/lights"}));
    EXPECT_EQ(body.requested_count(), 2U);
    EXPECT_EQ(body.topic_count(), 14U);

    MqttPeer late(broker.port());
    late.subscribe("system/ipc/subscriptions", 1);
    ASSERT_TRUE(late.wait_for("system/ipc/subscriptions"));
    EXPECT_TRUE(late.received()[0].retained);
    EXPECT_EQ(late.received()[0].qos, 1);
}

TEST_F(DaemonTest, RttxMessagesBecomeMergedTxRecords) {
    Daemon daemon(broker.port());
    daemon.start_ready();
    MqttPeer peer(broker.port());
    auto send = [&](std::uint64_t timestamp, const char* name, std::vector<std::uint8_t> value) {
        pb::SignalGroupData body;
        body.set_timestamp(timestamp);
        auto* signal = body.add_signals();
        signal->set_name(name);
        signal->set_data(value.data(), value.size());
        peer.publish("rttx/hmi/climate_request", framed(body), 1);
    };
    send(1000, "target_temp", {0xd2, 0x00});
    send(2000, "fan_level", {3});
    auto records = daemon.tx_records(2);
    ASSERT_EQ(records.size(), 2U);
    EXPECT_EQ(records[1].id, 30U);
    EXPECT_EQ(records[1].timestamp, 2000U);
    EXPECT_EQ(records[1].tag, 0U);
    ASSERT_EQ(records[1].data.size(), 8U);
    EXPECT_EQ(records[1].data[0], 0xd2);  // kept from the first message
    EXPECT_EQ(records[1].data[2], 3);     // fan_level at offset 2
}

TEST_F(DaemonTest, MalformedControlMessagesAreLoggedAndTheRelayGoesOn) {
    MqttPeer peer(broker.port());
    peer.subscribe("rt/vehicle/speed");
    Daemon daemon(broker.port());
    daemon.start_ready({"-l", "INFO"});
    std::vector<std::uint8_t> protocol_zero = framed(pb::SubscriptionMessage{});
    protocol_zero[1] = 0;  // low byte of the protocol type
    peer.publish("system/state/rt", {1, 2, 3}, 1);
    peer.publish("subscription/announcement", protocol_zero, 1);
    peer.publish("system/tpa/status", {0xff, 0xff}, 1);
    peer.publish("rttx/vehicle/unknown", {}, 1);
    peer.publish("rttx/hmi/climate_request", {0x01}, 1);
    Process& p = daemon.process();
    EXPECT_TRUE(p.wait_out("Unable to deserialize message on system/state/rt topic. error(1)"));
    EXPECT_TRUE(
        p.wait_out("Received a subscription announcement, but NO SubscriptionMessage was "
                   "included! error(3)"));
    EXPECT_TRUE(p.wait_out("WARNING daemon: Failed to deserialize: system/tpa/status"));
    EXPECT_TRUE(p.wait_out("Unable to find id for 'rt/vehicle/unknown', unable to send data"));
    EXPECT_TRUE(p.wait_out("Unpacking of SignalGroup for topic 'rt/hmi/climate_request' failed"));
    daemon.write_record(g_speed, {1});
    EXPECT_TRUE(peer.wait_for("rt/vehicle/speed"));
    EXPECT_TRUE(p.running());
}

TEST_F(DaemonTest, ShutdownIndicationEndsTheDaemon) {
    MqttPeer peer(broker.port());
    peer.subscribe("system/rt/eod");
    Daemon daemon(broker.port());
    daemon.start_ready();
    peer.publish("system/state/rt", state(3), 1);
    peer.publish("system/state/rt", state(4), 1);
    ASSERT_TRUE(daemon.process().wait_out("Received shutdown indication!"));
    expect_orderly_end(daemon, peer);
}

TEST_F(DaemonTest, LostTxPortStopsTheStackAndEndsTheDaemon) {
    TempDir bin;
    std::string calls = bin.file("calls");
    std::string fake = bin.write("systemctl", "#!/bin/sh\necho \"$@\" >> " + calls + "\n");
    chmod(fake.c_str(), 0755);
    MqttPeer peer(broker.port());
    peer.subscribe("system/rt/eod");
    Daemon daemon(broker.port());
    daemon.start_ready({}, {"PATH=" + bin.path() + ":" + std::getenv("PATH")});
    daemon.close_tx();
    pb::SignalGroupData body;
    peer.publish("rttx/hmi/light_request", framed(body), 1);
    ASSERT_TRUE(daemon.process().wait_out(
        "ALERT daemon: TX queue port is gone, there's nothing more to do. The ECU will be "
        "restarted!"));
    expect_orderly_end(daemon, peer);
    EXPECT_EQ(read_file(calls), "stop norvex\n");
}

}  // namespace
