#include <gtest/gtest.h>

#include <cstdlib>
#include <thread>

#include "logging.h"
#include "support.h"

namespace logging = ecu::kora::logging;
using ipcd_test::LogCapture;

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

class LoggingTest : public ::testing::Test {
protected:
    void SetUp() override {
        logging::configure_logging("NOTICE");
        module->set_enabled(true);
        Counted::formatted = 0;
    }
    void TearDown() override { logging::configure_logging("NOTICE"); }
    std::shared_ptr<logging::LogModule> module = logging::module("test.module");
    LogCapture capture;
};

TEST_F(LoggingTest, LevelBoundariesAndDisabledModule) {
    logging::configure_logging("INFO");
    logging::INFO << module << "info passes";
    logging::DEBUG << module << "debug refused";
    module->set_enabled(false);
    logging::INFO << module << "disabled info refused";
    logging::WARNING << module << "warning passes a disabled module";
    logging::EMERG << module << "emerg passes a disabled module";
    logging::configure_logging("EMERG");
    logging::ERROR << module << "error passes any level";

    std::vector<std::string> texts;
    for (const auto& line : capture.lines()) {
        texts.push_back(line.text);
    }
    EXPECT_EQ(texts, (std::vector<std::string>{"info passes", "warning passes a disabled module",
                                               "emerg passes a disabled module",
                                               "error passes any level"}));
    EXPECT_TRUE(capture.has(logging::Severity::emerg, "emerg passes a disabled module"));
}

TEST_F(LoggingTest, RefusedLinesFormatNothing) {
    logging::INFO << module << "value " << Counted{} << 42;
    logging::DEBUG << module << Counted{};
    logging::configure_logging("DEBUG");
    module->set_enabled(false);
    logging::DEBUG << module << Counted{};
    EXPECT_EQ(Counted::formatted, 0);
    EXPECT_TRUE(capture.lines().empty());

    module->set_enabled(true);
    logging::DEBUG << module << "value " << Counted{} << ' ' << 42 << ' ' << -7 << ' ' << true;
    EXPECT_EQ(Counted::formatted, 1);
    EXPECT_TRUE(capture.has(logging::Severity::debug, "value counted 42 -7 true"));
}

TEST_F(LoggingTest, EmptyModuleWritesNothing) {
    std::shared_ptr<logging::LogModule> none;
    logging::EMERG << none << Counted{};
    EXPECT_EQ(Counted::formatted, 0);
    EXPECT_TRUE(capture.lines().empty());
}

TEST_F(LoggingTest, LevelNamesAndUnknownName) {
    logging::configure_logging("DEBUG");
    EXPECT_EQ(logging::get_log_level(), 7);
    logging::configure_logging("debug");  // names are case-sensitive
    EXPECT_EQ(logging::get_log_level(), 7);
    auto warnings = capture.find("debug");
    ASSERT_EQ(warnings.size(), 1U);
    EXPECT_EQ(warnings[0].severity, logging::Severity::warning);
    logging::configure_logging("CRITICAL");
    EXPECT_EQ(logging::get_log_level(), 2);
}

TEST_F(LoggingTest, DefaultLevelFollowsLogLevelVariable) {
    setenv("LOG_LEVEL", "INFO", 1);
    EXPECT_EQ(logging::get_default_log_level_name(), "INFO");
    setenv("LOG_LEVEL", "LOUD", 1);
    EXPECT_EQ(logging::get_default_log_level_name(), "NOTICE");
    unsetenv("LOG_LEVEL");
    EXPECT_EQ(logging::get_default_log_level_name(), "NOTICE");
}

TEST_F(LoggingTest, LinesFromThreadsStayWhole) {
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([this, t] {
            for (int i = 0; i < 500; ++i) {
                logging::WARNING << module << "thread " << t << " line " << i << " end";
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    auto lines = capture.lines();
    ASSERT_EQ(lines.size(), 2000U);
    for (const auto& line : lines) {
        EXPECT_EQ(line.text.rfind("thread ", 0), 0U);
        EXPECT_EQ(line.text.substr(line.text.size() - 4), " end");
    }
}

}  // namespace
