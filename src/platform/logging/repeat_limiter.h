#pragma once

// Keeps a flood of one problem from filling a small, shared journal. The
// logging service asks it about every WARNING-or-worse line it is about to
// write, under its write lock; the limiter itself takes no lock.
//
// Lines are the same when module, severity and text shape agree; the shape is
// the text with every run of digits counted as one digit, so "rt-id 7" and
// "rt-id 1234" repeat each other. The first `burst` lines of a shape within
// a window are written as they are; later ones are counted, and one summary
// line (the last text counted, then "(repeated N times in the last S s)")
// follows when the window ends. While a shape keeps repeating, every further
// window gives one summary and nothing else; a window without a repeat
// forgets the shape, so its next occurrence is written again.
//
// Summaries are handed out by the next call from any line, so nothing is
// written from a thread of the limiter's own. The table holds at most
// `capacity` shapes; the oldest one gives way (with its summary, if due).
//
// Time comes in as an argument: the service passes the steady clock, tests
// pass what they need.

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ecu::kora::logging {

class LogModule;

class RepeatLimiter {
public:
    using Clock = std::chrono::steady_clock;

    struct Summary {
        int severity;
        const LogModule* module;
        std::string text;
    };

    explicit RepeatLimiter(std::size_t burst = 10,
                           Clock::duration window = std::chrono::seconds(60),
                           std::size_t capacity = 256);

    // Whether the line is written now. Summaries due by now, of this shape or
    // any other, are appended to due first: they go out before the line.
    bool admit(int severity, const LogModule* module, std::string_view text, Clock::time_point now,
               std::vector<Summary>& due);
    // Appends the summaries due by now (for lines that are never limited).
    void flush(Clock::time_point now, std::vector<Summary>& due) {
        if (now >= m_next_due) {
            expire(now, due);
        }
    }
    // Forgets every shape and its counts.
    void clear();

private:
    struct Entry {
        int severity;
        const LogModule* module;
        Clock::time_point start;
        std::size_t written = 0;
        std::uint64_t counted = 0;
        bool limiting = false;  // over the burst once: no further burst while it repeats
        std::string last;       // the last text counted, for the summary
    };

    void expire(Clock::time_point now, std::vector<Summary>& due);
    void evict_oldest(Clock::time_point now, std::vector<Summary>& due);
    static Summary summary(const Entry& entry, Clock::time_point now);

    std::size_t m_burst;
    Clock::duration m_window;
    std::size_t m_capacity;
    std::unordered_map<std::uint64_t, Entry> m_entries;
    Clock::time_point m_next_due = Clock::time_point::max();
};

}  // namespace ecu::kora::logging
