#include <fcntl.h>
#include <signal.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <sstream>
#include <stdexcept>

#include "harness.h"

extern char** environ;

namespace ipcd_test {

Process::Process(std::vector<std::string> argv, const std::vector<std::string>& env) {
    std::map<std::string, std::string> vars;  // built before fork: nothing but syscalls after
    for (char** e = environ; *e != nullptr; ++e) {
        vars[std::string(*e).substr(0, std::string(*e).find('='))] = *e;
    }
    for (const auto& e : env) {
        vars[e.substr(0, e.find('='))] = e;
    }
    std::vector<char*> cargv;
    std::vector<char*> cenv;
    for (auto& a : argv) {
        cargv.push_back(a.data());
    }
    for (auto& entry : vars) {
        cenv.push_back(entry.second.data());
    }
    cargv.push_back(nullptr);
    cenv.push_back(nullptr);
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
        dup2(open("/dev/null", O_RDONLY), 0);
        setpgid(0, 0);  // a group of its own, so that a kill reaches what it starts
        execve(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
    close(out);
    close(err);
}

Process::~Process() {
    if (running()) {
        kill(-m_pid, SIGKILL);
        kill(m_pid, SIGKILL);
        wait(5s);
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

Outcome run(const std::vector<std::string>& argv, const std::vector<std::string>& env) {
    Process p(argv, env);
    if (!p.wait(30s)) {
        throw std::runtime_error(argv[0] + " did not end: " + p.err());
    }
    return {*p.wait(), p.out(), p.err()};
}

Outcome ctl(int port, std::vector<std::string> args) {
    args.insert(args.begin(), {g_ctl, "-H", "127.0.0.1", "-p", std::to_string(port), "--catalogue",
                               g_sample_catalogue});
    return run(args);
}

std::unique_ptr<Process> watch(int port, std::vector<std::string> args) {
    args.insert(args.begin(), {g_ctl, "-H", "127.0.0.1", "-p", std::to_string(port), "--catalogue",
                               g_sample_catalogue, "watch", "--json"});
    auto p = std::make_unique<Process>(args);
    // One that is done before its marker came back (retained messages only) never says so.
    if (!wait_until(
            [&] { return p->err().find("watching") != std::string::npos || !p->running(); })) {
        throw std::runtime_error("ipcd-ctl does not watch: " + p->err());
    }
    return p;
}

std::vector<nlohmann::json> json_lines(const std::string& text) {
    std::vector<nlohmann::json> values;
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        values.push_back(nlohmann::json::parse(line));
    }
    return values;
}

Client::Client(int port, const std::map<std::string, std::string>& settings)
    : config(std::make_unique<ecu::kora::config::Configuration>()) {
    config->values() = {
        {"host", "127.0.0.1"}, {"port", std::to_string(port)}, {"client_name", "test"}};
    for (const auto& [key, value] : settings) {
        config->values()[key] = value;
    }
    client = std::dynamic_pointer_cast<ecu::kora::com::MqttClient>(
        ecu::kora::com::create_client(config, ecu::kora::com::TransportType::mqtt));
}

}  // namespace ipcd_test
