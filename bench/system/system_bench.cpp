// End-to-end figures of the real ipcd binary against a private mosquitto on
// 127.0.0.1: RT-to-broker throughput and latency, broker-to-RT throughput,
// earlybird memory and flush time, idle CPU. Every figure stands next to a
// baseline measured in the same run on the same broker, because absolute
// rates depend on the machine and on whatever else it is doing.
//
//   system_bench [--quick] [--scale=X]      (or BENCH_SCALE=X)
//
// --quick is --scale=0.05. Counts and the idle period shrink with the scale;
// below 0.5 each relay publisher runs once instead of three times.
// BENCH_IPCD_WRAPPER="tool args" starts ipcd under a tool (a profiler).
// Each wait is bounded; nothing here asserts on time, the program only prints.

#include <fcntl.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <dirent.h>
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "bridge_bodies.pb.h"
#include "message_adapter.h"
#include "queue_port.h"
#include "signal_group.pb.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using ecu::kora::com::Message;
using ecu::kora::com::PbInternalMessageAdapter;
namespace pb = ecu::kora::pb;
namespace ipc = ecu::kora::ipc;

// The catalogue topics used: one non-retained (the relayed data), one retained
// (a marker that is published even while the earlybird queue holds the rest),
// and one "rttx/" request.
constexpr std::uint32_t g_data_id = 21;
const std::string g_data_topic = "rt/vehicle/gear";
constexpr std::uint32_t g_marker_id = 20;
const std::string g_marker_topic = "rt/vehicle/speed";
const std::string g_rttx_topic = "rttx/hmi/climate_request";
const std::string g_status_topic = "system/ipc/subscriptions";
const std::string g_flush_line = "Earlybird message processing done.";
// The transport's default bound on outstanding messages; the plain publishers
// use the same so that both sides queue alike.
constexpr std::size_t g_max_outstanding = 4096;
// A subscriber gives up when nothing arrived for this long.
constexpr auto g_quiet = 2s;

std::uint64_t mono_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

double seconds_between(std::uint64_t from_ns, std::uint64_t to_ns) {
    return to_ns > from_ns ? static_cast<double>(to_ns - from_ns) / 1e9 : 0.0;
}

[[noreturn]] void fail(const std::string& what) {
    throw std::runtime_error(what);
}

void put_le64(std::uint8_t* at, std::uint64_t v) {
    for (int i = 0; i < 8; ++i) {
        at[i] = static_cast<std::uint8_t>(v >> (8 * i));
    }
}

std::uint64_t get_le64(const std::uint8_t* at) {
    std::uint64_t v = 0;
    for (int i = 0; i < 8; ++i) {
        v |= static_cast<std::uint64_t>(at[i]) << (8 * i);
    }
    return v;
}

// Waits in small steps until cond holds or the deadline passes.
bool wait_until(const std::function<bool()>& cond, std::chrono::milliseconds deadline) {
    const auto end = std::chrono::steady_clock::now() + deadline;
    while (!cond()) {
        if (std::chrono::steady_clock::now() >= end) {
            return false;
        }
        std::this_thread::sleep_for(5ms);
    }
    return true;
}

int free_port() {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = 0;
    socklen_t len = sizeof addr;
    if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 ||
        getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len) != 0) {
        fail("no free loopback port");
    }
    close(fd);
    return ntohs(addr.sin_port);
}

bool port_open(int port) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

void write_all(int fd, const std::uint8_t* data, std::size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            fail(std::string("write: ") + std::strerror(errno));
        }
        data += n;
        size -= static_cast<std::size_t>(n);
    }
}

// A directory with the few files the run creates; removed at the end.
class TempDir {
public:
    TempDir() {
        char name[] = "/tmp/ipcd-bench-XXXXXX";
        if (mkdtemp(name) == nullptr) {
            fail("mkdtemp");
        }
        m_path = name;
    }
    ~TempDir() {
        if (DIR* dir = opendir(m_path.c_str())) {
            while (dirent* e = readdir(dir)) {
                const std::string n = e->d_name;
                if (n != "." && n != "..") {
                    unlink((m_path + "/" + n).c_str());
                }
            }
            closedir(dir);
        }
        rmdir(m_path.c_str());
    }
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    std::string file(const std::string& name) const { return m_path + "/" + name; }

private:
    std::string m_path;
};

// A child process. Its standard output (and error) can be collected, its
// standard input can be a pipe; everything else goes to /dev/null.
class Child {
public:
    struct Io {
        bool collect_output = false;
        bool pipe_input = false;
    };

    Child(const std::vector<std::string>& argv, const std::vector<std::string>& extra_env, Io io) {
        std::vector<std::string> env_strings;
        for (char** e = environ; *e != nullptr; ++e) {
            env_strings.emplace_back(*e);
        }
        env_strings.insert(env_strings.end(), extra_env.begin(), extra_env.end());
        std::vector<char*> args;
        for (const auto& a : argv) {
            args.push_back(const_cast<char*>(a.c_str()));
        }
        args.push_back(nullptr);
        std::vector<char*> envp;
        for (auto& e : env_strings) {
            envp.push_back(e.data());
        }
        envp.push_back(nullptr);

        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        int out_pipe[2] = {-1, -1};
        int in_pipe[2] = {-1, -1};
        if (io.collect_output) {
            if (pipe2(out_pipe, O_CLOEXEC) != 0) {
                fail("pipe");
            }
            posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDOUT_FILENO);
            posix_spawn_file_actions_adddup2(&actions, out_pipe[1], STDERR_FILENO);
        } else {
            posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
            posix_spawn_file_actions_addopen(&actions, STDERR_FILENO, "/dev/null", O_WRONLY, 0);
        }
        if (io.pipe_input) {
            if (pipe2(in_pipe, O_CLOEXEC) != 0) {
                fail("pipe");
            }
            posix_spawn_file_actions_adddup2(&actions, in_pipe[0], STDIN_FILENO);
        } else {
            posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        }
        const int rc = posix_spawnp(&m_pid, args[0], &actions, nullptr, args.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        if (rc != 0) {
            fail("cannot start " + argv[0] + ": " + std::strerror(rc));
        }
        if (io.collect_output) {
            close(out_pipe[1]);
            const int fd = out_pipe[0];
            m_reader = std::thread([this, fd] {
                char buf[4096];
                for (;;) {
                    ssize_t n = ::read(fd, buf, sizeof buf);
                    if (n < 0 && errno == EINTR) {
                        continue;
                    }
                    if (n <= 0) {
                        break;
                    }
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_out.append(buf, static_cast<std::size_t>(n));
                    m_cv.notify_all();
                }
                close(fd);
            });
        }
        if (io.pipe_input) {
            close(in_pipe[0]);
            m_stdin = in_pipe[1];
        }
    }
    ~Child() {
        close_input();
        if (!m_status) {
            kill(m_pid, SIGKILL);
            wait(5s);
        }
        if (m_reader.joinable()) {
            m_reader.join();
        }
    }
    Child(const Child&) = delete;
    Child& operator=(const Child&) = delete;

    pid_t pid() const { return m_pid; }
    int input() const { return m_stdin; }
    void close_input() {
        if (m_stdin >= 0) {
            close(m_stdin);
            m_stdin = -1;
        }
    }
    // The exit status (128 + signal for a signal), or nothing by the deadline.
    std::optional<int> wait(std::chrono::milliseconds deadline) {
        if (m_status) {
            return m_status;
        }
        const auto end = std::chrono::steady_clock::now() + deadline;
        for (;;) {
            int status = 0;
            pid_t r = waitpid(m_pid, &status, WNOHANG);
            if (r == m_pid) {
                m_status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
                return m_status;
            }
            if (std::chrono::steady_clock::now() >= end) {
                return std::nullopt;
            }
            std::this_thread::sleep_for(5ms);
        }
    }
    // Ends the child: SIGTERM, then SIGKILL when it does not go.
    void terminate() {
        if (m_status) {
            return;
        }
        kill(m_pid, SIGTERM);
        if (!wait(5s)) {
            kill(m_pid, SIGKILL);
            wait(5s);
        }
    }
    bool wait_output(const std::string& text, std::chrono::milliseconds deadline) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_cv.wait_for(lock, deadline, [&] { return m_out.find(text) != std::string::npos; });
    }
    std::string output() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_out;
    }

private:
    pid_t m_pid = -1;
    std::optional<int> m_status;
    int m_stdin = -1;
    std::thread m_reader;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::string m_out;
};

// mosquitto of our own on 127.0.0.1 and a free port; QoS 0 queueing to slow
// subscribers is unlimited so that nothing is dropped by the broker.
class Broker {
public:
    explicit Broker(const TempDir& dir) : m_port(free_port()) {
        const std::string conf = dir.file("mosquitto.conf");
        std::ofstream(conf) << "listener " << m_port << " 127.0.0.1\n"
                            << "allow_anonymous true\n"
                            << "persistence false\n"
                            << "max_queued_messages 0\n"
                            << "set_tcp_nodelay true\n";
        m_process = std::make_unique<Child>(std::vector<std::string>{"mosquitto", "-c", conf},
                                            std::vector<std::string>{}, Child::Io{});
        if (!wait_until([this] { return port_open(m_port); }, 5s)) {
            fail("mosquitto did not start");
        }
    }
    ~Broker() { m_process->terminate(); }
    Broker(const Broker&) = delete;
    Broker& operator=(const Broker&) = delete;
    int port() const { return m_port; }
    pid_t pid() const { return m_process->pid(); }

private:
    int m_port;
    std::unique_ptr<Child> m_process;
};

// Collects what sd_notify sends to NOTIFY_SOCKET.
class NotifySocket {
public:
    explicit NotifySocket(std::string path) : m_path(std::move(path)) {
        m_fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un addr{};
        addr.sun_family = AF_UNIX;
        std::strncpy(addr.sun_path, m_path.c_str(), sizeof addr.sun_path - 1);
        if (m_fd < 0 || bind(m_fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
            fail("notify socket");
        }
        timeval tv{0, 100000};
        setsockopt(m_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
        m_thread = std::thread([this] {
            char buf[512];
            while (!m_stop) {
                ssize_t n = recv(m_fd, buf, sizeof buf, 0);
                if (n > 0) {
                    std::lock_guard<std::mutex> lock(m_mutex);
                    m_text.append(buf, static_cast<std::size_t>(n)).push_back('\n');
                }
            }
        });
    }
    ~NotifySocket() {
        m_stop = true;
        m_thread.join();
        close(m_fd);
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;
    const std::string& path() const { return m_path; }
    bool wait_for(const std::string& text, std::chrono::milliseconds deadline) {
        return wait_until(
            [&] {
                std::lock_guard<std::mutex> lock(m_mutex);
                return m_text.find(text) != std::string::npos;
            },
            deadline);
    }

private:
    std::string m_path;
    int m_fd = -1;
    std::atomic<bool> m_stop{false};
    std::thread m_thread;
    std::mutex m_mutex;
    std::string m_text;
};

// A plain libmosquitto client in threaded mode: what a client application
// would use. publish() waits while g_max_outstanding QoS 0 messages have not
// yet been written to the socket, as the transport does.
class Client {
public:
    using Handler = std::function<void(const mosquitto_message&)>;

    explicit Client(int port, Handler handler = {}) : m_handler(std::move(handler)) {
        m_mosq = mosquitto_new(nullptr, true, this);
        if (m_mosq == nullptr) {
            fail("mosquitto_new");
        }
        mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
        mosquitto_connect_callback_set(m_mosq, [](mosquitto*, void* self, int rc) {
            auto* c = static_cast<Client*>(self);
            std::lock_guard<std::mutex> lock(c->m_mutex);
            c->m_connack = rc;
            c->m_cv.notify_all();
        });
        mosquitto_subscribe_callback_set(m_mosq, [](mosquitto*, void* self, int, int, const int*) {
            auto* c = static_cast<Client*>(self);
            std::lock_guard<std::mutex> lock(c->m_mutex);
            ++c->m_subacks;
            c->m_cv.notify_all();
        });
        mosquitto_publish_callback_set(m_mosq, [](mosquitto*, void* self, int) {
            auto* c = static_cast<Client*>(self);
            std::lock_guard<std::mutex> lock(c->m_mutex);
            if (c->m_outstanding > 0) {
                --c->m_outstanding;
            }
            c->m_cv.notify_all();
        });
        mosquitto_message_callback_set(m_mosq,
                                       [](mosquitto*, void* self, const mosquitto_message* msg) {
                                           auto* c = static_cast<Client*>(self);
                                           if (c->m_handler && msg != nullptr) {
                                               c->m_handler(*msg);
                                           }
                                       });
        if (mosquitto_connect(m_mosq, "127.0.0.1", port, 60) != MOSQ_ERR_SUCCESS ||
            mosquitto_loop_start(m_mosq) != MOSQ_ERR_SUCCESS) {
            fail("cannot connect to the broker");
        }
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cv.wait_for(lock, 5s, [this] { return m_connack.has_value(); }) || *m_connack != 0) {
            fail("no CONNACK");
        }
    }
    ~Client() {
        mosquitto_disconnect(m_mosq);
        mosquitto_loop_stop(m_mosq, false);
        mosquitto_destroy(m_mosq);
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    void subscribe(const std::string& topic, int qos = 0) {
        std::unique_lock<std::mutex> lock(m_mutex);
        const int before = m_subacks;
        lock.unlock();
        if (mosquitto_subscribe(m_mosq, nullptr, topic.c_str(), qos) != MOSQ_ERR_SUCCESS) {
            fail("subscribe " + topic);
        }
        lock.lock();
        if (!m_cv.wait_for(lock, 5s, [&] { return m_subacks > before; })) {
            fail("no SUBACK for " + topic);
        }
    }

    void publish(const std::string& topic, const void* data, std::size_t size, int qos = 0,
                 bool retain = false) {
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            if (!m_cv.wait_for(lock, 30s, [this] { return m_outstanding < g_max_outstanding; })) {
                fail("publisher stuck");
            }
            ++m_outstanding;
        }
        const int rc = mosquitto_publish(m_mosq, nullptr, topic.c_str(), static_cast<int>(size),
                                         data, qos, retain);
        if (rc != MOSQ_ERR_SUCCESS) {
            fail("publish on " + topic + ": " + mosquitto_strerror(rc));
        }
    }
    void publish(const std::string& topic, const std::vector<std::uint8_t>& payload, int qos = 0,
                 bool retain = false) {
        publish(topic, payload.data(), payload.size(), qos, retain);
    }
    // Waits until everything published has been written (or acknowledged).
    void drain() {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_cv.wait_for(lock, 30s, [this] { return m_outstanding == 0; });
    }

private:
    mosquitto* m_mosq = nullptr;
    Handler m_handler;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::optional<int> m_connack;
    int m_subacks = 0;
    std::size_t m_outstanding = 0;
};

// The subscriber's tally of one run: which sequence numbers arrived, how
// often, when, and (optionally) how late.
class Tally {
public:
    enum class Kind { framed, text };

    Tally(std::size_t expected, Kind kind, bool latency)
        : m_expected(expected), m_kind(kind), m_latency(latency), m_seen(expected, 0) {
        if (latency) {
            m_latencies_ns.reserve(expected);
        }
    }

    // On the subscriber's network thread.
    void on_message(const mosquitto_message& msg) {
        const std::uint64_t now = mono_ns();
        std::uint64_t seq = 0;
        std::uint64_t sent = 0;
        if (!decode(msg, seq, sent)) {
            std::lock_guard<std::mutex> lock(m_mutex);
            ++m_foreign;
            return;
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_last_ns = now;
        if (m_first_ns == 0) {
            m_first_ns = now;
        }
        if (seq >= m_expected) {
            ++m_foreign;
            return;
        }
        if (m_seen[seq]++ != 0) {
            ++m_duplicated;
            return;
        }
        ++m_unique;
        if (m_latency && sent != 0 && now >= sent) {
            m_latencies_ns.push_back(now - sent);
        }
        if (m_unique == m_expected) {
            m_cv.notify_all();
        }
    }

    // Until all arrived, or nothing arrived for g_quiet, or the hard limit.
    void wait(std::chrono::seconds limit = 300s) {
        const auto end = std::chrono::steady_clock::now() + limit;
        std::unique_lock<std::mutex> lock(m_mutex);
        std::uint64_t seen_at = mono_ns();
        std::size_t seen_count = m_unique + m_duplicated + m_foreign;
        while (m_unique < m_expected && std::chrono::steady_clock::now() < end) {
            m_cv.wait_for(lock, 100ms);
            const std::size_t count = m_unique + m_duplicated + m_foreign;
            if (count != seen_count) {
                seen_count = count;
                seen_at = mono_ns();
            } else if (seconds_between(seen_at, mono_ns()) >=
                       std::chrono::duration<double>(g_quiet).count()) {
                break;
            }
        }
    }

    std::size_t unique() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_unique;
    }
    std::size_t lost() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_expected - m_unique;
    }
    std::size_t duplicated() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_duplicated;
    }
    std::uint64_t last_ns() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_last_ns;
    }
    // Unique messages per second from start_ns to the last receipt.
    double rate(std::uint64_t start_ns) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        const double s = seconds_between(start_ns, m_last_ns);
        return s > 0 ? static_cast<double>(m_unique) / s : 0.0;
    }
    // The q-quantile of the latencies in microseconds; negative when none.
    double latency_us(double q) const {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_latencies_ns.empty()) {
            return -1.0;
        }
        std::vector<std::uint64_t> v = m_latencies_ns;
        const auto k = static_cast<std::size_t>(q * static_cast<double>(v.size() - 1));
        std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
        return static_cast<double>(v[k]) / 1000.0;
    }

private:
    bool decode(const mosquitto_message& msg, std::uint64_t& seq, std::uint64_t& sent) const {
        const auto* p = static_cast<const std::uint8_t*>(msg.payload);
        const auto size = static_cast<std::size_t>(msg.payloadlen);
        if (m_kind == Kind::text) {
            // "%010u ..." lines.
            if (size < 10) {
                return false;
            }
            for (std::size_t i = 0; i < 10; ++i) {
                if (p[i] < '0' || p[i] > '9') {
                    return false;
                }
                seq = seq * 10 + (p[i] - '0');
            }
            return true;
        }
        // The frame: an 18-byte header of two fixed64 fields, then RtSignal.
        constexpr std::size_t header = 18;
        if (size < header || p[0] != 0x09 || p[9] != 0x11) {
            return false;
        }
        pb::RtSignal body;
        if (!body.ParseFromArray(p + header, static_cast<int>(size - header)) ||
            body.data().size() < 16) {
            return false;
        }
        const auto* data = reinterpret_cast<const std::uint8_t*>(body.data().data());
        seq = get_le64(data);
        sent = get_le64(data + 8);
        return true;
    }

    const std::size_t m_expected;
    const Kind m_kind;
    const bool m_latency;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<std::uint8_t> m_seen;
    std::size_t m_unique = 0;
    std::size_t m_duplicated = 0;
    std::size_t m_foreign = 0;
    std::uint64_t m_first_ns = 0;
    std::uint64_t m_last_ns = 0;
    std::vector<std::uint64_t> m_latencies_ns;
};

// The RT payload of record seq: its number and its send time up front, the
// rest filled.
void fill_payload(std::vector<std::uint8_t>& data, std::size_t size, std::uint64_t seq,
                  std::uint64_t sent_ns) {
    data.assign(std::max<std::size_t>(size, 16), 0x5A);
    put_le64(data.data(), seq);
    put_le64(data.data() + 8, sent_ns);
}

// What the relay publishes for an RT record, framed the same way.
std::vector<std::uint8_t> framed_rt_signal(const std::vector<std::uint8_t>& data,
                                           std::uint64_t timestamp) {
    pb::RtSignal body;
    body.set_timestamp(timestamp);
    body.set_data(data.data(), data.size());
    body.set_tag(0);
    body.set_source("ipcd");
    return PbInternalMessageAdapter<pb::RtSignal>(1).serialize(body).message.payload;
}

template <typename T>
std::vector<std::uint8_t> framed(const T& body) {
    return PbInternalMessageAdapter<T>(1).serialize(body).message.payload;
}

std::size_t vm_rss_bytes(pid_t pid) {
    std::ifstream in("/proc/" + std::to_string(pid) + "/status");
    std::string line;
    while (std::getline(in, line)) {
        if (line.compare(0, 6, "VmRSS:") == 0) {
            return static_cast<std::size_t>(std::strtoull(line.c_str() + 6, nullptr, 10)) * 1024;
        }
    }
    return 0;
}

// CPU time of all threads of pid in nanoseconds: the scheduler's own account
// (schedstat, ns resolution) and utime+stime from /proc/PID/stat (ticks).
struct CpuTime {
    std::uint64_t sched_ns = 0;
    std::uint64_t stat_ns = 0;
};

CpuTime cpu_time(pid_t pid) {
    CpuTime t;
    const std::string base = "/proc/" + std::to_string(pid);
    if (DIR* dir = opendir((base + "/task").c_str())) {
        while (dirent* e = readdir(dir)) {
            if (e->d_name[0] == '.') {
                continue;
            }
            std::ifstream in(base + "/task/" + e->d_name + "/schedstat");
            std::uint64_t ns = 0;
            if (in >> ns) {
                t.sched_ns += ns;
            }
        }
        closedir(dir);
    }
    std::ifstream in(base + "/stat");
    std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    const auto close_paren = text.rfind(')');
    if (close_paren != std::string::npos) {
        std::istringstream fields(text.substr(close_paren + 2));
        std::string f;
        std::uint64_t utime = 0;
        std::uint64_t stime = 0;
        // Field 3 (state) is the first after the name; utime and stime are 14 and 15.
        for (int i = 3; i <= 15 && fields >> f; ++i) {
            if (i == 14) {
                utime = std::strtoull(f.c_str(), nullptr, 10);
            } else if (i == 15) {
                stime = std::strtoull(f.c_str(), nullptr, 10);
            }
        }
        const auto tick = static_cast<std::uint64_t>(sysconf(_SC_CLK_TCK));
        t.stat_ns = (utime + stime) * (1000000000ULL / tick);
    }
    return t;
}

// This process's CPU time, threads that have ended included (schedstat of
// /proc/self/task forgets them).
CpuTime self_cpu() {
    rusage ru{};
    getrusage(RUSAGE_SELF, &ru);
    auto ns = [](const timeval& tv) {
        return static_cast<std::uint64_t>(tv.tv_sec) * 1000000000ULL +
               static_cast<std::uint64_t>(tv.tv_usec) * 1000ULL;
    };
    CpuTime t;
    t.sched_ns = ns(ru.ru_utime) + ns(ru.ru_stime);
    t.stat_ns = t.sched_ns;
    return t;
}

// The real ipcd with its FIFOs, notification socket and a reader that keeps
// the TX FIFO drained (a TX port that stays full makes ipcd give up).
class Daemon {
public:
    Daemon(const TempDir& dir, const std::string& tag, int port)
        : m_rx(dir.file(tag + "-rx")),
          m_tx(dir.file(tag + "-tx")),
          m_notify(dir.file(tag + "-notify")) {
        if (mkfifo(m_rx.c_str(), 0600) != 0 || mkfifo(m_tx.c_str(), 0600) != 0) {
            fail("mkfifo");
        }
        m_tx_fd = open(m_tx.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
        // More room in the TX pipe: the bench's reader may be descheduled for
        // a while on a busy machine.
        fcntl(m_tx_fd, F_SETPIPE_SZ, 1 << 20);
        m_tx_thread = std::thread([this] { drain_tx(); });
        std::vector<std::string> argv{IPCD_BINARY,          "-L", "-H", "127.0.0.1", "-p",
                                      std::to_string(port), "-r", m_rx, "-t",        m_tx};
        // BENCH_IPCD_WRAPPER runs ipcd under a tool, e.g.
        // "valgrind --tool=callgrind --callgrind-out-file=/tmp/ipcd.%p".
        if (const char* wrapper = std::getenv("BENCH_IPCD_WRAPPER")) {
            std::istringstream words(wrapper);
            std::vector<std::string> prefix;
            for (std::string w; words >> w;) {
                prefix.push_back(w);
            }
            argv.insert(argv.begin(), prefix.begin(), prefix.end());
        }
        const std::vector<std::string> env{std::string("KIRN_RT_CATALOGUE=") + IPCD_CATALOGUE,
                                           "NOTIFY_SOCKET=" + m_notify.path()};
        m_process = std::make_unique<Child>(argv, env, Child::Io{true, false});
        if (!m_notify.wait_for("READY=1", 60s)) {
            fail("ipcd not ready: " + m_process->output());
        }
        if (!wait_until(
                [this] {
                    m_rx_fd = open(m_rx.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
                    return m_rx_fd >= 0;
                },
                5s)) {
            fail("cannot open the RX FIFO");
        }
        fcntl(m_rx_fd, F_SETFL, 0);
        fcntl(m_rx_fd, F_SETPIPE_SZ, 1 << 20);
    }
    ~Daemon() {
        stop();
        m_tx_stop = true;
        m_tx_thread.join();
        close(m_tx_fd);
    }
    Daemon(const Daemon&) = delete;
    Daemon& operator=(const Daemon&) = delete;

    // Closing the RX FIFO ends the daemon in order (status 0).
    std::optional<int> stop() {
        if (m_rx_fd >= 0) {
            close(m_rx_fd);
            m_rx_fd = -1;
        }
        auto status = m_process->wait(15s);
        if (!status) {
            m_process->terminate();
            status = m_process->wait(1s);
        }
        return status;
    }

    pid_t pid() const { return m_process->pid(); }
    int rx() const { return m_rx_fd; }
    Child& process() { return *m_process; }
    std::size_t tx_records() const { return m_tx_count.load(); }
    std::uint64_t tx_last_ns() const { return m_tx_last_ns.load(); }

private:
    void drain_tx() {
        ipc::RecordDecoder decoder;
        std::vector<std::uint8_t> buf(256 * 1024);
        ipc::IpcSignal record;
        while (!m_tx_stop) {
            pollfd pfd{m_tx_fd, POLLIN, 0};
            if (poll(&pfd, 1, 50) <= 0) {
                continue;
            }
            ssize_t n = ::read(m_tx_fd, buf.data(), buf.size());
            if (n <= 0) {
                if (n == 0) {
                    // No writer (yet or any more): poll would report POLLHUP at once.
                    std::this_thread::sleep_for(20ms);
                }
                continue;
            }
            decoder.feed(buf.data(), static_cast<std::size_t>(n));
            std::size_t got = 0;
            while (decoder.next(record)) {
                ++got;
            }
            if (got > 0) {
                m_tx_count += got;
                m_tx_last_ns = mono_ns();
            }
        }
    }

    std::string m_rx;
    std::string m_tx;
    NotifySocket m_notify;
    int m_rx_fd = -1;
    int m_tx_fd = -1;
    std::atomic<bool> m_tx_stop{false};
    std::atomic<std::size_t> m_tx_count{0};
    std::atomic<std::uint64_t> m_tx_last_ns{0};
    std::thread m_tx_thread;
    std::unique_ptr<Child> m_process;
};

// Requests the data topics and waits for ipcd's subscription status; then
// (when release is set) reports the start-up target reached.
void announce(int port, const std::vector<std::string>& topics) {
    std::mutex mutex;
    std::condition_variable cv;
    bool status = false;
    Client control(port, [&](const mosquitto_message& msg) {
        if (msg.payloadlen > 0 && g_status_topic == msg.topic) {
            std::lock_guard<std::mutex> lock(mutex);
            status = true;
            cv.notify_all();
        }
    });
    control.subscribe(g_status_topic, 1);
    pb::SubscriptionMessage request;
    for (const auto& t : topics) {
        request.add_topics(t);
    }
    control.publish("subscription/announcement", framed(request), 1);
    std::unique_lock<std::mutex> lock(mutex);
    if (!cv.wait_for(lock, 10s, [&] { return status; })) {
        fail("ipcd did not confirm the subscription");
    }
}

// Publishes the start-up target as reached; returns the time of the publish.
std::uint64_t release_target(int port) {
    Client control(port);
    pb::TPAStatus tpa;
    tpa.set_wait_for_target(true);
    tpa.set_target_reached(true);
    const auto payload = framed(tpa);
    const std::uint64_t t = mono_ns();
    control.publish("system/tpa/status", payload, 1);
    control.drain();
    return t;
}

// Removes the retained subscription status, so that the next daemon's is the
// only one a new subscriber sees.
void clear_status(int port) {
    Client control(port);
    control.publish(g_status_topic, nullptr, 0, 1, true);
    control.drain();
}

// ---- the table -----------------------------------------------------------

struct Row {
    std::string figure;
    std::string ipcd;
    std::string baseline;
    std::string other;
    std::string ratio;
    std::string goal;
    std::string result;
};

std::string fmt(const char* format, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

double median(std::vector<double> v) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

std::string join(const std::vector<double>& rates) {
    std::string text;
    for (double r : rates) {
        text += (text.empty() ? "" : " ") + fmt("%.0f", r);
    }
    return text;
}

std::string fmt_count(std::size_t lost, std::size_t dup) {
    return std::to_string(lost) + " / " + std::to_string(dup);
}

void print_table(const std::vector<Row>& rows, const std::vector<std::string>& notes) {
    const char* heads[] = {"figure", "ipcd", "baseline", "mosquitto_pub",
                           "ratio",  "goal", "goal met?"};
    std::size_t w[7] = {};
    for (int i = 0; i < 7; ++i) {
        w[i] = std::strlen(heads[i]);
    }
    for (const auto& r : rows) {
        const std::string* cells[] = {&r.figure, &r.ipcd, &r.baseline, &r.other,
                                      &r.ratio,  &r.goal, &r.result};
        for (int i = 0; i < 7; ++i) {
            w[i] = std::max(w[i], cells[i]->size());
        }
    }
    auto line = [&](const std::string* cells[]) {
        for (int i = 0; i < 7; ++i) {
            std::printf(i == 0 ? "%-*s" : " | %*s", static_cast<int>(w[i]), cells[i]->c_str());
        }
        std::printf("\n");
    };
    std::string h[7];
    const std::string* hp[7];
    for (int i = 0; i < 7; ++i) {
        h[i] = heads[i];
        hp[i] = &h[i];
    }
    std::printf("\n");
    line(hp);
    std::size_t total = 0;
    for (auto x : w) {
        total += x + 3;
    }
    std::printf("%s\n", std::string(total - 3, '-').c_str());
    for (const auto& r : rows) {
        const std::string* cells[] = {&r.figure, &r.ipcd, &r.baseline, &r.other,
                                      &r.ratio,  &r.goal, &r.result};
        line(cells);
    }
    for (const auto& n : notes) {
        std::printf("  %s\n", n.c_str());
    }
    std::fflush(stdout);
}

// ---- the measurements ----------------------------------------------------

struct Config {
    double scale = 1.0;
    std::size_t relay_count = 200000;
    std::size_t latency_count = 20000;
    std::size_t latency_rate = 10000;
    std::size_t rttx_count = 100000;
    std::size_t earlybird_count = 1000000;
    double idle_seconds = 10.0;
    int repeats = 3;

    void apply_scale() {
        auto scaled = [&](std::size_t n) {
            return std::max<std::size_t>(100,
                                         static_cast<std::size_t>(static_cast<double>(n) * scale));
        };
        relay_count = scaled(relay_count);
        latency_count = scaled(latency_count);
        rttx_count = scaled(rttx_count);
        earlybird_count = scaled(earlybird_count);
        idle_seconds = std::max(1.0, idle_seconds * scale);
        repeats = scale < 0.5 ? 1 : repeats;
    }
};

void progress(const std::string& text) {
    std::fprintf(stderr, "system_bench: %s\n", text.c_str());
}

struct Throughput {
    double rate = 0;
    std::size_t lost = 0;
    std::size_t duplicated = 0;
};

// RT records written into the RX FIFO in large batches, as fast as ipcd
// takes them; counted by a subscriber of the data topic.
Throughput relay_throughput(int port, Daemon& daemon, std::size_t size, std::size_t count) {
    Tally tally(count, Tally::Kind::framed, false);
    Client sub(port, [&](const mosquitto_message& m) { tally.on_message(m); });
    sub.subscribe(g_data_topic);
    const std::size_t batch = std::max<std::size_t>(16, (256 * 1024) / (size + 24));
    const std::uint64_t start = mono_ns();
    std::thread writer([&] {
        ipc::IpcSignal record;
        record.id = g_data_id;
        std::vector<std::uint8_t> encoded;
        std::vector<std::uint8_t> buffer;
        for (std::size_t i = 0; i < count;) {
            buffer.clear();
            for (std::size_t j = 0; j < batch && i < count; ++j, ++i) {
                fill_payload(record.data, size, i, 0);
                record.timestamp = i;
                ipc::encode_record(record, encoded);
                buffer.insert(buffer.end(), encoded.begin(), encoded.end());
            }
            write_all(daemon.rx(), buffer.data(), buffer.size());
        }
    });
    writer.join();
    tally.wait();
    return {tally.rate(start), tally.lost(), tally.duplicated()};
}

// The same framed payloads from a plain libmosquitto publisher (threaded loop,
// QoS 0, at most g_max_outstanding unwritten), framed one by one as it goes.
Throughput plain_throughput(int port, std::size_t size, std::size_t count) {
    const std::string topic = "bench/plain";
    Tally tally(count, Tally::Kind::framed, false);
    Client sub(port, [&](const mosquitto_message& m) { tally.on_message(m); });
    sub.subscribe(topic);
    Client pub(port);
    std::vector<std::uint8_t> data;
    const std::uint64_t start = mono_ns();
    for (std::size_t i = 0; i < count; ++i) {
        fill_payload(data, size, i, 0);
        pub.publish(topic, framed_rt_signal(data, i));
    }
    tally.wait();
    return {tally.rate(start), tally.lost(), tally.duplicated()};
}

// mosquitto_pub -l fed one text line per record: "%010u " and filler, size
// bytes without the newline.
Throughput line_throughput(int port, std::size_t size, std::size_t count) {
    const std::string topic = "bench/lines";
    Tally tally(count, Tally::Kind::text, false);
    Client sub(port, [&](const mosquitto_message& m) { tally.on_message(m); });
    sub.subscribe(topic);
    Child pub({"mosquitto_pub", "-l", "-t", topic, "-h", "127.0.0.1", "-p", std::to_string(port)},
              {}, Child::Io{false, true});
    // Let it connect before the clock starts, as the other publishers do.
    std::this_thread::sleep_for(200ms);
    const std::uint64_t start = mono_ns();
    std::thread feeder([&] {
        std::string buffer;
        char seq[32];
        const std::size_t per_batch = std::max<std::size_t>(16, (256 * 1024) / (size + 1));
        for (std::size_t i = 0; i < count;) {
            buffer.clear();
            for (std::size_t j = 0; j < per_batch && i < count; ++j, ++i) {
                std::snprintf(seq, sizeof seq, "%010zu ", i);
                std::string line(seq);
                line.resize(std::max<std::size_t>(size, line.size()), 'x');
                buffer += line;
                buffer += '\n';
            }
            try {
                write_all(pub.input(), reinterpret_cast<const std::uint8_t*>(buffer.data()),
                          buffer.size());
            } catch (const std::exception&) {
                break;
            }
        }
        pub.close_input();
    });
    feeder.join();
    tally.wait();
    pub.wait(10s);
    return {tally.rate(start), tally.lost(), tally.duplicated()};
}

struct Latency {
    double p50_us = -1;
    double p99_us = -1;
    std::size_t lost = 0;
};

// Sleeps until t (CLOCK_MONOTONIC ns).
void sleep_until_ns(std::uint64_t t) {
    timespec ts{static_cast<time_t>(t / 1000000000ULL), static_cast<long>(t % 1000000000ULL)};
    while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
    }
}

// One record at a time at a fixed pace, its write time in the payload.
Latency relay_latency(int port, Daemon& daemon, std::size_t count, std::size_t rate) {
    Tally tally(count, Tally::Kind::framed, true);
    Client sub(port, [&](const mosquitto_message& m) { tally.on_message(m); });
    sub.subscribe(g_data_topic);
    const std::uint64_t step = 1000000000ULL / rate;
    const std::uint64_t t0 = mono_ns() + 10000000ULL;
    ipc::IpcSignal record;
    record.id = g_data_id;
    std::vector<std::uint8_t> encoded;
    for (std::size_t i = 0; i < count; ++i) {
        sleep_until_ns(t0 + i * step);
        fill_payload(record.data, 64, i, mono_ns());
        record.timestamp = i;
        ipc::encode_record(record, encoded);
        write_all(daemon.rx(), encoded.data(), encoded.size());
    }
    tally.wait();
    return {tally.latency_us(0.5), tally.latency_us(0.99), tally.lost()};
}

Latency plain_latency(int port, std::size_t count, std::size_t rate) {
    const std::string topic = "bench/plain-latency";
    Tally tally(count, Tally::Kind::framed, true);
    Client sub(port, [&](const mosquitto_message& m) { tally.on_message(m); });
    sub.subscribe(topic);
    Client pub(port);
    const std::uint64_t step = 1000000000ULL / rate;
    const std::uint64_t t0 = mono_ns() + 10000000ULL;
    std::vector<std::uint8_t> data;
    for (std::size_t i = 0; i < count; ++i) {
        sleep_until_ns(t0 + i * step);
        fill_payload(data, 64, i, mono_ns());
        pub.publish(topic, framed_rt_signal(data, i));
    }
    tally.wait();
    return {tally.latency_us(0.5), tally.latency_us(0.99), tally.lost()};
}

struct Rttx {
    double tx_rate = 0;
    std::size_t tx_records = 0;
    double sub_rate = 0;
    std::size_t sub_count = 0;
};

// Framed SignalGroupData on an "rttx/" topic as fast as a bounded QoS 0
// publisher goes; records out of the TX FIFO next to a plain subscriber of
// the same messages.
Rttx broker_to_rt(int port, Daemon& daemon, std::size_t count) {
    std::atomic<std::size_t> sub_count{0};
    std::atomic<std::uint64_t> sub_last{0};
    Client sub(port, [&](const mosquitto_message&) {
        ++sub_count;
        sub_last = mono_ns();
    });
    sub.subscribe(g_rttx_topic);
    Client pub(port);
    const std::size_t tx_before = daemon.tx_records();
    const std::uint64_t start = mono_ns();
    for (std::size_t i = 0; i < count; ++i) {
        pb::SignalGroupData group;
        group.set_timestamp(i);
        auto* temp = group.add_signals();
        temp->set_name("target_temp");
        const std::uint8_t t[2] = {static_cast<std::uint8_t>(i), static_cast<std::uint8_t>(i >> 8)};
        temp->set_data(t, 2);
        auto* fan = group.add_signals();
        fan->set_name("fan_level");
        const std::uint8_t f = static_cast<std::uint8_t>(i % 8);
        fan->set_data(&f, 1);
        pub.publish(g_rttx_topic, framed(group));
    }
    pub.drain();
    // Until both have everything, or neither moved for g_quiet.
    std::size_t last_total = 0;
    std::uint64_t moved_at = mono_ns();
    for (;;) {
        const std::size_t tx = daemon.tx_records() - tx_before;
        const std::size_t total = tx + sub_count.load();
        if (tx >= count && sub_count.load() >= count) {
            break;
        }
        if (total != last_total) {
            last_total = total;
            moved_at = mono_ns();
        } else if (seconds_between(moved_at, mono_ns()) >= 2.0) {
            break;
        }
        std::this_thread::sleep_for(10ms);
    }
    Rttx r;
    r.tx_records = daemon.tx_records() - tx_before;
    const double tx_s = seconds_between(start, daemon.tx_last_ns());
    r.tx_rate = tx_s > 0 ? static_cast<double>(r.tx_records) / tx_s : 0;
    r.sub_count = sub_count.load();
    const double sub_s = seconds_between(start, sub_last.load());
    r.sub_rate = sub_s > 0 ? static_cast<double>(r.sub_count) / sub_s : 0;
    return r;
}

struct Earlybird {
    double bytes_per_record = 0;
    double flush_line_s = -1;
    double flush_all_s = -1;
    std::size_t lost = 0;
    std::size_t duplicated = 0;
    std::size_t rss_before = 0;
    std::size_t rss_after = 0;
};

// count records held by a fresh daemon until the target is reached: its
// resident memory per held record, then the time the flush takes.
Earlybird earlybird(const TempDir& dir, int port, std::size_t count) {
    Earlybird e;
    Daemon daemon(dir, "eb", port);
    Tally tally(count, Tally::Kind::framed, false);
    std::mutex mutex;
    std::condition_variable cv;
    bool marker = false;
    Client sub(port, [&](const mosquitto_message& m) {
        if (g_marker_topic == m.topic) {
            std::lock_guard<std::mutex> lock(mutex);
            marker = true;
            cv.notify_all();
        } else {
            tally.on_message(m);
        }
    });
    sub.subscribe(g_data_topic);
    sub.subscribe(g_marker_topic);
    announce(port, {g_data_topic});
    std::this_thread::sleep_for(300ms);
    e.rss_before = vm_rss_bytes(daemon.pid());

    ipc::IpcSignal record;
    record.id = g_data_id;
    std::vector<std::uint8_t> encoded;
    std::vector<std::uint8_t> buffer;
    const std::size_t batch = 4096;
    for (std::size_t i = 0; i < count;) {
        buffer.clear();
        for (std::size_t j = 0; j < batch && i < count; ++j, ++i) {
            fill_payload(record.data, 64, i, 0);
            record.timestamp = i;
            ipc::encode_record(record, encoded);
            buffer.insert(buffer.end(), encoded.begin(), encoded.end());
        }
        write_all(daemon.rx(), buffer.data(), buffer.size());
    }
    // A retained topic is published at once even while the rest is held: its
    // arrival says that every record before it has been taken in.
    record.id = g_marker_id;
    record.data.assign(8, 0);
    ipc::encode_record(record, encoded);
    write_all(daemon.rx(), encoded.data(), encoded.size());
    {
        std::unique_lock<std::mutex> lock(mutex);
        if (!cv.wait_for(lock, 300s, [&] { return marker; })) {
            fail("the earlybird marker never arrived");
        }
    }
    std::this_thread::sleep_for(300ms);
    e.rss_after = vm_rss_bytes(daemon.pid());
    e.bytes_per_record = (static_cast<double>(e.rss_after) - static_cast<double>(e.rss_before)) /
                         static_cast<double>(count);

    const std::uint64_t t0 = release_target(port);
    if (daemon.process().wait_output(g_flush_line, 300s)) {
        e.flush_line_s = seconds_between(t0, mono_ns());
    }
    tally.wait();
    e.flush_all_s = seconds_between(t0, tally.last_ns());
    e.lost = tally.lost();
    e.duplicated = tally.duplicated();
    daemon.stop();
    return e;
}

std::string met(bool ok) {
    return ok ? "met" : "MISSED";
}

int run(const Config& cfg) {
    TempDir dir;
    Broker broker(dir);
    const int port = broker.port();
    std::vector<Row> rows;
    std::vector<std::string> notes;

    progress("starting ipcd, announcing " + g_data_topic + ", releasing the target");
    auto daemon = std::make_unique<Daemon>(dir, "relay", port);
    announce(port, {g_data_topic});
    release_target(port);
    if (!daemon->process().wait_output(g_flush_line, 10s)) {
        fail("no flush line from ipcd: " + daemon->process().output());
    }

    progress("idle CPU for " + fmt("%.0f", cfg.idle_seconds) + " s");
    std::this_thread::sleep_for(500ms);
    const CpuTime idle0 = cpu_time(daemon->pid());
    const std::uint64_t idle_t0 = mono_ns();
    std::this_thread::sleep_for(std::chrono::duration<double>(cfg.idle_seconds));
    const CpuTime idle1 = cpu_time(daemon->pid());
    const double idle_wall = seconds_between(idle_t0, mono_ns());
    const double idle_sched =
        100.0 * static_cast<double>(idle1.sched_ns - idle0.sched_ns) / 1e9 / idle_wall;
    const double idle_stat =
        100.0 * static_cast<double>(idle1.stat_ns - idle0.stat_ns) / 1e9 / idle_wall;

    for (std::size_t size : {std::size_t{64}, std::size_t{1024}}) {
        const std::string n = std::to_string(cfg.relay_count);
        const std::string label = "RT->broker " + std::to_string(size) + " B";
        // The three publishers take turns, cfg.repeats times, and the median
        // rate of each counts: the machine is shared, and a burst of other
        // work then spoils one turn instead of one publisher's figure.
        std::vector<double> relay_rates;
        std::vector<double> plain_rates;
        std::vector<double> line_rates;
        Throughput relay_sum;
        Throughput plain_sum;
        Throughput line_sum;
        std::uint64_t ipcd_ns = 0;
        std::uint64_t broker_relay_ns = 0;
        std::uint64_t broker_plain_ns = 0;
        std::uint64_t self_relay_ns = 0;
        std::uint64_t self_plain_ns = 0;
        auto add = [](Throughput& sum, std::vector<double>& rates, const Throughput& t) {
            rates.push_back(t.rate);
            sum.lost += t.lost;
            sum.duplicated += t.duplicated;
        };
        for (int round = 1; round <= cfg.repeats; ++round) {
            const std::string of =
                " (" + std::to_string(round) + "/" + std::to_string(cfg.repeats) + ")";
            progress("relay " + std::to_string(size) + " B x " + n + of);
            const CpuTime ipcd0 = cpu_time(daemon->pid());
            const CpuTime broker0 = cpu_time(broker.pid());
            const CpuTime self0 = self_cpu();
            add(relay_sum, relay_rates, relay_throughput(port, *daemon, size, cfg.relay_count));
            const CpuTime ipcd1 = cpu_time(daemon->pid());
            const CpuTime broker1 = cpu_time(broker.pid());
            const CpuTime self1 = self_cpu();
            self_relay_ns += self1.sched_ns - self0.sched_ns;
            ipcd_ns += ipcd1.sched_ns - ipcd0.sched_ns;
            broker_relay_ns += broker1.sched_ns - broker0.sched_ns;
            progress("plain publisher " + std::to_string(size) + " B x " + n + of);
            add(plain_sum, plain_rates, plain_throughput(port, size, cfg.relay_count));
            broker_plain_ns += cpu_time(broker.pid()).sched_ns - broker1.sched_ns;
            self_plain_ns += self_cpu().sched_ns - self1.sched_ns;
            progress("mosquitto_pub -l " + std::to_string(size) + " B x " + n + of);
            add(line_sum, line_rates, line_throughput(port, size, cfg.relay_count));
        }
        const double relay_rate = median(relay_rates);
        const double plain_rate = median(plain_rates);
        const double ratio = plain_rate > 0 ? relay_rate / plain_rate : 0;
        rows.push_back({label + ", msg/s", fmt("%.0f", relay_rate), fmt("%.0f", plain_rate),
                        fmt("%.0f", median(line_rates)), fmt("%.2f", ratio), ">= 0.90 x baseline",
                        met(ratio >= 0.9)});
        rows.push_back({label + ", lost / dup", fmt_count(relay_sum.lost, relay_sum.duplicated),
                        fmt_count(plain_sum.lost, plain_sum.duplicated),
                        fmt_count(line_sum.lost, line_sum.duplicated), "", "0 / 0",
                        met(relay_sum.lost == 0 && relay_sum.duplicated == 0)});
        // Where the time goes: CPU per message of ipcd and of the broker.
        const double msgs = static_cast<double>(cfg.relay_count) * cfg.repeats;
        auto us = [&](std::uint64_t ns) {
            return fmt("%.2f", static_cast<double>(ns) / msgs / 1e3);
        };
        notes.push_back(label + ": rates per turn, ipcd " + join(relay_rates) + "; baseline " +
                        join(plain_rates) + "; mosquitto_pub " + join(line_rates));
        notes.push_back(label + ": CPU per message, ipcd " + us(ipcd_ns) + " us; broker " +
                        us(broker_relay_ns) + " us (relay turns), " + us(broker_plain_ns) +
                        " us (baseline turns)");
        // On a small machine the processes share the cores: the sum is what
        // a message costs the machine (bench = RX writer or publisher, and
        // the subscriber).
        notes.push_back(label + ": CPU per message, all processes: relay " +
                        us(self_relay_ns + ipcd_ns + broker_relay_ns) + " us (bench " +
                        us(self_relay_ns) + "), baseline " + us(self_plain_ns + broker_plain_ns) +
                        " us (bench " + us(self_plain_ns) + ")");
    }

    progress("latency at " + std::to_string(cfg.latency_rate) + "/s x " +
             std::to_string(cfg.latency_count));
    const Latency relay_lat = relay_latency(port, *daemon, cfg.latency_count, cfg.latency_rate);
    const Latency plain_lat = plain_latency(port, cfg.latency_count, cfg.latency_rate);
    const std::string pace = std::to_string(cfg.latency_rate / 1000) + "k/s";
    rows.push_back({"latency p50 @" + pace + ", us", fmt("%.0f", relay_lat.p50_us),
                    fmt("%.0f", plain_lat.p50_us), "",
                    fmt("%.2f", plain_lat.p50_us > 0 ? relay_lat.p50_us / plain_lat.p50_us : 0), "",
                    ""});
    rows.push_back({"latency p99 @" + pace + ", us", fmt("%.0f", relay_lat.p99_us),
                    fmt("%.0f", plain_lat.p99_us), "",
                    fmt("%.2f", plain_lat.p99_us > 0 ? relay_lat.p99_us / plain_lat.p99_us : 0), "",
                    ""});
    rows.push_back({"latency lost", std::to_string(relay_lat.lost), std::to_string(plain_lat.lost),
                    "", "", "0", met(relay_lat.lost == 0)});

    progress("broker->RT x " + std::to_string(cfg.rttx_count));
    const Rttx rttx = broker_to_rt(port, *daemon, cfg.rttx_count);
    rows.push_back({"broker->RT, msg/s", fmt("%.0f", rttx.tx_rate), fmt("%.0f", rttx.sub_rate), "",
                    fmt("%.2f", rttx.sub_rate > 0 ? rttx.tx_rate / rttx.sub_rate : 0), "", ""});
    rows.push_back({"broker->RT, received", std::to_string(rttx.tx_records),
                    std::to_string(rttx.sub_count), "", "", std::to_string(cfg.rttx_count),
                    met(rttx.tx_records == cfg.rttx_count)});

    const auto status1 = daemon->stop();
    daemon.reset();
    clear_status(port);

    progress("earlybird x " + std::to_string(cfg.earlybird_count));
    const Earlybird eb = earlybird(dir, port, cfg.earlybird_count);
    rows.push_back({"earlybird RSS per held 64 B record, B", fmt("%.0f", eb.bytes_per_record), "",
                    "", "", "<= 250", met(eb.bytes_per_record <= 250)});
    rows.push_back(
        {"earlybird flush, TPA -> done line, s", fmt("%.2f", eb.flush_line_s), "", "", "", "", ""});
    rows.push_back({"earlybird flush, TPA -> all received, s", fmt("%.2f", eb.flush_all_s), "", "",
                    "", "", ""});
    rows.push_back({"earlybird lost / dup", fmt_count(eb.lost, eb.duplicated), "", "", "", "0 / 0",
                    met(eb.lost == 0 && eb.duplicated == 0)});
    rows.push_back({"idle CPU, % of one core", fmt("%.3f", idle_sched), "", "", "", "< 0.1",
                    met(idle_sched < 0.1)});

    std::printf("\nsystem: the real ipcd against mosquitto on 127.0.0.1 (scale %.2f)\n", cfg.scale);
    print_table(rows, notes);
    std::printf(
        "  RT->broker: %zu records per size and turn into the RX FIFO in ~256 KiB writes; rate =\n"
        "    unique messages a subscriber got / (first write .. last receipt), median of the\n"
        "    turns; lost / dup summed over the turns. baseline = plain\n"
        "    libmosquitto publisher (threaded loop, QoS 0, at most %zu unwritten, same frames);\n"
        "    mosquitto_pub = mosquitto_pub -l fed one text line per record.\n"
        "  latency: %zu records of 64 B at %zu/s, FIFO write (or publish) -> subscriber receipt.\n"
        "  broker->RT: %zu framed SignalGroupData on %s, bounded QoS 0\n"
        "    publisher; ipcd = records out of the TX FIFO per second, baseline = a plain\n"
        "    subscriber of the same messages.\n"
        "  earlybird: %zu records held; VmRSS %.1f -> %.1f MiB. idle: %.0f s, all threads'\n"
        "    schedstat run time; utime+stime from /proc/PID/stat says %.3f %% (10 ms ticks).\n"
        "  ipcd exit status after the relay runs: %d (0 expected).\n",
        cfg.relay_count, g_max_outstanding, cfg.latency_count, cfg.latency_rate, cfg.rttx_count,
        g_rttx_topic.c_str(), cfg.earlybird_count, static_cast<double>(eb.rss_before) / 1048576.0,
        static_cast<double>(eb.rss_after) / 1048576.0, cfg.idle_seconds, idle_stat,
        status1 ? *status1 : -1);
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    signal(SIGPIPE, SIG_IGN);
    Config cfg;
    if (const char* env = std::getenv("BENCH_SCALE")) {
        cfg.scale = std::strtod(env, nullptr);
    }
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--quick") {
            cfg.scale = 0.05;
        } else if (arg.compare(0, 8, "--scale=") == 0) {
            cfg.scale = std::strtod(arg.c_str() + 8, nullptr);
        } else if (arg.compare(0, 12, "--benchmark_") == 0) {
            // Flags meant for the Google Benchmark programs run by the same script.
        } else {
            std::fprintf(stderr, "usage: system_bench [--quick] [--scale=X]\n");
            return 2;
        }
    }
    if (!(cfg.scale > 0)) {
        cfg.scale = 1.0;
    }
    cfg.apply_scale();
    mosquitto_lib_init();
    int status = 1;
    try {
        status = run(cfg);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "system_bench: %s\n", e.what());
    }
    mosquitto_lib_cleanup();
    return status;
}
