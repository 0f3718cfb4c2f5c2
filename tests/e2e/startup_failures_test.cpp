// Every way start-up ends before the relay runs, through the real binary: the
// exit status, and the line that tells the user why.

#include <gtest/gtest.h>

#include "harness.h"

using namespace ipcd_test;

namespace {

TEST(StartUp, FailuresEndWithTheirStatusAndReason) {
    TempDir dir;
    Broker broker;
    const std::string port = std::to_string(broker.port());
    const std::string usage = read_file(IPCD_SOURCE_DIR "/tests/e2e/golden/usage.txt");
    auto conf = [&](const std::string& text) {
        return dir.write(std::to_string(std::hash<std::string>()(text)),
                         "host=127.0.0.1\nport=" + port + "\n" + text);
    };
    auto catalogue = [&](const std::string& topic) {  // one group: the id 1
        return "KIRN_RT_CATALOGUE=" +
               dir.write(topic.substr(10), R"({"groups": [{"topic": ")" + topic +
                                               R"(", "id": 1, "size": 8, "signals": []}]})");
    };
    const std::string absent = std::to_string(free_port());
    const std::string sample = "KIRN_RT_CATALOGUE=" + g_sample_catalogue;
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
        {{"-x", "-h"}, sample, 1, usage, ""},
        {{"-L", "extra", "-v"}, sample, 1, "ERROR ipcd: No additional arguments required!", "Usage"},
        {{"-L", "-c", dir.file("absent.conf")}, sample, 1, "ERROR ipcd: Unable to open config file.", ""},
        {{"-L", "-c", dir.path()}, sample, 1, "': not a regular file", ""},
        {{"-L", "-p", "70000"}, sample, 1,
         "Configuration key 'port' is not a port number from 1 to 65535: '70000'", ""},
        {{"-L", "-c", conf("tls_cafile=/nope/ca.crt\n")}, sample, 1,
         "transport setting 'tls_cafile' names '/nope/ca.crt', which cannot be read: No such file", ""},
        {{"-L", "-c", conf("tls_certfile=/c\n")}, sample, 1,
         "transport setting 'tls_certfile' is set without 'tls_keyfile'", ""},
        {{"-L", "-c", conf("password=Hunter2\n")}, sample, 1,
         "transport setting 'password' is set without 'username'", "Hunter2"},
        {{"-L", "-c", conf("client_name=" + std::string(70000, 'n') + "\n")}, sample, 1,
         "transport setting 'client_name' is 70000 bytes long; MQTT carries at most 65535", ""},
        {{"-L", "-c", conf("keepalive=soon\n")}, sample, 1,
         "transport setting 'keepalive' is 'soon', not a number from 0 to 65535", ""},
        {{"-L", "-p", absent}, catalogue("rt/system/timestamp"), 1,
         "ERROR daemon: Unable to set time_sync_id", "MQTT"},
        {{"-L", "-p", absent}, sample, 0, "ERROR daemon: Unable to connect to MQTT broker!", ""},
        {{"-L", "-l", "INFO", "-p", port}, catalogue("rt/system/time_sync"), 1,
         "EMERG daemon: Unable to find FRAME_START_ID topic in SignalAdapter data definition "
         "rt/system/timestamp", ""},
        {{"-L", "-p", port, "-t", dir.file("none"), "-r", dir.fifo("rx")}, sample, 1,
         "ERROR daemon: Unable to open TX queue device for writing: " + dir.file("none"), "RX queue"},
        {{"-L", "-p", port, "-t", dir.write("tx", ""), "-r", dir.file("none")}, sample, 1,
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
    }
}

}  // namespace
