// ipcd under a service manager: SIGTERM ends it in order, and the watchdog is
// fed while it works.

#include <gtest/gtest.h>

#include <csignal>

#include "daemon_harness.h"
#include "fault_support.h"

namespace {

using namespace ipcd_test;

constexpr std::uint32_t g_gear = 21;
constexpr const char* g_gear_topic = "rt/vehicle/gear";

std::uint32_t seq_of(const Received& r) {
    const std::string data = unframed<ecu::kora::pb::RtSignal>(r.payload).data();
    std::uint32_t seq = 0;
    for (std::size_t i = data.size(); i-- > 0;) {
        seq = (seq << 8U) | static_cast<std::uint8_t>(data[i]);
    }
    return seq;
}

// What was read before the signal reaches the broker, nothing after a gap,
// then the end of data; the service manager hears STOPPING=1 and status 0.
TEST(Supervision, SigtermMidStreamEndsInOrder) {
    Broker broker;
    MqttPeer watcher(broker.port());
    watcher.subscribe(g_gear_topic);
    watcher.subscribe("system/rt/eod");
    Daemon daemon(broker.port());
    start_relaying(daemon, broker.port(), g_gear_topic);

    // Written until ipcd has gone: the stream does not stop for the signal.
    std::atomic<bool> stop{false};
    std::thread writer([&] {
        try {
            for (std::uint32_t seq = 0; !stop; ++seq) {
                daemon.write_record(g_gear, seq_bytes(seq), seq);
                std::this_thread::sleep_for(std::chrono::microseconds(500));
            }
        } catch (const std::exception&) {
            // ipcd closed the RX port
        }
    });
    ASSERT_TRUE(watcher.wait_for(g_gear_topic, 200));
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(daemon.process().wait(), 0) << daemon.process().out();
    stop = true;
    writer.join();

    const auto received = watcher.received();
    ASSERT_FALSE(received.empty());
    EXPECT_EQ(received.back().topic, "system/rt/eod");
    EXPECT_EQ(received.back().payload, (std::vector<std::uint8_t>{0x01}));
    std::uint32_t next = 0;
    for (std::size_t i = 0; i + 1 < received.size(); ++i) {
        ASSERT_EQ(received[i].topic, g_gear_topic);
        ASSERT_EQ(seq_of(received[i]), next++) << "gap or reorder at message " << i;
    }
    EXPECT_GE(next, 200U);
    EXPECT_TRUE(daemon.notify().wait_for("STOPPING=1"));
    EXPECT_NE(daemon.process().out().find("Received SIGTERM, stopping"), std::string::npos);
}

// Pings come while the reader goes round its loop, idle or busy.
TEST(Supervision, WatchdogIsFedWhileTheReaderRuns) {
    Broker broker;
    Daemon daemon(broker.port());
    daemon.start_ready({}, {"WATCHDOG_USEC=200000"});
    auto pings = [&] {
        std::size_t n = 0;
        for (const auto& m : daemon.notify().messages()) {
            n += m.first == "WATCHDOG=1" ? 1 : 0;
        }
        return n;
    };
    ASSERT_TRUE(wait_until([&] { return pings() >= 5; }));
    daemon.close_rx();
    EXPECT_EQ(daemon.process().wait(), 0);
}

}  // namespace
