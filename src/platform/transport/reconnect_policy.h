#pragma once

// When to try the broker again after the link is lost, and what to say about
// it. The first retry comes within 0.1 s (a broker that restarts is back at
// once), later ones wait longer up to a cap, each with jitter so that a fleet
// of vehicles whose broker restarted does not reconnect in step. A failure
// that persists is logged once with its reason, then summarised at most once
// a minute, so that a broker that stays away does not flood a small journal.
// So is a link that the broker keeps closing soon after making it (another
// client of the same name takes the session over, and is taken from in
// turn): such losses are one outage, with growing delays.
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
    // A link lost sooner than this after it was made was not really up.
    static constexpr std::chrono::seconds stable_period{10};

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

    // A loss of the link: the first attempt's delay; report: the caller's
    // own line for a loss is worth writing; log_line: the summary of losses
    // soon after connecting, when one is due.
    struct Loss {
        std::chrono::milliseconds delay;
        bool report;
        std::optional<std::string> log_line;
    };

    // The link was lost at now. After a link that was up for a while the
    // first attempt comes within 0.1 s and the loss is reported; after one
    // that dropped soon the delays go on growing, and only the first such
    // loss is reported, the others summarised.
    Loss lost(const std::string& reason, Clock::time_point now);
    // An attempt to reach the broker failed at now.
    Decision failed(const std::string& reason, Clock::time_point now);
    // A connection was made at now; a failure after it is reported afresh.
    // False while the link keeps dropping: its return is not worth a line.
    bool connected(Clock::time_point now);

private:
    // Uniform in [0, 1).
    double random();
    // The delay before the next attempt, after m_attempts failures.
    std::chrono::milliseconds delay();

    std::uint64_t m_state;
    unsigned m_attempts{};    // failures (and quick losses) since the link was last up
    unsigned m_unreported{};  // failures not yet in a line
    std::optional<Clock::time_point> m_last_line;
    std::optional<Clock::time_point> m_connected_at;
    unsigned m_quick{};  // losses soon after connecting, in a row
    unsigned m_quick_unreported{};
    Clock::time_point m_quick_line;  // the last line about them
};

}  // namespace ecu::kora::com
