// The transport's outgoing side against a fake connection, and the packets
// of the RT data connection as bytes on the wire.

#include <gtest/gtest.h>

#include <algorithm>
#include <future>

#include "mqtt_packets.h"
#include "outbox.h"
#include "reconnect_policy.h"
#include "support.h"

namespace ecu::kora::com {
namespace {

using namespace std::chrono_literals;
using List = std::vector<std::string>;

// Records what it is handed; answers with the scripted result.
struct FakeLink : Outbox::Link {
    Outbox::Sent send(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos,
                      bool retained, int& mid, std::string& reason) override {
        if (Outbox* box = std::exchange(bounce, nullptr)) {  // lost and back under the send
            box->disconnected();
            box->connected();
            return Outbox::Sent::no_connection;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        mid = ++m_mid;
        reason = "scripted";
        if (answer == Outbox::Sent::ok) {
            m_sent.push_back(topic + "=" + std::string(payload.begin(), payload.end()) +
                             (retained ? " retained" : "") + (qos > 0 ? " qos1" : ""));
        }
        return answer;
    }
    List take() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::exchange(m_sent, {});
    }
    std::atomic<Outbox::Sent> answer{Outbox::Sent::ok};
    Outbox* bounce = nullptr;
    std::mutex m_mutex;
    List m_sent;
    int m_mid = 0;
};

Message msg(const std::string& text, bool retained = false, int qos = 0) {
    Message m;
    m.payload.assign(text.begin(), text.end());
    m.retained = retained;
    m.qos = static_cast<std::uint8_t>(qos);
    return m;
}

TEST(Outbox, KeepsOrderAcrossALossAndRestoresRetainedFirst) {
    FakeLink link;
    Outbox box(link, 100, 100);
    EXPECT_EQ(box.publish("t", msg("early"), false), 0);  // not open yet
    box.open();
    EXPECT_EQ(box.publish("t", msg("offline"), false), 1);  // kept until connected
    EXPECT_FALSE(box.connected().reconnection);
    for (const auto& [topic, text] : {std::pair<const char*, const char*>{"status", "s1"},
                                      {"status", "s2"},
                                      {"gone", "g"},
                                      {"gone", ""}}) {
        box.publish(topic, msg(text, true), false);  // the newest of a topic is kept; empty clears
    }
    EXPECT_EQ(link.take(), (List{"t=offline", "status=s1 retained", "status=s2 retained",
                                 "gone=g retained", "gone= retained"}));
    box.disconnected();
    box.publish("t", msg("a"), false);
    box.publish("t", msg("b"), false);
    EXPECT_EQ(box.offline_queued(), 2U);
    const Outbox::Resumed resumed = box.connected();
    box.publish("t", msg("c"), false);
    EXPECT_EQ(link.take(), (List{"status=s2 retained", "t=a", "t=b", "t=c"}));
    EXPECT_TRUE(resumed.reconnection);
    EXPECT_EQ(resumed.sent, 2U);
    EXPECT_EQ(resumed.restored, 1U);
    link.bounce = &box;  // already back: sent again at once, after the restored status
    box.publish("t", msg("d"), false);
    EXPECT_EQ(link.take(), (List{"status=s2 retained", "t=d"}));
    box.disconnected();
    box.publish("t", msg("e"), false);
    link.answer = Outbox::Sent::no_connection;  // lost again while resuming: nothing is lost
    EXPECT_EQ(box.connected().sent, 0U);
    box.disconnected();
    link.answer = Outbox::Sent::ok;
    box.connected();
    EXPECT_EQ(link.take(), (List{"status=s2 retained", "t=e"}));
}

TEST(Outbox, DropsTheOldestBeyondTheLimitAndCountsThem) {
    ipcd_test::LogCapture log;
    FakeLink link;
    Outbox box(link, 100, 2);
    box.open();
    for (const char* text : {"1", "2", "3", "4", "5"}) {
        EXPECT_EQ(box.publish("t", msg(text), false), 1);
    }
    EXPECT_EQ(log.find("2 messages waiting: dropping the oldest").size(), 1U);
    EXPECT_EQ(box.connected().dropped, 3U);
    EXPECT_EQ(link.take(), (List{"t=4", "t=5"}));
    Outbox none(link, 100, 0);  // no offline queue: nothing is kept
    none.open();
    EXPECT_EQ(none.publish("t", msg("x"), false), 0);
}

TEST(Outbox, HoldsPublishersAtTheBound) {
    FakeLink link;
    Outbox box(link, 2, 10);
    box.open();
    box.connected();
    box.publish("t", msg("1"), false);
    box.publish("t", msg("2", false, 1), false);  // QoS 1: id 2
    auto third = std::async(std::launch::async, [&] { return box.publish("t", msg("3"), false); });
    EXPECT_EQ(third.wait_for(100ms), std::future_status::timeout);
    EXPECT_EQ(box.publish("t", msg("own"), true), 1);  // the connection's thread never waits
    EXPECT_EQ(box.pending(), 3U);
    box.written(2);  // the QoS 1 acknowledgement
    EXPECT_EQ(third.wait_for(100ms), std::future_status::timeout);
    box.written(1);
    EXPECT_EQ(third.get(), 1);
    EXPECT_EQ(box.pending_high_water(), 3U);
    auto fourth = std::async(std::launch::async, [&] { return box.publish("t", msg("4"), false); });
    EXPECT_EQ(fourth.wait_for(100ms), std::future_status::timeout);
    box.disconnected();  // QoS 0 messages on their way are lost with it; the waiter is kept
    EXPECT_EQ(fourth.get(), 1);
    EXPECT_EQ(box.pending(), 0U);
    EXPECT_EQ(box.offline_queued(), 1U);
}

TEST(Outbox, FailuresAndClose) {
    ipcd_test::LogCapture log;
    FakeLink link;
    Outbox box(link, 100, 10);
    box.open();
    box.connected();
    link.answer = Outbox::Sent::failed;
    EXPECT_EQ(box.publish("t", msg("x"), false), 0);
    EXPECT_EQ(log.find("cannot publish on 't': scripted").size(), 1U);
    EXPECT_EQ(box.pending(), 0U);
    link.answer = Outbox::Sent::no_connection;  // gone under the publish: kept
    EXPECT_EQ(box.publish("t", msg("y"), false), 1);
    EXPECT_EQ(box.offline_queued(), 1U);
    link.answer = Outbox::Sent::ok;
    box.connected();
    box.publish("t", msg("z"), false);
    EXPECT_EQ(box.close(10ms).unconfirmed, 2U);  // nothing confirmed them
    EXPECT_EQ(box.publish("t", msg("late"), false), 0);
}

// A stop: a publisher waiting for room gives up at the deadline, not later,
// and one that finds room by then still goes out.
TEST(Outbox, InterruptEndsWaitsForRoomAtItsDeadline) {
    FakeLink link;
    Outbox box(link, 1, 10);
    box.open();
    box.connected();
    EXPECT_EQ(box.publish("t", msg("1"), false), 1);
    box.interrupt(std::chrono::steady_clock::now() + 50ms);
    EXPECT_EQ(box.publish("t", msg("dropped"), false), 0);
    box.written_qos0(1);
    EXPECT_EQ(box.publish("t", msg("room"), false), 1);
    EXPECT_EQ(link.take(), (List{"t=1", "t=room"}));
}

// Reconnecting: the first attempt within 0.1 s, later ones further apart up
// to the cap, spread by jitter; a failure that persists is told once, then
// once a minute with the count, and afresh after a connection.
TEST(ReconnectPolicy, BacksOffWithJitterAndTellsOnceAMinute) {
    using Clock = ReconnectPolicy::Clock;
    ReconnectPolicy policy(1);
    ReconnectPolicy other(2);
    auto now = Clock::time_point{};
    EXPECT_LT(policy.lost("reset", now).delay, 100ms);
    std::vector<std::string> lines;
    std::chrono::milliseconds last{};
    std::vector<std::chrono::milliseconds> delays;
    bool differs = false;
    for (int i = 0; i < 200; ++i) {
        const auto decision = policy.failed("Connection refused", now);
        differs = differs || decision.delay != other.failed("Connection refused", now).delay;
        EXPECT_LE(decision.delay, 3s);
        if (decision.log_line) {
            lines.push_back(*decision.log_line);
        }
        last = decision.delay;
        delays.push_back(last);
        now += decision.delay;
    }
    EXPECT_GE(last, 1500ms);
    EXPECT_TRUE(differs);
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0], "cannot reach the broker: Connection refused; retrying");
    EXPECT_NE(lines[1].find("more attempts in 6"), std::string::npos) << lines[1];
    EXPECT_LE(
        lines.size(),
        1 + std::chrono::duration_cast<std::chrono::minutes>(now - Clock::time_point{}).count());
    EXPECT_EQ(*std::max_element(delays.begin(), delays.end()),
              3s);  // a broker long away: tried every 3 s
    // The summary a minute after the last line, not a second before.
    ReconnectPolicy quiet(3);
    EXPECT_TRUE(quiet.failed("refused", now).log_line.has_value());
    EXPECT_FALSE(quiet.failed("refused", now + 59s).log_line.has_value());
    EXPECT_EQ(quiet.failed("reset", now + 60s).log_line,
              "still cannot reach the broker after 2 more attempts in 60 s; last reason: reset");
    policy.connected(now);
    EXPECT_TRUE(policy.failed("TLS error", now).log_line.has_value());
    for (std::uint64_t seed = 1; seed <= 20; ++seed) {  // a first failure: again within 0.1 s
        EXPECT_LT(ReconnectPolicy(seed).failed("Connection refused", now).delay, 100ms) << seed;
    }
    // A fleet's first retries after a loss fill the whole band, from half
    // the first delay to one and a half times it: 25 to 75 ms.
    std::chrono::milliseconds low = 1s;
    std::chrono::milliseconds high{};
    for (std::uint64_t i = 1; i <= 1000; ++i) {
        const auto delay = ReconnectPolicy(i * 0x9E3779B97F4A7C15ULL).lost("reset", now).delay;
        low = std::min(low, delay);
        high = std::max(high, delay);
    }
    EXPECT_TRUE(low >= 25ms && low < 30ms) << low.count();
    EXPECT_TRUE(high > 70ms && high <= 75ms) << high.count();
    // A loss after a link that stayed up starts from the first delay, however
    // long the last outage was.
    for (int i = 0; i < 20; ++i) {
        policy.failed("refused", now);
    }
    EXPECT_TRUE(policy.connected(now));
    EXPECT_LT(policy.lost("reset", now + 10s).delay, 100ms);

    // A link the broker keeps closing half a second after making it (another
    // client of the same name) is one outage: its first loss and return are
    // told, then a line a minute; the delays grow to the cap.
    ReconnectPolicy flapping(4);
    EXPECT_TRUE(flapping.connected(now));
    std::vector<bool> told;
    std::vector<std::string> summaries;
    std::chrono::milliseconds longest{};
    const auto start = now;
    for (int i = 0; i < 100; ++i) {
        now += 500ms;
        const auto loss = flapping.lost("closed", now);
        told.push_back(loss.report);
        if (loss.log_line) {
            summaries.push_back(*loss.log_line);
        }
        longest = std::max(longest, loss.delay);
        now += loss.delay;
        told.push_back(flapping.connected(now));
    }
    EXPECT_EQ(std::count(told.begin(), told.end(), true), 2);
    EXPECT_TRUE(told[0] && told[1]);
    EXPECT_EQ(longest, 3s);
    ASSERT_FALSE(summaries.empty());
    EXPECT_LE(summaries.size(),
              std::chrono::duration_cast<std::chrono::minutes>(now - start).count());
    EXPECT_NE(summaries[0].find(" more losses within 10 s of connecting in 6"), std::string::npos)
        << summaries[0];
    EXPECT_NE(summaries[0].find("; last reason: closed"), std::string::npos);
    // Up for a minute: the next loss is told and retried at once again.
    const auto settled = flapping.lost("reset", now + 1min);
    EXPECT_TRUE(settled.report);
    EXPECT_LT(settled.delay, 100ms);
    EXPECT_TRUE(flapping.connected(now + 1min));
}

// CONNECT as the broker reads it: the flags and lengths say which of user
// and password follow, and only those follow.
TEST(Packets, ConnectCarriesTheLoginItNamesAndTheReaderSplitsTheBrokersBytes) {
    using Wire = std::vector<std::uint8_t>;
    const Wire head{0x00, 0x04, 'M', 'Q', 'T', 'T', 0x04};
    struct Row {
        std::string user, password;
        Wire tail;  // after the protocol level
    } rows[] = {
        {"", "", {0x02, 0x00, 0x0A, 0x00, 0x01, 'c'}},
        {"u", "", {0x82, 0x00, 0x0A, 0x00, 0x01, 'c', 0x00, 0x01, 'u'}},
        {"u", "pw", {0xC2, 0x00, 0x0A, 0x00, 0x01, 'c', 0x00, 0x01, 'u', 0x00, 0x02, 'p', 'w'}},
    };
    for (const Row& row : rows) {
        Wire out;
        packets::append_connect(out, "c", 10, row.user, row.password);
        Wire body = head;
        body.insert(body.end(), row.tail.begin(), row.tail.end());
        Wire expected{0x10, static_cast<std::uint8_t>(body.size())};
        expected.insert(expected.end(), body.begin(), body.end());
        EXPECT_EQ(out, expected) << row.user << "/" << row.password;
    }

    Wire bye;
    packets::append_disconnect(bye);
    packets::append_pingreq(bye);
    EXPECT_EQ(bye, (Wire{0xE0, 0x00, 0xC0, 0x00}));

    // CONNACK then PINGRESP, a byte at a time; then a length that never ends.
    packets::PacketReader reader;
    std::uint8_t type = 0;
    Wire body;
    std::vector<std::uint8_t> types;
    for (std::uint8_t byte : Wire{0x20, 0x02, 0x00, 0x00, 0xD0, 0x00}) {
        reader.feed(&byte, 1);
        while (reader.next(type, body)) {
            types.push_back(type);
        }
    }
    EXPECT_EQ(types, (Wire{packets::connack, packets::pingresp}));
    EXPECT_FALSE(reader.broken());
    const Wire endless{0x30, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F};
    reader.feed(endless.data(), endless.size());
    EXPECT_FALSE(reader.next(type, body));
    EXPECT_TRUE(reader.broken());

    // PUBLISH within the protocol's limits only: a topic of 65,535 bytes, a
    // remaining length of 268,435,455 (a packet over it is refused unread).
    Wire out;
    const std::uint8_t none = 0;
    EXPECT_TRUE(packets::append_publish(out, std::string(65535, 't'), &none, 0, false));
    EXPECT_FALSE(packets::append_publish(out, std::string(65536, 't'), &none, 0, false));
    EXPECT_FALSE(packets::append_publish(out, "ab", &none, 268435455 - 3, false));
    EXPECT_EQ(out.size(), 1 + 3 + 2 + 65535U);

    // The largest packet the reader takes, and one byte more.
    for (const bool over : {false, true}) {
        packets::PacketReader big;
        Wire bytes{0x30, static_cast<std::uint8_t>(over ? 0x81 : 0x80), 0x80, 0x04};
        bytes.resize(bytes.size() + packets::PacketReader::max_packet + (over ? 1 : 0));
        big.feed(bytes.data(), bytes.size());
        EXPECT_EQ(big.next(type, body), !over);
        EXPECT_EQ(big.broken(), over);
    }
}

}  // namespace
}  // namespace ecu::kora::com
