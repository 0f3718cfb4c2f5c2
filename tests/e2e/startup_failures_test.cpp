// Every way start-up ends before the relay runs, through the real binary: the
// exit status, and the line that tells the user why.

#include <gtest/gtest.h>

#include <regex>

#include "broker.h"
#include "daemon.h"

using namespace ipcd_test;

namespace {

struct Case {
    const char* what;
    std::vector<std::string> args;
    int status;
    std::string line;        // in standard output (the log with -L, or the usage)
    std::string not_before;  // must not appear before the line (empty: no check)
};

TEST(StartUp, FailuresEndWithTheirStatusAndReason) {
    TempDir dir;
    Broker broker;
    const std::string port = std::to_string(broker.port());
    const std::string usage =
        read_file(std::string(IPCD_SOURCE_DIR) + "/tests/e2e/golden/usage.txt");
    auto conf = [&](const std::string& name, const std::string& text) {
        return dir.write(name, "host=127.0.0.1\nport=" + port + "\n" + text);
    };
    auto catalogue = [&](const std::string& name, const std::string& topic) {
        return "KIRN_RT_CATALOGUE=" +
               dir.write(name, R"({"groups": [{"topic": ")" + topic +
                                   R"(", "id": 1, "size": 8, "signals": []}]})");
    };
    const std::string absent = std::to_string(free_port());
    const std::string rx = dir.fifo("rx");
    const std::vector<Case> cases = {
        {"help", {"-h", "--bogus"}, 0, usage, ""},
        {"version", {"-p", "1", "--version", "-x"}, 0, "IPCd version: ", ""},
        {"unknown option", {"-x", "-h"}, 1, usage, ""},
        {"missing argument", {"-c"}, 1, usage, ""},
        {"operand",
         {"-L", "extra", "-v"},
         1,
         "ERROR ipcd: No additional arguments required!",
         "Usage"},
        {"-c missing",
         {"-L", "-c", dir.file("absent.conf")},
         1,
         "ERROR ipcd: Unable to open config file.",
         ""},
        {"-c a directory", {"-L", "-c", dir.path()}, 1, "': not a regular file", ""},
        {"-c a device", {"-L", "-c", "/dev/zero"}, 1, "': not a regular file", ""},
        {"port out of range",
         {"-L", "-p", "70000"},
         1,
         "Configuration key 'port' is not a port number from 1 to 65535: '70000'",
         ""},
        {"CA file missing",
         {"-L", "-c", conf("a.conf", "tls_cafile=/nope/ca.crt\n")},
         1,
         "transport setting 'tls_cafile' names '/nope/ca.crt', which cannot be read: No such file",
         ""},
        {"certificate without key",
         {"-L", "-c", conf("b.conf", "tls_certfile=/c\n")},
         1,
         "transport setting 'tls_certfile' is set without 'tls_keyfile'",
         ""},
        {"password without user",
         {"-L", "-c", conf("c.conf", "password=Hunter2\n")},
         1,
         "transport setting 'password' is set without 'username'",
         "Hunter2"},
        {"client name too long",
         {"-L", "-c", conf("d.conf", "client_name=" + std::string(70000, 'n') + "\n")},
         1,
         "transport setting 'client_name' is 70000 bytes long; MQTT carries at most 65535",
         ""},
        {"keepalive not a number",
         {"-L", "-c", conf("e.conf", "keepalive=soon\n")},
         1,
         "transport setting 'keepalive' is 'soon', not a number from 0 to 65535",
         ""},
        {"no time-sync topic",
         {"-L", "-p", absent},
         1,
         "ERROR daemon: Unable to set time_sync_id",
         "MQTT"},
        {"broker down",
         {"-L", "-p", absent},
         0,
         "ERROR daemon: Unable to connect to MQTT broker!",
         ""},
        {"no frame-start topic",
         {"-L", "-l", "INFO", "-p", port},
         1,
         "EMERG daemon: Unable to find FRAME_START_ID topic in SignalAdapter data definition "
         "rt/system/timestamp",
         ""},
        {"TX missing",
         {"-L", "-p", port, "-t", dir.file("none"), "-r", rx},
         1,
         "ERROR daemon: Unable to open TX queue device for writing: " + dir.file("none"),
         "RX queue"},
        {"RX missing",
         {"-L", "-p", port, "-t", dir.write("tx-file", ""), "-r", dir.file("none")},
         1,
         "ERROR daemon: Unable to open RX queue device for reading: " + dir.file("none"),
         ""},
    };
    for (const auto& c : cases) {
        std::vector<std::string> argv{ipcd_binary()};
        argv.insert(argv.end(), c.args.begin(), c.args.end());
        std::vector<std::string> env{"LOG_LEVEL=NOTICE", "KIRN_RT_CATALOGUE=" + sample_catalogue()};
        if (std::string(c.what) == "no time-sync topic") {
            env.push_back(catalogue("sync.json", "rt/system/timestamp"));
        } else if (std::string(c.what) == "no frame-start topic") {
            env.push_back(catalogue("frame.json", "rt/system/time_sync"));
        }
        const Outcome r = run(argv, {env});
        EXPECT_EQ(r.status, c.status) << c.what << "\n" << r.out << r.err;
        const auto at = r.out.find(c.line);
        EXPECT_NE(at, std::string::npos) << c.what << "\n" << r.out;
        if (!c.not_before.empty()) {
            EXPECT_EQ(r.out.substr(0, at).find(c.not_before), std::string::npos) << c.what;
        }
    }
}

TEST(StartUp, VersionStampHasItsFiveFields) {
    const Outcome r = run({ipcd_binary(), "-V"});
    EXPECT_TRUE(std::regex_match(
        r.out, std::regex("IPCd version: \\S+ - \\d+\\.\\d+\\.\\d+ - ([0-9a-f]{7}|unknown) - "
                          "(\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d [+-]\\d{4}|unknown) - "
                          "[A-Z]+\n")))
        << r.out;
}

}  // namespace
