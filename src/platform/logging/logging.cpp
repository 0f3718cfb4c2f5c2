#include "logging.h"

#include <syslog.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <map>
#include <mutex>
#include <vector>

#include "repeat_limiter.h"

namespace ecu::kora::logging {

LogStream EMERG{Severity::emerg};
LogStream ALERT{Severity::alert};
LogStream CRITICAL{Severity::critical};
LogStream ERROR{Severity::error};
LogStream WARNING{Severity::warning};
LogStream NOTICE{Severity::notice};
LogStream INFO{Severity::info};
LogStream DEBUG{Severity::debug};

namespace {

constexpr std::array<const char*, 8> g_level_names = {"EMERG",   "ALERT",  "CRITICAL", "ERROR",
                                                      "WARNING", "NOTICE", "INFO",     "DEBUG"};

// Function-local statics: modules are created during static initialisation of
// other translation units, before this file's globals could be relied upon.
struct State {
    std::mutex modules_mutex;
    std::map<std::string, std::shared_ptr<LogModule>> modules;
    std::mutex write_mutex;
    Sink sink;
    bool syslog_open = false;
    std::atomic<int> mode{static_cast<int>(LogMode::syslog)};
    std::atomic<int> level{-1};
    // WARNING and worse are the problems that can flood; NOTICE, INFO and
    // DEBUG lines are asked for by level or option and written one for one.
    RepeatLimiter repeats;
    std::vector<RepeatLimiter::Summary> due;  // reused: no allocation per line
};

// Never destroyed: threads that outlive exit()'s static destructors may still log.
State& state() {
    static State* s = new State;
    return *s;
}

int default_level() {
    const char* env = std::getenv("LOG_LEVEL");
    if (env != nullptr) {
        if (auto level = level_from_name(env)) {
            return *level;
        }
    }
    return Severity::notice;
}

thread_local const LogModule* g_active_module = nullptr;

// Writes one line to the sink or the output mode; the write lock is held.
void emit(State& s, int severity, const LogModule& module, const std::string& text) {
    if (s.sink) {
        s.sink(severity, module.name(), text);
        return;
    }
    auto mode = static_cast<LogMode>(s.mode.load(std::memory_order_relaxed));
    if (mode == LogMode::syslog) {
        if (!s.syslog_open) {
            openlog("ipcd", LOG_PID, LOG_DAEMON);
            s.syslog_open = true;
        }
        syslog(LOG_DAEMON | severity, "%s %s: %s", level_name(severity), module.name().c_str(),
               text.c_str());
        return;
    }
    timespec now{};
    clock_gettime(CLOCK_REALTIME, &now);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    char when[32];
    std::size_t n = strftime(when, sizeof when, "%Y-%m-%d %H:%M:%S", &local);
    snprintf(when + n, sizeof when - n, ".%03ld", now.tv_nsec / 1000000);
    FILE* out = mode == LogMode::standard_output ? stdout : stderr;
    // One fprintf per line and a flush at once: readers of a pipe see the line
    // as it happens.
    fprintf(out, "%s %s %s: %s\n", when, level_name(severity), module.name().c_str(), text.c_str());
    fflush(out);
}

void write_line(int severity, const LogModule& module, const std::string& text) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.write_mutex);
    const auto now = RepeatLimiter::Clock::now();
    s.due.clear();
    bool write = true;
    if (severity <= Severity::warning) {
        write = s.repeats.admit(severity, &module, text, now, s.due);
    } else {
        s.repeats.flush(now, s.due);
    }
    for (const RepeatLimiter::Summary& summary : s.due) {
        emit(s, summary.severity, *summary.module, summary.text);
    }
    if (write) {
        emit(s, severity, module, text);
    }
}

}  // namespace

std::shared_ptr<LogModule> module(const std::string& name) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.modules_mutex);
    auto& slot = s.modules[name];
    if (!slot) {
        slot = std::make_shared<LogModule>(name);
    }
    return slot;
}

void enable(const std::string& module_name, bool on) {
    module(module_name)->set_enabled(on);
}

void set_log_mode(LogMode mode) {
    state().mode.store(static_cast<int>(mode), std::memory_order_relaxed);
}

LogMode get_log_mode() {
    return static_cast<LogMode>(state().mode.load(std::memory_order_relaxed));
}

int get_log_level() {
    std::atomic<int>& level = state().level;
    int current = level.load(std::memory_order_relaxed);
    if (current < 0) {
        int expected = -1;
        level.compare_exchange_strong(expected, default_level());
        current = level.load(std::memory_order_relaxed);
    }
    return current;
}

void configure_logging(const std::string& level_name_text) {
    if (auto level = level_from_name(level_name_text)) {
        state().level.store(*level, std::memory_order_relaxed);
        return;
    }
    static const auto log = module("logging");
    WARNING << log << "Unknown log level '" << level_name_text << "', the level stays "
            << level_name(get_log_level());
}

std::string get_default_log_level_name() {
    return level_name(default_level());
}

const char* level_name(int severity) {
    if (severity < 0 || severity >= static_cast<int>(g_level_names.size())) {
        return "UNKNOWN";
    }
    return g_level_names[static_cast<std::size_t>(severity)];
}

std::optional<int> level_from_name(std::string_view name) {
    for (std::size_t i = 0; i < g_level_names.size(); ++i) {
        if (name == g_level_names[i]) {
            return static_cast<int>(i);
        }
    }
    return std::nullopt;
}

void set_sink(Sink sink) {
    State& s = state();
    std::lock_guard<std::mutex> lock(s.write_mutex);
    s.sink = std::move(sink);
    // What a new receiver gets does not depend on what was written before it.
    s.repeats.clear();
}

bool LogStream::admits(const LogModule* module) const {
    if (module == nullptr) {
        return false;
    }
    if (m_severity <= Severity::warning) {
        return true;
    }
    return m_severity <= get_log_level() && module->enabled();
}

void LogStream::do_flush(LogLine& line) {
    if (!line.m_active) {
        return;
    }
    line.m_active = false;
    g_active_module = line.m_module;
    write_line(m_severity, *line.m_module, line.m_text);
    g_active_module = nullptr;
}

LogLine::LogLine(LogStream& stream, const LogModule* module, bool active)
    : m_stream(&stream), m_module(module), m_active(active) {}

LogLine::LogLine(LogLine&& other) noexcept
    : m_stream(other.m_stream),
      m_module(other.m_module),
      m_active(other.m_active),
      m_text(std::move(other.m_text)) {
    other.m_active = false;
}

LogLine::~LogLine() {
    m_stream->do_flush(*this);
}

LogLine operator<<(LogStream& stream, const std::shared_ptr<LogModule>& module) {
    return LogLine(stream, module.get(), stream.admits(module.get()));
}

const LogModule* LogStreambuf::get_active_module() {
    return g_active_module;
}

}  // namespace ecu::kora::logging
