#pragma once

// What the tests share: a private mosquitto broker on a free loopback port, a
// child process with its output collected, a temporary directory, a log
// capture, and waiting on a condition with a deadline that only fails a hung
// test.

#include <sys/types.h>

#include <chrono>
#include <condition_variable>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "logging.h"

namespace ipcd_test {

using namespace std::chrono_literals;

// Polls cond every few milliseconds until it holds or the deadline passes.
bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds deadline = 10s);

// A free TCP port on 127.0.0.1 (bound and released; a race is unlikely).
int free_port();

// A directory removed with its content at destruction.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::string& path() const { return m_path; }
    std::string file(const std::string& name) const { return m_path + "/" + name; }
    // Writes content to name and returns its path.
    std::string write(const std::string& name, const std::string& content) const;
    // Creates a FIFO and returns its path.
    std::string fifo(const std::string& name) const;

private:
    std::string m_path;
};

// A child process with its standard output and error collected by threads.
class Process {
public:
    // argv[0] is the program path. env entries "NAME=value" are added to (or
    // replace) the current environment.
    Process(std::vector<std::string> argv, std::vector<std::string> env = {});
    ~Process();  // kills the child if still running
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    pid_t pid() const { return m_pid; }
    // Waits for the exit; the exit status, or 128+signal, or nullopt on timeout.
    std::optional<int> wait(std::chrono::milliseconds deadline = 20s);
    bool running();
    void signal(int sig);
    std::string out() const;
    std::string err() const;
    // Waits until the collected stdout (or stderr) contains text.
    bool wait_out(const std::string& text, std::chrono::milliseconds deadline = 10s) const;
    bool wait_err(const std::string& text, std::chrono::milliseconds deadline = 10s) const;
    // Number of occurrences of text in stdout.
    std::size_t count_out(const std::string& text) const;

private:
    void collect(int fd, std::string& into);

    pid_t m_pid = -1;
    std::optional<int> m_status;
    mutable std::mutex m_mutex;
    mutable std::condition_variable m_cv;
    std::string m_out;
    std::string m_err;
    std::thread m_out_thread;
    std::thread m_err_thread;
};

// A mosquitto broker of our own on 127.0.0.1 and a free port, with QoS 0
// queueing unlimited so that a slow subscriber loses nothing.
class Broker {
public:
    Broker();
    ~Broker();
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;
    int port() const { return m_port; }
    // Stops it (SIGTERM, or SIGKILL when hard) and waits for the exit.
    void stop(bool hard = false);
    // Starts it again on the same port and waits until it accepts connections.
    void start();

private:
    TempDir m_dir;
    int m_port;
    std::unique_ptr<Process> m_process;
};

// Collects log lines (instead of the output mode) while it lives.
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
    // Lines whose text contains the fragment.
    std::vector<Line> find(const std::string& fragment) const;
    bool has(int severity, const std::string& text) const;  // exact text
    bool wait_for(const std::string& fragment, std::chrono::milliseconds deadline = 10s) const;
    void clear();

private:
    mutable std::mutex m_mutex;
    std::vector<Line> m_lines;
};

// Reads a whole file; empty when missing.
std::string read_file(const std::string& path);

}  // namespace ipcd_test
