// ipcd with the RT side's and the clients' own tools (ipcd-sim, ipcd-ctl)
// against a private broker: relaying both ways, the earlybird hold, the
// subscription status, the ends of the daemon, the watchdog, TLS and login.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <nlohmann/json.hpp>
#include <sstream>

#include "broker.h"
#include "daemon.h"
#include "frames.h"
#include "mqtt_peer.h"
#include "tally.h"
#include "tls_files.h"

using namespace ipcd_test;
using Json = nlohmann::json;

namespace {

constexpr std::uint32_t g_gear = 21;  // not retained
const std::string g_gear_topic = "rt/vehicle/gear";

std::vector<Json> json_lines(const std::string& text) {
    std::vector<Json> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(Json::parse(line));
    }
    return out;
}

// ipcd-ctl running in the background (watch), against the broker.
std::unique_ptr<Process> ctl_process(int port, std::vector<std::string> args) {
    std::vector<std::string> argv{ctl_binary(),         "-H",          "127.0.0.1",       "-p",
                                  std::to_string(port), "--catalogue", sample_catalogue()};
    argv.insert(argv.end(), args.begin(), args.end());
    auto p = std::make_unique<Process>(argv);
    EXPECT_TRUE(p->wait_err("watching")) << p->err();
    return p;
}

// Requests the topic and releases the earlybird queue, so that its records
// are published as they come.
void release(Daemon& daemon, int port, const std::string& topic) {
    MqttPeer control(port);
    control.publish("subscription/announcement", announcement({topic.c_str()}), 1);
    control.publish("system/tpa/status", tpa(false, false), 1);
    ASSERT_TRUE(daemon.process().wait_out("Earlybird message processing done."))
        << daemon.process().out();
}

TEST(Daemon, RelaysBothWaysThroughTheTools) {
    Broker broker;
    TempDir dir;
    const std::string scenario = dir.write("scenario",
                                           "rt/vehicle/speed 2 now speed_kmh=120 valid=1\n"
                                           "21 7 1 hex:01000000\nsleep 10\n21 7 2 hex:02000000\n"
                                           "rt/vehicle/gear 7 3 gear=3 drive_mode=1\n");
    auto watcher = ctl_process(broker.port(), {"watch", "--json", "--count", "4", "rt/vehicle/#"});
    Process sim({sim_binary(), "--rx", dir.file("rx"), "--tx", dir.file("tx"), "--catalogue",
                 sample_catalogue(), "--scenario", scenario, "--keep-open"});
    ASSERT_TRUE(sim.wait_out("waiting for ipcd")) << sim.err();  // the FIFOs exist
    Process ipcd({ipcd_binary(), "-L", "-H", "127.0.0.1", "-p", std::to_string(broker.port()), "-r",
                  dir.file("rx"), "-t", dir.file("tx")},
                 {{"KIRN_RT_CATALOGUE=" + sample_catalogue()}});
    ASSERT_TRUE(sim.wait_out("RX rt/vehicle/gear id=21 tag=7 ts=3")) << sim.out() << sim.err();
    // The retained group comes at once; the gear records wait for a request
    // and the start-up target, then come in their order.
    ASSERT_TRUE(wait_until([&] { return watcher->out().find("speed") != std::string::npos; }));
    EXPECT_EQ(watcher->out().find("gear"), std::string::npos);
    EXPECT_EQ(ctl(broker.port(), {"announce", g_gear_topic}).status, 0);
    const Outcome status = ctl(broker.port(), {"status", "--json"});
    EXPECT_NE(status.out.find(R"("topics":["rt/vehicle/gear"])"), std::string::npos) << status.out;
    EXPECT_EQ(ctl(broker.port(), {"tpa", "--wait-for-target", "--target-reached"}).status, 0);
    ASSERT_EQ(watcher->wait(), 0) << watcher->out() << watcher->err();
    const auto lines = json_lines(watcher->out());
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0]["topic"], "rt/vehicle/speed");
    EXPECT_EQ(lines[0]["header"]["protocol_type"], 1);
    EXPECT_EQ(lines[0]["body"]["tag"], 2);
    EXPECT_EQ(lines[0]["body"]["signals"], Json({{"speed_kmh", 120}, {"valid", 1}}));
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(lines[static_cast<std::size_t>(i)]["topic"], g_gear_topic);
        EXPECT_EQ(lines[static_cast<std::size_t>(i)]["body"]["timestamp"], i);
        EXPECT_EQ(lines[static_cast<std::size_t>(i)]["header"]["timestamp"], i);
    }
    EXPECT_EQ(lines[3]["body"]["signals"], Json({{"gear", 3}, {"drive_mode", 1}}));

    // To the RT side: a later message names one signal, the others keep theirs.
    EXPECT_EQ(ctl(broker.port(), {"send", "rttx/hmi/climate_request", "target_temp=215", "ac_on=1"})
                  .status,
              0);
    EXPECT_TRUE(sim.wait_out(" target_temp=215 fan_level=0 ac_on=1 recirculation=0\n"))
        << sim.out();
    EXPECT_EQ(ctl(broker.port(), {"send", "rttx/hmi/climate_request", "fan_level=3"}).status, 0);
    EXPECT_TRUE(sim.wait_out("TX rt/hmi/climate_request id=30 tag=0 ts="));
    EXPECT_TRUE(sim.wait_out(" target_temp=215 fan_level=3 ac_on=1 recirculation=0\n"))
        << sim.out();

    // The shutdown state ends ipcd in order; the RT side sees it go.
    auto eod = ctl_process(broker.port(), {"watch", "--count", "1", "system/rt/eod"});
    EXPECT_EQ(ctl(broker.port(), {"state", "4"}).status, 0);
    EXPECT_EQ(ipcd.wait(), 0) << ipcd.out();
    EXPECT_NE(ipcd.out().find("NOTICE daemon: Received shutdown indication!"), std::string::npos);
    EXPECT_EQ(eod->wait(), 0);
    EXPECT_NE(eod->out().find("system/rt/eod retained=0 qos=0 raw 01"), std::string::npos)
        << eod->out();
    EXPECT_EQ(sim.wait(), 1);
    EXPECT_NE(sim.out().find("ipcd closed RX"), std::string::npos);
}

// What was read before the signal reaches the broker with no gap, then the
// end of data; the service manager hears STOPPING=1 and status 0.
TEST(Daemon, SigtermMidStreamEndsInOrder) {
    Broker broker;
    MqttPeer watcher(broker.port());
    watcher.subscribe(g_gear_topic);
    watcher.subscribe("system/rt/eod");
    Daemon daemon(broker.port());
    daemon.start_ready();
    release(daemon, broker.port(), g_gear_topic);
    RecordStream stream(daemon, g_gear, 2000);
    ASSERT_TRUE(watcher.wait_for(g_gear_topic, 200));
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(daemon.process().wait(), 0) << daemon.process().out();
    stream.stop();
    const auto received = watcher.received();
    ASSERT_GE(received.size(), 201U);
    EXPECT_EQ(received.back().topic, "system/rt/eod");
    for (std::size_t i = 0; i + 1 < received.size(); ++i) {
        const std::string data = unframed<ecu::kora::pb::RtSignal>(received[i].payload).data();
        ASSERT_EQ(data.substr(0, 8),
                  std::string(reinterpret_cast<const char*>(seq_payload(i).data()), 8))
            << "gap or reorder at " << i;
    }
    EXPECT_TRUE(daemon.notify().wait_for("STOPPING=1"));
    EXPECT_NE(daemon.process().out().find("Received SIGTERM, stopping"), std::string::npos);
}

// Pings come while the reader goes round, and stop while it is stuck in a
// record the broker does not take (here: a paused broker, one message pending).
TEST(Daemon, WatchdogFollowsTheReader) {
    Broker broker;
    Daemon daemon(broker.port());
    const std::string conf = daemon.dir().write("ipcd.conf", "max_pending=1\n");
    daemon.start_ready({"-c", conf}, {"WATCHDOG_USEC=200000"});
    release(daemon, broker.port(), g_gear_topic);
    auto pings = [&] { return daemon.notify().count("WATCHDOG=1"); };
    ASSERT_TRUE(wait_until([&] { return pings() >= 3; }));
    broker.pause();
    RecordStream stream(daemon, g_gear, 20000);
    std::size_t seen = 0;
    ASSERT_TRUE(wait_until(
        [&] {
            const std::size_t before = pings();
            std::this_thread::sleep_for(std::chrono::milliseconds(600));
            seen = pings();
            return seen == before;  // none for three periods
        },
        60s));
    broker.resume();
    EXPECT_TRUE(wait_until([&] { return pings() > seen + 2; }));
    stream.stop();
    EXPECT_EQ(daemon.stop(), 0);
}

TEST(Daemon, RelaysBothWaysOverTlsWithLogin) {
    TlsFiles tls;
    const int login = free_port();
    Broker broker(tls.listener(login));  // peers use its plain listener
    Daemon daemon(login);
    const std::string conf = daemon.dir().write(
        "ipcd.conf", "tls_cafile=" + tls.ca() + "\nusername=ipcd\npassword=Hunter2\n");
    daemon.start_ready({"-c", conf});
    release(daemon, broker.port(), g_gear_topic);
    MqttPeer peer(broker.port());
    peer.subscribe(g_gear_topic);
    daemon.write_record(g_gear, {3, 1});
    EXPECT_TRUE(peer.wait_for(g_gear_topic));
    ecu::kora::pb::SignalGroupData group;
    auto* value = group.add_signals();
    value->set_name("fan_level");
    value->set_data(std::string("\x02", 1));
    peer.publish("rttx/hmi/climate_request", framed(group), 1);
    const auto records = daemon.tx_records(1);
    ASSERT_EQ(records.size(), 1U);
    EXPECT_EQ(records[0].id, 30U);
    EXPECT_EQ(daemon.process().out().find("Hunter2"), std::string::npos);
}

TEST(Daemon, LostTxPortStopsTheServiceStackAndEnds) {
    Broker broker;
    Daemon daemon(broker.port());
    // A systemctl of our own first on PATH records what it is asked.
    const std::string calls = daemon.dir().file("calls");
    const std::string systemctl =
        daemon.dir().write("systemctl", "#!/bin/sh\necho \"$@\" >> " + calls + "\n");
    chmod(systemctl.c_str(), 0755);
    daemon.start_ready({}, {"PATH=" + daemon.dir().path() + ":" + std::getenv("PATH")});
    daemon.close_tx();  // the RT side's reader goes
    EXPECT_EQ(ctl(broker.port(), {"send", "rttx/hmi/climate_request", "fan_level=1"}).status, 0);
    EXPECT_EQ(daemon.process().wait(), 0) << daemon.process().out();
    EXPECT_NE(
        daemon.process().out().find("ALERT daemon: TX queue port is gone, there's nothing more "
                                    "to do. The ECU will be restarted!"),
        std::string::npos);
    EXPECT_EQ(read_file(calls), "stop norvex\n");
}

}  // namespace
