// Start-up in process: the command line, the configuration file's syntax and
// check, and the layers of options over file over defaults.

#include <gtest/gtest.h>

#include <sstream>

#include "build_configuration.h"
#include "command_line.h"
#include "log_capture.h"
#include "logging.h"
#include "temp_dir.h"

namespace ipcd = ecu::kora::ipcd;
namespace logging = ecu::kora::logging;
using ecu::kora::config::Configuration;

namespace {

// parse_opts on a fresh record with the given words after "ipcd".
int parse(std::initializer_list<const char*> words) {
    ipcd::g_command_line = {};
    std::vector<std::string> storage{"ipcd"};
    storage.insert(storage.end(), words.begin(), words.end());
    std::vector<char*> argv;
    for (auto& w : storage) {
        argv.push_back(w.data());
    }
    argv.push_back(nullptr);
    return ipcd::parse_opts(static_cast<int>(storage.size()), argv.data());
}

TEST(CommandLine, OptionsReachTheirFieldsAndLaterOnesWin) {
    ASSERT_EQ(parse({"--config", "/c", "-H", "h", "-r", "/rx", "--queue-tx", "/tx", "-s", "1,2",
                     "--log-queue-size", "-p", "1000", "--port", "2000", "-v", "-l", "INFO"}),
              1);
    const auto& o = ipcd::g_command_line;
    EXPECT_EQ(o.config_file, "/c");
    EXPECT_EQ(o.host, "h");
    EXPECT_EQ(o.queue_rx, "/rx");
    EXPECT_EQ(o.queue_tx, "/tx");
    EXPECT_EQ(o.log_rt_signal, "1,2");
    EXPECT_EQ(o.port, "2000");
    EXPECT_EQ(o.loglevel, "INFO");
    EXPECT_TRUE(o.log_queue_size);
    EXPECT_FALSE(o.log_stdout);
    ASSERT_EQ(parse({"-l", "INFO", "-v", "-L"}), 1);
    EXPECT_EQ(ipcd::g_command_line.loglevel, "DEBUG");
    EXPECT_EQ(logging::get_log_mode(), logging::LogMode::standard_output);  // at once
    logging::set_log_mode(logging::LogMode::standard_error);
    EXPECT_EQ(parse({"-x"}), 0);
    EXPECT_EQ(parse({"-c"}), 0);

    using Ids = std::set<unsigned>;
    EXPECT_EQ(ipcd::split_as<unsigned>("42,1,1", ','), (Ids{1, 42}));
    EXPECT_EQ(ipcd::split_as<unsigned>("1,,x,7,", ','), (Ids{1, 7}));
    EXPECT_EQ(ipcd::split_as<unsigned>(" 5,12abc", ','), (Ids{5, 12}));
    EXPECT_EQ(ipcd::split_as<unsigned>("99999999999,4294967295", ','), (Ids{4294967295U}));
    EXPECT_EQ(ipcd::split_as<unsigned>("", ','), Ids{});
}

TEST(ConfigurationFile, SyntaxAndCheck) {
    ipcd_test::LogCapture log;
    auto config = std::make_unique<Configuration>();
    std::istringstream in(
        "# comment\n   # indented\n\n  host =  broker.local  \nqueue_rx=/dev/a=b\n"
        "password Hunter2\nport=1000\nport=2000\n =x\nempty=\n\r\n");
    EXPECT_EQ(ecu::kora::config::set_config_from_input(config, in), 2);
    EXPECT_EQ(config->get("host"), "broker.local");
    EXPECT_EQ(config->get("queue_rx"), "/dev/a=b");  // all after the first '='
    EXPECT_EQ(config->get("port"), "2000");          // a later line wins
    EXPECT_EQ(config->get("empty"), "");
    const auto warnings = log.lines();
    ASSERT_EQ(warnings.size(), 2U);
    EXPECT_EQ(warnings[0].text, "Configuration line 6 has no '=' and is skipped");  // no secret
    EXPECT_EQ(warnings[1].text, "Configuration line 9 has no key before '=' and is skipped");

    config->defaults()["client_name"] = "ipcd";
    config->required_keys() = {"client_name", "port", "queue_rx"};
    EXPECT_TRUE(config->verify());
    config->values().erase("queue_rx");
    EXPECT_FALSE(config->verify());
    EXPECT_EQ(log.find("'queue_rx' has no value and no default").size(), 1U);
    config->values()["queue_rx"] = "/rx";
    for (const char* port : {"1", "65535", "0059281", "01883"}) {
        config->values()["port"] = port;
        EXPECT_TRUE(config->verify()) << port;
    }
    for (const char* port : {"0", "65536", "80a", "-1", " 80", "00000000000065536"}) {
        config->values()["port"] = port;
        EXPECT_FALSE(config->verify()) << port;
    }
}

class Layers : public ::testing::Test {
protected:
    void TearDown() override {
        logging::configure_logging("NOTICE");
        logging::set_log_mode(logging::LogMode::standard_error);
    }
    ipcd_test::TempDir dir;
    ipcd_test::LogCapture log;
    ipcd::CommandLineOptions options;
};

TEST_F(Layers, OptionOverFileOverDefault) {
    auto config = ipcd::build_configuration(options, dir.file("missing.conf"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->get("client_name"), "ipcd");
    EXPECT_EQ(config->get("queue_rx"), "/dev/qport/telematics_kpx_receive");
    EXPECT_EQ(config->get("queue_tx"), "/dev/qport/telematics_kpx_send");
    EXPECT_EQ(config->get("host"), "localhost");
    EXPECT_EQ(config->get("port"), "1883");

    const std::string file = dir.write(
        "ipcd.conf", "queue_rx=/file/rx\nqueue_tx=/file/tx\nhost=file-host\nclient_name=car\n");
    logging::configure_logging("DEBUG");
    options.queue_rx = "/option/rx";
    options.host = "option-host";
    options.port = "2222";
    config = ipcd::build_configuration(options, file);
    ASSERT_TRUE(config);
    EXPECT_EQ(config->get("queue_rx"), "/option/rx");
    EXPECT_EQ(config->get("queue_tx"), "/file/tx");
    EXPECT_EQ(config->get("client_name"), "car");
    EXPECT_EQ(config->get("host"), "option-host");
    EXPECT_EQ(config->get("port"), "2222");
    EXPECT_TRUE(log.has(logging::debug, "Setting hostname to option-host"));
    EXPECT_TRUE(log.has(logging::debug, "Setting port to 2222"));

    options.port = "70000";  // does not verify: start-up ends
    EXPECT_FALSE(ipcd::build_configuration(options, file));
}

TEST_F(Layers, LogModeAndLevel) {
    logging::set_log_mode(logging::LogMode::standard_error);
    options.config_file = dir.write("a.conf", "logmode=STDOUT\nloglevel=INFO\n");
    ASSERT_TRUE(ipcd::build_configuration(options));
    EXPECT_TRUE(log.has(logging::notice, "logmode from config 'STDOUT' not recognized"));
    EXPECT_EQ(logging::get_log_mode(), logging::LogMode::standard_error);
    EXPECT_EQ(logging::get_log_level(), logging::info);

    options.loglevel = "DEBUG";  // as -v leaves it: over the file's
    options.config_file = dir.write("b.conf", "logmode=stdout\nloglevel=INFO\n");
    ASSERT_TRUE(ipcd::build_configuration(options));
    EXPECT_EQ(logging::get_log_mode(), logging::LogMode::standard_output);
    EXPECT_EQ(logging::get_log_level(), logging::debug);

    options.log_stdout = true;  // -L: the file's mode is ignored
    options.config_file = dir.write("c.conf", "logmode=syslog\n");
    ASSERT_TRUE(ipcd::build_configuration(options));
    EXPECT_EQ(logging::get_log_mode(), logging::LogMode::standard_output);
}

TEST_F(Layers, NamedFileMustBeARegularFileOfSaneSize) {
    const std::string default_file = dir.write("ipcd.conf", "host=x\n");
    const std::string big = dir.write("big.conf", "# " + std::string(1 << 20, 'x') + "\n");
    const std::pair<std::string, std::string> cases[] = {
        {dir.file("nope.conf"), "No such file or directory"},
        {dir.path(), "not a regular file"},
        {"/dev/zero", "not a regular file"},
        {big, "larger than 1048576 bytes"},
    };
    for (const auto& [path, reason] : cases) {
        log.clear();
        options.config_file = path;
        EXPECT_FALSE(ipcd::build_configuration(options, default_file)) << path;
        EXPECT_TRUE(log.has(logging::error, "Config file '" + path + "': " + reason)) << path;
        EXPECT_TRUE(log.has(logging::error, "Unable to open config file.")) << path;
    }
    // The default file may be missing; when it is there, it must be usable.
    options.config_file.clear();
    EXPECT_FALSE(ipcd::build_configuration(options, big));
}

}  // namespace
