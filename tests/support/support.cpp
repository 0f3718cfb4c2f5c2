#include "support.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

extern char** environ;

namespace ipcd_test {

bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds deadline) {
    auto end = std::chrono::steady_clock::now() + deadline;
    while (!cond()) {
        if (std::chrono::steady_clock::now() > end) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
        close(fd);
        throw std::runtime_error("free_port: bind failed");
    }
    socklen_t len = sizeof addr;
    getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
    close(fd);
    return ntohs(addr.sin_port);
}

static bool port_accepts(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<uint16_t>(port));
    bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

TempDir::TempDir() {
    std::string tmpl = (std::filesystem::temp_directory_path() / "ipcd-test-XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) {
        throw std::runtime_error("mkdtemp failed");
    }
    m_path = tmpl;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(m_path, ec);
}

std::string TempDir::write(const std::string& name, const std::string& content) const {
    std::string p = file(name);
    std::ofstream(p, std::ios::binary) << content;
    return p;
}

std::string TempDir::fifo(const std::string& name) const {
    std::string p = file(name);
    if (mkfifo(p.c_str(), 0600) != 0) {
        throw std::runtime_error("mkfifo failed: " + p);
    }
    return p;
}

Process::Process(std::vector<std::string> argv, std::vector<std::string> env) {
    int out[2];
    int err[2];
    if (pipe2(out, O_CLOEXEC) != 0 || pipe2(err, O_CLOEXEC) != 0) {
        throw std::runtime_error("pipe failed");
    }
    // Build the environment before fork: only async-signal-safe calls after it.
    std::map<std::string, std::string> vars;
    for (char** e = environ; *e != nullptr; ++e) {
        std::string s(*e);
        auto eq = s.find('=');
        vars[s.substr(0, eq)] = s;
    }
    for (auto& e : env) {
        vars[e.substr(0, e.find('='))] = e;
    }
    std::vector<std::string> env_strings;
    for (auto& [k, v] : vars) {
        env_strings.push_back(v);
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

    m_pid = fork();
    if (m_pid < 0) {
        throw std::runtime_error("fork failed");
    }
    if (m_pid == 0) {
        dup2(out[1], 1);
        dup2(err[1], 2);
        int devnull = open("/dev/null", O_RDONLY);
        dup2(devnull, 0);
        // Own process group, so that a kill reaches what the child starts.
        setpgid(0, 0);
        execve(cargv[0], cargv.data(), cenv.data());
        _exit(127);
    }
    close(out[1]);
    close(err[1]);
    m_out_thread = std::thread([this, fd = out[0]] { collect(fd, m_out); });
    m_err_thread = std::thread([this, fd = err[0]] { collect(fd, m_err); });
}

Process::~Process() {
    if (running()) {
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

void Process::collect(int fd, std::string& into) {
    char buf[4096];
    for (;;) {
        ssize_t n = read(fd, buf, sizeof buf);
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
    auto end = std::chrono::steady_clock::now() + deadline;
    for (;;) {
        int status = 0;
        pid_t r = waitpid(m_pid, &status, WNOHANG);
        if (r == m_pid) {
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
    if (m_status) {
        return false;
    }
    return !wait(0ms).has_value();
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

Broker::Broker() : m_port(free_port()) {
    m_dir.write("mosquitto.conf", "listener " + std::to_string(m_port) +
                                      " 127.0.0.1\n"
                                      "allow_anonymous true\n"
                                      "persistence false\n"
                                      "max_queued_messages 0\n"
                                      "set_tcp_nodelay true\n"
                                      "log_dest stderr\n"
                                      "log_type error\n");
    start();
}

Broker::~Broker() {
    stop();
}

void Broker::start() {
    m_process = std::make_unique<Process>(
        std::vector<std::string>{"/usr/sbin/mosquitto", "-c", m_dir.file("mosquitto.conf")});
    if (!wait_until([this] { return port_accepts(m_port); }, 10s)) {
        throw std::runtime_error("mosquitto did not start on port " + std::to_string(m_port) +
                                 ": " + m_process->err());
    }
}

void Broker::stop(bool hard) {
    if (m_process && m_process->running()) {
        m_process->signal(hard ? SIGKILL : SIGTERM);
        m_process->wait(10s);
    }
    m_process.reset();
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
    std::lock_guard<std::mutex> lock(m_mutex);
    std::vector<Line> found;
    for (const auto& l : m_lines) {
        if (l.text.find(fragment) != std::string::npos) {
            found.push_back(l);
        }
    }
    return found;
}

bool LogCapture::has(int severity, const std::string& text) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    for (const auto& l : m_lines) {
        if (l.severity == severity && l.text == text) {
            return true;
        }
    }
    return false;
}

bool LogCapture::wait_for(const std::string& fragment, std::chrono::milliseconds deadline) const {
    return wait_until([&] { return !find(fragment).empty(); }, deadline);
}

void LogCapture::clear() {
    std::lock_guard<std::mutex> lock(m_mutex);
    m_lines.clear();
}

std::string read_file(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::ostringstream s;
    s << in.rdbuf();
    return s.str();
}

}  // namespace ipcd_test
