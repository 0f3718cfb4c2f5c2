#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <stdexcept>

extern char** environ;

namespace ipcd_test {

Process::Process(std::vector<std::string> argv, Options options) {
    int out[2];
    int err[2];
    int in[2] = {-1, -1};
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0 ||
        (options.pipe_input && pipe2(in, O_CLOEXEC) != 0)) {
        throw std::runtime_error("pipe failed");
    }
    // Everything is built before fork: only async-signal-safe calls after it.
    std::map<std::string, std::string> vars;
    for (char** e = environ; *e != nullptr; ++e) {
        const std::string s(*e);
        vars[s.substr(0, s.find('='))] = s;
    }
    for (const auto& e : options.env) {
        vars[e.substr(0, e.find('='))] = e;
    }
    std::vector<std::string> env_strings;
    for (auto& [name, entry] : vars) {
        env_strings.push_back(entry);
    }
    std::vector<char*> cargv;
    for (auto& a : argv) {
        cargv.push_back(a.data());
    }
    cargv.push_back(nullptr);
    std::vector<char*> cenv;
    for (auto& e : env_strings) {
        cenv.push_back(e.data());
    }
    cenv.push_back(nullptr);
    const pid_t parent = getpid();

    m_pid = fork();
    if (m_pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);  // the test is already gone
        }
        dup2(out[1], 1);
        dup2(err[1], 2);
        if (in[0] >= 0) {
            dup2(in[0], 0);
        } else {
            const int devnull = open("/dev/null", O_RDONLY);
            dup2(devnull, 0);
        }
        // A group of its own, so that a kill reaches what the child starts.
        setpgid(0, 0);
        execve(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    if (in[0] >= 0) {
        close(in[0]);
        m_input = in[1];
    }
    m_out_thread = std::thread([this, fd = out[0]] { collect(fd, m_out); });
    m_err_thread = std::thread([this, fd = err[0]] { collect(fd, m_err); });
}

Process::~Process() {
    close_input();
    if (running()) {
        kill(-m_pid, SIGKILL);
        kill(m_pid, SIGKILL);
        wait(5s);
    }
    if (m_out_thread.joinable()) {
        m_out_thread.join();
    }
    if (m_err_thread.joinable()) {
        m_err_thread.join();
    }
}

void Process::close_input() {
    if (m_input >= 0) {
        close(m_input);
        m_input = -1;
    }
}

void Process::collect(int fd, std::string& into) {
    char buf[4096];
    for (;;) {
        const ssize_t n = read(fd, buf, sizeof buf);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            break;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        into.append(buf, static_cast<std::size_t>(n));
        m_cv.notify_all();
    }
    close(fd);
}

std::optional<int> Process::wait(std::chrono::milliseconds deadline) {
    if (m_status) {
        return m_status;
    }
    const auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        int status = 0;
        if (waitpid(m_pid, &status, WNOHANG) == m_pid) {
            m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            // The output threads end when the child's pipes close.
            if (m_out_thread.joinable()) {
                m_out_thread.join();
            }
            if (m_err_thread.joinable()) {
                m_err_thread.join();
            }
            return m_status;
        }
        if (std::chrono::steady_clock::now() > end) {
            return std::nullopt;
        }
        std::this_thread::sleep_for(5ms);
    }
}

bool Process::running() {
    return !m_status && !wait(0ms).has_value();
}

void Process::signal(int sig) {
    if (!m_status) {
        kill(m_pid, sig);
    }
}

std::string Process::out() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_out;
}

std::string Process::err() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_err;
}

bool Process::wait_out(const std::string& text, std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, deadline, [&] { return m_out.find(text) != std::string::npos; });
}

bool Process::wait_err(const std::string& text, std::chrono::milliseconds deadline) const {
    std::unique_lock<std::mutex> lock(m_mutex);
    return m_cv.wait_for(lock, deadline, [&] { return m_err.find(text) != std::string::npos; });
}

std::size_t Process::count_out(const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t n = 0;
    for (auto pos = m_out.find(text); pos != std::string::npos; pos = m_out.find(text, pos + 1)) {
        ++n;
    }
    return n;
}

Outcome run(const std::vector<std::string>& argv, ProcessOptions options,
            std::chrono::milliseconds deadline) {
    Process p(argv, std::move(options));
    const auto status = p.wait(deadline);
    if (!status) {
        throw std::runtime_error(argv[0] + " did not end: " + p.err());
    }
    return {*status, p.out(), p.err()};
}

}  // namespace ipcd_test
