#pragma once

// The real parts, for the integration, end-to-end and fault tests and the
// system benchmark.

#include <signal.h>

#include <atomic>
#include <map>
#include <memory>
#include <nlohmann/json.hpp>
#include <optional>

#include "mqtt_client.h"
#include "record_format.h"
#include "support.h"

namespace ipcd_test {

// The binaries under test; the benchmark may measure another ipcd.
inline const std::string g_ipcd =
    std::getenv("BENCH_IPCD") ? std::getenv("BENCH_IPCD") : IPCD_BINARY;
inline const std::string g_sim = IPCD_SIM_BINARY;
inline const std::string g_ctl = IPCD_CTL_BINARY;
inline const std::string g_sample_catalogue = IPCD_SAMPLE_CATALOGUE;

// A child process writing to files of its own, with env ("NAME=value") over
// the current environment. It dies with the test process, and its process
// group with the Process: a timed-out test leaves nothing behind.
class Process {
public:
    explicit Process(std::vector<std::string> argv, const std::vector<std::string>& env = {});
    ~Process();
    pid_t pid() const { return m_pid; }
    std::optional<int> wait(std::chrono::milliseconds deadline = 20s);
    bool running() { return !wait(0ms); }
    void signal(int sig) {
        if (!m_status) {
            kill(m_pid, sig);
        }
    }
    std::string out() const { return read_file(m_dir.file("out")); }
    std::string err() const { return read_file(m_dir.file("err")); }
    bool wait_out(const std::string& text, std::chrono::milliseconds deadline = 10s) const {
        return wait_until([&] { return out().find(text) != std::string::npos; }, deadline);
    }

private:
    TempDir m_dir;
    pid_t m_pid = -1;
    std::optional<int> m_status;
};

struct Outcome {
    int status;
    std::string out;
    std::string err;
};
Outcome run(const std::vector<std::string>& argv, const std::vector<std::string>& env = {});
// ipcd-ctl [options] args, the sample catalogue.
Outcome ctl(int port, std::vector<std::string> args, const std::vector<std::string>& options = {});
// ipcd-ctl [options] watch --json with args (options, then topics), once it watches.
std::unique_ptr<Process> watch(int port, std::vector<std::string> args,
                               const std::vector<std::string>& options = {});
// ipcd-ctl's options that log in as an identity of the shipped broker.
std::vector<std::string> login(const std::string& identity);
// ipcd's configuration file in dir that logs it in with its identity there.
std::string ipcd_login(const TempDir& dir);
std::vector<nlohmann::json> json_lines(const std::string& text);  // one per whole line

int free_port();  // on 127.0.0.1, bound and released

// The shipped local broker (dist/broker) with the test's port and paths:
// login and ACL, and with an upstream port the fleet bridge to a plain broker
// there. Each identity's password is its name and "-pw".
struct Shipped {
    int upstream_port = 0;
};

// A mosquitto of the test's own on 127.0.0.1 and a free port: nothing
// persisted unless asked (then across its restarts), QoS 0 queueing unlimited
// (a slow subscriber loses nothing), TCP_NODELAY as for ipcd, then
// extra_config (e.g. TlsFiles::listener).
class Broker {
public:
    explicit Broker(std::string extra_config = {}, bool persistent = false);
    explicit Broker(Shipped shipped);
    int port() const { return m_port; }
    pid_t pid() const { return m_process->pid(); }
    void stop(bool hard = false);  // SIGTERM, or SIGKILL when hard; waits for the end
    void start();                  // again, on the same ports
    void pause() { m_process->signal(SIGSTOP); }  // connections stay, nothing is answered
    void resume() { m_process->signal(SIGCONT); }
    Process& process() { return *m_process; }  // its log on standard error

private:
    TempDir m_dir;
    int m_port;
    std::unique_ptr<Process> m_process;
};

// ca.crt, other-ca.crt (signed none), client.{crt,key}; the user ipcd, Hunter2
// (passwords; strangers knows another user only).
class TlsFiles {
public:
    TlsFiles();
    std::string file(const std::string& name) const { return m_dir.file(name); }
    // login: user and password, else the client certificate; wrong_name: the
    // broker's certificate is for another host.
    std::string listener(int port, bool login = true, bool wrong_name = false) const;

private:
    TempDir m_dir;
};

// The product's MQTT client on 127.0.0.1:port, settings over the defaults.
struct Client {
    explicit Client(int port, const std::map<std::string, std::string>& settings = {});
    ecu::kora::com::MqttClient* operator->() const { return client.get(); }
    std::unique_ptr<ecu::kora::config::Configuration> config;  // outlives the client
    std::shared_ptr<ecu::kora::com::MqttClient> client;        // null: settings refused
};

// ipcd with two FIFOs of its own, a catalogue and a notification socket. TX
// is open for reading before ipcd starts (it opens TX first and needs its
// reader); RX is opened for writing once ipcd is ready.
class Daemon {
public:
    explicit Daemon(int port, std::string catalogue = g_sample_catalogue);
    ~Daemon();
    // [wrapper...] ipcd -L -H 127.0.0.1 -p PORT -r RX -t TX [extra...]; waits
    // for READY=1 and RX.
    void start(std::vector<std::string> extra = {}, std::vector<std::string> env = {},
               std::vector<std::string> wrapper = {});
    void write_record(std::uint32_t id, const std::vector<std::uint8_t>& data,
                      std::uint64_t timestamp = 1);
    std::optional<int> stop();  // closes RX, so ipcd ends in order; its exit status
    void close_tx();            // the RT side stops reading
    // Waits until count records came out of TX; all so far.
    std::vector<ecu::kora::ipc::IpcSignal> tx_records(std::size_t count);
    std::size_t notified(const std::string& message);                   // sd_notify messages so far
    std::vector<std::string> notifications(const std::string& prefix);  // those it begins
    // The notification socket is read until the Daemon ends; from now on it is
    // never read again and left full, like a service manager that hangs.
    void stop_draining();
    Process& process() { return *m_process; }
    const TempDir& dir() const { return m_dir; }
    int rx() const { return m_rx_fd; }  // for writes of many records at once

private:
    TempDir m_dir;
    int m_port;
    std::string m_catalogue;
    int m_notify_fd;
    int m_rx_fd = -1;
    int m_tx_fd;
    std::mutex m_notify_mutex;
    std::vector<std::string> m_notifications;
    std::atomic<bool> m_draining{true};
    std::thread m_drain;
    ecu::kora::ipc::RecordDecoder m_tx_decoder;
    std::vector<ecu::kora::ipc::IpcSignal> m_tx_out;
    std::unique_ptr<Process> m_process;
};

// Requests rt/vehicle/battery (RT id 23, not retained) and releases the
// earlybird queue with ipcd-ctl: its records are then relayed as they come.
void release(Daemon& daemon, int port, const std::vector<std::string>& login = {});

// ipcd-sim writing generated records of topics into the daemon's RX, rate
// per topic, count in all (RX then kept open) or until stopped. A group's
// first signal counts from 1.
std::unique_ptr<Process> generate(const Daemon& daemon, const std::string& topics, unsigned rate,
                                  unsigned count = 0);
std::size_t generated(const Process& sim);  // records written so far

}  // namespace ipcd_test
