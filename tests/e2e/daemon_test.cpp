// The real ipcd with the RT side's and the clients' own tools (ipcd-sim,
// ipcd-ctl) against a private broker: every way start-up fails, relaying both
// ways, the earlybird hold, the status, the ends, the watchdog, TLS and login.

#include <gtest/gtest.h>
#include <signal.h>

#include <regex>

#include "frames.h"
#include "harness.h"

using namespace ipcd_test;
using Json = nlohmann::json;

namespace {

const std::string g_gear = "rt/vehicle/gear";  // RT id 21, not retained

// Every way start-up ends before the relay runs: the exit status, and the
// line that tells the user why.
TEST(StartUp, FailuresEndWithTheirStatusAndReason) {
    TempDir dir;
    Broker broker;
    const std::string port = std::to_string(broker.port());
    const std::string usage = read_file(IPCD_SOURCE_DIR "/tests/e2e/golden/usage.txt");
    auto conf = [&](const std::string& text) {  // a configuration file of its own
        return dir.write(std::to_string(std::hash<std::string>()(text)), text);
    };
    auto catalogue = [&](const std::string& topic) {  // one group: the id 1
        return "KIRN_RT_CATALOGUE=" +
               dir.write(topic.substr(10), R"({"groups": [{"topic": ")" + topic +
                                               R"(", "id": 1, "size": 8, "signals": []}]})");
    };
    const std::string absent = std::to_string(free_port());
    const std::string sample = "KIRN_RT_CATALOGUE=" + g_sample_catalogue;
    const TlsFiles tls;
    const std::string ca = "tls_cafile=" + tls.file("ca.crt") + "\n";
    const struct {
        std::vector<std::string> args;
        std::string env;
        int status;
        std::string line;        // in standard output (the log with -L, or the usage)
        std::string not_before;  // must not appear before the line (empty: no check)
    } cases[] = {
        // clang-format off
        {{"-h", "--bogus"}, sample, 0, usage, ""},
        {{"-p", "1", "--version", "-x"}, sample, 0, "IPCd version: ", ""},
        {{"-L", "extra", "-v"}, sample, 1, "ERROR ipcd: No additional arguments required!", "Usage"},
        {{"-L", "-c", dir.file("absent.conf")}, sample, 1, "ERROR ipcd: Unable to open config file.", ""},
        {{"-L", "-c", dir.path()}, sample, 1, "': not a regular file", ""},
        {{"-L", "-c", conf("tls_cafile=/nope/ca.crt\n")}, sample, 1,
         "transport setting 'tls_cafile' names '/nope/ca.crt', which cannot be read: No such file", ""},
        {{"-L", "-c", conf("tls_cafile=" + dir.path() + "\n")}, sample, 1,
         "names '" + dir.path() + "', which cannot be read: not a regular file", ""},
        {{"-L", "-p", absent, "-c", conf("tls_cafile=" + tls.file("ca.key") + "\n")}, sample, 1,
         "transport setting 'tls_cafile' names '" + tls.file("ca.key") + "', which holds no usable CA certificate", "MQTT"},
        {{"-L", "-p", absent, "-c", conf(ca + "tls_certfile=" + tls.file("ca.key") + "\ntls_keyfile=" + tls.file("client.key"))}, sample, 1,
         "transport setting 'tls_certfile' names '" + tls.file("ca.key") + "', which holds no usable certificate", "MQTT"},
        {{"-L", "-p", absent, "-c", conf(ca + "tls_certfile=" + tls.file("client.crt") + "\ntls_keyfile=" + tls.file("ca.crt"))}, sample, 1,
         "transport setting 'tls_keyfile' names '" + tls.file("ca.crt") + "', which holds no usable private key", "MQTT"},
        {{"-L", "-p", absent, "-c", conf(ca + "tls_certfile=" + tls.file("client.crt") + "\ntls_keyfile=" + tls.file("server.key"))}, sample, 1,
         "transport setting 'tls_keyfile' names '" + tls.file("server.key") + "', whose key does not belong to the certificate of 'tls_certfile'", "MQTT"},
        {{"-L", "-c", conf("tls_certfile=/c\n")}, sample, 1,
         "transport setting 'tls_certfile' is set without 'tls_keyfile'", ""},
        {{"-L", "-c", conf("tls_keyfile=/k\n")}, sample, 1,
         "transport setting 'tls_keyfile' is set without 'tls_certfile'", ""},
        {{"-L", "-c", conf("tls_certfile=/c\ntls_keyfile=/k\n")}, sample, 1,
         "transport setting 'tls_certfile' is set without 'tls_cafile': a client certificate needs TLS", ""},
        {{"-L", "-c", conf("password=Hunter2\n")}, sample, 1,
         "transport setting 'password' is set without 'username'", "Hunter2"},
        {{"-L", "-c", conf("client_name=" + std::string(70000, 'n') + "\n")}, sample, 1,
         "transport setting 'client_name' is 70000 bytes long; MQTT carries at most 65535", ""},
        {{"-L", "-c", conf("client_name=\xff\n")}, sample, 1, "'client_name' is not valid UTF-8", ""},
        {{"-L", "-c", conf("host=\n")}, sample, 1, "Required configuration key 'host' has no value", ""},
        {{"-L", "-c", conf("keepalive=soon\n")}, sample, 1,
         "transport setting 'keepalive' is 'soon', not a number from 0 to 65535", ""},
        {{"-L", "-p", absent}, catalogue("rt/system/timestamp"), 1,
         "ERROR daemon: Unable to set time_sync_id", "MQTT"},
        {{"-L", "-p", absent, "-c", conf("keepalive=0\nmax_pending=\noffline_queue=0\n")}, sample, 0,
         "ERROR daemon: Unable to connect to MQTT broker!", ""},  // lowest, or the default
        {{"-L", "-l", "INFO", "-H", "127.0.0.1", "-p", port}, catalogue("rt/system/time_sync"), 1,
         "EMERG daemon: Unable to find FRAME_START_ID topic in SignalAdapter data definition "
         "rt/system/timestamp", ""},
        {{"-L", "-H", "127.0.0.1", "-p", port, "-t", dir.file("none"), "-r", dir.fifo("rx")}, sample, 1,
         "ERROR daemon: Unable to open TX queue device for writing: " + dir.file("none"), "RX queue"},
        {{"-L", "-H", "127.0.0.1", "-p", port, "-t", dir.write("tx", ""), "-r", dir.file("none")}, sample, 1,
         "ERROR daemon: Unable to open RX queue device for reading: " + dir.file("none"), ""},
        // clang-format on
    };
    for (const auto& c : cases) {
        std::vector<std::string> argv{g_ipcd};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        const Outcome r = run(argv, {"LOG_LEVEL=NOTICE", c.env});
        EXPECT_EQ(r.status, c.status) << c.line << "\n" << r.out << r.err;
        const auto at = r.out.find(c.line);
        EXPECT_NE(at, std::string::npos) << c.line << "\n" << r.out;
        if (!c.not_before.empty()) {
            EXPECT_EQ(r.out.substr(0, at).find(c.not_before), std::string::npos) << c.line;
        }
        // A setting that is refused is the one told: the checks after it do not run.
        EXPECT_LE(count_of(r.out, "transport setting '"), 1U) << r.out;
    }
}

TEST(Daemon, RelaysBothWaysThroughTheTools) {
    Broker broker;
    TempDir dir;
    auto watcher = watch(broker.port(), {"--count", "4", "rt/vehicle/#"});
    Process sim(
        {g_sim, "--rx", dir.file("rx"), "--tx", dir.file("tx"), "--catalogue", g_sample_catalogue,
         "--keep-open", "--scenario",
         dir.write("scenario",
                   "rt/vehicle/speed 2 now speed_kmh=120 valid=1\n21 7 1 hex:01000000\n"
                   "sleep 10\n21 7 2 hex:02000000\nrt/vehicle/gear 7 3 gear=3 drive_mode=1\n")});
    ASSERT_TRUE(sim.wait_out("waiting for ipcd")) << sim.err();  // the FIFOs exist
    Process ipcd({g_ipcd, "-L", "-H", "127.0.0.1", "-p", std::to_string(broker.port()), "-r",
                  dir.file("rx"), "-t", dir.file("tx")},
                 {"KIRN_RT_CATALOGUE=" + g_sample_catalogue});
    ASSERT_TRUE(sim.wait_out("RX rt/vehicle/gear id=21 tag=7 ts=3")) << sim.out() << sim.err();
    // The retained group comes at once; the gear records wait for a request
    // and the start-up target, then come in their order.
    ASSERT_TRUE(watcher->wait_out("speed"));
    EXPECT_EQ(watcher->out().find("gear"), std::string::npos);
    EXPECT_EQ(ctl(broker.port(), {"announce", g_gear}).status, 0);
    const auto status = json_lines(ctl(broker.port(), {"status", "--json"}).out).at(0);
    EXPECT_EQ(status["body"]["topics"], Json({g_gear}));
    EXPECT_TRUE(status["retained"] == true && status["qos"] == 1) << status;  // kept, confirmed
    EXPECT_EQ(ctl(broker.port(), {"tpa", "--wait-for-target", "--target-reached"}).status, 0);
    ASSERT_EQ(watcher->wait(), 0) << watcher->err();
    const auto lines = json_lines(watcher->out());
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[0]["body"]["signals"], Json({{"speed_kmh", 120}, {"valid", 1}}));
    EXPECT_TRUE(lines[1]["body"]["timestamp"] == 1 && lines[2]["body"]["timestamp"] == 2 &&
                lines[3]["body"]["timestamp"] == 3);  // in their order
    EXPECT_EQ(lines[3]["body"]["signals"], Json({{"gear", 3}, {"drive_mode", 1}}));

    // To the RT side: a later message names one signal, the others keep theirs.
    const std::string climate = "rttx/hmi/climate_request";
    EXPECT_EQ(ctl(broker.port(), {"send", climate, "target_temp=215"}).status, 0);
    EXPECT_EQ(ctl(broker.port(), {"send", climate, "fan_level=3"}).status, 0);
    EXPECT_TRUE(sim.wait_out(" target_temp=215 fan_level=3 ac_on=0 recirculation=0\n"));

    // The shutdown state ends ipcd in order; the RT side sees it go.
    auto eod = watch(broker.port(), {"--count", "1", "system/rt/eod"});
    EXPECT_EQ(ctl(broker.port(), {"state", "4"}).status, 0);
    EXPECT_EQ(ipcd.wait(), 0) << ipcd.out();
    EXPECT_EQ(eod->wait(), 0);
    EXPECT_EQ(json_lines(eod->out()).at(0)["payload"], "01") << eod->out();
    EXPECT_EQ(sim.wait(), 1);
    EXPECT_NE(sim.err().find("ipcd closed RX"), std::string::npos);
}

// Over TLS with a login (the tools use the plain listener; they reach the
// TLS ones with the same settings as flags), one message pending at most.
// While the paused broker takes nothing, the RT side waits and watchdog pings
// go on (the loop is alive), and the stream goes on when the broker does.
// SIGTERM mid-stream: what was read reaches the broker with no gap, then the
// end of data; the service manager hears STOPPING=1; status 0.
TEST(Daemon, WatchdogAndSigtermMidStreamOverTls) {
    TlsFiles tls;
    const int login = free_port();
    const int cert = free_port();
    Broker broker(tls.listener(login) + tls.listener(cert, false));
    Daemon daemon(login);
    daemon.start({"-c", daemon.dir().write("ipcd.conf", "tls_cafile=" + tls.file("ca.crt") +
                                                            "\nusername=ipcd\npassword=Hunter2\n"
                                                            "max_pending=1\n")},
                 {"WATCHDOG_USEC=200000"});
    release(daemon, broker.port());
    auto pings = [&] { return daemon.notified("WATCHDOG=1"); };
    ASSERT_TRUE(wait_until([&] { return pings() >= 3; }));
    broker.pause();
    auto stuck = generate(daemon, "rt/vehicle/battery", 20000);
    std::size_t written = 0;
    ASSERT_TRUE(wait_until(
        [&] {  // the RT side waits: ipcd reads no more than the broker takes
            const std::size_t before = generated(*stuck);
            std::this_thread::sleep_for(600ms);
            return (written = generated(*stuck)) == before;
        },
        60s));
    const std::size_t seen = pings();
    EXPECT_TRUE(wait_until([&] { return pings() > seen + 2; }));  // its loop is alive
    broker.resume();
    // The broker first works off the megabytes the sockets held while it was
    // paused: on a loaded machine that takes a while.
    EXPECT_TRUE(wait_until([&] { return generated(*stuck) > written; }, 60s))
        << daemon.process().out();
    stuck.reset();

    const std::string steering = "rt/vehicle/steering";  // its first signal: angle_cdeg
    EXPECT_EQ(ctl(broker.port(), {"announce", steering}).status, 0);
    auto watcher = watch(broker.port(), {steering, "system/rt/eod"});
    auto sim = generate(daemon, steering, 2000);
    ASSERT_TRUE(wait_until([&] { return json_lines(watcher->out()).size() >= 200; }, 30s));
    daemon.process().signal(SIGTERM);
    EXPECT_EQ(daemon.process().wait(), 0) << daemon.process().out();
    ASSERT_TRUE(watcher->wait_out("system/rt/eod"));
    const auto received = json_lines(watcher->out());
    EXPECT_EQ(received.back()["topic"], "system/rt/eod");
    for (std::size_t i = 0; i + 1 < received.size(); ++i) {
        ASSERT_EQ(received[i]["body"]["signals"]["angle_cdeg"], i + 1) << "gap or reorder";
    }
    EXPECT_TRUE(wait_until([&] { return daemon.notified("STOPPING=1") == 1; }));
    EXPECT_NE(daemon.process().out().find("Received SIGTERM, stopping"), std::string::npos);
    EXPECT_EQ(daemon.process().out().find("Hunter2"), std::string::npos);

    const std::string ca = tls.file("ca.crt");
    EXPECT_EQ(ctl(login, {"--cafile", ca, "-u", "ipcd", "--password-file",
                          daemon.dir().write("pw", "Hunter2\n"), "ping"})
                  .status,
              0);
    EXPECT_EQ(ctl(cert, {"--cafile", ca, "--cert", tls.file("client.crt"), "--key",
                         tls.file("client.key"), "ping"})
                  .status,
              0);
    // RT data leaves on ipcd's own connection, which then shows the client
    // certificate too (rt/vehicle/speed is retained, so it goes out at once).
    Daemon mutual(cert);
    mutual.start(
        {"-c", mutual.dir().write("ipcd.conf",
                                  "tls_cafile=" + ca + "\ntls_certfile=" + tls.file("client.crt") +
                                      "\ntls_keyfile=" + tls.file("client.key") + "\n")});
    mutual.write_record(20, std::vector<std::uint8_t>(8, 1));
    EXPECT_TRUE(watch(broker.port(), {"rt/vehicle/speed"})->wait_out("rt/vehicle/speed"))
        << mutual.process().out();
}

// Behind the shipped ACL, everyone logged in: the flow works; what a client
// application has no right to (another group, rttx/system/, the shutdown
// state) is acknowledged by the broker but changes nothing on the RT side and
// does not stop ipcd; its own rttx/ topic, and the platform's, reach it.
TEST(Daemon, BehindTheShippedAcl) {
    Broker broker(Shipped{});
    const int port = broker.port();
    Daemon daemon(port);
    daemon.start({"-c", ipcd_login(daemon.dir())});
    release(daemon, port, login("platform"));
    EXPECT_NE(ctl(port, {"status"}, login("hmi")).out.find("requested_count=1"), std::string::npos);
    auto battery = watch(port, {"--count", "1", "rt/vehicle/battery"}, login("hmi"));
    daemon.write_record(23, {1, 2, 3, 4, 5, 6, 7, 8});
    EXPECT_EQ(battery->wait(), 0) << battery->err();

    for (const auto& refused :
         std::vector<std::vector<std::string>>{{"send", "rttx/hmi/light_request", "hazard=1"},
                                               {"send", "rttx/system/time_sync", "queue_size=1"},
                                               {"state", "4"}}) {
        EXPECT_EQ(ctl(port, refused, login("hmi")).status, 0) << refused[1];
    }
    EXPECT_EQ(ctl(port, {"send", "rttx/hmi/climate_request", "fan_level=1"}, login("hmi")).status,
              0);
    EXPECT_EQ(
        ctl(port, {"send", "rttx/system/time_sync", "queue_size=1"}, login("platform")).status, 0);
    const auto tx = daemon.tx_records(2);  // in order: a refused one would come first
    ASSERT_EQ(tx.size(), 2U);
    EXPECT_TRUE(tx[0].id == 30 && tx[1].id == 1) << tx[0].id << " " << tx[1].id;
    EXPECT_TRUE(daemon.process().running());

    const Outcome wrong = ctl(port, {"-u", "hmi", "-P", "Hunter2", "ping"});
    EXPECT_EQ(wrong.status, 1);
    EXPECT_NE(wrong.err.find("not authorised"), std::string::npos) << wrong.err;
    EXPECT_EQ((wrong.out + wrong.err).find("Hunter2"), std::string::npos);
}

// ipcd-ctl stats and health: ipcd's retained JSON readable or as it is; a
// health that says down, a payload that is no state, and nothing retained
// (no ipcd) each end non-zero.
TEST(Tools, StatsAndHealth) {
    Broker broker;
    Client peer(broker.port());
    ASSERT_TRUE(peer->connect() && peer->start());
    const std::string stats = R"({"version":"1.4.0","connected":true,"rt_to_broker":12,"new":3})";
    const std::string up = R"({"state":"up","version":"1.4.0","since_s":5})";
    const struct {
        std::string payload;  // retained on the command's topic first; empty: none
        std::vector<std::string> args;
        int status;
        std::string shown;  // a regular expression over standard output and error
    } cases[] = {
        {"", {"stats"}, 1, "nothing retained on system/ipc/stats"},
        {"", {"health", "--json"}, 1, "nothing retained on system/ipc/health"},
        {stats, {"stats"}, 0, R"(\(connected\) +yes\n[\s\S]*\(rt_to_broker\) +12\nnew +3\n)"},
        {stats, {"stats", "--json"}, 0, R"(^\{"version":"1.4.0".*"new":3\}\n$)"},
        {"[1]", {"stats"}, 1, "system/ipc/stats holds no stats object: \\[1\\]"},
        {up, {"health"}, 0, "^ipcd is up version=1.4.0 since_s=5\n$"},
        {R"({"state":"down"})", {"health", "--json"}, 3, R"(^\{"state":"down"\}\n$)"},
    };
    for (const auto& c : cases) {
        if (!c.payload.empty()) {
            auto m = message(c.payload, 1, true);
            peer->publish("system/ipc/" + c.args[0], m);
            ASSERT_TRUE(wait_until([&] { return peer->pending() == 0; }));
        }
        const Outcome r = ctl(broker.port(), c.args);
        EXPECT_EQ(r.status, c.status) << c.shown;
        EXPECT_TRUE(std::regex_search(r.out + r.err, std::regex(c.shown))) << r.out << r.err;
    }
}

// Capture, print, replay: a capture (and a regular file as RX) starts afresh
// unless --append; --print names what it holds; a replay keeps the records'
// order and their pace (two gaps of 0.4 s, twice as fast; a timestamp going
// back waits for nothing), and a watcher's wildcard filter and count take
// exactly what they match.
TEST(Tools, CaptureAndReplay) {
    TempDir dir;
    const std::string cap = dir.write("drive.cap", "junk");
    const std::string rx_file = dir.write("rx.file", "junk");
    const std::string scenario = dir.write(  // speed is retained: relayed at once
        "drive.txt",
        "rt/vehicle/speed 0 1000000000 speed_kmh=1\nrt/vehicle/doors 0 1000000000 hex:01\n"
        "rt/vehicle/speed 0 1400000000 speed_kmh=2\nrt/vehicle/speed 0 1800000000 speed_kmh=3\n");
    const std::vector<std::string> sim{g_sim, "--catalogue", g_sample_catalogue};
    auto with = [](std::vector<std::string> a, const std::vector<std::string>& b) {
        a.insert(a.end(), b.begin(), b.end());
        return a;
    };
    const std::vector<std::string> write{"--rx", rx_file, "--scenario", scenario, "--capture", cap};
    EXPECT_EQ(run(with(sim, write)).status, 0);
    EXPECT_EQ(run(with(with(sim, write), {"--append"})).status, 0);
    EXPECT_EQ(read_file(rx_file), read_file(cap));
    const Outcome printed = run(with(sim, {"--print", cap}));
    EXPECT_EQ(printed.err, "");  // no junk left in front
    EXPECT_NE(printed.out.find(cap + ": 8 records\n  6 rt/vehicle/speed (retained"),
              std::string::npos)
        << printed.out;

    Broker broker;
    auto watcher = watch(broker.port(), {"-C", "5", "-t", "rt/+/speed"});
    Process replay(with(sim, {"--rx", dir.file("rx"), "--tx", dir.file("tx"), "--replay", cap,
                              "--speed", "2", "--quiet"}));
    ASSERT_TRUE(replay.wait_out("waiting for ipcd")) << replay.err();
    Process ipcd({g_ipcd, "-L", "-H", "127.0.0.1", "-p", std::to_string(broker.port()), "-r",
                  dir.file("rx"), "-t", dir.file("tx")},
                 {"KIRN_RT_CATALOGUE=" + g_sample_catalogue});
    ASSERT_TRUE(replay.wait_out(" open\n"));
    const auto opened = std::chrono::steady_clock::now();
    EXPECT_EQ(replay.wait(), 0) << replay.err();
    EXPECT_GE(std::chrono::steady_clock::now() - opened, 350ms);
    EXPECT_NE(replay.out().find("RX " + dir.file("rx") + " written: 8 records"), std::string::npos);
    ASSERT_EQ(watcher->wait(), 0) << watcher->err();
    const auto lines = json_lines(watcher->out());
    ASSERT_EQ(lines.size(), 5U) << watcher->out();
    for (std::size_t i = 0; i < lines.size(); ++i) {
        EXPECT_EQ(lines[i]["topic"], "rt/vehicle/speed");
        EXPECT_EQ(lines[i]["body"]["signals"]["speed_kmh"], i % 3 + 1) << "order";
    }
    EXPECT_EQ(ipcd.wait(), 0);
}

// A mistake ends the tool with its reason on standard error.
TEST(Tools, MistakesAreSaid) {
    TempDir dir;
    const std::string bad = dir.write("bad.json", R"({"groups": 1})");
    const std::string sample = "KIRN_RT_CATALOGUE=" + g_sample_catalogue;
    const struct {
        std::vector<std::string> argv;
        std::string env;
        int status;
        std::string said;
    } cases[] = {
        {{g_ctl, "watch"}, "KIRN_RT_CATALOGUE=" + dir.file("none"), 2, "cannot be read"},
        {{g_ctl, "--catalogue", bad, "send", "rttx/hmi/x", "a=1"}, "", 2, "groups: must be"},
        {{g_ctl, "watch", "rt/#/speed"}, "", 2, "'rt/#/speed' is not a topic filter"},
        {{g_ctl, "-h"}, "", 2, "needs a host; help is --help"},
        {{g_ctl, "-r", "state", "4"}, "", 2, "-r does not apply to state"},
        {{g_sim, "--catalogue", bad}, "", 2, "groups: must be"},
        {{g_sim, "--print", dir.file("none")}, sample, 2, "cannot read capture"},
        {{g_sim, "--rx", dir.file("rx"), "--tx", dir.file("tx"), "-W", "0.1"},
         sample,
         1,
         "ipcd did not open RX"},
    };
    for (const auto& c : cases) {
        const Outcome r = run(c.argv, {c.env});
        EXPECT_EQ(r.status, c.status) << c.said;
        EXPECT_NE(r.err.find(c.said), std::string::npos) << r.err;
    }
}

// What ipcd shows of itself: stale retained state of an earlier run is gone
// before it relays, health is up while it runs and down (its last will) when
// it dies, and the statistics count exactly what happened, also where the log
// only summarises.
TEST(Daemon, ShowsItselfFromOutside) {
    Broker broker;
    const int port = broker.port();
    {
        Client earlier(port);
        ASSERT_TRUE(earlier->connect());
        for (const char* topic : {"system/ipc/subscriptions", "system/rt/eod"}) {
            auto stale = message(std::string("stale"), 1, true);
            earlier->publish(topic, stale);
        }
        earlier->stop();
    }
    Daemon daemon(port);
    daemon.start({"-c", daemon.dir().write("ipcd.conf", "stats_interval=1\n")});
    EXPECT_EQ(ctl(port, {"status"}).out, "no subscription status\n");
    EXPECT_TRUE(json_lines(watch(port, {"system/rt/eod"})->out()).empty());
    EXPECT_EQ(ctl(port, {"health"}).status, 0);  // up
    // What `systemctl status` shows before the first record.
    ASSERT_TRUE(wait_until([&] { return !daemon.notifications("STATUS=connected").empty(); }));
    EXPECT_EQ(daemon.notifications("STATUS=connected").front(),
              "STATUS=connected to the broker; 0 records/s; 0 dropped so far");

    release(daemon, port);
    constexpr std::uint32_t unknown = 10000;
    for (std::uint32_t i = 0; i < unknown; ++i) {
        daemon.write_record(9999, {1}, i);
    }
    Bytes damage{'Q', 'P', 'R', '1'};  // a header whose length is out of bounds
    damage.resize(40, 0xFF);
    ASSERT_EQ(::write(daemon.rx(), damage.data(), damage.size()), 40);
    for (std::uint64_t i = 0; i < 6; ++i) {
        daemon.write_record(23, {1, 2}, i);
    }
    Json last;
    ASSERT_TRUE(wait_until(
        [&] {
            const Outcome stats = ctl(port, {"stats", "--json"});
            last = stats.status == 0 ? Json::parse(stats.out) : Json();
            return !last.is_null() && last["rt_to_broker"] == 6;
        },
        20s))
        << last;
    EXPECT_EQ(last["unknown_ids"], unknown);
    EXPECT_EQ(last["rx_damaged"], 1);
    EXPECT_EQ(last["connected"], true);
    EXPECT_EQ(last["reconnects"], 0);
    // The first ones as ever; a summary after the minute.
    EXPECT_LT(count_of(daemon.process().out(), "Unable to find rt-id 9999"), 20U);
    // What `systemctl status` shows then: every record dropped, for either reason.
    EXPECT_TRUE(wait_until([&] {
        return daemon.notifications("STATUS=").back().find("; 10001 dropped so far") !=
               std::string::npos;
    })) << daemon.notifications("STATUS=").back();

    daemon.process().signal(SIGKILL);
    EXPECT_TRUE(wait_until([&] { return ctl(port, {"health"}).status == 3; }));  // the will
}

}  // namespace
