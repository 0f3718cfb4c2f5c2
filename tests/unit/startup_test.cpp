// Start-up in process: the options, the configuration file's syntax and
// check, and the layers of options over file over defaults.

#include <gtest/gtest.h>

#include <sstream>

#include "build_configuration.h"
#include "command_line.h"
#include "logging.h"
#include "support.h"

namespace ipcd = ecu::kora::ipcd;
namespace logging = ecu::kora::logging;

namespace {

int parse(std::vector<std::string> words) {
    ipcd::g_command_line = {};
    words.insert(words.begin(), "ipcd");
    std::vector<char*> argv;
    for (auto& w : words) {
        argv.push_back(w.data());
    }
    return ipcd::parse_opts(static_cast<int>(words.size()), argv.data());
}

TEST(StartUp, OptionsAndTheRtIdList) {
    ASSERT_EQ(parse({"-c", "/c", "-H", "h", "-r", "/rx", "-t", "/tx", "-s", "1,2", "-Q", "-p", "1",
                     "--port", "2", "-v", "-l", "INFO"}),
              1);
    const auto& o = ipcd::g_command_line;
    EXPECT_EQ(o.config_file + o.host + o.queue_rx + o.queue_tx + o.log_rt_signal + o.port,
              "/ch/rx/tx1,22");
    EXPECT_TRUE(o.loglevel == "INFO" && o.log_queue_size);  // INFO: the later of -v and -l
    ASSERT_EQ(parse({"-l", "INFO", "-v", "-L"}), 1);
    EXPECT_EQ(o.loglevel, "DEBUG");
    EXPECT_EQ(logging::get_log_mode(), logging::LogMode::standard_output);  // at once
    EXPECT_EQ(parse({"-x"}), 0);
    using Ids = std::set<unsigned>;
    EXPECT_EQ(ipcd::split_as<unsigned>("42,1,1,,x,7, 5,12abc,", ','), (Ids{1, 5, 7, 12, 42}));
    EXPECT_EQ(ipcd::split_as<unsigned>("99999999999,4294967295", ','), Ids{4294967295U});
}

TEST(StartUp, ConfigurationFileSyntaxAndCheck) {
    ipcd_test::LogCapture log;
    auto config = std::make_unique<ecu::kora::config::Configuration>();
    std::istringstream in(
        "# comment\n  host =  broker.local  \nqueue_rx=/dev/a=b\npassword Hunter2\n"
        "port=1000\nport=2000\n =x\n\r\n");
    EXPECT_EQ(ecu::kora::config::set_config_from_input(config, in), 2);
    EXPECT_EQ(config->get("host") + " " + config->get("queue_rx") + " " + config->get("port"),
              "broker.local /dev/a=b 2000");
    ASSERT_EQ(log.lines().size(), 2U);
    EXPECT_EQ(log.lines()[0].text, "Configuration line 4 has no '=' and is skipped");  // no secret
    EXPECT_EQ(log.lines()[1].text, "Configuration line 7 has no key before '=' and is skipped");
    config->required_keys() = {"port", "queue_rx", "client_name"};
    EXPECT_FALSE(config->verify());
    EXPECT_EQ(log.find("'client_name' has no value and no default").size(), 1U);
    config->defaults()["client_name"] = "ipcd";
    for (const char* port : {"1", "65535", "0059281"}) {
        config->values()["port"] = port;
        EXPECT_TRUE(config->verify()) << port;
    }
    for (const char* port : {"0", "65536", "80a", " 80", "00000000000065536"}) {
        config->values()["port"] = port;
        EXPECT_FALSE(config->verify()) << port;
    }
}

TEST(StartUp, OptionOverFileOverDefault) {
    ipcd_test::TempDir dir;
    ipcd_test::LogCapture log;
    ipcd::CommandLineOptions options;
    auto config = ipcd::build_configuration(options, dir.file("missing.conf"));
    ASSERT_TRUE(config);  // the default file may be missing
    EXPECT_EQ(config->get("client_name") + config->get("queue_rx") + config->get("queue_tx") +
                  config->get("host") + config->get("port"),
              "ipcd/dev/qport/telematics_kpx_receive/dev/qport/telematics_kpx_sendlocalhost1883");
    options.queue_rx = "/o/rx";
    options.host = "o";
    options.loglevel = "DEBUG";
    config = ipcd::build_configuration(
        options, dir.write("a.conf",
                           "queue_rx=/f/rx\nqueue_tx=/f/tx\nhost=f\nloglevel=INFO\n"
                           "tls_cafle=/ca.pem\nkeepalive=9\nfoo=1\n"));
    ASSERT_TRUE(config);  // a typo is loud, not fatal
    const std::string in_a = "Configuration file '" + dir.file("a.conf") + "' line ";
    EXPECT_EQ(log.find("unknown key").size(), 2U);
    EXPECT_TRUE(log.has(logging::warning, in_a + "5: unknown key 'tls_cafle' is ignored (did you "
                                                 "mean tls_cafile?)"));
    EXPECT_TRUE(log.has(logging::warning, in_a + "7: unknown key 'foo' is ignored"));
    EXPECT_EQ(config->get("queue_rx") + config->get("queue_tx") + config->get("host"),
              "/o/rx/f/txo");
    EXPECT_TRUE(log.has(logging::debug, "Setting hostname to o"));
    EXPECT_EQ(logging::get_log_level(), logging::debug);  // the option's
    logging::configure_logging("NOTICE");
    // When the default file is there, it must be usable.
    EXPECT_FALSE(
        ipcd::build_configuration(options, dir.write("big.conf", std::string((1 << 20) + 1, '#'))));
    EXPECT_TRUE(log.has(logging::error,
                        "Config file '" + dir.file("big.conf") + "': larger than 1048576 bytes"));
}

}  // namespace
