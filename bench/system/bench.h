#pragma once

// What the figures of the system benchmark share: the run's settings and
// table, a counting subscriber, the baselines (a plain libmosquitto publisher
// and the simplest relay),
// RT records that carry their number and send time, and what a process costs
// (CPU, memory, system calls, instructions, heap allocations). The broker,
// ipcd and the tools come from the test harness.

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "frames.h"
#include "harness.h"

struct mosquitto;

namespace bench {

using namespace ipcd_test;

// rt/vehicle/battery is what release() requests; rt/vehicle/speed is retained,
// so it is published even while the earlybird queue holds the rest.
constexpr std::uint32_t g_data_id = 23;
inline const std::string g_data_topic = "rt/vehicle/battery";
constexpr std::uint32_t g_marker_id = 20;
inline const std::string g_marker_topic = "rt/vehicle/speed";
inline const std::string g_rttx_topic = "rttx/hmi/climate_request";
inline const std::string g_relay_topic = "bench/relay";
inline const std::string g_flush_line = "Earlybird message processing done.";
// The transport's default bound on unwritten messages; the plain publisher
// keeps the same, so that both sides queue alike.
constexpr std::size_t g_max_outstanding = 4096;

struct Config {
    double scale = 1.0;
    std::size_t relay_count = 100000;  // per turn: 5 turns of 4 publishers
    std::size_t latency_count = 20000;
    std::size_t latency_rate = 10000;
    std::size_t rttx_count = 100000;
    std::size_t earlybird_count = 1000000;
    std::size_t profile_count = 20000;
    double idle_seconds = 10.0;
    double soak_seconds = 60.0;
    int repeats = 5;  // throughput turns per publisher and size
    int latency_rounds = 5;
    std::string only;  // comma-separated phases; empty: all

    void apply_scale();
};

// baseline is the plain publisher; relay the simplest relay (last, so that
// rows without it leave it out).
struct Row {
    std::string figure, ipcd, baseline, other, ratio, goal, result;
    std::string relay{};
};

struct Report {
    std::vector<Row> rows;
    std::vector<std::string> notes;
    void print(double scale) const;
};

void progress(const std::string& text);  // to stderr, while the run goes
std::string fmt(const char* format, double v);
std::string met(bool ok);
double median(std::vector<double> v);
// "median (min..max)" of v, each printed with format.
std::string spread(const std::vector<double>& v, const char* format = "%.0f");
std::uint64_t mono_ns();
double seconds_between(std::uint64_t from_ns, std::uint64_t to_ns);

// The RT payload of record seq: its number and send time up front, filled to size.
Bytes payload(std::size_t size, std::uint64_t seq, std::uint64_t sent_ns);
// What ipcd publishes for such a record, framed the same way.
Bytes framed_rt(const Bytes& data, std::uint64_t timestamp);
// count records of id, numbered from 0, into a FIFO (ipcd's RX or the simplest
// relay's) in writes of ~256 KiB.
void write_records(int fd, std::uint32_t id, std::size_t size, std::size_t count);
// One record into such a FIFO.
void write_record(int fd, std::uint32_t id, const Bytes& data, std::uint64_t timestamp);

// Counts the framed RT records it receives by number: unique, duplicated, and
// (with latency) the time from the send time in the payload to receipt.
class Tally : public ecu::kora::com::ISubscriptionObserver {
public:
    Tally(std::size_t expected, bool latency) : m_expected(expected), m_latency(latency) {}
    void message(const std::string& topic, const ecu::kora::com::Message& msg) override;
    // Until every record came, or nothing came for 2 s.
    void wait();
    std::size_t lost() const;
    std::size_t duplicated() const;
    std::uint64_t last_ns() const;
    double rate(std::uint64_t start_ns) const;  // unique per second, start to last receipt
    double latency_us(double q) const;          // the q-quantile; -1 when none

private:
    const std::size_t m_expected;
    const bool m_latency;
    mutable std::mutex m_mutex;
    std::condition_variable m_cv;
    std::vector<bool> m_seen;
    std::size_t m_unique = 0;
    std::size_t m_duplicated = 0;
    std::size_t m_other = 0;
    std::uint64_t m_last_ns = 0;
    std::vector<std::uint64_t> m_latencies_ns;
};

// Counts whatever arrives (any payload), and when the last came.
struct Arrivals : ecu::kora::com::ISubscriptionObserver {
    void message(const std::string&, const ecu::kora::com::Message&) override {
        ++count;
        last_ns = mono_ns();
    }
    std::atomic<std::size_t> count{0};
    std::atomic<std::uint64_t> last_ns{0};
};

// The product's client subscribed to a topic for an observer (by default a
// Tally of expected records); the subscription is live once it is made.
struct Subscriber {
    Subscriber(int port, const std::string& topic,
               std::shared_ptr<ecu::kora::com::ISubscriptionObserver> observer);
    Subscriber(int port, const std::string& topic, std::size_t expected, bool latency = false)
        : Subscriber(port, topic, std::make_shared<Tally>(expected, latency)) {}
    std::shared_ptr<Tally> tally;  // the observer, when it is a Tally
    Client client;
};

// A plain libmosquitto publisher in threaded mode, what a client application
// would write: QoS 0, waits while g_max_outstanding messages are unwritten.
class PlainPublisher {
public:
    explicit PlainPublisher(int port);
    ~PlainPublisher();
    PlainPublisher(const PlainPublisher&) = delete;
    PlainPublisher& operator=(const PlainPublisher&) = delete;
    void publish(const std::string& topic, const Bytes& payload);
    void drain();  // until every message is written

private:
    mosquitto* m_mosq;
    std::mutex m_mutex;
    std::condition_variable m_cv;
    std::size_t m_outstanding = 0;
    int m_connack = -1;
};

// The simplest relay (bench_simple_relay): reads records from a FIFO of its
// own and publishes each on g_relay_topic, framed as ipcd frames them, with
// libmosquitto's threaded loop. It runs under the counting allocator, as ipcd
// does, so that both pay the same for it.
class SimpleRelay {
public:
    explicit SimpleRelay(int port);
    ~SimpleRelay();
    SimpleRelay(const SimpleRelay&) = delete;
    SimpleRelay& operator=(const SimpleRelay&) = delete;
    int rx() const { return m_rx_fd; }
    pid_t pid() const { return m_process->pid(); }
    std::string alloc_counts() const { return m_dir.file("allocs"); }

private:
    TempDir m_dir;
    std::unique_ptr<Process> m_process;
    int m_rx_fd = -1;
};

// What a process has cost so far, all threads together.
struct Costs {
    std::uint64_t cpu_ns = 0;        // the scheduler's run time (schedstat)
    std::uint64_t reads = 0;         // read-class system calls (/proc/PID/io syscr)
    std::uint64_t writes = 0;        // write-class system calls (syscw)
    std::uint64_t max_reads = 0;     // read-class calls of its busiest reader thread
    std::uint64_t instructions = 0;  // user-space, from perf counters; 0 without them
    std::uint64_t news = 0;          // operator new (its own C++ code and protobuf)
    std::uint64_t mallocs = 0;       // malloc, calloc, realloc: every allocation

    Costs& operator+=(const Costs& more);
    Costs operator-(const Costs& before) const;  // what was spent since before
};

// Reads a running process's costs: perf counters opened on each of its threads
// when the meter is made, allocation counts when it runs under the counting
// allocator (see alloc_env()).
class CostMeter {
public:
    CostMeter(pid_t pid, const std::string& alloc_counts);
    ~CostMeter();
    CostMeter(const CostMeter&) = delete;
    CostMeter& operator=(const CostMeter&) = delete;
    Costs now() const;
    bool has_instructions() const { return !m_counters.empty(); }
    bool has_allocations() const { return m_alloc != nullptr; }

private:
    pid_t m_pid;
    std::vector<int> m_counters;
    const std::atomic<std::uint64_t>* m_alloc = nullptr;
};

// The environment that starts ipcd under the counting allocator, counting
// into the file at path; empty when the allocator was not built.
std::vector<std::string> alloc_env(const std::string& path);

std::uint64_t cpu_ns(pid_t pid);
std::uint64_t wakeups(pid_t pid);  // times any of its threads was put on a CPU
std::uint64_t self_cpu_ns();       // this process, ended threads included
std::size_t vm_rss_bytes(pid_t pid);

// The figures, each adding its rows and notes. The relay figures run on a
// released ipcd; the others start their own.
void relay(const Config& cfg, Report& report, int port, Daemon& daemon, SimpleRelay& simple,
           pid_t broker);
void latency(const Config& cfg, Report& report, int port, Daemon& daemon, SimpleRelay& simple);
void broker_to_rt(const Config& cfg, Report& report, int port, Daemon& daemon);
void idle(const Config& cfg, Report& report, Daemon& daemon, int port);
void earlybird(const Config& cfg, Report& report, int port);
void restart(const Config& cfg, Report& report);
void stop(const Config& cfg, Report& report);
void soak(const Config& cfg, Report& report, int port);
void profile(const Config& cfg, Report& report, int port);

}  // namespace bench
