#pragma once

// Named log modules, eight syslog levels and three output modes.
//
// A line is written as
//     logging::INFO << g_log << "text " << 42;
// The expression opens a LogLine on the severity's stream; the line is ended
// (LogStream::do_flush) when the statement ends. Whether the line is written is
// decided once, when it is opened, so a refused NOTICE, INFO or DEBUG line
// formats none of its insertions. Safe from any thread: a line is built in its
// own buffer and written in one piece under a lock.
//
// A WARNING-or-worse line that repeats (same module, severity and text but
// for its numbers) more than ten times within a minute is counted instead of
// written, and one summary line per minute says how often it came
// (repeat_limiter.h). NOTICE, INFO and DEBUG lines are always written.

#include <atomic>
#include <charconv>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>

namespace ecu::kora::logging {

enum class LogMode : int { syslog = 0, standard_output = 1, standard_error = 2 };

// Severity numbers as in the system log.
enum Severity : int {
    emerg = 0,
    alert = 1,
    critical = 2,
    error = 3,
    warning = 4,
    notice = 5,
    info = 6,
    debug = 7,
};

class LogModule {
public:
    explicit LogModule(std::string name) : m_name(std::move(name)) {}
    const std::string& name() const { return m_name; }
    bool enabled() const { return m_enabled.load(std::memory_order_relaxed); }
    void set_enabled(bool on) { m_enabled.store(on, std::memory_order_relaxed); }

private:
    std::string m_name;
    // Modules are enabled when created; enable() switches them.
    std::atomic<bool> m_enabled{true};
};

// The module of that name, created on first use; the same object afterwards.
std::shared_ptr<LogModule> module(const std::string& name);
// Switches a module on or off (creating it if needed).
void enable(const std::string& module_name, bool on);

void set_log_mode(LogMode mode);
LogMode get_log_mode();

// Sets the level by name ("EMERG" ... "DEBUG"). An unknown name is reported at
// WARNING and leaves the level as it is.
void configure_logging(const std::string& level_name);
int get_log_level();
// The level named by LOG_LEVEL when that is a valid name, else "NOTICE".
std::string get_default_log_level_name();

// "EMERG" ... "DEBUG"; "UNKNOWN" out of range.
const char* level_name(int severity);
std::optional<int> level_from_name(std::string_view name);

// Receives every written line instead of the output mode while set; for tools
// and tests that need the log as data. Pass an empty function to clear.
// Either starts the repeat counts afresh.
using Sink = std::function<void(int severity, const std::string& module, const std::string& text)>;
void set_sink(Sink sink);

class LogStream;

// One line under construction. Insertions are formatted only when the line was
// admitted when it was opened.
class LogLine {
public:
    LogLine(LogStream& stream, const LogModule* module, bool active);
    LogLine(const LogLine&) = delete;
    LogLine& operator=(const LogLine&) = delete;
    LogLine(LogLine&& other) noexcept;
    LogLine& operator=(LogLine&&) = delete;
    ~LogLine();

    bool active() const { return m_active; }

    template <typename T>
    LogLine& operator<<(const T& value) {
        if (m_active) {
            append(value);
        }
        return *this;
    }

private:
    friend class LogStream;

    void append(std::string_view text) { m_text.append(text); }
    void append(const std::string& text) { m_text.append(text); }
    void append(const char* text) { m_text.append(text != nullptr ? text : "(null)"); }
    void append(char c) { m_text.push_back(c); }
    void append(bool b) { m_text.append(b ? "true" : "false"); }
    template <typename T>
    void append(const T& value) {
        if constexpr (std::is_integral_v<T>) {
            char buf[24];
            auto res = std::to_chars(buf, buf + sizeof buf, value);
            m_text.append(buf, res.ptr);
        } else if constexpr (std::is_enum_v<T>) {
            append(static_cast<std::underlying_type_t<T>>(value));
        } else {
            std::ostringstream out;
            out << value;
            m_text.append(out.str());
        }
    }

    LogStream* m_stream;
    const LogModule* m_module;
    bool m_active;
    std::string m_text;
};

// The stream of one severity. Stateless apart from its severity: the text of a
// line lives in its LogLine, so threads never share a buffer.
class LogStream {
public:
    explicit constexpr LogStream(int severity) : m_severity(severity) {}
    int severity() const { return m_severity; }
    // Whether a line on this stream for the module would be written.
    bool admits(const LogModule* module) const;
    // Ends a line: writes its text (if admitted) as one piece.
    void do_flush(LogLine& line);

private:
    int m_severity;
};

LogLine operator<<(LogStream& stream, const std::shared_ptr<LogModule>& module);

// The module of the line being written on this thread (nullptr outside do_flush).
struct LogStreambuf {
    static const LogModule* get_active_module();
};

extern LogStream EMERG;
extern LogStream ALERT;
extern LogStream CRITICAL;
extern LogStream ERROR;
extern LogStream WARNING;
extern LogStream NOTICE;
extern LogStream INFO;
extern LogStream DEBUG;

}  // namespace ecu::kora::logging
