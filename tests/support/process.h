#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <vector>

#include "temp_dir.h"
#include "wait.h"

namespace ipcd_test {

struct ProcessOptions {
    std::vector<std::string> env;  // "NAME=value", added to or replacing the current ones
    bool pipe_input = false;       // standard input from input(); else /dev/null
};

// A child process; its output goes to files of its own. It dies with the test
// process, and its process group with the Process: a timed-out test leaves
// nothing behind.
class Process {
public:
    explicit Process(std::vector<std::string> argv, ProcessOptions options = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;
    pid_t pid() const { return m_pid; }
    // The exit status, 128 + signal, or nothing when the deadline passed.
    std::optional<int> wait(std::chrono::milliseconds deadline = 20s);
    bool running() { return !wait(0ms); }
    void signal(int sig);
    std::string out() const { return read_file(m_dir.file("out")); }
    std::string err() const { return read_file(m_dir.file("err")); }
    bool wait_out(const std::string& text, std::chrono::milliseconds deadline = 10s) const;
    bool wait_err(const std::string& text, std::chrono::milliseconds deadline = 10s) const;
    int input() const { return m_input; }
    void close_input();

private:
    TempDir m_dir;
    pid_t m_pid = -1;
    int m_input = -1;
    std::optional<int> m_status;
};

struct Outcome {
    int status;
    std::string out;
    std::string err;
};
Outcome run(const std::vector<std::string>& argv, ProcessOptions options = {});  // to its end

}  // namespace ipcd_test
