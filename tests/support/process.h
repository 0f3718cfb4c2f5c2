#pragma once

// A child process with its standard output and error collected by threads.
// It is killed with the test process (and its own process group when the
// Process goes), so a test that times out leaves no broker or daemon behind.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "wait.h"

namespace ipcd_test {

struct ProcessOptions {
    // "NAME=value" entries added to (or replacing) the current environment.
    std::vector<std::string> env;
    // Standard input from a pipe (input(), close_input()); else /dev/null.
    bool pipe_input = false;
};

class Process {
public:
    using Options = ProcessOptions;

    // argv[0] is the program path.
    explicit Process(std::vector<std::string> argv, Options options = {});
    ~Process();
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    // Waits for the exit: the status, 128 + signal, or nothing on timeout.
    std::optional<int> wait(std::chrono::milliseconds deadline = 20s);
    bool running();
    void signal(int sig);
    std::string out() const;
    std::string err() const;
    // Waits until the collected stdout (or stderr) contains text.
    bool wait_out(const std::string& text, std::chrono::milliseconds deadline = 10s) const;
    bool wait_err(const std::string& text, std::chrono::milliseconds deadline = 10s) const;
    // Occurrences of text in stdout.
    std::size_t count_out(const std::string& text) const;
    int input() const { return m_input; }
    void close_input();

private:
    void collect(int fd, std::string& into);

    pid_t m_pid = -1;
    int m_input = -1;
    std::optional<int> m_status;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    std::string m_out;
    std::string m_err;
    std::thread m_out_thread;
    std::thread m_err_thread;
};

// Runs a program to its end: status, stdout, stderr.
struct Outcome {
    int status = -1;
    std::string out;
    std::string err;
};
Outcome run(const std::vector<std::string>& argv, ProcessOptions options = {},
        std::chrono::milliseconds deadline = 30s);

}  // namespace ipcd_test
