// The repeat limiter on a clock of the test's own, and the logging service
// that applies it to every module.

#include <gtest/gtest.h>

#include "logging.h"
#include "repeat_limiter.h"
#include "support.h"

namespace logging = ecu::kora::logging;
using logging::RepeatLimiter;
using namespace ipcd_test;

namespace {

// A limiter on a clock that moves only when told; what it would write, in order.
struct Journal {
    RepeatLimiter limiter{10, 60s, 4};
    RepeatLimiter::Clock::time_point now{};
    std::vector<RepeatLimiter::Summary> due;
    std::vector<std::string> written;

    void line(const std::string& text, int severity = logging::error,
              const logging::LogModule* module = nullptr) {
        const bool write = limiter.admit(severity, module, text, now, due);
        take();
        if (write) {
            written.push_back(text);
        }
    }
    void later(std::chrono::milliseconds step) {  // and then a line that is never limited
        limiter.flush(now += step, due);
        take();
    }
    void take() {
        for (const auto& s : due) {
            written.push_back(s.text);
        }
        due.clear();
    }
};

TEST(RepeatLimiter, AFewFaultsAsTheyComeAFloodAsOneLineAMinute) {
    Journal j;
    for (int i = 1; i <= 10000; ++i) {  // numbers differ, the shape is the same
        j.line("Unable to find rt-id " + std::to_string(i));
        j.later(5ms);
        if (i == 10) {  // a handful: each as it came, and none is summed up later
            j.later(5min);
            EXPECT_EQ(j.written.size(), 10U);
            j.written.clear();
        }
    }
    ASSERT_EQ(j.written.size(), 10U);
    EXPECT_EQ(j.written.back(), "Unable to find rt-id 20");
    j.later(10050ms);  // 60 s after the 11th: the next line from anywhere brings the summary
    ASSERT_EQ(j.written.size(), 11U);
    EXPECT_EQ(j.written.back(),
              "Unable to find rt-id 10000 (repeated 9,980 times in the last 60 s)");

    // Still repeating: no new burst, one summary a minute.
    for (int i = 0; i < 100; ++i) {
        j.line("Unable to find rt-id 77");
        j.later(1s);
    }
    EXPECT_EQ(j.written.size(), 12U);
    EXPECT_EQ(j.written.back(), "Unable to find rt-id 77 (repeated 60 times in the last 60 s)");
    j.later(5min);  // the last 40 are summed up late, with the true span
    EXPECT_EQ(j.written.back(), "Unable to find rt-id 77 (repeated 40 times in the last 340 s)");
    j.later(2min);  // a quiet window: forgotten, so the next one is written again
    j.line("Unable to find rt-id 5");
    EXPECT_EQ(j.written.back(), "Unable to find rt-id 5");
    EXPECT_EQ(j.written.size(), 14U);
}

TEST(RepeatLimiter, ModuleSeverityAndShapeSeparateLinesAndTheTableStaysSmall) {
    Journal j;
    const logging::LogModule a("a");
    const logging::LogModule b("b");
    const std::vector<std::tuple<std::string, int, const logging::LogModule*>> kinds = {
        {"lost: 3", logging::error, &a},
        {"lost: 3", logging::warning, &a},
        {"lost: 3", logging::error, &b},
        {"lost 3", logging::error, &a},
    };
    for (const auto& [text, severity, module] : kinds) {
        for (int i = 0; i < 30; ++i) {
            j.line(text, severity, module);
        }
        j.later(1s);
    }
    EXPECT_EQ(j.written.size(), 40U);  // ten of each

    // A fifth shape in a table of four: the oldest gives way with its count.
    j.line("something else");
    EXPECT_EQ(j.written.size(), 42U);
    EXPECT_EQ(j.written[40], "lost: 3 (repeated 20 times in the last 4 s)");
    EXPECT_EQ(j.written[41], "something else");
}

TEST(Logging, EveryModuleIsLimitedAboveNoticeOnly) {
    LogCapture log;
    const auto module = logging::module("limited");
    for (int i = 0; i < 25; ++i) {
        logging::ERROR << module << "record " << i << " damaged";
        logging::NOTICE << module << "record " << i << " relayed";
    }
    EXPECT_EQ(log.find("damaged").size(), 10U);
    EXPECT_EQ(log.find("relayed").size(), 25U);
    LogCapture again;  // a new receiver starts afresh
    logging::ERROR << module << "record 1 damaged";
    EXPECT_EQ(again.find("damaged").size(), 1U);
}

}  // namespace
