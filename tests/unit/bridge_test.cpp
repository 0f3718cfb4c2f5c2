// The bridge's relay logic against a fake transport; the catalogue is a real
// file, the TX port a regular file (or /dev/full for a lost one).

#include <gtest/gtest.h>

#include "frames.h"
#include "ipcd.h"
#include "logging.h"
#include "stats_reporter.h"
#include "support.h"
#include "transport.h"

namespace com = ecu::kora::com;
namespace logging = ecu::kora::logging;
namespace pb = ecu::kora::pb;
using ecu::kora::ipc::IpcSignal;
using namespace ipcd_test;
using Topics = std::vector<std::string>;

// The bridge's own state, as the tests set and look at it.
struct ecu::kora::ipcd::IPCdTestPeer {
    IPCd& bridge;
    auto& rt_topics() { return bridge.m_rt_topics; }
    auto& earlybird() { return bridge.m_earlybird; }
    auto& earlybird_thread() { return bridge.m_earlybird_thread; }
    auto& reader() { return bridge.m_reader; }
    auto& writer() { return bridge.m_writer; }
    auto& tx_groups() { return bridge.m_tx_groups; }
};

namespace {

// Records what the bridge publishes; a test can hold a publishing thread
// inside publish() through before_publish.
struct FakeTransport : com::ITransportClient {
    bool connect() override { return true; }
    int publish(const std::string& topic, com::Message& msg) override {
        if (before_publish) {
            before_publish(topic);
        }
        std::lock_guard<std::mutex> lock(mutex);
        sent.emplace_back(topic, msg);
        return publish_result;
    }
    bool subscribe(const std::string&, int, std::shared_ptr<com::ISubscriptionObserver>) override {
        return true;
    }
    bool start() override { return true; }
    bool stop() override { return true; }
    const std::string& client_name() const override { return name; }
    bool set_will(const std::string& topic, const com::Message& msg) override {
        will.emplace_back(topic, msg);
        return true;
    }
    std::vector<std::pair<std::string, com::Message>> published() const {
        std::lock_guard<std::mutex> lock(mutex);
        return sent;
    }
    Topics published_topics() const {
        Topics topics;
        for (const auto& p : published()) {
            topics.push_back(p.first);
        }
        return topics;
    }
    int publish_result = 1;
    std::function<void(const std::string&)> before_publish;
    mutable std::mutex mutex;
    std::string name = "fake-ipcd";
    std::vector<std::pair<std::string, com::Message>> sent;
    std::vector<std::pair<std::string, com::Message>> will;
};

const char* const g_catalogue = R"({"groups": [
  {"topic": "rt/system/time_sync", "id": 1, "size": 8, "signals": []},
  {"topic": "rt/b", "id": 11, "size": 4, "signals": [{"name": "x", "offset": 0, "size": 4}]},
  {"topic": "rt/a", "id": 10, "size": 8,
   "signals": [{"name": "A", "offset": 0, "size": 2}, {"name": "B", "offset": 4, "size": 2}]},
  {"topic": "rt/r", "id": 12, "retained": true, "size": 4, "signals": []}]})";

IpcSignal record(std::uint32_t id, Bytes data = {1, 2}, std::uint64_t timestamp = 1000) {
    return {id, 7, timestamp, std::move(data)};
}

class Bridge : public ::testing::Test {
protected:
    void SetUp() override { make_bridge(g_catalogue); }
    void TearDown() override { logging::configure_logging("NOTICE"); }
    void make_bridge(const std::string& catalogue) {
        bridge.reset();
        ecu::kora::rt::SignalAdapter::instance().load(dir.write("catalogue.json", catalogue));
        log.clear();
        fake = std::make_shared<FakeTransport>();
        std::shared_ptr<com::ITransportClient> client = fake;
        bridge = std::make_unique<ecu::kora::ipcd::IPCd>(client);
        EXPECT_FALSE(client);  // taken over
    }
    void release() {
        bridge->message("system/tpa/status", message(tpa(true, true)));
        ASSERT_TRUE(log.wait_for("Earlybird message processing done."));
    }
    ecu::kora::ipcd::IPCdTestPeer peer() const { return {*bridge}; }
    pb::RtSignal relayed(std::size_t i) const {
        return unframed<pb::RtSignal>(fake->published().at(i).second.payload);
    }

    TempDir dir;
    LogCapture log;
    std::shared_ptr<FakeTransport> fake;
    std::unique_ptr<ecu::kora::ipcd::IPCd> bridge;
};

TEST_F(Bridge, RelayedFrameCarriesTheRecordAndEndOfDataIsOneRetainedByte) {
    peer().rt_topics().at(10).requested = true;
    bridge->consume(record(10, {0xde, 0xad}, 123456789));
    bridge->consume(record(10, {}, 5));
    bridge->finished();
    ASSERT_EQ(fake->published_topics(), (Topics{"rt/a", "rt/a", "system/rt/eod"}));
    EXPECT_FALSE(fake->published()[0].second.retained);
    EXPECT_EQ(relayed(0).timestamp(), 123456789U);
    EXPECT_EQ(relayed(0).data(), "\xde\xad");
    EXPECT_EQ(relayed(0).tag(), 7U);
    EXPECT_EQ(relayed(0).source(), "fake-ipcd");
    EXPECT_TRUE(relayed(1).has_data());                    // empty, but there
    const com::Message eod = fake->published()[2].second;  // raw: no frame, no time
    EXPECT_TRUE(eod.payload == Bytes{1} && eod.retained && eod.format == 0 && eod.timestamp == 0);
}

TEST_F(Bridge, RouteTableRowByRow) {
    logging::configure_logging("INFO");
    peer().rt_topics().at(11).requested = true;
    bridge->start_earlybird_thread();
    for (std::uint32_t id : {10, 11, 12}) {  // held: retained at once, the rest queued
        bridge->consume(record(id));
    }
    EXPECT_EQ(fake->published_topics(), Topics{"rt/r"});
    EXPECT_TRUE(fake->published()[0].second.retained);
    EXPECT_EQ(peer().earlybird().size(), 2U);
    release();
    EXPECT_EQ(fake->published_topics(), (Topics{"rt/r", "rt/b"}));
    bridge->consume(record(10));  // flush done, not requested: joins, dropped
    EXPECT_FALSE(peer().earlybird_thread().joinable());
    bridge->consume(record(11));  // joined: requested and retained go out
    bridge->consume(record(12));
    log.clear();
    bridge->consume(record(10));  // the rest stops at the gate
    EXPECT_EQ(fake->published_topics(), (Topics{"rt/r", "rt/b", "rt/b", "rt/r"}));
    EXPECT_EQ(log.lines().at(0).text, "Data for topic 'rt/a' received (rt id: 10) ");
    EXPECT_EQ(log.lines().size(), 1U);

    make_bridge(g_catalogue);  // flush done and requested: joins, then publishes
    peer().rt_topics().at(10).requested = true;
    bridge->start_earlybird_thread();
    release();
    bridge->consume(record(10));
    EXPECT_FALSE(peer().earlybird_thread().joinable());
    EXPECT_EQ(fake->published_topics(), Topics{"rt/a"});
}

TEST_F(Bridge, DiagnosticLines) {
    logging::configure_logging("INFO");
    peer().rt_topics().at(11).requested = true;
    peer().rt_topics().at(12).requested = true;
    bridge->m_log_rt_signals = {42, 10};
    for (std::uint32_t id : {12, 11, 10}) {
        bridge->consume(record(id));
    }
    EXPECT_TRUE(log.has(logging::info,
                        "Data for topic 'rt/r' received (rt id: 12) (retained) (subscribed) "));
    EXPECT_TRUE(log.has(logging::info, "Data for topic 'rt/b' received (rt id: 11) (subscribed) "));
    EXPECT_TRUE(log.find("[RT_SIGNAL_LOG]").empty());  // the dump only at DEBUG
    logging::configure_logging("DEBUG");
    log.clear();
    bridge->consume(record(42, {0x01, 0xa0}));
    EXPECT_EQ(log.lines().at(0).text, "[RT_SIGNAL_LOG] received: '42' val: 0xa0 0x01 ");
    EXPECT_TRUE(log.has(logging::error, "Unable to find rt-id 42 in the active subscription map"));

    ecu::kora::ipcd::g_time_sync_id = 1;  // the queue size: four bytes, little-endian, if on
    bridge->consume(record(1, {1, 2, 3, 4}, 8));
    bridge->m_log_queue_size = true;
    bridge->consume(record(1, {1, 2, 3, 4, 5, 6}, 9));
    bridge->consume(record(1, {1, 2}, 10));
    ecu::kora::ipcd::g_time_sync_id = 0;
    EXPECT_EQ(log.find("QUEUE-SIZE").size(), 2U);
    EXPECT_TRUE(log.has(logging::notice, "QUEUE-SIZE: 67305985 timestamp: 9"));
    EXPECT_TRUE(log.has(logging::notice, "QUEUE-SIZE: 513 timestamp: 10"));
}

TEST_F(Bridge, EarlybirdKeepsArrivalOrderAcrossBatchesAndReadsRequestedAtDrain) {
    bridge->start_earlybird_thread();
    for (std::uint8_t i = 0; i < 3; ++i) {
        bridge->consume(record(10, {i}));
        bridge->consume(record(11, {i}));
    }
    // Requested after queueing but before the target: its records go out.
    bridge->message("subscription/announcement", message(announcement({"rt/a"})));
    // The flush is held in its first publish while more records come: they
    // form a second batch behind the first.
    std::mutex gate;
    std::unique_lock<std::mutex> hold(gate);
    std::atomic<int> publishes{0};
    fake->before_publish = [&](const std::string& topic) {
        if (topic == "rt/a" && publishes++ == 0) {
            std::lock_guard<std::mutex> wait(gate);
        }
    };
    bridge->message("system/tpa/status", message(tpa(false, false)));
    ASSERT_TRUE(wait_until([&] { return publishes > 0; }));
    bridge->consume(record(10, {3}));
    bridge->consume(record(11, {3}));
    hold.unlock();
    ASSERT_TRUE(log.wait_for("Earlybird message processing done."));
    ASSERT_EQ(fake->published_topics(),
              (Topics{"system/ipc/subscriptions", "rt/a", "rt/a", "rt/a", "rt/a"}));
    for (std::size_t i = 1; i <= 4; ++i) {
        EXPECT_EQ(relayed(i).data(), std::string(1, static_cast<char>(i - 1)));
    }
    EXPECT_TRUE(log.has(logging::notice,
                        "kirn.target has been reached on both partitions, start "
                        "publishing earlybird data (queue size: 6)"));
    EXPECT_TRUE(log.has(logging::notice,
                        "Earlybird message processing done. 8 entries have been processed through "
                        "the ipcd earlybird queue and 4 have been published to subscribed topics. "
                        "The initial queue size was 6"));
}

TEST_F(Bridge, TargetStatusRules) {
    bridge->start_earlybird_thread();
    bridge->message("system/tpa/status", message(tpa(true, false)));  // waiting: held
    bridge->message("system/tpa/status", com::Message{});
    EXPECT_TRUE(log.has(logging::warning, "Failed to deserialize: system/tpa/status"));
    EXPECT_FALSE(log.wait_for("processing done", 100ms));
    bridge->message("system/tpa/status", message(framed(pb::TPAStatus{})));  // nothing set
    EXPECT_TRUE(log.wait_for("Earlybird message processing done."));

    make_bridge(g_catalogue);  // a failed publish is not counted as published
    fake->publish_result = 0;
    peer().rt_topics().at(10).requested = true;
    bridge->start_earlybird_thread();
    bridge->consume(record(10));
    release();
    EXPECT_FALSE(
        log.find("1 entries have been processed through the ipcd earlybird queue and 0").empty());

    make_bridge(g_catalogue);  // reported before the thread waits: no block
    bridge->message("system/tpa/status", message(tpa(true, true)));
    bridge->start_earlybird_thread();
    ASSERT_TRUE(log.wait_for("Earlybird message processing done."));
    EXPECT_EQ(log.find("(queue size: 0)").size(), 1U);
}

TEST_F(Bridge, StatusIsPublishedOnlyWhenTheRequestedCountGrows) {
    logging::configure_logging("INFO");
    bridge->message("subscription/announcement", message(announcement({"rt/b", "rt/a", "rt/b"})));
    ASSERT_EQ(fake->published_topics(), Topics{"system/ipc/subscriptions"});
    EXPECT_TRUE(fake->published()[0].second.qos == 1 && fake->published()[0].second.retained);
    const auto status = unframed<pb::SubscriptionStatus>(fake->published()[0].second.payload);
    EXPECT_EQ(Topics(status.topics().begin(), status.topics().end()), (Topics{"rt/a", "rt/b"}));
    EXPECT_TRUE(status.topic_count() == 4 && status.requested_count() == 2);
    EXPECT_EQ(log.find("Client App request data for: rt/b").size(), 2U);
    bridge->message("subscription/announcement", message(announcement({"rt/a"})));
    bridge->message("subscription/announcement",
                    message(announcement({"rt", "vehicle/x", "rt/unknown"})));
    EXPECT_EQ(fake->published().size(), 1U);
    EXPECT_EQ(log.find("non rt-topic (ignored): ").size(), 2U);
    EXPECT_EQ(log.find("non recognized rt-topic(ignored): rt/unknown").size(), 1U);
    ecu::kora::rt::SignalAdapter::instance().load(  // a topic learnt after the map was built
        dir.write("later.json",
                  R"({"groups": [{"topic": "rt/new", "id": 77, "size": 1, "signals": []}]})"));
    bridge->message("subscription/announcement", message(announcement({"rt/new"})));
    EXPECT_EQ(log.find("missing in subscription map (ignored): rt/new").size(), 1U);
    bridge->message("subscription/announcement", com::Message{});
    EXPECT_TRUE(log.has(logging::error,
                        "Received a subscription announcement, but NO "
                        "SubscriptionMessage was included! error(1)"));
}

TEST_F(Bridge, SystemStateAndDispatch) {
    logging::configure_logging("DEBUG");
    pb::RtSignal state;
    bridge->message("system/state/rt", message(framed(state)));
    state.set_data("\x03");
    bridge->message("system/state/rt", message(framed(state)));
    EXPECT_TRUE(log.has(logging::debug, "system-state value: '0'"));
    EXPECT_TRUE(log.has(logging::debug, "system-state value: '3'"));
    EXPECT_FALSE(peer().reader().stop_requested);
    bridge->message("system/state/rt", message(Bytes(17, 0xff)));
    EXPECT_TRUE(log.has(logging::error,
                        "Unable to deserialize message on system/state/rt topic. error(1)"));
    bridge->message("rttx", com::Message{});
    bridge->message("rttx/", com::Message{});
    EXPECT_TRUE(log.has(logging::info, "Message received on unhandled topic 'rttx'"));
    EXPECT_TRUE(log.has(logging::error, "Unable to find id for 'rt/', unable to send data to RT."));
    state.set_data("\x04\x09");
    bridge->message("system/state/rt", message(framed(state)));
    EXPECT_TRUE(log.has(logging::notice, "Received shutdown indication!"));
    EXPECT_TRUE(peer().reader().stop_requested);
}

TEST_F(Bridge, TxRecordsMergeTheLatestValueOfEverySignal) {
    logging::configure_logging("DEBUG");
    bridge->m_log_rt_signals = {10};
    ASSERT_TRUE(peer().writer().open(dir.write("tx", "")));
    // A signal the group lacks: refused, and nothing cached.
    bridge->message("rttx/a", message(group_data({{"A", "\x09\x09"}, {"Z", "\x01"}}, 1)));
    EXPECT_TRUE(log.has(logging::error, "Unpacking of SignalGroup for topic 'rt/a' failed"));
    EXPECT_EQ(peer().tx_groups().count("rt/a"), 0U);
    bridge->message("rttx/a", message(group_data({{"B", "\x03\x04"}}, 100)));
    bridge->message("rttx/a", message(group_data({{"A", "\x01\x02"}}, 200)));
    bridge->message("rttx/a", message(group_data({{"B", "\x05"}}, 300)));
    const std::string bytes = read_file(dir.file("tx"));
    ecu::kora::ipc::RecordDecoder decoder;
    decoder.feed(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    const Bytes images[] = {
        {0, 0, 0, 0, 3, 4, 0, 0}, {1, 2, 0, 0, 3, 4, 0, 0}, {1, 2, 0, 0, 5, 0, 0, 0}};
    for (std::uint64_t i = 0; i < 3; ++i) {
        IpcSignal r;
        ASSERT_TRUE(decoder.next(r));
        EXPECT_EQ(r.data, images[i]);
        EXPECT_TRUE(r.id == 10 && r.tag == 0);
        EXPECT_EQ(r.timestamp, 100 * (i + 1));  // the message's own
    }
    EXPECT_TRUE(log.has(logging::debug, "[RT_SIGNAL_LOG] send: 10"));
    EXPECT_TRUE(log.has(logging::info, "Send data to RT for topic 'rttx/a' (rt id: 10)"));
}

// Health for fleet tools: retained at QoS 1, so that it survives a lost
// packet and a reconnection; "down" as the will and on an orderly stop.
// Statistics are frequent and only the latest counts.
TEST(StatsReporter, HealthAndStatisticsAsTheyAreRetained) {
    FakeTransport fake;
    const ecu::kora::ipcd::RelayCounters counters;
    ecu::kora::ipcd::StatsReporter reporter(counters, "1.2.3");
    reporter.arm(fake);
    reporter.connected(fake);
    reporter.stopping(fake);
    auto messages = fake.will;
    const auto sent = fake.published();
    messages.insert(messages.end(), sent.begin(), sent.end());
    ASSERT_EQ(messages.size(), 3U);
    const char* const states[] = {R"("state":"down")", R"("state":"up")", R"("state":"down")"};
    for (std::size_t i = 0; i < 3; ++i) {
        const auto& [topic, msg] = messages[i];
        const std::string text(msg.payload.begin(), msg.payload.end());
        EXPECT_EQ(topic, "system/ipc/health");
        EXPECT_NE(text.find(states[i]), std::string::npos) << text;
        EXPECT_TRUE(msg.retained && msg.qos == 1) << i;
    }
    const std::string up(messages[1].second.payload.begin(), messages[1].second.payload.end());
    EXPECT_NE(up.find(R"("version":"1.2.3")"), std::string::npos) << up;

    // Statistics only when asked for: retained, the latest at QoS 0.
    reporter.tick(fake, false);
    ASSERT_EQ(fake.published().size(), 2U);
    reporter.tick(fake, true);
    const auto after = fake.published();
    ASSERT_EQ(after.size(), 3U);
    const auto& [topic, stats] = after.back();
    EXPECT_EQ(topic, "system/ipc/stats");
    EXPECT_TRUE(stats.retained && stats.qos == 0);
}

}  // namespace
