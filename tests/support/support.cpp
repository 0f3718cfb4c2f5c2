#include "support.h"

#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "logging.h"

namespace ipcd_test {

TempDir::TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ipcd-test-XXXXXX").string();
    if (mkdtemp(pattern.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    std::ofstream(file(name), std::ios::binary) << content;
    return file(name);
}

std::string TempDir::fifo(const std::string& name) const {
    if (mkfifo(file(name).c_str(), 0600) != 0) {
        throw std::runtime_error("mkfifo failed: " + file(name));
    }
    return file(name);
}

std::string read_file(const std::string& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

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
    const auto all = lines();
    return std::any_of(all.begin(), all.end(),
                       [&](const Line& l) { return l.severity == severity && l.text == text; });
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

}  // namespace ipcd_test
