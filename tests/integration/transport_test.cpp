// The MQTT client against a private mosquitto: connection outcomes, delivery,
// retained and QoS 1 messages, concurrent publishers, back-pressure, and a
// broker restart mid-stream.

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <mosquitto.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <future>

#include "configuration.h"
#include "mqtt_client.h"
#include "support.h"

using namespace std::chrono_literals;
using ecu::kora::com::ISubscriptionObserver;
using ecu::kora::com::Message;
using ecu::kora::com::MqttClient;
using ecu::kora::com::TransportType;
using ecu::kora::config::Configuration;
using ipcd_test::Broker;
using ipcd_test::LogCapture;
using ipcd_test::wait_until;

namespace {

// The configuration stays alive as long as the client, as create_client asks.
struct TestClient {
    std::unique_ptr<Configuration> config;
    std::shared_ptr<MqttClient> client;
    MqttClient* operator->() const { return client.get(); }
};

TestClient make_client(int port, const std::string& name,
                       const std::map<std::string, std::string>& extra = {}) {
    TestClient t{std::make_unique<Configuration>(), nullptr};
    t.config->values() = {
        {"host", "127.0.0.1"}, {"port", std::to_string(port)}, {"client_name", name}};
    for (const auto& [key, value] : extra) {
        t.config->values()[key] = value;
    }
    t.client = std::dynamic_pointer_cast<MqttClient>(
        ecu::kora::com::create_client(t.config, TransportType::mqtt));
    return t;
}

struct Received {
    std::string topic;
    std::vector<std::uint8_t> payload;
    int qos;
    bool retained;
};

class Recorder : public ISubscriptionObserver {
public:
    void message(const std::string& topic, const Message& msg) override {
        if (topic == "rttx/throw") {
            throw std::runtime_error("observer failure");
        }
        std::lock_guard<std::mutex> lock(m_mutex);
        m_received.push_back({topic, msg.payload, msg.qos, msg.retained});
    }
    std::vector<Received> received() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }
    std::size_t count() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received.size();
    }
    std::vector<std::string> topics() const {
        std::vector<std::string> out;
        for (const auto& r : received()) {
            out.push_back(r.topic);
        }
        return out;
    }

private:
    mutable std::mutex m_mutex;
    std::vector<Received> m_received;
};

Message make_message(std::vector<std::uint8_t> payload, int qos = 0, bool retained = false) {
    Message msg;
    msg.payload = std::move(payload);
    msg.qos = static_cast<std::uint8_t>(qos);
    msg.retained = retained;
    return msg;
}

// Payload: one byte of producer number, then a 32-bit sequence number.
std::vector<std::uint8_t> sequenced(std::uint8_t producer, std::uint32_t seq) {
    std::vector<std::uint8_t> p(5);
    p[0] = producer;
    std::memcpy(p.data() + 1, &seq, sizeof seq);
    return p;
}
std::uint32_t seq_of(const std::vector<std::uint8_t>& p) {
    std::uint32_t seq = 0;
    std::memcpy(&seq, p.data() + 1, sizeof seq);
    return seq;
}

#if defined(__SANITIZE_ADDRESS__)
constexpr bool address_sanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
constexpr bool address_sanitizer = true;
#else
constexpr bool address_sanitizer = false;
#endif
#else
constexpr bool address_sanitizer = false;
#endif

long vm_rss_kb() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.rfind("VmRSS:", 0) == 0) {
            return std::stol(line.substr(6));
        }
    }
    return -1;
}

// A second client on raw libmosquitto, subscribing on every connection.
class RawSubscriber {
public:
    RawSubscriber(int port, std::string filter) : m_filter(std::move(filter)) {
        m_mosq = mosquitto_new(nullptr, true, this);
        mosquitto_connect_callback_set(m_mosq, [](mosquitto* m, void* self, int rc) {
            if (rc == 0) {
                mosquitto_subscribe(m, nullptr, static_cast<RawSubscriber*>(self)->m_filter.c_str(),
                                    1);
            }
        });
        mosquitto_message_callback_set(
            m_mosq, [](mosquitto*, void* self, const mosquitto_message* m) {
                auto* me = static_cast<RawSubscriber*>(self);
                const auto* bytes = static_cast<const std::uint8_t*>(m->payload);
                std::lock_guard<std::mutex> lock(me->m_mutex);
                me->m_received.push_back({m->topic,
                                          std::vector<std::uint8_t>(bytes, bytes + m->payloadlen),
                                          m->qos, m->retain});
            });
        EXPECT_EQ(mosquitto_connect(m_mosq, "127.0.0.1", port, 60), MOSQ_ERR_SUCCESS);
        EXPECT_EQ(mosquitto_loop_start(m_mosq), MOSQ_ERR_SUCCESS);
    }
    ~RawSubscriber() {
        mosquitto_disconnect(m_mosq);
        mosquitto_loop_stop(m_mosq, false);
        mosquitto_destroy(m_mosq);
    }
    std::vector<Received> received() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_received;
    }

private:
    std::string m_filter;
    mosquitto* m_mosq;
    mutable std::mutex m_mutex;
    std::vector<Received> m_received;
};

// A TCP listener that is not a broker: it never accepts (the handshake still
// completes in the backlog), or it answers CONNECT with a refusing CONNACK.
class FakeServer {
public:
    explicit FakeServer(bool refuse) {
        m_fd = socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in addr{};
        addr.sin_family = AF_INET;
        addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t len = sizeof addr;
        EXPECT_EQ(bind(m_fd, reinterpret_cast<sockaddr*>(&addr), len), 0);
        EXPECT_EQ(listen(m_fd, 8), 0);
        getsockname(m_fd, reinterpret_cast<sockaddr*>(&addr), &len);
        m_port = ntohs(addr.sin_port);
        if (refuse) {
            m_thread = std::thread([this] {
                int conn = accept(m_fd, nullptr, nullptr);
                if (conn < 0) {
                    return;
                }
                char buf[256];
                if (read(conn, buf, sizeof buf) > 0) {
                    // CONNACK, return code 5: not authorised.
                    const unsigned char connack[] = {0x20, 0x02, 0x00, 0x05};
                    EXPECT_EQ(write(conn, connack, sizeof connack), 4);
                }
                m_answered = true;
                wait_until([this] { return m_done.load(); }, 20s);
                close(conn);
            });
        }
    }
    ~FakeServer() {
        m_done = true;
        shutdown(m_fd, SHUT_RDWR);
        if (m_thread.joinable()) {
            m_thread.join();
        }
        close(m_fd);
    }
    int port() const { return m_port; }
    bool answered() const { return m_answered; }

private:
    int m_fd = -1;
    int m_port = 0;
    std::thread m_thread;
    std::atomic<bool> m_answered{false};
    std::atomic<bool> m_done{false};
};

bool port_open(int port) {
    int fd = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in addr{};
    addr.sin_family = AF_INET;
    addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    addr.sin_port = htons(static_cast<std::uint16_t>(port));
    const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) == 0;
    close(fd);
    return ok;
}

// connect() on another thread; fails the test if it hangs past the bound.
// A connected client is started unless asked not to, so that it delivers.
bool connect_within(MqttClient& client, std::chrono::seconds bound, bool start = true) {
    auto result = std::async(std::launch::async, [&] { return client.connect(); });
    if (result.wait_for(bound) != std::future_status::ready) {
        ADD_FAILURE() << "connect() did not return within " << bound.count() << " s";
        std::abort();  // the client cannot be destroyed while connect() runs
    }
    bool connected = result.get();
    if (connected && start) {
        EXPECT_TRUE(client.start());
    }
    return connected;
}

TEST(TransportConnect, Outcomes) {
    LogCapture capture;
    Broker broker;
    {
        auto t = make_client(broker.port(), "connect-ok");
        ASSERT_TRUE(t.client);
        EXPECT_EQ(t->client_name(), "connect-ok");
        EXPECT_TRUE(connect_within(*t.client, 10s));
        EXPECT_TRUE(t->connected());
        EXPECT_TRUE(t->start());
        EXPECT_TRUE(t->stop());
        EXPECT_TRUE(t->stop()) << "stop is idempotent";
        Message msg = make_message({1});
        EXPECT_LE(t->publish("after/stop", msg), 0);
    }
    {
        auto t = make_client(ipcd_test::free_port(), "connect-closed");
        EXPECT_FALSE(connect_within(*t.client, 10s));
        EXPECT_FALSE(capture.find("Connection refused").empty());
    }
    {
        FakeServer silent(false);
        auto t = make_client(silent.port(), "connect-silent");
        EXPECT_FALSE(connect_within(*t.client, 10s));
        EXPECT_FALSE(capture.find("no CONNACK within 5 s").empty());
    }
    {
        FakeServer refusing(true);
        auto t = make_client(refusing.port(), "connect-refused");
        EXPECT_FALSE(connect_within(*t.client, 10s));
        EXPECT_TRUE(refusing.answered());
        EXPECT_FALSE(capture.find("refused by the broker").empty());
    }
    auto config = std::make_unique<Configuration>();
    EXPECT_EQ(ecu::kora::com::create_client(config, static_cast<TransportType>(7)), nullptr);
    auto lines = capture.find("unknown transport type 7");
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_EQ(lines[0].severity, ecu::kora::logging::error);
    EXPECT_EQ(lines[0].module, "kora.com.transport");
}

TEST(TransportDelivery, WildcardsRoutingAndFailingObserver) {
    LogCapture capture;
    Broker broker;
    auto t = make_client(broker.port(), "delivery");
    auto rttx = std::make_shared<Recorder>();
    auto status = std::make_shared<Recorder>();
    // Before connect: remembered and sent with the connection. After connect
    // and before start: sent at once.
    ASSERT_TRUE(t->subscribe("rttx/#", 0, rttx));
    ASSERT_TRUE(connect_within(*t.client, 10s, false));
    ASSERT_TRUE(t->subscribe("status/+", 0, status));
    EXPECT_FALSE(t->subscribe("bad/#/filter", 0, status));

    // One connection: the broker handles the SUBSCRIBEs before these.
    // Deliveries wait for start(), which also holds the network thread, so
    // start() must not wait for these to be written.
    for (const char* topic : {"rttx/a", "rtt/x", "rttx/throw", "rttx/b/c", "status/one",
                              "status/one/two", "other/rttx", "status/end"}) {
        Message msg = make_message({'x'});
        EXPECT_EQ(t->publish(topic, msg), 1) << topic;
    }
    ASSERT_TRUE(t->start());
    ASSERT_TRUE(wait_until([&] { return status->count() == 2; }));
    EXPECT_EQ(rttx->topics(), (std::vector<std::string>{"rttx/a", "rttx/b/c"}));
    EXPECT_EQ(status->topics(), (std::vector<std::string>{"status/one", "status/end"}));
    EXPECT_EQ(capture.find("observer failure").size(), 1u);
    auto first = rttx->received().at(0);
    EXPECT_EQ(first.payload, std::vector<std::uint8_t>{'x'});
    EXPECT_FALSE(first.retained);
}

TEST(TransportDelivery, RetainedAndQos1SeenByLaterClients) {
    Broker broker;
    auto pub = make_client(broker.port(), "retain-pub");
    ASSERT_TRUE(connect_within(*pub.client, 10s));
    Message plain = make_message({'p'}, 0, false);
    Message kept = make_message({'R', '1'}, 1, true);
    EXPECT_EQ(pub->publish("status/plain", plain), 1);
    EXPECT_EQ(pub->publish("status/retained", kept), 1);
    // Pending falls to zero on the broker's PUBACK.
    ASSERT_TRUE(wait_until([&] { return pub->pending() == 0; }));

    RawSubscriber raw(broker.port(), "status/#");
    auto late = make_client(broker.port(), "retain-late");
    auto recorder = std::make_shared<Recorder>();
    late->subscribe("status/#", 1, recorder);
    ASSERT_TRUE(connect_within(*late.client, 10s));
    ASSERT_TRUE(wait_until([&] { return !raw.received().empty() && recorder->count() > 0; }));

    // A marker proves that nothing else (the plain message) was waiting.
    Message end = make_message({'e'});
    EXPECT_EQ(pub->publish("status/end", end), 1);
    ASSERT_TRUE(wait_until([&] { return raw.received().size() == 2 && recorder->count() == 2; }));
    for (const auto& got : {raw.received(), recorder->received()}) {
        EXPECT_EQ(got[0].topic, "status/retained");
        EXPECT_EQ(got[0].payload, (std::vector<std::uint8_t>{'R', '1'}));
        EXPECT_TRUE(got[0].retained);
        EXPECT_EQ(got[0].qos, 1);
        EXPECT_EQ(got[1].topic, "status/end");
        EXPECT_FALSE(got[1].retained);
    }
}

// Publishes on topic until the subscriber has seen one: the broker has then
// handled the subscription of the other connection.
void await_subscription(MqttClient& pub, const std::string& topic, const Recorder& rec) {
    ASSERT_TRUE(wait_until([&] {
        Message probe = make_message({0xff});
        pub.publish(topic, probe);
        return rec.count() > 0;
    }));
}

TEST(TransportLoad, ThreeThreadsPublishConcurrently) {
    Broker broker;
    auto pub = make_client(broker.port(), "load-pub");
    auto sub = make_client(broker.port(), "load-sub");
    auto rec = std::make_shared<Recorder>();
    sub->subscribe("load/#", 0, rec);
    ASSERT_TRUE(connect_within(*sub.client, 10s));
    ASSERT_TRUE(connect_within(*pub.client, 10s));
    await_subscription(*pub.client, "load/probe", *rec);

    constexpr std::uint32_t per_thread = 10000;
    std::atomic<int> refused{0};
    std::vector<std::thread> threads;
    for (std::uint8_t p = 0; p < 3; ++p) {
        threads.emplace_back([&, p] {
            const std::string topic = "load/t" + std::to_string(p);
            for (std::uint32_t i = 0; i < per_thread; ++i) {
                Message msg = make_message(sequenced(p, i));
                if (pub->publish(topic, msg) != 1) {
                    ++refused;
                }
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_EQ(refused, 0);
    std::array<std::vector<std::uint32_t>, 3> seen;
    ASSERT_TRUE(wait_until(
        [&] {
            std::size_t n = 0;
            for (const auto& r : rec->received()) {
                n += r.topic != "load/probe" ? 1 : 0;
            }
            return n == 3 * per_thread;
        },
        60s));
    for (const auto& r : rec->received()) {
        if (r.topic != "load/probe") {
            seen.at(r.payload.at(0)).push_back(seq_of(r.payload));
        }
    }
    for (const auto& s : seen) {
        ASSERT_EQ(s.size(), per_thread);
        for (std::uint32_t i = 0; i < per_thread; ++i) {
            ASSERT_EQ(s[i], i) << "out of order or duplicated";
        }
    }
}

TEST(TransportLoad, FastPublisherIsHeldToTheBrokersPace) {
    Broker broker;
    auto pub = make_client(broker.port(), "bulk-pub");
    auto sub = make_client(broker.port(), "bulk-sub");
    std::atomic<std::size_t> delivered{0};
    struct Counter : ISubscriptionObserver {
        std::atomic<std::size_t>* n;
        void message(const std::string&, const Message&) override { ++*n; }
    };
    auto counter = std::make_shared<Counter>();
    counter->n = &delivered;
    auto rec = std::make_shared<Recorder>();
    sub->subscribe("bulk/data", 0, counter);
    sub->subscribe("bulk/probe", 0, rec);
    ASSERT_TRUE(connect_within(*sub.client, 10s));
    ASSERT_TRUE(connect_within(*pub.client, 10s));
    await_subscription(*pub.client, "bulk/probe", *rec);

    constexpr std::size_t total = 200000;
    const long rss_before = vm_rss_kb();
    long rss_peak = rss_before;
    Message msg = make_message(std::vector<std::uint8_t>(1024, 0xab));
    for (std::size_t i = 0; i < total; ++i) {
        ASSERT_EQ(pub->publish("bulk/data", msg), 1);
        if (i % 5000 == 0) {
            rss_peak = std::max(rss_peak, vm_rss_kb());
        }
    }
    rss_peak = std::max(rss_peak, vm_rss_kb());
    std::printf("bulk: RSS %ld kB before, peak %ld kB; pending high water %zu of %zu\n", rss_before,
                rss_peak, pub->pending_high_water(), pub->max_pending());
    // AddressSanitizer keeps freed memory in quarantine, so the resident size
    // says nothing there; the pending bound below still holds.
    if (!address_sanitizer) {
        EXPECT_LT(rss_peak - rss_before, 64 * 1024) << "publishing is not held back";
    }
    EXPECT_LE(pub->pending_high_water(), pub->max_pending());
    EXPECT_EQ(pub->max_pending(), 4096u);
    ASSERT_TRUE(wait_until([&] { return delivered == total; }, 120s)) << delivered;
}

TEST(TransportRecovery, BrokerRestartMidStream) {
    LogCapture capture;
    Broker broker;
    auto t = make_client(broker.port(), "restart");
    auto rec = std::make_shared<Recorder>();
    t->subscribe("seq/#", 0, rec);
    ASSERT_TRUE(connect_within(*t.client, 10s));

    // A paced producer, so that the outage fits the offline queue.
    std::atomic<bool> run{true};
    std::atomic<std::uint32_t> next{0};
    std::atomic<std::int64_t> first_after_loss{-1};
    std::thread producer([&] {
        for (std::uint32_t i = 0; run; ++i) {
            if (first_after_loss < 0 && !t->connected()) {
                first_after_loss = i;
            }
            Message msg = make_message(sequenced(0, i));
            EXPECT_EQ(t->publish("seq/x", msg), 1);
            next = i + 1;
            std::this_thread::sleep_for(1ms);
        }
    });
    ASSERT_TRUE(wait_until([&] { return rec->count() >= 200; }));
    broker.stop();
    ASSERT_TRUE(wait_until([&] { return first_after_loss >= 0; }));
    broker.start();
    ASSERT_TRUE(wait_until([&] { return t->connected(); }));
    const std::uint32_t at_reconnect = next;
    ASSERT_TRUE(wait_until([&] { return next >= at_reconnect + 300; }));
    run = false;
    producer.join();
    const std::uint32_t last = next - 1;
    ASSERT_TRUE(wait_until([&] {
        auto got = rec->received();
        return !got.empty() && seq_of(got.back().payload) == last;
    }));

    std::vector<std::uint32_t> seqs;
    for (const auto& r : rec->received()) {
        seqs.push_back(seq_of(r.payload));
    }
    for (std::size_t i = 1; i < seqs.size(); ++i) {
        ASSERT_LT(seqs[i - 1], seqs[i]) << "out of order or duplicated at " << i;
    }
    const auto loss = static_cast<std::uint32_t>(first_after_loss.load());
    std::size_t before_loss = 0;
    for (auto s : seqs) {
        before_loss += s < loss ? 1 : 0;
    }
    ASSERT_EQ(seqs.size() - before_loss, last - loss + 1u)
        << "a message published after the loss was noticed is missing";
    std::printf("restart: %u published before the loss was noticed, %u lost in flight\n", loss,
                static_cast<unsigned>(loss - before_loss));
    EXPECT_FALSE(capture.find("lost").empty());
    EXPECT_FALSE(capture.find("re-established").empty());

    // A subscription made after the restart works too.
    auto fresh = std::make_shared<Recorder>();
    ASSERT_TRUE(t->subscribe("fresh/topic", 0, fresh));
    Message msg = make_message({'f'});
    EXPECT_EQ(t->publish("fresh/topic", msg), 1);
    EXPECT_TRUE(wait_until([&] { return fresh->count() == 1; }));
}

TEST(TransportRecovery, BrokerLossReleasesBlockedPublishers) {
    // A broker of our own, so that it can be frozen: the bound then fills
    // and stays full when the connection is lost.
    ipcd_test::TempDir dir;
    const int port = ipcd_test::free_port();
    const std::string conf = dir.write(
        "mosquitto.conf", "listener " + std::to_string(port) +
                              " 127.0.0.1\nallow_anonymous true\nmax_queued_messages 0\n");
    auto start_broker = [&] {
        auto p = std::make_unique<ipcd_test::Process>(
            std::vector<std::string>{"/usr/sbin/mosquitto", "-c", conf});
        EXPECT_TRUE(wait_until([&] { return port_open(port); }));
        return p;
    };
    auto broker = start_broker();
    auto t = make_client(port, "blocked", {{"max_pending", "64"}, {"offline_queue", "500"}});
    ASSERT_TRUE(connect_within(*t.client, 10s));
    std::atomic<bool> run{true};
    std::atomic<std::size_t> published{0};
    std::thread producer([&] {
        Message msg = make_message(std::vector<std::uint8_t>(1024, 0x5a));
        while (run) {
            EXPECT_EQ(t->publish("blocked/data", msg), 1);
            ++published;
        }
    });
    broker->signal(SIGSTOP);
    // Full once the socket buffers are: the bound holds for 50 polls running.
    int full_polls = 0;
    ASSERT_TRUE(
        wait_until([&] { return (full_polls = t->pending() == 64 ? full_polls + 1 : 0) >= 50; }));
    broker->signal(SIGKILL);
    broker->wait();
    ASSERT_TRUE(wait_until([&] { return !t->connected(); }));
    const std::size_t at_loss = published;
    EXPECT_TRUE(wait_until([&] { return published > at_loss + 1000; })) << "stuck while offline";
    broker = start_broker();
    ASSERT_TRUE(wait_until([&] { return t->connected(); }));
    const std::size_t at_return = published;
    // Counts left over from the lost connection would keep the bound closed.
    const bool moving = wait_until([&] { return published > at_return + 20000; }, 30s);
    EXPECT_TRUE(moving) << "stuck after reconnecting";
    run = false;
    if (!moving) {
        t->stop();  // releases the waiting producer
    }
    producer.join();
    // Every message still counted must be written eventually.
    EXPECT_TRUE(wait_until([&] { return t->pending() == 0; })) << t->pending() << " stale";
}

TEST(TransportRecovery, OfflineQueueKeepsTheNewestInOrder) {
    LogCapture capture;
    Broker broker;
    auto t = make_client(broker.port(), "offline", {{"offline_queue", "100"}});
    auto rec = std::make_shared<Recorder>();
    t->subscribe("off/#", 0, rec);
    ASSERT_TRUE(connect_within(*t.client, 10s));

    broker.stop();
    ASSERT_TRUE(wait_until([&] { return !t->connected(); }));
    for (std::uint32_t i = 0; i < 250; ++i) {
        Message msg = make_message(sequenced(0, i));
        ASSERT_EQ(t->publish("off/seq", msg), 1);
    }
    EXPECT_EQ(t->offline_queued(), 100u);
    EXPECT_EQ(capture.find("dropping the oldest").size(), 1u) << "one line, not one per message";
    // QoS 1 is kept by libmosquitto while disconnected.
    Message kept = make_message({'k'}, 1, true);
    EXPECT_EQ(t->publish("off/kept", kept), 1);

    broker.start();
    ASSERT_TRUE(wait_until([&] { return t->connected(); }));
    EXPECT_FALSE(capture.find("150 messages were dropped").empty());
    ASSERT_TRUE(wait_until([&] { return t->pending() == 0; }));
    RawSubscriber raw(broker.port(), "off/kept");
    ASSERT_TRUE(wait_until([&] { return !raw.received().empty(); }));
    EXPECT_TRUE(raw.received()[0].retained);

    Message end = make_message(sequenced(1, 0));
    EXPECT_EQ(t->publish("off/end", end), 1);
    ASSERT_TRUE(wait_until(
        [&] { return !rec->received().empty() && rec->received().back().topic == "off/end"; }));
    std::vector<std::uint32_t> seqs;
    for (const auto& r : rec->received()) {
        if (r.topic == "off/seq") {
            seqs.push_back(seq_of(r.payload));
        }
    }
    ASSERT_EQ(seqs.size(), 100u);
    for (std::uint32_t i = 0; i < 100; ++i) {
        EXPECT_EQ(seqs[i], 150 + i);
    }
}

}  // namespace
