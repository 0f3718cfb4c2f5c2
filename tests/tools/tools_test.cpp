// ipcd-sim and ipcd-ctl against the real ipcd, a private broker and real
// FIFOs: relaying both ways, bad input, and a captured stream replayed.

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <algorithm>
#include <nlohmann/json.hpp>
#include <sstream>

#include "support.h"

using namespace ipcd_test;
using Json = nlohmann::json;

namespace {

std::string bin(const std::string& name) {
    return std::string(IPCD_BINARY_DIR) + (name == "ipcd" ? "/src/main/" : "/tools/") + name;
}
std::string catalogue() {
    return std::string(IPCD_SOURCE_DIR) + "/dist/rt_catalogue.json";
}
std::vector<std::string> env() {
    return {"KIRN_RT_CATALOGUE=" + catalogue()};
}

std::vector<Json> json_lines(const std::string& text) {
    std::vector<Json> out;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        out.push_back(Json::parse(line));
    }
    return out;
}

const Json* find_topic(const std::vector<Json>& lines, const std::string& topic) {
    auto it = std::find_if(lines.begin(), lines.end(),
                           [&](const Json& j) { return j["topic"] == topic; });
    return it == lines.end() ? nullptr : &*it;
}

class ToolsTest : public ::testing::Test {
protected:
    std::unique_ptr<Process> ctl(std::vector<std::string> args) {
        std::vector<std::string> argv{bin("ipcd-ctl"), "-H", "127.0.0.1", "-p",
                                      std::to_string(broker.port())};
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<Process>(argv, env());
    }
    // Runs ipcd-ctl to its end; its exit status.
    std::optional<int> run_ctl(std::vector<std::string> args) {
        return ctl(std::move(args))->wait();
    }
    std::unique_ptr<Process> sim(std::vector<std::string> args) {
        std::vector<std::string> argv{bin("ipcd-sim"), "--rx", dir.file("rx"), "--tx",
                                      dir.file("tx")};
        argv.insert(argv.end(), args.begin(), args.end());
        return std::make_unique<Process>(argv, env());
    }
    std::unique_ptr<Process> ipcd(const std::string& rx, const std::string& tx) {
        return std::make_unique<Process>(
            std::vector<std::string>{bin("ipcd"), "-L", "-H", "127.0.0.1", "-p",
                                     std::to_string(broker.port()), "-r", rx, "-t", tx},
            env());
    }

    Broker broker;
    TempDir dir;
};

TEST_F(ToolsTest, ScenarioIsRelayedAndWatchedDecoded) {
    std::string scenario = dir.write("scenario", R"(# a retained group, then a held-back one
rt/vehicle/speed 2 now speed_kmh=120 valid=1

sleep 10
21 7 12345 hex:03010000
)");
    auto watcher = ctl({"watch", "--json", "--count", "2", "rt/vehicle/speed", "rt/vehicle/gear"});
    ASSERT_TRUE(watcher->wait_err("watching")) << watcher->err();
    auto rt = sim({"--scenario", scenario, "--keep-open"});
    ASSERT_TRUE(rt->wait_out("waiting for ipcd")) << rt->err();  // the FIFOs exist
    auto daemon = ipcd(dir.file("rx"), dir.file("tx"));
    ASSERT_TRUE(rt->wait_out("RX rt/vehicle/gear id=21 tag=7 ts=12345 gear=3 drive_mode=1"))
        << rt->out() << rt->err();
    // The retained group comes at once; the other waits for a request and the target.
    ASSERT_TRUE(wait_until([&] { return watcher->out().find("speed") != std::string::npos; }))
        << daemon->out();
    EXPECT_EQ(run_ctl({"announce", "rt/vehicle/gear"}), 0);
    EXPECT_EQ(run_ctl({"tpa"}), 0);
    ASSERT_EQ(watcher->wait(), 0) << watcher->out() << watcher->err();

    auto lines = json_lines(watcher->out());
    const Json* speed = find_topic(lines, "rt/vehicle/speed");
    ASSERT_NE(speed, nullptr);
    EXPECT_EQ((*speed)["type"], "RtSignal");
    EXPECT_EQ((*speed)["header"]["protocol_type"], 1);
    EXPECT_EQ((*speed)["header"]["header_length"], 18);
    EXPECT_EQ((*speed)["body"]["tag"], 2);
    EXPECT_EQ((*speed)["body"]["data"], "7800010000000000");
    EXPECT_EQ((*speed)["body"]["signals"], Json({{"speed_kmh", 120}, {"valid", 1}}));
    const Json* gear = find_topic(lines, "rt/vehicle/gear");
    ASSERT_NE(gear, nullptr);
    EXPECT_EQ((*gear)["body"]["timestamp"], 12345);
    EXPECT_EQ((*gear)["header"]["timestamp"], 12345);
    EXPECT_EQ((*gear)["body"]["signals"], Json({{"gear", 3}, {"drive_mode", 1}}));

    // SIGTERM: the RT side closes its ports and ipcd ends in order.
    rt->signal(SIGTERM);
    EXPECT_EQ(rt->wait(), 0);
    EXPECT_EQ(daemon->wait(), 0) << daemon->out();
}

TEST_F(ToolsTest, SendArrivesDecodedAtTheRtSide) {
    auto rt = sim({});
    ASSERT_TRUE(rt->wait_out("waiting for ipcd")) << rt->err();
    auto daemon = ipcd(dir.file("rx"), dir.file("tx"));
    ASSERT_TRUE(rt->wait_out(" open\n")) << rt->out() << daemon->out();
    EXPECT_EQ(run_ctl({"send", "rttx/hmi/climate_request", "target_temp=215", "ac_on=0x1"}), 0);
    EXPECT_TRUE(rt->wait_out("TX rt/hmi/climate_request id=30 tag=0 ts="));
    EXPECT_TRUE(rt->wait_out(" target_temp=215 fan_level=0 ac_on=1 recirculation=0\n"))
        << rt->out();
    // A later message names one signal; the others keep their values.
    EXPECT_EQ(run_ctl({"send", "rttx/hmi/climate_request", "fan_level=3"}), 0);
    EXPECT_TRUE(rt->wait_out(" target_temp=215 fan_level=3 ac_on=1 recirculation=0\n"))
        << rt->out();

    // The shutdown state ends ipcd; the RT side sees it go.
    auto watcher = ctl({"watch", "--count", "1", "system/rt/eod"});
    ASSERT_TRUE(watcher->wait_err("watching"));
    EXPECT_EQ(run_ctl({"state", "4"}), 0);
    EXPECT_EQ(daemon->wait(), 0) << daemon->out();
    EXPECT_EQ(watcher->wait(), 0);
    EXPECT_NE(watcher->out().find("system/rt/eod retained=0 qos=0 raw 01"), std::string::npos)
        << watcher->out();
    EXPECT_EQ(rt->wait(), 1);
    EXPECT_NE(rt->out().find("ipcd closed RX"), std::string::npos) << rt->out();
}

TEST_F(ToolsTest, BadInputGivesOneErrorLineAndAStatus) {
    struct Case {
        std::vector<std::string> argv;
        int status;
        std::string error;
    };
    const std::string bad = dir.write("bad",
                                      "rt/vehicle/speed 0 now speed_kmh=1\n\n"
                                      "# fine so far\nrt/vehicle/speed 0 now hex:0g\n");
    const std::string absent = std::to_string(free_port());
    const std::vector<Case> cases = {
        {{"send", "rttx/hmi/climate_request", "target_tmp=215"},
         2,
         "ipcd-ctl: send: unknown signal 'target_tmp' in rt/hmi/climate_request\n"},
        {{"send", "rttx/hmi/climate_request", "fan_level=256"},
         2,
         "ipcd-ctl: send: value 256 too large for fan_level (1 byte)\n"},
        {{"send", "rttx/hmi/climate_request", "target_temp=0x10000"},
         2,
         "ipcd-ctl: send: value 0x10000 too large for target_temp (2 bytes)\n"},
        {{"send", "rttx/no/such", "a=1"},
         2,
         "ipcd-ctl: send: unknown topic 'rt/no/such' in the catalogue\n"},
        {{"state", "256"}, 2, "ipcd-ctl: state: expected one VALUE from 0 to 255 (see --help)\n"},
        {{"-p", absent, "announce", "rt/vehicle/speed"},
         1,
         "ipcd-ctl: cannot connect to broker 127.0.0.1:" + absent + ": Connection refused\n"},
        {{"sim", "--scenario", bad},
         2,
         "ipcd-sim: scenario " + bad + ":4: payload 'hex:0g' is not whole hex bytes\n"},
        {{"sim", "--scenario", dir.file("missing")},
         2,
         "ipcd-sim: cannot read scenario " + dir.file("missing") + ": No such file or directory\n"},
        {{"sim", "--generate", "rt/vehicle/speed,rt/nothing"},
         2,
         "ipcd-sim: unknown topic 'rt/nothing' in --generate\n"},
        {{"sim", "--catalogue", dir.file("missing")},
         2,
         "ipcd-sim: Signal catalogue '" + dir.file("missing") +
             "' cannot be read: No such file or directory\n"},
    };
    for (const auto& c : cases) {
        const bool is_sim = c.argv[0] == "sim";
        auto p = is_sim ? sim({c.argv.begin() + 1, c.argv.end()}) : ctl(c.argv);
        EXPECT_EQ(p->wait(7s), c.status) << c.error;
        EXPECT_EQ(p->err(), c.error);
        EXPECT_EQ(p->out(), "");
    }
    // Rejected before anything was written: not even the FIFOs exist.
    struct stat st {};
    EXPECT_NE(stat(dir.file("rx").c_str(), &st), 0);
}

TEST_F(ToolsTest, CaptureIsReplayedByIpcd) {
    // A regular file as RX: the records go there and into the capture.
    dir.write("rx", "");
    const std::string capture = dir.file("capture");
    const std::string scenario = dir.write("s",
                                           "rt/vehicle/speed 0 1000 speed_kmh=88 valid=1\n"
                                           "rt/vehicle/doors 1 2000 driver=1 locked=1\n"
                                           "rt/vehicle/speed 0 3000 speed_kmh=0x5a valid=1\n");
    auto rt = sim({"--scenario", scenario, "--capture", capture, "--quiet"});
    ASSERT_EQ(rt->wait(), 0) << rt->err();
    EXPECT_EQ(rt->out(), "RX " + dir.file("rx") + " open\n");
    EXPECT_EQ(read_file(capture).size(), 3 * 24 + 3 * 8U);

    const std::string tx = dir.write("replay-tx", "");
    auto daemon = ipcd(capture, tx);
    EXPECT_EQ(daemon->wait(), 0) << daemon->out();
    // What ipcd published stays retained: the last of each group and the end of data.
    auto watcher = ctl({"--timeout", "10", "watch", "--json", "--count", "3", "rt/vehicle/speed",
                        "rt/vehicle/doors", "system/rt/eod"});
    ASSERT_EQ(watcher->wait(), 0) << watcher->out() << watcher->err();
    auto lines = json_lines(watcher->out());
    const Json* speed = find_topic(lines, "rt/vehicle/speed");
    ASSERT_NE(speed, nullptr);
    EXPECT_TRUE((*speed)["retained"].get<bool>());
    EXPECT_EQ((*speed)["body"]["timestamp"], 3000);
    EXPECT_EQ((*speed)["body"]["signals"]["speed_kmh"], 90);
    const Json* doors = find_topic(lines, "rt/vehicle/doors");
    ASSERT_NE(doors, nullptr);
    EXPECT_EQ((*doors)["body"]["tag"], 1);
    EXPECT_EQ((*doors)["body"]["signals"]["locked"], 1);
    const Json* eod = find_topic(lines, "system/rt/eod");
    ASSERT_NE(eod, nullptr);
    EXPECT_EQ((*eod)["payload"], "01");
}

}  // namespace
