// A long run at 5,000 records per second: nothing lost, and the daemon's
// resident memory flat after warm-up. IPCD_SOAK_SECONDS sets the length
// (default 120).

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <fstream>

#include "fault_support.h"

using namespace ipcd_test;

namespace {

constexpr std::uint32_t g_gear = 21;
constexpr unsigned g_rate = 5000;

// VmRSS of the process in kB; 0 when unreadable.
long resident_kb(pid_t pid) {
    std::ifstream status("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::strtol(line.c_str() + 6, nullptr, 10);
        }
    }
    return 0;
}

unsigned soak_seconds() {
    const char* text = std::getenv("IPCD_SOAK_SECONDS");
    long value = text != nullptr ? std::strtol(text, nullptr, 10) : 0;
    return value > 0 ? static_cast<unsigned>(value) : 120U;
}

TEST(Soak, FiveThousandRecordsPerSecondLoseNothingAndKeepMemoryFlat) {
    const unsigned seconds = soak_seconds();
    const unsigned warm_up = std::max(1U, seconds / 5);
    Broker broker;
    auto collector = std::make_shared<SeqCollector>();
    SeqSubscriber subscriber(broker.port(), "rt/vehicle/gear", collector);
    Daemon daemon(broker.port());
    start_relaying(daemon, broker.port(), "rt/vehicle/gear");
    const pid_t pid = daemon.process().pid();

    RecordStream stream(daemon, g_gear, g_rate, g_rate * seconds);
    std::vector<long> samples;
    // One sample a second for the whole run; the sampling cadence, not a wait
    // for a result.
    for (unsigned s = 0; s < seconds; ++s) {
        std::this_thread::sleep_for(1s);
        samples.push_back(resident_kb(pid));
        ASSERT_TRUE(daemon.process().running()) << daemon.process().out();
    }
    const std::uint32_t total = g_rate * seconds;
    ASSERT_TRUE(wait_until([&] { return stream.written() >= total; }, 60s))
        << stream.written() << " of " << total << " written";
    stream.stop();
    EXPECT_TRUE(wait_until([&] { return collector->distinct() >= total; }, 60s));

    const long baseline = samples[warm_up - 1];
    const long peak = *std::max_element(samples.begin() + warm_up, samples.end());
    const std::size_t lost = collector->missing_below(total);
    std::cout << "[ figures ] soak " << seconds << " s at " << g_rate << "/s: " << total
              << " records, " << lost << " lost; VmRSS kB at start " << samples.front()
              << ", after warm-up (" << warm_up << " s) " << baseline << ", max after " << peak
              << ", end " << samples.back() << "\n";
    EXPECT_EQ(lost, 0U);
    EXPECT_LE(peak - baseline, 1024) << "resident memory grew after warm-up";
}

}  // namespace
