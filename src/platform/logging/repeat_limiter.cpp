#include "repeat_limiter.h"

#include <algorithm>

namespace ecu::kora::logging {

namespace {

// FNV-1a over module, severity and the text with digit runs folded: one pass,
// no allocation, for every line the limiter sees.
std::uint64_t shape_key(int severity, const LogModule* module, std::string_view text) {
    constexpr std::uint64_t prime = 1099511628211ULL;
    std::uint64_t hash = 14695981039346656037ULL;
    auto mix = [&](std::uint64_t byte) { hash = (hash ^ byte) * prime; };
    const auto where = reinterpret_cast<std::uintptr_t>(module);
    for (unsigned shift = 0; shift < sizeof where * 8; shift += 8) {
        mix((where >> shift) & 0xff);
    }
    mix(static_cast<std::uint64_t>(severity) & 0xff);
    bool in_digits = false;
    for (const char c : text) {
        const bool digit = c >= '0' && c <= '9';
        if (!digit || !in_digits) {
            mix(digit ? '0' : static_cast<unsigned char>(c));
        }
        in_digits = digit;
    }
    return hash;
}

// 9998 as "9,998": the figure is read by people scanning a journal.
std::string grouped(std::uint64_t n) {
    std::string digits = std::to_string(n);
    for (auto at = static_cast<std::ptrdiff_t>(digits.size()) - 3; at > 0; at -= 3) {
        digits.insert(static_cast<std::size_t>(at), 1, ',');
    }
    return digits;
}

}  // namespace

RepeatLimiter::RepeatLimiter(std::size_t burst, Clock::duration window, std::size_t capacity)
    : m_burst(burst), m_window(window), m_capacity(std::max<std::size_t>(capacity, 1)) {}

bool RepeatLimiter::admit(int severity, const LogModule* module, std::string_view text,
                          Clock::time_point now, std::vector<Summary>& due) {
    flush(now, due);
    const std::uint64_t key = shape_key(severity, module, text);
    auto it = m_entries.find(key);
    if (it == m_entries.end()) {
        if (m_entries.size() >= m_capacity) {
            evict_oldest(now, due);
        }
        m_entries.emplace(key, Entry{severity, module, now, 1, 0, false, {}});
        m_next_due = std::min(m_next_due, now + m_window);
        return true;
    }
    Entry& entry = it->second;
    if (!entry.limiting && entry.written < m_burst) {
        ++entry.written;
        return true;
    }
    entry.limiting = true;
    ++entry.counted;
    entry.last.assign(text);
    return false;
}

void RepeatLimiter::clear() {
    m_entries.clear();
    m_next_due = Clock::time_point::max();
}

void RepeatLimiter::expire(Clock::time_point now, std::vector<Summary>& due) {
    m_next_due = Clock::time_point::max();
    for (auto it = m_entries.begin(); it != m_entries.end();) {
        Entry& entry = it->second;
        if (now - entry.start < m_window) {
            m_next_due = std::min(m_next_due, entry.start + m_window);
            ++it;
        } else if (entry.counted > 0) {
            // Still repeating: one summary, and the next window counts from here.
            due.push_back(summary(entry, now));
            entry.start = now;
            entry.counted = 0;
            m_next_due = std::min(m_next_due, now + m_window);
            ++it;
        } else {
            it = m_entries.erase(it);
        }
    }
}

void RepeatLimiter::evict_oldest(Clock::time_point now, std::vector<Summary>& due) {
    auto oldest = std::min_element(
        m_entries.begin(), m_entries.end(),
        [](const auto& a, const auto& b) { return a.second.start < b.second.start; });
    if (oldest->second.counted > 0) {
        due.push_back(summary(oldest->second, now));
    }
    m_entries.erase(oldest);
}

RepeatLimiter::Summary RepeatLimiter::summary(const Entry& entry, Clock::time_point now) {
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(
        now - entry.start + std::chrono::milliseconds(500));
    return {entry.severity, entry.module,
            entry.last + " (repeated " + grouped(entry.counted) + " times in the last " +
                std::to_string(std::max<std::int64_t>(seconds.count(), 1)) + " s)"};
}

}  // namespace ecu::kora::logging
