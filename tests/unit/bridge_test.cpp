// The bridge's relay logic against a fake transport; the catalogue is a real
// file, the TX port a regular file (or /dev/full for a lost one).

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>

#include "fake_transport.h"
#include "ipcd.h"
#include "log_capture.h"
#include "logging.h"
#include "message_adapter.h"
#include "temp_dir.h"

namespace com = ecu::kora::com;
namespace ipc = ecu::kora::ipc;
namespace logging = ecu::kora::logging;
namespace pb = ecu::kora::pb;
using ecu::kora::ipcd::IPCd;
using Topics = std::vector<std::string>;

namespace {

const char* const g_catalogue = R"({"groups": [
  {"topic": "rt/system/time_sync", "id": 1, "size": 8, "signals": []},
  {"topic": "rt/b", "id": 11, "size": 4, "signals": [{"name": "x", "offset": 0, "size": 4}]},
  {"topic": "rt/a", "id": 10, "size": 8,
   "signals": [{"name": "A", "offset": 0, "size": 2}, {"name": "B", "offset": 4, "size": 2}]},
  {"topic": "rt/r", "id": 12, "retained": true, "size": 4, "signals": []}]})";

template <typename T>
com::Message frame(const T& body) {
    return com::PbInternalMessageAdapter<T>().serialize(body).message;
}

template <typename T = pb::RtSignal>
T unframe(const com::Message& msg) {
    auto result = com::PbInternalMessageAdapter<T>().deserialize(msg);
    EXPECT_TRUE(result.success);
    return result.body;
}

ipc::IpcSignal record(std::uint32_t id, std::vector<std::uint8_t> data = {1, 2},
                      std::uint64_t timestamp = 1000) {
    return {id, 7, timestamp, std::move(data)};
}

com::Message announcement(std::initializer_list<const char*> topics) {
    pb::SubscriptionMessage body;
    for (const char* t : topics) {
        body.add_topics(t);
    }
    return frame(body);
}

com::Message tpa(bool wait_for_target, bool target_reached) {
    pb::TPAStatus body;
    body.set_wait_for_target(wait_for_target);
    body.set_target_reached(target_reached);
    return frame(body);
}

com::Message rttx(std::initializer_list<std::pair<const char*, std::vector<std::uint8_t>>> values,
                  std::uint64_t timestamp) {
    pb::SignalGroupData body;
    body.set_timestamp(timestamp);
    for (const auto& [name, data] : values) {
        auto* value = body.add_signals();
        value->set_name(name);
        value->set_data(data.data(), data.size());
    }
    return frame(body);
}

class Bridge : public ::testing::Test {
protected:
    void SetUp() override {
        logging::configure_logging("NOTICE");
        make_bridge(g_catalogue);
    }
    void TearDown() override { logging::configure_logging("NOTICE"); }

    void make_bridge(const std::string& catalogue) {
        bridge.reset();
        ecu::kora::rt::SignalAdapter::instance().load(dir.write("catalogue.json", catalogue));
        fake = std::make_shared<ipcd_test::FakeTransport>();
        std::shared_ptr<com::ITransportClient> client = fake;
        bridge = std::make_unique<IPCd>(client);
        EXPECT_FALSE(client);  // taken over
    }
    void release_earlybird(bool wait_for_target = false, bool target_reached = false) {
        bridge->message("system/tpa/status", tpa(wait_for_target, target_reached));
        ASSERT_TRUE(log.wait_for("Earlybird message processing done."));
    }
    void request(std::uint32_t id) { bridge->m_rt_topics.at(id).requested = true; }

    ipcd_test::TempDir dir;
    ipcd_test::LogCapture log;
    std::shared_ptr<ipcd_test::FakeTransport> fake;
    std::unique_ptr<IPCd> bridge;
};

TEST_F(Bridge, MapKeepsTheFirstTopicOfAnIdAndCountsIds) {
    logging::configure_logging("INFO");
    make_bridge(R"({"groups": [{"topic": "rt/x", "id": 5, "size": 1, "signals": []},
      {"topic": "rt/y", "id": 5, "size": 1, "signals": []},
      {"topic": "rt/z", "id": 5, "retained": true, "size": 1, "signals": []},
      {"topic": "rt/zero", "id": 0, "retained": true, "size": 1, "signals": []}]})");
    EXPECT_EQ(log.find("Failed to build rt-signal subscription map!").size(), 2U);
    EXPECT_TRUE(log.has(logging::info, "RT signal subscription map initialized with 2 topics"));
    EXPECT_EQ(bridge->m_rt_topics.at(5).topic, "rt/x");
    EXPECT_FALSE(bridge->m_rt_topics.at(5).retained);
    EXPECT_TRUE(bridge->m_rt_topics.at(0).retained);
    EXPECT_FALSE(bridge->m_rt_topics.at(0).requested);
}

TEST_F(Bridge, RelayedFrameCarriesTheRecordAndEndOfDataIsOneRetainedByte) {
    request(10);
    bridge->consume(record(10, {0xde, 0xad}, 123456789));
    bridge->consume(record(10, {}, 5));
    bridge->finished();
    const auto published = fake->published();
    ASSERT_EQ(published.size(), 3U);
    EXPECT_EQ(published[0].first, "rt/a");
    EXPECT_FALSE(published[0].second.retained);
    const pb::RtSignal body = unframe(published[0].second);
    EXPECT_EQ(body.timestamp(), 123456789U);
    EXPECT_EQ(body.data(), "\xde\xad");
    EXPECT_EQ(body.tag(), 7U);
    EXPECT_EQ(body.source(), "fake-ipcd");
    EXPECT_TRUE(unframe(published[1].second).has_data());  // empty, but there
    EXPECT_EQ(published[2].first, "system/rt/eod");
    EXPECT_EQ(published[2].second.payload, std::vector<std::uint8_t>{0x01});
    EXPECT_TRUE(published[2].second.retained);
}

TEST_F(Bridge, RouteTableRowByRow) {
    logging::configure_logging("INFO");
    request(11);
    bridge->start_earlybird_thread();
    // Held: retained goes out at once, the rest is queued, requested or not.
    for (std::uint32_t id : {10, 11, 12}) {
        bridge->consume(record(id));
    }
    EXPECT_EQ(fake->published_topics(), Topics{"rt/r"});
    EXPECT_TRUE(fake->published()[0].second.retained);
    EXPECT_EQ(bridge->m_earlybird.size(), 2U);

    release_earlybird();
    EXPECT_EQ(fake->published_topics(), (Topics{"rt/r", "rt/b"}));
    // Flush done, not requested: the record joins the thread and is dropped.
    bridge->consume(record(10));
    EXPECT_FALSE(bridge->m_earlybird_thread.joinable());
    // Joined: requested and retained go out, the rest stops at the gate.
    bridge->consume(record(11));
    bridge->consume(record(12));
    log.clear();
    bridge->consume(record(10));
    EXPECT_EQ(fake->published_topics(), (Topics{"rt/r", "rt/b", "rt/b", "rt/r"}));
    ASSERT_EQ(log.lines().size(), 1U);
    EXPECT_EQ(log.lines()[0].text, "Data for topic 'rt/a' received (rt id: 10) ");

    // Flush done and requested: the first record joins, then is published.
    make_bridge(g_catalogue);
    request(10);
    bridge->start_earlybird_thread();
    release_earlybird();
    bridge->consume(record(10));
    EXPECT_FALSE(bridge->m_earlybird_thread.joinable());
    EXPECT_EQ(fake->published_topics(), Topics{"rt/a"});
}

TEST_F(Bridge, DiagnosticLines) {
    logging::configure_logging("INFO");
    request(12);
    request(11);
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
    bridge->consume(record(10, {}));
    const auto lines = log.lines();
    ASSERT_GE(lines.size(), 2U);
    EXPECT_EQ(lines[0].text, "[RT_SIGNAL_LOG] received: '42' val: 0xa0 0x01 ");
    EXPECT_EQ(lines[1].text, "Unable to find rt-id 42 in the active subscription map");
    EXPECT_EQ(lines[1].severity, logging::error);
    EXPECT_TRUE(log.has(logging::debug, "[RT_SIGNAL_LOG] received: '10' val: "));

    // Queue size: the first four bytes, little-endian; only when switched on.
    ecu::kora::ipcd::g_time_sync_id = 1;
    bridge->consume(record(1, {1, 2, 3, 4}, 8));
    bridge->m_log_queue_size = true;
    bridge->consume(record(1, {1, 2, 3, 4, 5, 6}, 9));
    bridge->consume(record(1, {1, 2}, 10));
    bridge->consume(record(1, {}, 11));
    ecu::kora::ipcd::g_time_sync_id = 0;
    const auto sizes = log.find("QUEUE-SIZE");
    ASSERT_EQ(sizes.size(), 3U);
    EXPECT_EQ(sizes[0].text, "QUEUE-SIZE: 67305985 timestamp: 9");
    EXPECT_EQ(sizes[1].text, "QUEUE-SIZE: 513 timestamp: 10");
    EXPECT_EQ(sizes[2].text, "QUEUE-SIZE: 0 timestamp: 11");
}

TEST_F(Bridge, EarlybirdKeepsArrivalOrderAcrossBatchesAndReadsRequestedAtDrain) {
    bridge->start_earlybird_thread();
    for (std::uint8_t i = 0; i < 3; ++i) {
        bridge->consume(record(10, {i}));
        bridge->consume(record(11, {i}));
    }
    // Requested after queueing but before the target: its records go out.
    bridge->message("subscription/announcement", announcement({"rt/a"}));
    // The flush is held inside its first publish while more records come:
    // they form a second batch behind the first.
    std::mutex gate;
    std::unique_lock<std::mutex> hold(gate);
    std::atomic<int> publishes{0};
    fake->before_publish = [&](const std::string& topic) {
        if (topic == "rt/a" && publishes++ == 0) {
            std::lock_guard<std::mutex> wait(gate);
        }
    };
    bridge->message("system/tpa/status", tpa(true, true));
    ASSERT_TRUE(ipcd_test::wait_until([&] { return publishes > 0; }));
    bridge->consume(record(10, {3}));
    bridge->consume(record(11, {3}));
    hold.unlock();
    ASSERT_TRUE(log.wait_for("Earlybird message processing done."));

    std::vector<std::string> data;
    for (const auto& [topic, msg] : fake->published()) {
        if (topic == "rt/a") {
            data.push_back(unframe(msg).data());
        }
    }
    EXPECT_EQ(data, (std::vector<std::string>{{"\0", 1}, "\1", "\2", "\3"}));
    EXPECT_EQ(fake->published().size(), 5U);  // four records and the status
    EXPECT_TRUE(log.has(logging::notice,
                        "kirn.target has been reached on both partitions, start publishing "
                        "earlybird data (queue size: 6)"));
    EXPECT_TRUE(log.has(logging::notice,
                        "Earlybird message processing done. 8 entries have been processed "
                        "through the ipcd earlybird queue and 4 have been published to "
                        "subscribed topics. The initial queue size was 6"));
}

TEST_F(Bridge, TargetStatusRules) {
    // Waiting for an unreached target holds; a frame that does not decode too.
    bridge->start_earlybird_thread();
    bridge->message("system/tpa/status", tpa(true, false));
    bridge->message("system/tpa/status", com::Message{});
    EXPECT_TRUE(log.has(logging::warning, "Failed to deserialize: system/tpa/status"));
    {
        std::lock_guard<std::mutex> lock(bridge->m_target_mutex);
        EXPECT_FALSE(bridge->m_target_reached);
    }
    // A body with nothing set releases (both read as false).
    bridge->message("system/tpa/status", frame(pb::TPAStatus{}));
    EXPECT_TRUE(log.wait_for("Earlybird message processing done."));

    // A failed publish is processed but not counted as published.
    make_bridge(g_catalogue);
    log.clear();
    fake->publish_result = 0;
    request(10);
    bridge->start_earlybird_thread();
    bridge->consume(record(10));
    release_earlybird(true, true);
    EXPECT_EQ(log.find("1 entries have been processed through the ipcd earlybird queue and 0 "
                       "have been published")
                  .size(),
              1U);
    // Reported before the thread waits: it does not block.
    make_bridge(g_catalogue);
    log.clear();
    bridge->message("system/tpa/status", tpa(true, true));
    bridge->start_earlybird_thread();
    ASSERT_TRUE(log.wait_for("Earlybird message processing done."));
    EXPECT_EQ(log.find("(queue size: 0)").size(), 1U);
}

TEST_F(Bridge, StatusIsPublishedOnlyWhenTheRequestedCountGrows) {
    logging::configure_logging("INFO");
    bridge->message("subscription/announcement", announcement({"rt/b", "rt/a", "rt/b"}));
    auto published = fake->published();
    ASSERT_EQ(published.size(), 1U);
    EXPECT_EQ(published[0].first, "system/ipc/subscriptions");
    EXPECT_EQ(published[0].second.qos, 1);
    EXPECT_TRUE(published[0].second.retained);
    const auto status = unframe<pb::SubscriptionStatus>(published[0].second);
    EXPECT_EQ(Topics(status.topics().begin(), status.topics().end()),
              (Topics{"rt/a", "rt/b"}));  // ascending RT id
    EXPECT_EQ(status.topic_count(), 4U);
    EXPECT_EQ(status.requested_count(), 2U);
    EXPECT_EQ(log.find("Client App request data for: rt/b").size(), 2U);

    bridge->message("subscription/announcement", announcement({"rt/a"}));
    bridge->message("subscription/announcement", announcement({"rt", "vehicle/x", "rt/unknown"}));
    EXPECT_EQ(fake->published().size(), 1U);
    EXPECT_EQ(log.find("non rt-topic (ignored): ").size(), 2U);
    EXPECT_EQ(log.find("non recognized rt-topic(ignored): rt/unknown").size(), 1U);
    // A topic the catalogue learnt after the map was built.
    ecu::kora::rt::SignalAdapter::instance().load(dir.write(
        "later.json", R"({"groups": [{"topic": "rt/new", "id": 77, "size": 1, "signals": []}]})"));
    bridge->message("subscription/announcement", announcement({"rt/new"}));
    EXPECT_EQ(log.find("missing in subscription map (ignored): rt/new").size(), 1U);

    bridge->message("subscription/announcement", com::Message{});
    EXPECT_TRUE(log.has(logging::error,
                        "Received a subscription announcement, but NO SubscriptionMessage was "
                        "included! error(1)"));
}

TEST_F(Bridge, SystemStateAndDispatch) {
    logging::configure_logging("DEBUG");
    pb::RtSignal state;
    bridge->message("system/state/rt", frame(state));
    EXPECT_TRUE(log.has(logging::debug, "system-state value: '0'"));
    state.set_data(std::string("\x03", 1));
    bridge->message("system/state/rt", frame(state));
    EXPECT_TRUE(log.has(logging::debug, "system-state value: '3'"));
    EXPECT_FALSE(bridge->m_reader.stop_requested);

    com::Message garbage;
    garbage.payload.assign(17, 0xff);
    bridge->message("system/state/rt", garbage);
    EXPECT_TRUE(log.has(logging::error,
                        "Unable to deserialize message on system/state/rt topic. error(1)"));
    bridge->message("rttx", com::Message{});
    bridge->message("rt/a", com::Message{});
    EXPECT_TRUE(log.has(logging::info, "Message received on unhandled topic 'rttx'"));
    EXPECT_TRUE(log.has(logging::info, "Message received on unhandled topic 'rt/a'"));
    bridge->message("rttx/", com::Message{});
    EXPECT_TRUE(log.has(logging::error, "Unable to find id for 'rt/', unable to send data to RT."));
    EXPECT_TRUE(log.has(logging::debug, "Message received on topic: 'rttx/"));

    state.set_data(std::string("\x04\x09", 2));
    bridge->message("system/state/rt", frame(state));
    EXPECT_TRUE(log.has(logging::notice, "Received shutdown indication!"));
    EXPECT_TRUE(bridge->m_reader.stop_requested);
}

TEST_F(Bridge, TxRecordsMergeTheLatestValueOfEverySignal) {
    logging::configure_logging("DEBUG");
    bridge->m_log_rt_signals = {10};
    const std::string tx = dir.write("tx", "");
    ASSERT_TRUE(bridge->m_writer.open(tx));

    bridge->message("rttx/a", rttx({{"A", {9, 9}}, {"Z", {1}}}, 1));  // fails: no cache entry
    EXPECT_TRUE(log.has(logging::error, "Unpacking of SignalGroup for topic 'rt/a' failed"));
    EXPECT_EQ(bridge->m_tx_groups.count("rt/a"), 0U);
    bridge->message("rttx/a", rttx({{"B", {3, 4}}}, 100));
    bridge->message("rttx/a", rttx({{"A", {1, 2}}}, 200));
    bridge->message("rttx/a", rttx({{"B", {5}}}, 300));

    const std::string bytes = ipcd_test::read_file(tx);
    ipc::RecordDecoder decoder;
    decoder.feed(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    std::vector<ipc::IpcSignal> records;
    for (ipc::IpcSignal r; decoder.next(r);) {
        records.push_back(r);
    }
    using Bytes = std::vector<std::uint8_t>;
    ASSERT_EQ(records.size(), 3U);
    EXPECT_EQ(records[0].data, (Bytes{0, 0, 0, 0, 3, 4, 0, 0}));
    EXPECT_EQ(records[1].data, (Bytes{1, 2, 0, 0, 3, 4, 0, 0}));
    EXPECT_EQ(records[2].data, (Bytes{1, 2, 0, 0, 5, 0, 0, 0}));
    for (std::size_t i = 0; i < records.size(); ++i) {
        EXPECT_EQ(records[i].id, 10U);
        EXPECT_EQ(records[i].tag, 0U);
        EXPECT_EQ(records[i].timestamp, 100U * (i + 1));  // the message's own
    }
    const auto lines = log.lines();
    const auto send = std::find_if(lines.begin(), lines.end(), [](const auto& l) {
        return l.text == "[RT_SIGNAL_LOG] send: 10";
    });
    ASSERT_NE(send, lines.end());
    EXPECT_EQ((send + 1)->text, "Send data to RT for topic 'rttx/a' (rt id: 10)");
}

TEST_F(Bridge, LostTxPortStopsTheStackEveryTime) {
    std::vector<std::string> commands;
    bridge->m_run_command = [&commands](const char* command) {
        commands.emplace_back(command);
        return 0;
    };
    ASSERT_TRUE(bridge->m_writer.open("/dev/full"));  // every write fails
    bridge->message("rttx/b", rttx({{"x", {1}}}, 1));
    bridge->message("rttx/b", rttx({{"x", {2}}}, 2));
    EXPECT_EQ(log.find("TX queue port is gone, there's nothing more to do. The ECU will be "
                       "restarted!")
                  .size(),
              2U);
    EXPECT_EQ(commands, (Topics{"systemctl stop norvex", "systemctl stop norvex"}));
    EXPECT_TRUE(bridge->m_reader.stop_requested);
    EXPECT_EQ(bridge->m_tx_groups.at("rt/b").signal("x").data(), std::vector<std::uint8_t>{2});
}

}  // namespace
