#pragma once

#include <mutex>
#include <string>
#include <vector>

#include "wait.h"

namespace ipcd_test {

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
    bool wait_for(const std::string& fragment, std::chrono::milliseconds deadline = 10s) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

}  // namespace ipcd_test
