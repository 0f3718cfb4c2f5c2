#pragma once

// What every tier may use: no process, no network, no FIFO, no broker.

#include <chrono>
#include <cstdint>
#include <functional>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

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

// A directory of the test's own, removed with its content at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    std::string write(const std::string& name, const std::string& content) const;  // its path
    std::string fifo(const std::string& name) const;                               // its path

private:
    std::string m_path;
};

std::string read_file(const std::string& path);  // empty when missing

// The platform's log lines as data, instead of the output mode, while it lives.
class LogCapture {
public:
    struct Line {
        int severity;
        std::string module;
        std::string text;
    };
    LogCapture();
    ~LogCapture();
    LogCapture(const LogCapture&) = delete;
    LogCapture& operator=(const LogCapture&) = delete;
    std::vector<Line> lines() const;
    std::vector<Line> find(const std::string& fragment) const;  // lines that contain it
    bool has(int severity, const std::string& text) const;      // the exact text
    bool wait_for(const std::string& fragment, std::chrono::milliseconds deadline = 10s) const {
        return wait_until([&] { return !find(fragment).empty(); }, deadline);
    }
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

}  // namespace ipcd_test
