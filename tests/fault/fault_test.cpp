// Faults around the real daemon: the broker going away under a record
// stream, floods of malformed broker messages, damage in the RX stream.

#include <gtest/gtest.h>

#include <random>

#include "broker.h"
#include "daemon.h"
#include "frames.h"
#include "mqtt_peer.h"
#include "tally.h"

using namespace ipcd_test;
namespace pb = ecu::kora::pb;

namespace {

constexpr std::uint32_t g_speed = 20;  // retained
constexpr std::uint32_t g_gear = 21;   // not retained
const std::string g_gear_topic = "rt/vehicle/gear";

void release(Daemon& daemon, int port) {
    MqttPeer control(port);
    control.publish("subscription/announcement", announcement({"rt/vehicle/gear"}), 1);
    control.publish("system/tpa/status", tpa(false, false), 1);
    ASSERT_TRUE(daemon.process().wait_out("Earlybird message processing done."));
}

std::vector<std::uint8_t> climate_request(std::uint8_t fan_level) {
    pb::SignalGroupData body;
    auto* signal = body.add_signals();
    signal->set_name("fan_level");
    signal->set_data(std::string(1, static_cast<char>(fan_level)));
    return framed(body);
}

// The broker goes (gracefully or killed) under a stream and comes back on its
// port: relaying resumes, everything written after the return arrives once,
// the broker-to-RT direction works again, and the retained state (the
// subscription status, a retained topic's last value) is there again.
TEST(BrokerRestart, UnderARecordStream) {
    for (bool hard : {false, true}) {
        Broker broker;
        Daemon daemon(broker.port());
        daemon.start_ready();
        release(daemon, broker.port());
        daemon.write_record(g_speed, {0x2a, 0x00, 0x01}, 42);
        RecordStream stream(daemon, g_gear, 2000);
        ASSERT_TRUE(wait_until([&] { return stream.written() >= 1000; }));

        broker.stop(hard);
        ASSERT_TRUE(daemon.process().wait_out("lost:")) << daemon.process().out();
        ASSERT_TRUE(wait_until([&] { return stream.written() >= 3000; }));
        broker.start();
        Tally tally;
        MqttPeer after(broker.port(), [&](const mosquitto_message& m) { tally.on_message(m); });
        after.subscribe(g_gear_topic);
        ASSERT_TRUE(wait_until([&] { return tally.unique() > 0; }, 20s)) << daemon.process().out();
        const std::uint64_t at_return = stream.written();
        ASSERT_TRUE(wait_until([&] { return stream.written() >= at_return + 1000; }));
        const std::uint64_t total = stream.stop();
        ASSERT_TRUE(wait_until([&] {
            const auto order = tally.order();
            return !order.empty() && order.back() == total - 1;
        }));
        EXPECT_EQ(tally.duplicates(), 0U);
        const auto order = tally.order();
        EXPECT_TRUE(std::is_sorted(order.begin(), order.end()));
        EXPECT_GE(order.size(), total - at_return)
            << "records written after the return are missing";

        MqttPeer late(broker.port());
        late.subscribe("system/ipc/subscriptions");
        late.subscribe("rt/vehicle/speed");
        EXPECT_TRUE(late.wait_for("system/ipc/subscriptions")) << "the status is gone";
        ASSERT_TRUE(late.wait_for("rt/vehicle/speed")) << "the retained value is gone";
        EXPECT_EQ(
            unframed<pb::RtSignal>(late.received_on("rt/vehicle/speed")[0].payload).timestamp(),
            42U);
        late.publish("rttx/hmi/climate_request", climate_request(7), 1);
        const auto records = daemon.tx_records(1);
        ASSERT_EQ(records.size(), 1U);
        EXPECT_EQ(records[0].data.at(2), 7);
    }
}

TEST(MalformedFlood, EveryControlTopicThenARecordStillRelayed) {
    Broker broker;
    Daemon daemon(broker.port());
    daemon.start_ready();
    MqttPeer peer(broker.port());
    peer.subscribe("rt/vehicle/speed");
    pb::RtSignal body;
    body.set_data("0123456789");
    const std::vector<std::uint8_t> good = framed(body);
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int> byte(0, 255);
    for (const char* topic :
         {"rttx/hmi/climate_request", "rttx/vehicle/unknown", "subscription/announcement",
          "system/state/rt", "system/tpa/status"}) {
        for (int i = 0; i < 600; ++i) {
            std::vector<std::uint8_t> m = good;
            if (i % 3 == 0) {  // random bytes
                m.resize(static_cast<std::size_t>(byte(rng)) % 64);
                for (auto& b : m) {
                    b = static_cast<std::uint8_t>(byte(rng) | 0x80);  // never a small state value
                }
            } else if (i % 3 == 1) {  // a frame cut short
                m.resize(static_cast<std::size_t>(byte(rng)) % (good.size() - 1));
            } else {  // a wrong header length or protocol type
                m[1 + static_cast<std::size_t>(i % 4)] =
                    static_cast<std::uint8_t>(byte(rng) | 0x40);
            }
            peer.publish(topic, m, 0);
        }
    }
    // A QoS 1 marker after the flood: when ipcd has logged it, the flood is
    // behind it (one delivery thread, in order).
    peer.publish("rttx/vehicle/after_the_flood", {}, 1);
    ASSERT_TRUE(daemon.process().wait_out("'rt/vehicle/after_the_flood'", 60s));
    daemon.write_record(g_speed, {1, 0, 1}, 77);
    ASSERT_TRUE(peer.wait_for("rt/vehicle/speed"));
    EXPECT_TRUE(daemon.process().running());
}

// Every other record comes after damage: stray bytes, a header over the
// length limit, or a record whose length is wrong within the limit. The
// records after damage all arrive, in order; the one directly in front of
// stray bytes may be dropped as damaged; damaged records never arrive.
TEST(RxDamage, EveryRecordAfterDamageArrives) {
    Broker broker;
    Tally tally;
    MqttPeer subscriber(broker.port(), [&](const mosquitto_message& m) { tally.on_message(m); });
    subscriber.subscribe(g_gear_topic);
    Daemon daemon(broker.port());
    daemon.start_ready();
    release(daemon, broker.port());
    auto record = [](std::uint32_t length_or_zero, const std::vector<std::uint8_t>& data) {
        ecu::kora::ipc::IpcSignal signal{g_gear, 0, 0, data};
        std::vector<std::uint8_t> bytes;
        ecu::kora::ipc::encode_record(signal, bytes);
        for (std::size_t i = 0; length_or_zero != 0 && i < 4; ++i) {
            bytes[16 + i] = static_cast<std::uint8_t>(length_or_zero >> (8 * i));
        }
        return bytes;
    };
    const std::vector<std::uint8_t> six(6, 0xEE);  // too short to carry a number
    const std::vector<std::vector<std::uint8_t>> damage = {{'x', 'Q', 'P', 'R', 'x', 1},
                                                           record(0x10010001, six),
                                                           record(40, six),
                                                           record(2, six),
                                                           {0, 'Q'}};
    std::vector<std::uint8_t> stream;
    constexpr std::uint64_t count = 2000;
    for (std::uint64_t seq = 0; seq < count; ++seq) {
        if (seq % 2 == 0) {
            const auto& d = damage[(seq / 2) % damage.size()];
            stream.insert(stream.end(), d.begin(), d.end());
        }
        const auto r = record(0, seq_payload(seq));
        stream.insert(stream.end(), r.begin(), r.end());
    }
    daemon.write_raw(stream);
    ASSERT_TRUE(
        wait_until([&] { return !tally.order().empty() && tally.order().back() == count - 1; }));
    std::vector<std::uint64_t> after_damage;
    for (auto seq : tally.order()) {
        if (seq % 2 == 0) {
            after_damage.push_back(seq);
        }
    }
    EXPECT_EQ(after_damage.size(), count / 2);
    EXPECT_TRUE(std::is_sorted(after_damage.begin(), after_damage.end()));
    EXPECT_EQ(tally.duplicates(), 0U);
    EXPECT_NE(daemon.process().out().find("stream out of step"), std::string::npos);
}

}  // namespace
