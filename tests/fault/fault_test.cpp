// Faults around the real daemon: the broker going away under a record
// stream, floods of malformed broker messages, damage in the RX stream.

#include <gtest/gtest.h>

#include <random>

#include "fault_support.h"

using namespace ipcd_test;
namespace pb = ecu::kora::pb;

namespace {

constexpr std::uint32_t g_speed = 20;  // retained
constexpr std::uint32_t g_gear = 21;   // not retained
constexpr const char* g_gear_topic = "rt/vehicle/gear";

using Clock = std::chrono::steady_clock;

double seconds_between(Clock::time_point from, Clock::time_point to) {
    return std::chrono::duration<double>(to - from).count();
}

std::vector<std::uint8_t> climate_request(std::uint8_t fan_level) {
    pb::SignalGroupData body;
    auto* signal = body.add_signals();
    signal->set_name("fan_level");
    signal->set_data(std::string(1, static_cast<char>(fan_level)));
    return framed(body);
}

// Streams at 2,000 records per second, takes the broker away (gracefully or
// with SIGKILL), brings it back on the same port, and checks that relaying
// and the broker-to-RT direction resume and what was lost.
void restart_under_stream(bool hard) {
    Broker broker;
    auto collector = std::make_shared<SeqCollector>();
    auto before = std::make_unique<SeqSubscriber>(broker.port(), g_gear_topic, collector);
    Daemon daemon(broker.port());
    start_relaying(daemon, broker.port(), g_gear_topic);

    RecordStream stream(daemon, g_gear, 2000);
    ASSERT_TRUE(wait_until([&] { return collector->distinct() >= 2000; }, 20s))
        << daemon.process().out();

    broker.stop(hard);
    const std::uint32_t at_stop = stream.written();
    // Its reconnection would deliver the same records a second time.
    before.reset();
    ASSERT_TRUE(daemon.process().wait_out("lost:")) << daemon.process().out();
    // The broker stays away while another second of records is written.
    ASSERT_TRUE(wait_until([&] { return stream.written() >= at_stop + 2000; }, 20s));

    collector->mark();
    broker.start();
    const auto restarted = Clock::now();
    // A fresh subscriber at once: the old one resubscribes only after its own
    // reconnection delay and would miss what ipcd sends first.
    SeqSubscriber after(broker.port(), g_gear_topic, collector);
    ASSERT_TRUE(wait_until([&] { return collector->first_after_mark().has_value(); }, 20s))
        << daemon.process().out();
    const double resumed = seconds_between(restarted, *collector->first_after_mark());
    std::cout << "[ figures ] " << (hard ? "SIGKILL" : "SIGTERM") << ": relaying resumed "
              << resumed << " s after the broker's return\n";
    EXPECT_LT(resumed, 10.0);  // a hang bound; the target is about 2 s

    // Another second of records after the return, then the end of the stream.
    const std::uint32_t at_return = stream.written();
    ASSERT_TRUE(wait_until([&] { return stream.written() >= at_return + 2000; }, 20s));
    const std::uint32_t total = stream.stop();
    EXPECT_TRUE(wait_until([&] { return collector->has(total - 1); }, 20s))
        << daemon.process().out();
    // Records written after the return must all arrive.
    EXPECT_TRUE(wait_until(
        [&] {
            for (std::uint32_t s = at_return; s < total; ++s) {
                if (!collector->has(s)) {
                    return false;
                }
            }
            return true;
        },
        20s));
    const std::size_t lost = collector->missing_below(total);
    std::cout << "[ figures ] " << (hard ? "SIGKILL" : "SIGTERM") << ": " << total
              << " records written, " << lost << " lost, " << collector->duplicates()
              << " duplicated\n";
    EXPECT_LT(lost, 1000U);

    // The broker-to-RT direction works again.
    MqttPeer client(broker.port());
    client.publish("rttx/hmi/climate_request", climate_request(7), 1);
    auto records = daemon.tx_records(1);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].id, 30U);
    EXPECT_EQ(records[0].data.at(2), 7);
    EXPECT_TRUE(daemon.process().running());
}

TEST(BrokerRestart, GracefulStopUnderARecordStream) {
    restart_under_stream(false);
}

TEST(BrokerRestart, KilledBrokerUnderARecordStream) {
    restart_under_stream(true);
}

// The retained state that ipcd published (the subscription status, the last
// value of a retained topic) must be on the broker again after a restart
// that lost it, without the RT side or a client doing anything.
TEST(BrokerRestart, RetainedStateIsThereAgainAfterARestart) {
    Broker broker;
    Daemon daemon(broker.port());
    start_relaying(daemon, broker.port(), g_gear_topic);
    MqttPeer observer(broker.port());
    observer.subscribe("rt/vehicle/speed");
    daemon.write_record(g_speed, {0x2a, 0x00, 0x01}, 42);
    ASSERT_TRUE(observer.wait_for("rt/vehicle/speed"));

    broker.stop(true);
    ASSERT_TRUE(daemon.process().wait_out("lost:")) << daemon.process().out();
    broker.start();
    // ipcd is back once a record of a requested topic is relayed again.
    auto collector = std::make_shared<SeqCollector>();
    SeqSubscriber subscriber(broker.port(), g_gear_topic, collector);
    ASSERT_TRUE(wait_until(
        [&] {
            daemon.write_record(g_gear, seq_bytes(0));
            return wait_until([&] { return collector->distinct() > 0; }, 200ms);
        },
        20s))
        << daemon.process().out();

    MqttPeer late(broker.port());
    late.subscribe("system/ipc/subscriptions", 1);
    late.subscribe("rt/vehicle/speed", 1);
    EXPECT_TRUE(late.wait_for("system/ipc/subscriptions", 1, 5s))
        << "the subscription status is gone after the broker's restart";
    EXPECT_TRUE(late.wait_for("rt/vehicle/speed", 1, 5s))
        << "the retained topic's last value is gone after the broker's restart";
    auto status = late.received_on("system/ipc/subscriptions");
    if (!status.empty()) {
        EXPECT_TRUE(status[0].retained);
        auto body = unframed<pb::SubscriptionStatus>(status[0].payload);
        ASSERT_EQ(body.topics_size(), 1);
        EXPECT_EQ(body.topics(0), g_gear_topic);
    }
    auto speed = late.received_on("rt/vehicle/speed");
    if (!speed.empty()) {
        EXPECT_TRUE(speed[0].retained);
        EXPECT_EQ(unframed<pb::RtSignal>(speed[0].payload).timestamp(), 42U);
    }
}

// Malformed payloads of every shape: random bytes, a frame cut short, a
// header announcing more body than there is, a good header with a garbage
// body, a header with protocol type 0 or the wrong header length.
std::vector<std::vector<std::uint8_t>> malformed(std::mt19937& rng, std::size_t count) {
    std::vector<std::uint8_t> good = framed(pb::RtSignal{});
    {
        pb::RtSignal body;
        body.set_data("0123456789");
        body.set_tag(5);
        good = framed(body);
    }
    std::uniform_int_distribution<int> byte(0, 255);
    std::vector<std::vector<std::uint8_t>> out;
    for (std::size_t i = 0; i < count; ++i) {
        std::vector<std::uint8_t> m;
        switch (i % 6) {
            case 0:
                m.resize(static_cast<std::size_t>(byte(rng)) % 64);
                for (auto& b : m) {
                    b = static_cast<std::uint8_t>(byte(rng));
                }
                break;
            case 1:
                m.assign(good.begin(),
                         good.begin() + static_cast<long>(static_cast<std::size_t>(byte(rng)) %
                                                          (good.size() - 1)));
                break;
            case 2:
                m = good;
                m.resize(good.size() - 1 - static_cast<std::size_t>(byte(rng)) % 8);
                break;
            case 3:
                m.assign(good.begin(), good.begin() + 18);
                for (int k = 0; k < 1 + byte(rng) % 40; ++k) {
                    m.push_back(static_cast<std::uint8_t>(byte(rng)));
                }
                // The header's body length matches the garbage.
                m[5] = static_cast<std::uint8_t>(m.size() - 18);
                m[6] = m[7] = m[8] = 0;
                break;
            case 4:
                m = good;
                m[1] = 0;  // protocol type 0
                m[2] = 0;
                break;
            default:
                m = good;
                m[3] = static_cast<std::uint8_t>(byte(rng));  // header length
                if (m[3] == 18) {
                    m[3] = 19;
                }
                break;
        }
        out.push_back(std::move(m));
    }
    return out;
}

TEST(MalformedFlood, EveryControlTopicThenARecordStillRelayed) {
    Broker broker;
    Daemon daemon(broker.port());
    daemon.start_ready();
    MqttPeer peer(broker.port());
    peer.subscribe("rt/vehicle/speed");
    peer.subscribe("system/rt/eod");
    std::mt19937 rng(20240611);
    std::size_t sent = 0;
    for (const char* topic :
         {"rttx/hmi/climate_request", "rttx/vehicle/unknown", "subscription/announcement",
          "system/state/rt", "system/tpa/status"}) {
        for (const auto& m : malformed(rng, 1000)) {
            // A garbage body may happen to decode; one that reads as the
            // shutdown state would end the daemon by design, not by fault.
            if (std::string(topic) == "system/state/rt") {
                ecu::kora::com::Message msg;
                msg.payload = m;
                auto r = ecu::kora::com::PbInternalMessageAdapter<pb::RtSignal>().deserialize(msg);
                if (r.success && !r.body.data().empty() && r.body.data()[0] == 4) {
                    continue;
                }
            }
            peer.publish(topic, m, 0);
            ++sent;
        }
    }
    std::cout << "[ figures ] " << sent << " malformed messages published\n";
    // A QoS 1 marker after the flood: once ipcd has logged it, the flood is
    // behind it too (one delivery thread, in order).
    peer.publish("rttx/vehicle/after_the_flood", {}, 1);
    ASSERT_TRUE(daemon.process().wait_out("'rt/vehicle/after_the_flood'", 60s))
        << daemon.process().out().substr(0, 4000);
    daemon.write_record(g_speed, {1, 0, 1}, 77);
    ASSERT_TRUE(peer.wait_for("rt/vehicle/speed"));
    EXPECT_EQ(unframed<pb::RtSignal>(peer.received_on("rt/vehicle/speed")[0].payload).timestamp(),
              77U);
    EXPECT_TRUE(daemon.process().running());
    EXPECT_TRUE(peer.received_on("system/rt/eod").empty());
}

// Damage between valid records: random bytes (without the magic), a partial
// magic, a header with the magic but a length over the limit, a partial
// magic right before the next record. Every valid record arrives, in order.
// Every other record comes after damage: stray bytes, a header over the
// length limit, or a record whose length is wrong within the limit (longer
// than it is, swallowing what follows, or shorter). The records after damage
// all arrive, in order; the record directly in front of stray bytes may be
// dropped as damaged, and the damaged records never arrive.
TEST(RxDamage, EveryRecordAfterDamageArrives) {
    Broker broker;
    auto collector = std::make_shared<SeqCollector>();
    SeqSubscriber subscriber(broker.port(), g_gear_topic, collector);
    Daemon daemon(broker.port());
    start_relaying(daemon, broker.port(), g_gear_topic);

    std::mt19937 rng(7);
    std::uniform_int_distribution<int> byte(0, 255);
    auto record = [](std::uint32_t seq, std::vector<std::uint8_t> data) {
        ecu::kora::ipc::IpcSignal signal;
        signal.id = g_gear;
        signal.timestamp = seq;
        signal.data = std::move(data);
        std::vector<std::uint8_t> bytes;
        ecu::kora::ipc::encode_record(signal, bytes);
        return bytes;
    };
    auto with_length = [](std::vector<std::uint8_t> bytes, std::uint32_t length) {
        for (int i = 0; i < 4; ++i) {
            bytes[16 + static_cast<std::size_t>(i)] = static_cast<std::uint8_t>(length >> (8 * i));
        }
        return bytes;
    };
    // Damaged records carry 6 bytes, so that none could count as a relayed one.
    const std::vector<std::uint8_t> six(6, 0xEE);
    auto damage = [&](std::size_t i) {
        std::vector<std::uint8_t> g;
        switch (i % 7) {
            case 0:
                g.resize(1 + static_cast<std::size_t>(byte(rng)) % 100);
                for (auto& b : g) {
                    b = static_cast<std::uint8_t>(byte(rng));
                    if (b == 'Q') {
                        b = 'q';
                    }
                }
                return g;
            case 1:
                return std::vector<std::uint8_t>{'Q', 'P', 'R', 'x', 1, 2, 3};
            case 2:
                return with_length(record(0, six), 0x10010001);  // over the limit
            case 3:
                return with_length(record(0, six), 40);  // longer than it is
            case 4:
                return with_length(record(0, six), 2);  // shorter than it is
            case 5:
                return std::vector<std::uint8_t>{0, 0, 'Q', 'P'};
            default:
                return std::vector<std::uint8_t>{'Q'};
        }
    };
    constexpr std::uint32_t count = 2000;
    std::vector<std::uint8_t> chunk;
    for (std::uint32_t seq = 0; seq < count; ++seq) {
        if (seq % 2 == 0) {
            auto g = damage(seq / 2);
            chunk.insert(chunk.end(), g.begin(), g.end());
        }
        auto r = record(seq, seq_bytes(seq));
        chunk.insert(chunk.end(), r.begin(), r.end());
        if (chunk.size() > 3000) {
            daemon.write_raw(chunk);
            chunk.clear();
        }
    }
    daemon.write_raw(chunk);
    std::vector<std::uint32_t> expected;
    for (std::uint32_t s = 0; s < count; s += 2) {
        expected.push_back(s);
    }
    ASSERT_TRUE(wait_until([&] { return collector->has(count - 2); }, 30s))
        << collector->distinct() << " arrived\n"
        << daemon.process().out().substr(0, 4000);
    std::vector<std::uint32_t> after_damage;
    for (auto seq : collector->order()) {
        if (seq % 2 == 0) {
            after_damage.push_back(seq);
        }
    }
    EXPECT_EQ(after_damage, expected);
    EXPECT_EQ(collector->duplicates(), 0U);
    EXPECT_TRUE(daemon.process().running());
}

}  // namespace
