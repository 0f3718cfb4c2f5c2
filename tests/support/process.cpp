#include "process.h"

#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <stdexcept>

extern char** environ;

namespace ipcd_test {

Process::Process(std::vector<std::string> argv, ProcessOptions options) {
    std::map<std::string, std::string> vars;  // built before fork: nothing but syscalls after
    for (char** e = environ; *e != nullptr; ++e) {
        vars[std::string(*e).substr(0, std::string(*e).find('='))] = *e;
    }
    for (const auto& e : options.env) {
        vars[e.substr(0, e.find('='))] = e;
    }
    std::vector<std::string> env;
    std::vector<char*> cargv;
    std::vector<char*> cenv;
    for (auto& entry : vars) {
        env.push_back(entry.second);
    }
    for (auto& a : argv) {
        cargv.push_back(a.data());
    }
    for (auto& e : env) {
        cenv.push_back(e.data());
    }
    cargv.push_back(nullptr);
    cenv.push_back(nullptr);
    int in[2] = {-1, -1};
    if (options.pipe_input && pipe2(in, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    const int out = open(m_dir.file("out").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const int err = open(m_dir.file("err").c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0600);
    const pid_t parent = getpid();
    m_pid = fork();
    if (m_pid == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        if (getppid() != parent) {
            _exit(127);
        }
        dup2(out, 1);
        dup2(err, 2);
        dup2(in[0] >= 0 ? in[0] : open("/dev/null", O_RDONLY), 0);
        setpgid(0, 0);  // a group of its own, so that a kill reaches what it starts
        execve(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
    close(out);
    close(err);
    if (in[0] >= 0) {
        close(in[0]);
        m_input = in[1];
    }
}

Process::~Process() {
    close_input();
    if (running()) {
        kill(-m_pid, SIGKILL);
        kill(m_pid, SIGKILL);
        wait(5s);
    }
}

void Process::close_input() {
    if (m_input >= 0) {
        close(m_input);
        m_input = -1;
    }
}

std::optional<int> Process::wait(std::chrono::milliseconds deadline) {
    wait_until(
        [this] {
            int status = 0;
            if (!m_status && waitpid(m_pid, &status, WNOHANG) == m_pid) {
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            return m_status.has_value();
        },
        deadline);
    return m_status;
}

void Process::signal(int sig) {
    if (!m_status) {
        kill(m_pid, sig);
    }
}

bool Process::wait_out(const std::string& text, std::chrono::milliseconds deadline) const {
    return wait_until([&] { return out().find(text) != std::string::npos; }, deadline);
}

bool Process::wait_err(const std::string& text, std::chrono::milliseconds deadline) const {
    return wait_until([&] { return err().find(text) != std::string::npos; }, deadline);
}

Outcome run(const std::vector<std::string>& argv, ProcessOptions options) {
    Process p(argv, std::move(options));
    if (!p.wait(30s)) {
        throw std::runtime_error(argv[0] + " did not end: " + p.err());
    }
    return {*p.wait(), p.out(), p.err()};
}

}  // namespace ipcd_test
