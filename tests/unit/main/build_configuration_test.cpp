#include <gtest/gtest.h>

#include <initializer_list>

#include "build_configuration.h"
#include "command_line.h"
#include "logging.h"
#include "support.h"

namespace ipcd = ecu::kora::ipcd;
namespace logging = ecu::kora::logging;
using ipcd_test::LogCapture;
using ipcd_test::TempDir;

namespace {

using Ids = std::set<unsigned>;

TEST(SplitAs, ReadsWhatStreamExtractionReads) {
    EXPECT_EQ(ipcd::split_as<unsigned>("1,3,4,42", ','), (Ids{1, 3, 4, 42}));
    EXPECT_EQ(ipcd::split_as<unsigned>("42,1,1", ','), (Ids{1, 42}));
    EXPECT_EQ(ipcd::split_as<unsigned>("1,,x,7", ','), (Ids{1, 7}));
    EXPECT_EQ(ipcd::split_as<unsigned>(" 5", ','), (Ids{5}));
    EXPECT_EQ(ipcd::split_as<unsigned>("12abc", ','), (Ids{12}));
    EXPECT_EQ(ipcd::split_as<unsigned>("", ','), Ids{});
    EXPECT_EQ(ipcd::split_as<unsigned>("7,", ','), (Ids{7}));
    EXPECT_EQ(ipcd::split_as<unsigned>("99999999999,3", ','), (Ids{3}));  // beyond range
    EXPECT_EQ(ipcd::split_as<unsigned>("4294967295", ','), (Ids{4294967295U}));
}

// Runs parse_opts on a fresh record with the given words after "ipcd".
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

TEST(ParseOpts, LaterOptionsWin) {
    ASSERT_EQ(parse({"-v", "-l", "INFO"}), 1);
    EXPECT_EQ(ipcd::g_command_line.loglevel, "INFO");
    ASSERT_EQ(parse({"-l", "INFO", "-v"}), 1);
    EXPECT_EQ(ipcd::g_command_line.loglevel, "DEBUG");
    ASSERT_EQ(parse({"-p", "1000", "--port", "2000"}), 1);
    EXPECT_EQ(ipcd::g_command_line.port, "2000");
}

TEST(ParseOpts, EveryOptionReachesItsField) {
    ASSERT_EQ(parse({"--config", "/c", "-H", "h", "-r", "/rx", "--queue-tx", "/tx", "-s", "1,2",
                     "--log-queue-size"}),
              1);
    const auto& o = ipcd::g_command_line;
    EXPECT_EQ(o.config_file, "/c");
    EXPECT_EQ(o.host, "h");
    EXPECT_EQ(o.queue_rx, "/rx");
    EXPECT_EQ(o.queue_tx, "/tx");
    EXPECT_EQ(o.log_rt_signal, "1,2");
    EXPECT_TRUE(o.log_queue_size);
    EXPECT_FALSE(o.log_stdout);

    ASSERT_EQ(parse({"-L"}), 1);
    EXPECT_TRUE(ipcd::g_command_line.log_stdout);
    EXPECT_EQ(logging::get_log_mode(), logging::LogMode::standard_output);
    logging::set_log_mode(logging::LogMode::standard_error);
}

class BuildConfiguration : public ::testing::Test {
protected:
    void TearDown() override {
        logging::configure_logging("NOTICE");
        logging::set_log_mode(logging::LogMode::standard_error);
    }
    TempDir dir;
    LogCapture capture;
    ipcd::CommandLineOptions options;
};

TEST_F(BuildConfiguration, NoFileAnywhereGivesTheDefaults) {
    auto config = ipcd::build_configuration(options, dir.file("missing.conf"));
    ASSERT_TRUE(config);
    EXPECT_EQ(config->get("client_name"), "ipcd");
    EXPECT_EQ(config->get("queue_rx"), "/dev/qport/telematics_kpx_receive");
    EXPECT_EQ(config->get("queue_tx"), "/dev/qport/telematics_kpx_send");
    EXPECT_EQ(config->get("host"), "localhost");
    EXPECT_EQ(config->get("port"), "1883");
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(BuildConfiguration, OptionOverFileOverDefault) {
    std::string file = dir.write("ipcd.conf",
                                 "queue_rx=/file/rx\nqueue_tx=/file/tx\nhost=file-host\n"
                                 "port=1111\nclient_name=car\n");
    auto config = ipcd::build_configuration(options, file);
    ASSERT_TRUE(config);
    EXPECT_EQ(config->get("queue_rx"), "/file/rx");
    EXPECT_EQ(config->get("client_name"), "car");

    logging::configure_logging("DEBUG");
    options.queue_rx = "/option/rx";
    options.host = "option-host";
    options.port = "2222";
    config = ipcd::build_configuration(options, file);
    ASSERT_TRUE(config);
    EXPECT_EQ(config->get("queue_rx"), "/option/rx");
    EXPECT_EQ(config->get("queue_tx"), "/file/tx");
    EXPECT_EQ(config->get("host"), "option-host");
    EXPECT_EQ(config->get("port"), "2222");
    EXPECT_TRUE(capture.has(logging::Severity::debug, "Setting hostname to option-host"));
    EXPECT_TRUE(capture.has(logging::Severity::debug, "Setting port to 2222"));
}

TEST_F(BuildConfiguration, NamedFileMustBeARegularFileOfSaneSize) {
    std::string default_file = dir.write("ipcd.conf", "host=x\n");
    const std::string big = dir.write("big.conf", "# " + std::string(1 << 20, 'x') + "\n");
    const std::vector<std::pair<std::string, std::string>> cases = {
        {dir.file("nope.conf"), "No such file or directory"},
        {dir.path(), "not a regular file"},
        {"/dev/zero", "not a regular file"},
        {big, "larger than 1048576 bytes"},
    };
    for (const auto& [path, reason] : cases) {
        capture.clear();
        options.config_file = path;
        EXPECT_FALSE(ipcd::build_configuration(options, default_file)) << path;
        EXPECT_TRUE(capture.has(logging::Severity::error, "Unable to open config file.")) << path;
        EXPECT_TRUE(capture.has(logging::Severity::error, "Config file '" + path + "': " + reason))
            << path;
    }
    // The default file may be missing; when it is there, it must be usable too.
    options.config_file.clear();
    EXPECT_TRUE(ipcd::build_configuration(options, dir.file("nope.conf")));
    EXPECT_FALSE(ipcd::build_configuration(options, big));
}

TEST_F(BuildConfiguration, LogModeAndLevelLayers) {
    options.config_file = dir.write("a.conf", "logmode=STDOUT\nloglevel=INFO\n");
    logging::set_log_mode(logging::LogMode::standard_error);
    ASSERT_TRUE(ipcd::build_configuration(options));
    EXPECT_TRUE(
        capture.has(logging::Severity::notice, "logmode from config 'STDOUT' not recognized"));
    EXPECT_EQ(logging::get_log_mode(), logging::LogMode::standard_error);
    EXPECT_EQ(logging::get_log_level(), logging::Severity::info);

    options.loglevel = "DEBUG";  // as -v leaves it
    options.config_file = dir.write("b.conf", "logmode=stdout\nloglevel=INFO\n");
    ASSERT_TRUE(ipcd::build_configuration(options));
    EXPECT_EQ(logging::get_log_mode(), logging::LogMode::standard_output);
    EXPECT_EQ(logging::get_log_level(), logging::Severity::debug);

    // With -L the file's mode is ignored without a word.
    capture.clear();
    options.log_stdout = true;
    options.config_file = dir.write("c.conf", "logmode=bogus\n");
    ASSERT_TRUE(ipcd::build_configuration(options));
    EXPECT_TRUE(capture.find("logmode").empty());
}

TEST_F(BuildConfiguration, VerifyFailureEndsStartUp) {
    options.port = "http";
    EXPECT_FALSE(ipcd::build_configuration(options, dir.file("none")));
    options.port = "65536";
    EXPECT_FALSE(ipcd::build_configuration(options, dir.file("none")));
    options.port = "65535";
    EXPECT_TRUE(ipcd::build_configuration(options, dir.file("none")));
}

}  // namespace
