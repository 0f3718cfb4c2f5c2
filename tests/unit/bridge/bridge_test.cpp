// The bridge's relay logic against a fake transport; the catalogue is a real
// file and the TX port a real file or FIFO.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <sys/stat.h>

#include <algorithm>
#include <cstdlib>

#include "fakes/fake_transport.h"
#include "ipcd.h"
#include "message_adapter.h"
#include "support.h"

namespace com = ecu::kora::com;
namespace ipc = ecu::kora::ipc;
namespace logging = ecu::kora::logging;
namespace pb = ecu::kora::pb;
namespace rt = ecu::kora::rt;
using ecu::kora::ipcd::IPCd;
using ipcd_test::FakeTransport;
using ipcd_test::LogCapture;
using ipcd_test::TempDir;

namespace {

const char* const g_catalogue = R"({"groups": [
  {"topic": "rt/system/time_sync", "id": 1, "size": 8,
   "signals": [{"name": "queue_size", "offset": 0, "size": 4}]},
  {"topic": "rt/system/timestamp", "id": 2, "size": 8,
   "signals": [{"name": "frame_time", "offset": 0, "size": 8}]},
  {"topic": "rt/b", "id": 11, "size": 4, "signals": [{"name": "x", "offset": 0, "size": 4}]},
  {"topic": "rt/a", "id": 10, "size": 8,
   "signals": [{"name": "A", "offset": 0, "size": 2}, {"name": "B", "offset": 4, "size": 2}]},
  {"topic": "rt/r", "id": 12, "retained": true, "size": 4,
   "signals": [{"name": "x", "offset": 0, "size": 4}]}
]})";

template <typename T>
com::Message frame(const T& body) {
    return com::PbInternalMessageAdapter<T>().serialize(body).message;
}

pb::RtSignal unframe(const com::Message& msg) {
    auto result = com::PbInternalMessageAdapter<pb::RtSignal>().deserialize(msg);
    EXPECT_TRUE(result.success);
    return result.body;
}

ipc::IpcSignal record(std::uint32_t id, std::vector<std::uint8_t> data = {1, 2},
                      std::uint64_t timestamp = 1000) {
    ipc::IpcSignal signal;
    signal.id = id;
    signal.tag = 7;
    signal.timestamp = timestamp;
    signal.data = std::move(data);
    return signal;
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

class Bridge : public ::testing::Test {
protected:
    void SetUp() override {
        logging::configure_logging("NOTICE");
        make_bridge(g_catalogue);
    }
    void TearDown() override { logging::configure_logging("NOTICE"); }

    void make_bridge(const std::string& catalogue) {
        bridge.reset();
        rt::SignalAdapter::instance().load(dir.write("catalogue.json", catalogue));
        fake = std::make_shared<FakeTransport>();
        std::shared_ptr<com::ITransportClient> client = fake;
        bridge = std::make_unique<IPCd>(client);
        EXPECT_FALSE(client);
    }
    // Releases the earlybird queue and waits until the flush is over.
    void release_earlybird() {
        bridge->message("system/tpa/status", tpa(false, false));
        ASSERT_TRUE(capture.wait_for("Earlybird message processing done."));
    }
    std::string info_line(std::uint32_t id) {
        auto lines = capture.find("(rt id: " + std::to_string(id) + ")");
        return lines.empty() ? "" : lines.back().text;
    }

    TempDir dir;
    LogCapture capture;
    std::shared_ptr<FakeTransport> fake;
    std::unique_ptr<IPCd> bridge;
};

TEST_F(Bridge, MapKeepsTheFirstTopicOfAnIdAndCountsIds) {
    logging::configure_logging("INFO");
    capture.clear();
    make_bridge(R"({"groups": [
      {"topic": "rt/x", "id": 5, "size": 1, "signals": []},
      {"topic": "rt/y", "id": 5, "size": 1, "signals": []},
      {"topic": "rt/z", "id": 5, "retained": true, "size": 1, "signals": []},
      {"topic": "rt/zero", "id": 0, "retained": true, "size": 1, "signals": []}]})");
    EXPECT_EQ(capture.find("Failed to build rt-signal subscription map!").size(), 2U);
    EXPECT_TRUE(capture.has(logging::Severity::info,
                            "RT signal subscription map initialized with 2 topics"));
    EXPECT_EQ(bridge->m_rt_topics.at(5).topic, "rt/x");
    EXPECT_FALSE(bridge->m_rt_topics.at(5).retained);
    EXPECT_TRUE(bridge->m_rt_topics.at(0).retained);
    EXPECT_FALSE(bridge->m_rt_topics.at(0).requested);

    make_bridge(R"({"groups": []})");
    EXPECT_TRUE(bridge->m_rt_topics.empty());
    EXPECT_TRUE(capture.has(logging::Severity::info,
                            "RT signal subscription map initialized with 0 topics"));
}

TEST_F(Bridge, RelayedFrameCarriesTheRecord) {
    bridge->m_rt_topics.at(10).requested = true;
    bridge->consume(record(10, {0xde, 0xad}, 123456789));
    bridge->consume(record(10, {}, 5));
    auto published = fake->published();
    ASSERT_EQ(published.size(), 2U);
    EXPECT_EQ(published[0].first, "rt/a");
    EXPECT_FALSE(published[0].second.retained);
    EXPECT_EQ(published[0].second.timestamp, 123456789U);
    pb::RtSignal body = unframe(published[0].second);
    EXPECT_EQ(body.timestamp(), 123456789U);
    EXPECT_EQ(body.data(), "\xde\xad");
    EXPECT_EQ(body.tag(), 7U);
    EXPECT_EQ(body.source(), "fake-ipcd");
    pb::RtSignal empty = unframe(published[1].second);
    EXPECT_TRUE(empty.has_data());
    EXPECT_EQ(empty.data(), "");
}

TEST_F(Bridge, RouteTableRowByRow) {
    logging::configure_logging("INFO");
    bridge->m_rt_topics.at(11).requested = true;
    bridge->start_earlybird_thread();

    // Hold: retained goes out at once, the rest is queued, requested or not.
    bridge->consume(record(10));
    bridge->consume(record(11));
    bridge->consume(record(12));
    EXPECT_EQ(fake->published_topics(), std::vector<std::string>{"rt/r"});
    EXPECT_TRUE(fake->published()[0].second.retained);
    EXPECT_EQ(bridge->m_earlybird.size(), 2U);

    release_earlybird();
    EXPECT_EQ(fake->published_topics(), (std::vector<std::string>{"rt/r", "rt/b"}));
    // Flush done, not requested: the record joins the thread and is dropped.
    bridge->consume(record(10));
    EXPECT_FALSE(bridge->m_earlybird_thread.joinable());
    EXPECT_EQ(fake->published().size(), 2U);
    // Joined: requested and retained are published, the rest stops at the gate.
    bridge->consume(record(11));
    bridge->consume(record(12));
    capture.clear();
    bridge->consume(record(10));
    EXPECT_EQ(fake->published_topics(), (std::vector<std::string>{"rt/r", "rt/b", "rt/b", "rt/r"}));
    ASSERT_EQ(capture.lines().size(), 1U);
    EXPECT_EQ(capture.lines()[0].text, "Data for topic 'rt/a' received (rt id: 10) ");
}

TEST_F(Bridge, FlushedRecordOfARequestedTopicJoinsThenPublishes) {
    bridge->m_rt_topics.at(10).requested = true;
    bridge->start_earlybird_thread();
    release_earlybird();
    bridge->consume(record(10));
    EXPECT_FALSE(bridge->m_earlybird_thread.joinable());
    EXPECT_EQ(fake->published_topics(), std::vector<std::string>{"rt/a"});
}

TEST_F(Bridge, ReceiptLineVariantsAndUnknownId) {
    logging::configure_logging("INFO");
    bridge->m_rt_topics.at(12).requested = true;
    bridge->m_rt_topics.at(11).requested = true;
    bridge->consume(record(12));
    bridge->consume(record(11));
    bridge->consume(record(10));
    EXPECT_EQ(info_line(12), "Data for topic 'rt/r' received (rt id: 12) (retained) (subscribed) ");
    EXPECT_EQ(info_line(11), "Data for topic 'rt/b' received (rt id: 11) (subscribed) ");
    EXPECT_EQ(info_line(10), "Data for topic 'rt/a' received (rt id: 10) ");

    bridge->consume(record(99));
    EXPECT_TRUE(capture.has(logging::Severity::error,
                            "Unable to find rt-id 99 in the active subscription map"));
}

TEST_F(Bridge, SignalDumpIsReversedAndOnlyAtDebug) {
    bridge->m_log_rt_signals = {42, 10};
    logging::configure_logging("INFO");
    bridge->consume(record(42, {0x01, 0xa0}));
    EXPECT_TRUE(capture.find("[RT_SIGNAL_LOG]").empty());

    logging::configure_logging("DEBUG");
    capture.clear();
    bridge->consume(record(42, {0x01, 0xa0}));
    bridge->consume(record(10, {}));
    auto lines = capture.lines();
    EXPECT_TRUE(
        capture.has(logging::Severity::debug, "[RT_SIGNAL_LOG] received: '42' val: 0xa0 0x01 "));
    EXPECT_TRUE(capture.has(logging::Severity::debug, "[RT_SIGNAL_LOG] received: '10' val: "));
    // The dump comes before the unknown-id error.
    auto dump = std::find_if(lines.begin(), lines.end(),
                             [](auto& l) { return l.text.find("'42' val") != std::string::npos; });
    auto error = std::find_if(lines.begin(), lines.end(),
                              [](auto& l) { return l.text.find("rt-id 42") != std::string::npos; });
    EXPECT_LT(dump, error);
}

TEST_F(Bridge, QueueSizeIsLittleEndianFromAtMostFourBytes) {
    ecu::kora::ipcd::g_time_sync_id = 1;
    bridge->consume(record(1, {1, 2, 3, 4}, 9));
    EXPECT_TRUE(capture.find("QUEUE-SIZE").empty());  // switched off

    bridge->m_log_queue_size = true;
    bridge->consume(record(1, {1, 2, 3, 4, 5, 6}, 9));
    bridge->consume(record(1, {1, 2}, 10));
    bridge->consume(record(1, {}, 11));
    EXPECT_TRUE(capture.has(logging::Severity::notice, "QUEUE-SIZE: 67305985 timestamp: 9"));
    EXPECT_TRUE(capture.has(logging::Severity::notice, "QUEUE-SIZE: 513 timestamp: 10"));
    EXPECT_TRUE(capture.has(logging::Severity::notice, "QUEUE-SIZE: 0 timestamp: 11"));
    ecu::kora::ipcd::g_time_sync_id = 0;
}

TEST_F(Bridge, EarlybirdKeepsArrivalOrderAcrossBatchesAndReadsRequestedAtDrain) {
    bridge->start_earlybird_thread();
    for (std::uint8_t i = 0; i < 3; ++i) {
        bridge->consume(record(10, {i}));
        bridge->consume(record(11, {i}));
    }
    // Requested after queueing but before the target: its records go out.
    bridge->message("subscription/announcement", announcement({"rt/a"}));

    // Hold the flush inside its first publish and add records meanwhile: they
    // form a second batch that follows the first.
    std::mutex gate;
    std::unique_lock<std::mutex> hold(gate);
    std::atomic<int> earlybird_publishes{0};
    fake->before_publish = [&](const std::string& topic) {
        if (topic == "rt/a" && earlybird_publishes++ == 0) {
            std::lock_guard<std::mutex> wait(gate);
        }
    };
    bridge->message("system/tpa/status", tpa(true, true));
    ASSERT_TRUE(ipcd_test::wait_until([&] { return earlybird_publishes > 0; }));
    bridge->consume(record(10, {3}));
    bridge->consume(record(11, {3}));
    hold.unlock();
    ASSERT_TRUE(capture.wait_for("Earlybird message processing done."));

    std::vector<std::string> data;
    for (const auto& [topic, msg] : fake->published()) {
        if (topic == "rt/a") {
            data.push_back(unframe(msg).data());
        }
    }
    EXPECT_EQ(data, (std::vector<std::string>{{"\0", 1}, "\1", "\2", "\3"}));
    EXPECT_EQ(fake->published_topics().size(), 5U);  // four records and the status
    EXPECT_TRUE(capture.has(logging::Severity::notice,
                            "kirn.target has been reached on both partitions, start publishing "
                            "earlybird data (queue size: 6)"));
    EXPECT_TRUE(capture.has(logging::Severity::notice,
                            "Earlybird message processing done. 8 entries have been processed "
                            "through the ipcd earlybird queue and 4 have been published to "
                            "subscribed topics. The initial queue size was 6"));
}

TEST_F(Bridge, TargetBeforeAnyRecordAndFailedPublishesAreNotCounted) {
    fake->publish_result = 0;
    bridge->message("system/tpa/status", tpa(true, true));  // before the thread waits
    bridge->start_earlybird_thread();
    ASSERT_TRUE(capture.wait_for("Earlybird message processing done."));
    EXPECT_TRUE(capture.find("(queue size: 0)").size() == 1);
    EXPECT_FALSE(capture.find("0 entries have been processed").empty());
    bridge->m_rt_topics.at(10).requested = true;
    bridge->consume(record(10));
    EXPECT_FALSE(bridge->m_earlybird_thread.joinable());
}

TEST_F(Bridge, TpaHoldsOnlyWhileWaitingForAnUnreachedTarget) {
    bridge->start_earlybird_thread();
    bridge->message("system/tpa/status", tpa(true, false));
    bridge->message("system/tpa/status", com::Message{});
    EXPECT_TRUE(
        capture.has(logging::Severity::warning, "Failed to deserialize: system/tpa/status"));
    {
        std::lock_guard<std::mutex> lock(bridge->m_target_mutex);
        EXPECT_FALSE(bridge->m_target_reached);
    }
    bridge->message("system/tpa/status", frame(pb::TPAStatus{}));  // nothing set: release
    EXPECT_TRUE(capture.wait_for("Earlybird message processing done."));
}

TEST_F(Bridge, StatusIsPublishedOnlyWhenTheRequestedCountGrows) {
    logging::configure_logging("INFO");
    bridge->message("subscription/announcement", announcement({"rt/b", "rt/a", "rt/b"}));
    auto published = fake->published();
    ASSERT_EQ(published.size(), 1U);
    EXPECT_EQ(published[0].first, "system/ipc/subscriptions");
    EXPECT_EQ(published[0].second.qos, 1);
    EXPECT_TRUE(published[0].second.retained);
    auto status =
        com::PbInternalMessageAdapter<pb::SubscriptionStatus>().deserialize(published[0].second);
    ASSERT_TRUE(status.success);
    EXPECT_EQ(std::vector<std::string>(status.body.topics().begin(), status.body.topics().end()),
              (std::vector<std::string>{"rt/a", "rt/b"}));  // ascending RT id
    EXPECT_EQ(status.body.topic_count(), 5U);
    EXPECT_EQ(status.body.requested_count(), 2U);
    EXPECT_EQ(capture.find("Client App request data for: rt/b").size(), 2U);

    bridge->message("subscription/announcement", announcement({"rt/a"}));
    bridge->message("subscription/announcement", announcement({"rt", "vehicle/x", "rt/unknown"}));
    EXPECT_EQ(fake->published().size(), 1U);
    EXPECT_FALSE(capture.find("non rt-topic (ignored): rt").empty());
    EXPECT_FALSE(capture.find("non rt-topic (ignored): vehicle/x").empty());
    EXPECT_FALSE(capture.find("non recognized rt-topic(ignored): rt/unknown").empty());

    // A topic the catalogue learnt after the map was built.
    rt::SignalAdapter::instance().load(dir.write(
        "later.json", R"({"groups": [{"topic": "rt/new", "id": 77, "size": 1, "signals": []}]})"));
    bridge->message("subscription/announcement", announcement({"rt/new"}));
    EXPECT_FALSE(capture.find("missing in subscription map (ignored): rt/new").empty());

    bridge->message("subscription/announcement", com::Message{});
    EXPECT_TRUE(capture.has(logging::Severity::error,
                            "Received a subscription announcement, but NO SubscriptionMessage "
                            "was included! error(1)"));
}

TEST_F(Bridge, SystemStateAndDispatch) {
    logging::configure_logging("DEBUG");
    pb::RtSignal state;
    bridge->message("system/state/rt", frame(state));
    EXPECT_TRUE(capture.has(logging::Severity::debug, "system-state value: '0'"));
    state.set_data(std::string("\x03", 1));
    bridge->message("system/state/rt", frame(state));
    EXPECT_FALSE(bridge->m_reader.stop_requested);

    com::Message garbage;
    garbage.payload.assign(17, 0xff);
    bridge->message("system/state/rt", garbage);
    EXPECT_TRUE(capture.has(logging::Severity::error,
                            "Unable to deserialize message on system/state/rt topic. error(1)"));
    bridge->message("rttx", com::Message{});
    bridge->message("rt/a", com::Message{});
    EXPECT_TRUE(capture.has(logging::Severity::info, "Message received on unhandled topic 'rttx'"));
    EXPECT_TRUE(capture.has(logging::Severity::info, "Message received on unhandled topic 'rt/a'"));
    bridge->message("rttx/", com::Message{});
    EXPECT_TRUE(capture.has(logging::Severity::error,
                            "Unable to find id for 'rt/', unable to send data to RT."));
    EXPECT_TRUE(capture.has(logging::Severity::debug, "Message received on topic: 'rttx/"));

    state.set_data(std::string("\x04\x09", 2));
    bridge->message("system/state/rt", frame(state));
    EXPECT_TRUE(capture.has(logging::Severity::notice, "Received shutdown indication!"));
    EXPECT_TRUE(bridge->m_reader.stop_requested);
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

std::vector<ipc::IpcSignal> records_in(const std::string& path) {
    std::string bytes = ipcd_test::read_file(path);
    ipc::RecordDecoder decoder;
    decoder.feed(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
    std::vector<ipc::IpcSignal> records;
    for (ipc::IpcSignal r; decoder.next(r);) {
        records.push_back(r);
    }
    return records;
}

TEST_F(Bridge, TxRecordsMergeTheLatestValueOfEverySignal) {
    logging::configure_logging("DEBUG");
    bridge->m_log_rt_signals = {10};
    std::string tx = dir.write("tx", "");
    ASSERT_TRUE(bridge->m_writer.open(tx));

    bridge->message("rttx/a", rttx({{"A", {9, 9}}, {"Z", {1}}}, 1));  // fails: no cache entry
    EXPECT_TRUE(
        capture.has(logging::Severity::error, "Unpacking of SignalGroup for topic 'rt/a' failed"));
    EXPECT_EQ(bridge->m_tx_groups.count("rt/a"), 0U);
    bridge->message("rttx/a", rttx({{"B", {3, 4}}}, 100));
    bridge->message("rttx/a", rttx({{"A", {1, 2}}}, 200));
    bridge->message("rttx/a", rttx({{"B", {5}}}, 300));

    auto records = records_in(tx);
    ASSERT_EQ(records.size(), 3U);
    using Bytes = std::vector<std::uint8_t>;
    EXPECT_EQ(records[0].data, (Bytes{0, 0, 0, 0, 3, 4, 0, 0}));
    EXPECT_EQ(records[1].data, (Bytes{1, 2, 0, 0, 3, 4, 0, 0}));
    EXPECT_EQ(records[2].data, (Bytes{1, 2, 0, 0, 5, 0, 0, 0}));
    EXPECT_EQ(records[2].id, 10U);
    EXPECT_EQ(records[2].timestamp, 300U);
    EXPECT_EQ(records[2].tag, 0U);

    auto lines = capture.lines();
    auto send = std::find_if(lines.begin(), lines.end(),
                             [](auto& l) { return l.text == "[RT_SIGNAL_LOG] send: 10"; });
    ASSERT_NE(send, lines.end());
    EXPECT_EQ((send + 1)->text, "Send data to RT for topic 'rttx/a' (rt id: 10)");
}

TEST_F(Bridge, DeadTxPortStopsTheStackEveryTime) {
    std::vector<std::string> commands;
    bridge->m_run_command = [&commands](const char* command) {
        commands.emplace_back(command);
        return 0;
    };
    ASSERT_TRUE(bridge->m_writer.open("/dev/full"));  // every write fails

    bridge->message("rttx/b", rttx({{"x", {1}}}, 1));
    bridge->message("rttx/b", rttx({{"x", {2}}}, 2));

    EXPECT_EQ(capture
                  .find("TX queue port is gone, there's nothing more to do. The ECU will be "
                        "restarted!")
                  .size(),
              2U);
    EXPECT_EQ(commands,
              (std::vector<std::string>{"systemctl stop norvex", "systemctl stop norvex"}));
    EXPECT_TRUE(bridge->m_reader.stop_requested);
    EXPECT_EQ(bridge->m_tx_groups.at("rt/b").signal("x").data(), (std::vector<std::uint8_t>{2}));
}

}  // namespace
