#include "reconnect_policy.h"

#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <functional>

namespace ecu::kora::com {

ReconnectPolicy::ReconnectPolicy(std::uint64_t seed) : m_state(seed | 1U) {}

std::uint64_t ReconnectPolicy::seed_for(const std::string& name) {
    const auto now = static_cast<std::uint64_t>(Clock::now().time_since_epoch().count());
    return now ^ (static_cast<std::uint64_t>(getpid()) << 32U) ^ std::hash<std::string>{}(name);
}

double ReconnectPolicy::random() {
    // xorshift64*: enough to spread a fleet; nothing here is secret.
    m_state ^= m_state >> 12U;
    m_state ^= m_state << 25U;
    m_state ^= m_state >> 27U;
    const std::uint64_t mixed = m_state * 0x2545F4914F6CDD1DULL;
    return static_cast<double>(mixed >> 11U) / static_cast<double>(1ULL << 53U);
}

std::chrono::milliseconds ReconnectPolicy::delay() {
    // Growing by a quarter from the first delay, capped: gently, because an
    // attempt on a local broker costs next to nothing and a broker that has
    // been away for a second should be found well within a second of its
    // return. The jitter takes up to half away or adds as much, so the first
    // attempt comes within 0.1 s.
    const double base = std::min(
        static_cast<double>(max_delay.count()),
        static_cast<double>(first_delay.count()) * std::pow(1.25, std::min(m_attempts, 64U)));
    const double jittered =
        std::min(base * (0.5 + random()), static_cast<double>(max_delay.count()));
    return std::chrono::milliseconds(static_cast<long long>(jittered));
}

std::chrono::milliseconds ReconnectPolicy::lost() {
    connected();
    return delay();
}

ReconnectPolicy::Decision ReconnectPolicy::failed(const std::string& reason,
                                                  Clock::time_point now) {
    ++m_attempts;
    ++m_unreported;
    Decision decision{delay(), std::nullopt};
    if (!m_last_line) {
        decision.log_line = "cannot reach the broker: " + reason + "; retrying";
    } else if (now - *m_last_line >= summary_period) {
        const auto seconds =
            std::chrono::duration_cast<std::chrono::seconds>(now - *m_last_line).count();
        decision.log_line = "still cannot reach the broker after " + std::to_string(m_unreported) +
                            " more attempts in " + std::to_string(seconds) +
                            " s; last reason: " + reason;
    }
    if (decision.log_line) {
        m_last_line = now;
        m_unreported = 0;
    }
    return decision;
}

void ReconnectPolicy::connected() {
    // The next failure's line starts the count of unreported ones afresh.
    m_attempts = 0;
    m_last_line.reset();
}

}  // namespace ecu::kora::com
