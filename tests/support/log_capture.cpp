#include "log_capture.h"

#include "logging.h"

namespace ipcd_test {

LogCapture::LogCapture() {
    ecu::kora::logging::set_sink(
        [this](int severity, const std::string& module, const std::string& text) {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_lines.push_back({severity, module, text});
        });
}

LogCapture::~LogCapture() {
    ecu::kora::logging::set_sink({});
}

std::vector<LogCapture::Line> LogCapture::lines() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_lines;
}

std::vector<LogCapture::Line> LogCapture::find(const std::string& fragment) const {
    std::vector<Line> found;
    for (const auto& l : lines()) {
        if (l.text.find(fragment) != std::string::npos) {
            found.push_back(l);
        }
    }
    return found;
}

bool LogCapture::has(int severity, const std::string& text) const {
    for (const auto& l : lines()) {
        if (l.severity == severity && l.text == text) {
            return true;
        }
    }
    return false;
}

bool LogCapture::wait_for(const std::string& fragment, std::chrono::milliseconds deadline) const {
    return wait_until([&] { return !find(fragment).empty(); }, deadline);
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

}  // namespace ipcd_test
