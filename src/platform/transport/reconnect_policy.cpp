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

ReconnectPolicy::Loss ReconnectPolicy::lost(const std::string& reason, Clock::time_point now) {
    const bool quick = m_connected_at && now - *m_connected_at < stable_period;
    m_connected_at.reset();
    if (!quick) {
        m_attempts = 0;
        m_quick = 0;
        return {delay(), true, std::nullopt};
    }
    ++m_attempts;
    if (++m_quick == 1) {
        m_quick_unreported = 0;
        m_quick_line = now;
        return {delay(), true, std::nullopt};
    }
    ++m_quick_unreported;
    Loss loss{delay(), false, std::nullopt};
    if (now - m_quick_line >= summary_period) {
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now - m_quick_line);
        loss.log_line = std::to_string(m_quick_unreported) + " more losses within " +
                        std::to_string(stable_period.count()) + " s of connecting in " +
                        std::to_string(seconds.count()) + " s; last reason: " + reason;
        m_quick_unreported = 0;
        m_quick_line = now;
    }
    return loss;
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

bool ReconnectPolicy::connected(Clock::time_point now) {
    // The next failure's line starts the count of unreported ones afresh.
    // The delays start afresh only once the link has stayed up (lost()).
    m_last_line.reset();
    m_connected_at = now;
    if (m_quick == 0) {
        m_attempts = 0;
    }
    return m_quick < 2;
}

}  // namespace ecu::kora::com
