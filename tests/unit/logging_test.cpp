// The log filter: which lines are written, and that refused ones cost nothing.

#include <gtest/gtest.h>

#include <cstdlib>

#include "log_capture.h"
#include "logging.h"

namespace logging = ecu::kora::logging;

namespace {

// Counts how often it is formatted into a line.
struct Counted {
    static int formatted;
};
int Counted::formatted = 0;
std::ostream& operator<<(std::ostream& out, const Counted&) {
    ++Counted::formatted;
    return out << "counted";
}

TEST(Logging, LevelsModulesAndCost) {
    ipcd_test::LogCapture log;
    auto module = logging::module("test.module");
    logging::configure_logging("INFO");
    logging::INFO << module << "info passes " << 42 << ' ' << -7 << ' ' << true;
    logging::DEBUG << module << "debug refused" << Counted{};
    module->set_enabled(false);
    logging::INFO << module << "disabled info refused" << Counted{};
    logging::WARNING << module << "warning passes a disabled module";
    logging::configure_logging("EMERG");
    logging::ERROR << module << "error passes any level";
    logging::EMERG << std::shared_ptr<logging::LogModule>() << "no module" << Counted{};
    module->set_enabled(true);
    std::vector<std::string> texts;
    for (const auto& line : log.lines()) {
        texts.push_back(line.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"info passes 42 -7 true",
                                               "warning passes a disabled module",
                                               "error passes any level"}));
    EXPECT_EQ(Counted::formatted, 0);  // refused lines format nothing

    log.clear();
    logging::configure_logging("debug");  // names are case-sensitive
    EXPECT_EQ(logging::get_log_level(), logging::emerg);
    EXPECT_EQ(log.find("Unknown log level 'debug'").size(), 1U);
    logging::configure_logging("NOTICE");

    setenv("LOG_LEVEL", "INFO", 1);
    EXPECT_EQ(logging::get_default_log_level_name(), "INFO");
    setenv("LOG_LEVEL", "LOUD", 1);
    EXPECT_EQ(logging::get_default_log_level_name(), "NOTICE");
    unsetenv("LOG_LEVEL");
}

}  // namespace
