#pragma once

// When to try the broker again after the link is lost, and what to say about
// it. The first retry comes within 0.1 s (a broker that restarts is back at
// once), later ones wait longer up to a cap, each with jitter so that a fleet
// of vehicles whose broker restarted does not reconnect in step. A failure
// that persists is logged once with its reason, then summarised at most once
// a minute, so that a broker that stays away does not flood a small journal.
//
// Pure logic on a clock the caller passes in: the transport drives it from its
// network thread, tests from a table.

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace ecu::kora::com {

class ReconnectPolicy {
public:
    using Clock = std::chrono::steady_clock;

    static constexpr std::chrono::milliseconds first_delay{50};
    static constexpr std::chrono::milliseconds max_delay{3000};
    static constexpr std::chrono::seconds summary_period{60};

    // The next attempt's delay and, when something is worth saying, the line.
    struct Decision {
        std::chrono::milliseconds delay;
        std::optional<std::string> log_line;
    };

    // seed: for the jitter; tests pass a fixed one.
    explicit ReconnectPolicy(std::uint64_t seed);
    // A seed different for every process and vehicle (the clock, the pid,
    // the connection's name), so that a fleet's reconnections spread.
    static std::uint64_t seed_for(const std::string& name);

    // The link was lost (its loss is reported by whoever saw it): the delay
    // of the first attempt.
    std::chrono::milliseconds lost();
    // An attempt to reach the broker failed at now.
    Decision failed(const std::string& reason, Clock::time_point now);
    // A connection was made: the next loss starts from the first delay again
    // and is reported afresh.
    void connected();

private:
    // Uniform in [0, 1).
    double random();
    // The delay before the next attempt, after m_attempts failures.
    std::chrono::milliseconds delay();

    std::uint64_t m_state;
    unsigned m_attempts{};    // failed attempts since the last connection
    unsigned m_unreported{};  // failures not yet in a line
    std::optional<Clock::time_point> m_last_line;
};

}  // namespace ecu::kora::com
