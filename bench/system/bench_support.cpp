// The benchmark's own parts: settings, table, records, the counting
// subscriber and the baselines.

#include <fcntl.h>
#include <mosquitto.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "bench.h"

namespace bench {

void Config::apply_scale() {
    auto scaled = [&](std::size_t n) {
        return std::max<std::size_t>(100, static_cast<std::size_t>(static_cast<double>(n) * scale));
    };
    relay_count = scaled(relay_count);
    latency_count = scaled(latency_count);
    rttx_count = scaled(rttx_count);
    earlybird_count = scaled(earlybird_count);
    profile_count = scaled(profile_count);
    idle_seconds = std::max(1.0, idle_seconds * scale);
    soak_seconds = std::max(2.0, soak_seconds * scale);
}

void Report::print(double scale) const {
    const Row head{"figure", "ipcd", "plain publisher", "mosquitto_pub",
                   "ratio",  "goal", "goal met?",       "simplest relay"};
    auto cells = [](const Row& r) {
        return std::vector<const std::string*>{&r.figure, &r.ipcd,  &r.relay, &r.baseline,
                                               &r.other,  &r.ratio, &r.goal,  &r.result};
    };
    std::vector<std::size_t> width(8, 0);
    std::vector<Row> all{head};
    all.insert(all.end(), rows.begin(), rows.end());
    for (const auto& r : all) {
        for (std::size_t i = 0; i < 8; ++i) {
            width[i] = std::max(width[i], cells(r)[i]->size());
        }
    }
    auto line = [&](const Row& r) {
        for (std::size_t i = 0; i < 8; ++i) {
            std::printf(i == 0 ? "%-*s" : " | %*s", static_cast<int>(width[i]),
                        cells(r)[i]->c_str());
        }
        std::printf("\n");
    };
    std::printf("\nsystem: the real ipcd against mosquitto on 127.0.0.1 (scale %.2f)\n\n", scale);
    line(head);
    std::size_t total = 0;
    for (auto w : width) {
        total += w + 3;
    }
    std::printf("%s\n", std::string(total - 3, '-').c_str());
    for (const auto& r : rows) {
        line(r);
    }
    for (const auto& n : notes) {
        std::printf("  %s\n", n.c_str());
    }
    std::fflush(stdout);
}

void progress(const std::string& text) {
    std::fprintf(stderr, "system_bench: %s\n", text.c_str());
}

std::string fmt(const char* format, double v) {
    char buf[64];
    std::snprintf(buf, sizeof buf, format, v);
    return buf;
}

std::string met(bool ok) {
    return ok ? "met" : "MISSED";
}

double median(std::vector<double> v) {
    if (v.empty()) {
        return 0;
    }
    std::sort(v.begin(), v.end());
    return v[v.size() / 2];
}

std::string spread(const std::vector<double>& v, const char* format) {
    if (v.empty()) {
        return "";
    }
    const auto [lo, hi] = std::minmax_element(v.begin(), v.end());
    return fmt(format, median(v)) + " (" + fmt(format, *lo) + ".." + fmt(format, *hi) + ")";
}

std::uint64_t mono_ns() {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    return static_cast<std::uint64_t>(ts.tv_sec) * 1000000000ULL +
           static_cast<std::uint64_t>(ts.tv_nsec);
}

double seconds_between(std::uint64_t from_ns, std::uint64_t to_ns) {
    return to_ns > from_ns ? static_cast<double>(to_ns - from_ns) / 1e9 : 0.0;
}

namespace {

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

}  // namespace

Bytes payload(std::size_t size, std::uint64_t seq, std::uint64_t sent_ns) {
    Bytes data(std::max<std::size_t>(size, 16), 0x5A);
    put_le64(data.data(), seq);
    put_le64(data.data() + 8, sent_ns);
    return data;
}

Bytes framed_rt(const Bytes& data, std::uint64_t timestamp) {
    ecu::kora::pb::RtSignal body;
    body.set_timestamp(timestamp);
    body.set_data(data.data(), data.size());
    body.set_tag(0);
    body.set_source("ipcd");
    return framed(body);
}

namespace {

void write_all(int fd, const Bytes& bytes) {
    for (std::size_t done = 0; done < bytes.size();) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n <= 0) {
            throw std::runtime_error("cannot write into the RX FIFO");
        }
        done += static_cast<std::size_t>(n);
    }
}

}  // namespace

void write_records(int fd, std::uint32_t id, std::size_t size, std::size_t count) {
    const std::size_t batch = std::max<std::size_t>(16, std::size_t{256} * 1024 / (size + 24));
    Bytes encoded;
    Bytes buffer;
    for (std::size_t i = 0; i < count;) {
        buffer.clear();
        for (std::size_t j = 0; j < batch && i < count; ++j, ++i) {
            ecu::kora::ipc::encode_record({id, 0, i, payload(size, i, 0)}, encoded);
            buffer.insert(buffer.end(), encoded.begin(), encoded.end());
        }
        write_all(fd, buffer);
    }
}

void write_record(int fd, std::uint32_t id, const Bytes& data, std::uint64_t timestamp) {
    Bytes encoded;
    ecu::kora::ipc::encode_record({id, 0, timestamp, data}, encoded);
    write_all(fd, encoded);
}

void Tally::message(const std::string&, const ecu::kora::com::Message& msg) {
    const std::uint64_t now = mono_ns();
    const auto body = unframed<ecu::kora::pb::RtSignal>(msg.payload);
    std::lock_guard<std::mutex> lock(m_mutex);
    m_last_ns = now;
    if (body.data().size() < 16) {
        ++m_other;
        m_cv.notify_all();
        return;
    }
    const auto* data = reinterpret_cast<const std::uint8_t*>(body.data().data());
    const std::uint64_t seq = get_le64(data);
    if (m_seen.size() <= seq) {
        m_seen.resize(std::max<std::size_t>(m_expected, seq + 1));
    }
    if (m_seen[seq]) {
        ++m_duplicated;
    } else {
        m_seen[seq] = true;
        ++m_unique;
        if (m_latency && get_le64(data + 8) < now) {
            m_latencies_ns.push_back(now - get_le64(data + 8));
        }
    }
    m_cv.notify_all();
}

void Tally::wait() {
    std::unique_lock<std::mutex> lock(m_mutex);
    std::size_t seen = m_unique + m_duplicated + m_other;
    std::uint64_t moved_at = mono_ns();
    while (m_unique < m_expected && seconds_between(moved_at, mono_ns()) < 2.0) {
        m_cv.wait_for(lock, 100ms);
        if (m_unique + m_duplicated + m_other != seen) {
            seen = m_unique + m_duplicated + m_other;
            moved_at = mono_ns();
        }
    }
}

std::size_t Tally::lost() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_expected - std::min(m_expected, m_unique);
}

std::size_t Tally::duplicated() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_duplicated;
}

std::uint64_t Tally::last_ns() const {
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_last_ns;
}

double Tally::rate(std::uint64_t start_ns) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    const double s = seconds_between(start_ns, m_last_ns);
    return s > 0 ? static_cast<double>(m_unique) / s : 0.0;
}

double Tally::latency_us(double q) const {
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_latencies_ns.empty()) {
        return -1.0;
    }
    std::vector<std::uint64_t> v = m_latencies_ns;
    const auto k = static_cast<std::size_t>(q * static_cast<double>(v.size() - 1));
    std::nth_element(v.begin(), v.begin() + static_cast<std::ptrdiff_t>(k), v.end());
    return static_cast<double>(v[k]) / 1000.0;
}

namespace {
std::atomic<int> g_clients{0};  // each subscriber a client name of its own
}

Subscriber::Subscriber(int port, const std::string& topic,
                       std::shared_ptr<ecu::kora::com::ISubscriptionObserver> observer)
    : tally(std::dynamic_pointer_cast<Tally>(observer)),
      client(port, {{"client_name", "bench-" + std::to_string(++g_clients)}}) {
    if (!client->subscribe(topic, 0, std::move(observer)) || !client->connect() ||
        !client->start()) {
        throw std::runtime_error("cannot subscribe to " + topic);
    }
    // The SUBACK has no callback here: a marker published until it comes back
    // says that the broker has the subscriptions, which it takes in order.
    const std::string marker = "bench/ready/" + client->client_name();
    auto seen = std::make_shared<Arrivals>();
    client->subscribe(marker, 0, seen);
    PlainPublisher pub(port);
    for (int i = 0; i < 200 && seen->count == 0; ++i) {
        pub.publish(marker, Bytes{1});
        std::this_thread::sleep_for(10ms);
    }
}

PlainPublisher::PlainPublisher(int port) : m_mosq(mosquitto_new(nullptr, true, this)) {
    if (m_mosq == nullptr) {
        throw std::runtime_error("mosquitto_new failed");
    }
    mosquitto_int_option(m_mosq, MOSQ_OPT_TCP_NODELAY, 1);
    mosquitto_connect_callback_set(m_mosq, [](mosquitto*, void* self, int rc) {
        auto* p = static_cast<PlainPublisher*>(self);
        std::lock_guard<std::mutex> lock(p->m_mutex);
        p->m_connack = rc;
        p->m_cv.notify_all();
    });
    mosquitto_publish_callback_set(m_mosq, [](mosquitto*, void* self, int) {
        auto* p = static_cast<PlainPublisher*>(self);
        std::lock_guard<std::mutex> lock(p->m_mutex);
        p->m_outstanding -= p->m_outstanding > 0 ? 1 : 0;
        p->m_cv.notify_all();
    });
    std::unique_lock<std::mutex> lock(m_mutex);
    if (mosquitto_connect(m_mosq, "127.0.0.1", port, 60) != MOSQ_ERR_SUCCESS ||
        mosquitto_loop_start(m_mosq) != MOSQ_ERR_SUCCESS ||
        !m_cv.wait_for(lock, 5s, [this] { return m_connack >= 0; }) || m_connack != 0) {
        throw std::runtime_error("the plain publisher cannot connect");
    }
}

PlainPublisher::~PlainPublisher() {
    mosquitto_disconnect(m_mosq);
    mosquitto_loop_stop(m_mosq, false);
    mosquitto_destroy(m_mosq);
}

void PlainPublisher::publish(const std::string& topic, const Bytes& payload) {
    {
        std::unique_lock<std::mutex> lock(m_mutex);
        if (!m_cv.wait_for(lock, 30s, [this] { return m_outstanding < g_max_outstanding; })) {
            throw std::runtime_error("the plain publisher is stuck");
        }
        ++m_outstanding;
    }
    const int rc = mosquitto_publish(m_mosq, nullptr, topic.c_str(),
                                     static_cast<int>(payload.size()), payload.data(), 0, false);
    if (rc != MOSQ_ERR_SUCCESS) {
        throw std::runtime_error("publish on " + topic + ": " + mosquitto_strerror(rc));
    }
}

void PlainPublisher::drain() {
    std::unique_lock<std::mutex> lock(m_mutex);
    m_cv.wait_for(lock, 30s, [this] { return m_outstanding == 0; });
}

SimpleRelay::SimpleRelay(int port) {
#ifdef BENCH_SIMPLE_RELAY
    const std::string fifo = m_dir.fifo("rx");
    m_process = std::make_unique<Process>(
        std::vector<std::string>{BENCH_SIMPLE_RELAY, fifo, std::to_string(port), g_relay_topic},
        alloc_env(alloc_counts()));
    // It opens the FIFO once connected; the open here waits for that.
    if (!m_process->wait_out("ready")) {
        throw std::runtime_error("the simplest relay does not start: " + m_process->err());
    }
    m_rx_fd = open(fifo.c_str(), O_WRONLY | O_CLOEXEC);
    if (m_rx_fd < 0) {
        throw std::runtime_error("cannot open the simplest relay's FIFO");
    }
#else
    (void)port;
    throw std::runtime_error("the simplest relay was not built");
#endif
}

SimpleRelay::~SimpleRelay() {
    if (m_rx_fd >= 0) {
        close(m_rx_fd);  // it writes what it holds and ends
    }
    if (m_process) {
        m_process->wait(10s);
    }
}

}  // namespace bench
