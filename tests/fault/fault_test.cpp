// Faults around the real daemon: the broker going away under a record
// stream, floods of malformed broker messages, damage in the RX stream.

#include <gtest/gtest.h>

#include <random>

#include "broker.h"
#include "daemon.h"
#include "frames.h"
#include "mqtt_peer.h"

using namespace ipcd_test;
namespace pb = ecu::kora::pb;

namespace {

using namespace std::chrono_literals;

const std::string g_gear = "rt/vehicle/gear";  // RT id 21, not retained; rt/vehicle/speed (20) is

void release(Daemon& daemon, int port) {
    MqttPeer control(port);
    control.publish("subscription/announcement", announcement({"rt/vehicle/gear"}), 1);
    control.publish("system/tpa/status", tpa(false, false), 1);
    ASSERT_TRUE(daemon.process().wait_out("Earlybird message processing done."));
}

std::vector<std::uint64_t> seqs(const MqttPeer& peer) {
    std::vector<std::uint64_t> out;
    for (const auto& r : peer.received_on(g_gear)) {
        out.push_back(seq_of(r.payload));
    }
    return out;
}

// The broker goes (gracefully, then killed) under a stream and comes back:
// relaying resumes, what is written after the return arrives once and in
// order, the other direction works, and the retained state is there again.
TEST(Fault, BrokerRestartsUnderAStream) {
    for (bool hard : {false, true}) {
        Broker broker;
        Daemon daemon(broker.port());
        daemon.start_ready();
        release(daemon, broker.port());
        daemon.write_record(20, {0x2a, 0x00, 0x01}, 42);
        RecordStream stream(daemon, 21, 2000);
        ASSERT_TRUE(wait_until([&] { return stream.written() >= 1000; }));
        broker.stop(hard);
        ASSERT_TRUE(daemon.process().wait_out("lost:"));
        ASSERT_TRUE(wait_until([&] { return stream.written() >= 3000; }));
        broker.start();
        MqttPeer after(broker.port());
        after.subscribe(g_gear);
        ASSERT_TRUE(after.wait_for(g_gear, 1, 20s)) << daemon.process().out();
        const std::uint64_t at_return = stream.written();
        ASSERT_TRUE(wait_until([&] { return stream.written() >= at_return + 1000; }));
        const std::uint64_t total = stream.stop();
        ASSERT_TRUE(
            wait_until([&] { return !seqs(after).empty() && seqs(after).back() == total - 1; }));
        const auto got = seqs(after);
        EXPECT_TRUE(std::adjacent_find(got.begin(), got.end(), std::greater_equal<>()) ==
                    got.end());
        EXPECT_GE(got.size(), total - at_return);
        MqttPeer late(broker.port());
        late.subscribe("system/ipc/subscriptions");
        late.subscribe("rt/vehicle/speed");
        EXPECT_TRUE(late.wait_for("system/ipc/subscriptions"));
        ASSERT_TRUE(late.wait_for("rt/vehicle/speed"));
        EXPECT_EQ(
            unframed<pb::RtSignal>(late.received_on("rt/vehicle/speed")[0].payload).timestamp(),
            42U);
        pb::SignalGroupData request;
        request.add_signals()->set_name("fan_level");
        late.publish("rttx/hmi/climate_request", framed(request), 1);
        EXPECT_EQ(daemon.tx_records(1).size(), 1U);
    }
}

TEST(Fault, MalformedFloodOnEveryControlTopic) {
    Broker broker;
    Daemon daemon(broker.port());
    daemon.start_ready();
    MqttPeer peer(broker.port());
    peer.subscribe("rt/vehicle/speed");
    pb::RtSignal body;
    body.set_data("0123456789");
    const auto good = framed(body);
    std::mt19937 rng(20240611);
    for (const char* topic :
         {"rttx/hmi/climate_request", "rttx/vehicle/unknown", "subscription/announcement",
          "system/state/rt", "system/tpa/status"}) {
        for (int i = 0; i < 600; ++i) {
            auto m = good;
            if (i % 3 == 0) {  // random bytes, never a frame
                m.resize(rng() % 64);
                for (auto& b : m) {
                    b = static_cast<std::uint8_t>(rng() | 0x80);
                }
            } else if (i % 3 == 1) {  // cut short
                m.resize(rng() % (good.size() - 1));
            } else {  // a wrong protocol type or header length
                m[1 + static_cast<std::size_t>(i % 4)] = static_cast<std::uint8_t>(rng() | 0x40);
            }
            peer.publish(topic, m);
        }
    }
    // A QoS 1 marker: once ipcd has logged it, the flood is behind it.
    peer.publish("rttx/vehicle/after_the_flood", {}, 1);
    ASSERT_TRUE(daemon.process().wait_out("'rt/vehicle/after_the_flood'", 60s));
    daemon.write_record(20, {1, 0, 1}, 77);
    EXPECT_TRUE(peer.wait_for("rt/vehicle/speed"));
}

// Every other record comes after damage: stray bytes, a length over the
// limit, or one wrong within it. Those all arrive in order; the one directly
// in front of stray bytes may be dropped as damaged; damaged ones never come.
TEST(Fault, EveryRecordAfterRxDamageArrives) {
    Broker broker;
    MqttPeer subscriber(broker.port());
    subscriber.subscribe(g_gear);
    Daemon daemon(broker.port());
    daemon.start_ready();
    release(daemon, broker.port());
    auto record = [](std::uint32_t declared, const std::vector<std::uint8_t>& data) {
        std::vector<std::uint8_t> bytes;
        ecu::kora::ipc::encode_record({21, 0, 0, data}, bytes);
        for (std::size_t i = 0; declared != 0 && i < 4; ++i) {
            bytes[16 + i] = static_cast<std::uint8_t>(declared >> (8 * i));
        }
        return bytes;
    };
    const std::vector<std::uint8_t> six(6, 0xEE);  // too short to carry a number
    const std::vector<std::vector<std::uint8_t>> damage = {{'x', 'Q', 'P', 'R', 'x'},
                                                           record(0x10010001, six),
                                                           record(40, six),
                                                           record(2, six),
                                                           {0, 'Q'}};
    std::vector<std::uint8_t> stream;
    for (std::uint64_t seq = 0; seq < 2000; ++seq) {
        const auto d =
            seq % 2 == 0 ? damage[(seq / 2) % damage.size()] : std::vector<std::uint8_t>{};
        const auto r = record(0, seq_payload(seq));
        stream.insert(stream.end(), d.begin(), d.end());
        stream.insert(stream.end(), r.begin(), r.end());
    }
    daemon.write_raw(stream);
    ASSERT_TRUE(
        wait_until([&] { return !seqs(subscriber).empty() && seqs(subscriber).back() == 1999; }));
    std::vector<std::uint64_t> after_damage;
    for (auto seq : seqs(subscriber)) {
        if (seq % 2 == 0) {
            after_damage.push_back(seq);
        }
    }
    EXPECT_EQ(after_damage.size(), 1000U);
    EXPECT_TRUE(std::is_sorted(after_damage.begin(), after_damage.end()));
    EXPECT_NE(daemon.process().out().find("stream out of step"), std::string::npos);
}

}  // namespace
