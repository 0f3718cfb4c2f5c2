#include <gtest/gtest.h>

#include <sstream>

#include "configuration.h"
#include "logging.h"
#include "support.h"

using ecu::kora::config::Configuration;
using ecu::kora::config::set_config_from_input;
using ipcd_test::LogCapture;

namespace {

std::unique_ptr<Configuration> parse(const std::string& text) {
    auto config = std::make_unique<Configuration>();
    std::istringstream in(text);
    set_config_from_input(config, in);
    return config;
}

TEST(Configuration, FileSyntax) {
    LogCapture capture;
    auto config = parse(
        "# comment\n"
        "   # indented comment\n"
        "\n"
        "  host =  broker.local  \n"
        "queue_rx=/dev/a=b\n"
        "password Hunter2\n"
        "port=1000\n"
        "port=2000\n"
        "empty=\n"
        "\r\n");
    EXPECT_EQ(config->get("host"), "broker.local");
    EXPECT_EQ(config->get("queue_rx"), "/dev/a=b");  // the value is all after the first '='
    EXPECT_EQ(config->get("port"), "2000");          // a later line wins
    EXPECT_EQ(config->get("empty"), "");
    EXPECT_EQ(config->get("password Hunter2"), "");

    auto warnings = capture.find("line 6");
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0].severity, ecu::kora::logging::Severity::warning);
    EXPECT_EQ(warnings[0].text.find("Hunter2"), std::string::npos);  // may be a secret
    EXPECT_EQ(capture.lines().size(), 1U);
}

TEST(Configuration, ValuesOverDefaultsOverNothing) {
    auto config = parse("host=from-file\n");
    EXPECT_EQ(config->get("host"), "from-file");
    EXPECT_EQ(config->get("absent"), "");
    config->defaults()["host"] = "default-host";
    EXPECT_EQ(config->get("host"), "from-file");
    config->values().erase("host");
    EXPECT_EQ(config->get("host"), "default-host");
}

TEST(Configuration, VerifyRequiredKeysAndPort) {
    LogCapture capture;
    auto config = parse("client_name=ipcd\nport=1883\n");
    config->required_keys().insert("port");
    EXPECT_TRUE(config->verify());

    config->required_keys().insert("queue_rx");
    EXPECT_FALSE(config->verify());
    EXPECT_EQ(capture.find("'queue_rx'").size(), 1U);
    config->defaults()["queue_rx"] = "/dev/rx";
    EXPECT_TRUE(config->verify());

    for (const char* bad : {"0", "65536", "80a", "-1", " 80", "999999", "00000000000065536", ""}) {
        config->values()["port"] = bad;
        if (*bad == '\0') {
            config->values().erase("port");
            config->defaults().erase("port");
        }
        capture.clear();
        EXPECT_FALSE(config->verify()) << "port '" << bad << "'";
        EXPECT_FALSE(capture.find("port").empty()) << "port '" << bad << "'";
    }
    for (const char* good : {"1", "1883", "65535", "0059281", "01883"}) {
        config->values()["port"] = good;
        EXPECT_TRUE(config->verify()) << "port '" << good << "'";
    }
}

}  // namespace
