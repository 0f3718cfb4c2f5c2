#pragma once

// What every tier may use: no process, no network, no broker.

#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "logging.h"

namespace ipcd_test {

using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

// Polls cond until it holds or the deadline (which only fails a hung test) passes.
inline bool wait_until(const std::function<bool()>& cond,
                       std::chrono::milliseconds deadline = 10s) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (; !cond(); std::this_thread::sleep_for(5ms)) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
    }
    return true;
}

// How often fragment occurs in text (a log, a tool's output).
inline std::size_t count_of(const std::string& text, const std::string& fragment) {
    std::size_t n = 0;
    for (auto at = text.find(fragment); at != std::string::npos; at = text.find(fragment, at + 1)) {
        ++n;
    }
    return n;
}

inline std::string read_file(const std::string& path) {  // empty when missing
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

// A directory of the test's own, removed with its content at destruction.
class TempDir {
public:
    TempDir() : m_path((std::filesystem::temp_directory_path() / "ipcd-test-XXXXXX").string()) {
        if (mkdtemp(m_path.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed");
        }
    }
    ~TempDir() {
        std::error_code ec;
        std::filesystem::remove_all(m_path, ec);
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const {  // its path
        std::ofstream(file(name), std::ios::binary) << content;
        return file(name);
    }
    std::string fifo(const std::string& name) const {  // its path
        if (mkfifo(file(name).c_str(), 0600) != 0) {
            throw std::runtime_error("mkfifo failed: " + file(name));
        }
        return file(name);
    }

private:
    std::string m_path;
};

// The platform's log lines as data, instead of the output mode, while it lives.
class LogCapture {
public:
    struct Line {
        int severity;
        std::string module;
        std::string text;
    };
    LogCapture() {
        ecu::kora::logging::set_sink(
            [this](int severity, const std::string& module, const std::string& text) {
                std::lock_guard<std::mutex> lock(m_mutex);
                m_lines.push_back({severity, module, text});
            });
    }
    ~LogCapture() { ecu::kora::logging::set_sink({}); }
    std::vector<Line> lines() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lines;
    }
    std::vector<Line> find(const std::string& fragment) const {  // lines that contain it
        std::vector<Line> found = lines();
        found.erase(std::remove_if(
                        found.begin(), found.end(),
                        [&](const Line& l) { return l.text.find(fragment) == std::string::npos; }),
                    found.end());
        return found;
    }
    bool has(int severity, const std::string& text) const {  // the exact text
        const auto all = lines();
        return std::any_of(all.begin(), all.end(),
                           [&](const Line& l) { return l.severity == severity && l.text == text; });
    }
    bool wait_for(const std::string& fragment, std::chrono::milliseconds deadline = 10s) const {
        return wait_until([&] { return !find(fragment).empty(); }, deadline);
    }
    void clear() {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.clear();
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

}  // namespace ipcd_test
