// The MQTT client against a private mosquitto: connection outcomes over plain
// and TLS listeners, delivery, concurrent publishers, the broker gone under load.

#include <gtest/gtest.h>

#include <map>
#include <regex>

#include "harness.h"
#include "mqtt_client.h"

using namespace ipcd_test;
using ecu::kora::com::Message;
using Settings = std::map<std::string, std::string>;

namespace {

// A client with its configuration, which must outlive it.
struct Client {
    Client(int port, const Settings& settings)
        : config(std::make_unique<ecu::kora::config::Configuration>()) {
        config->values() = {
            {"host", "127.0.0.1"}, {"port", std::to_string(port)}, {"client_name", "t"}};
        for (const auto& [key, value] : settings) {
            config->values()[key] = value;
        }
        client = std::dynamic_pointer_cast<ecu::kora::com::MqttClient>(
            ecu::kora::com::create_client(config, ecu::kora::com::TransportType::mqtt));
    }
    ecu::kora::com::MqttClient* operator->() const { return client.get(); }
    std::unique_ptr<ecu::kora::config::Configuration> config;
    std::shared_ptr<ecu::kora::com::MqttClient> client;
};

struct Recorder : ecu::kora::com::ISubscriptionObserver {
    void message(const std::string& topic, const Message&) override {
        if (topic == "rttx/throw") {
            throw std::runtime_error("observer failure");
        }
        std::lock_guard<std::mutex> lock(mutex);
        topics.push_back(topic);
    }
    std::vector<std::string> got() {
        std::lock_guard<std::mutex> lock(mutex);
        return topics;
    }
    std::mutex mutex;
    std::vector<std::string> topics;
};

Message message(const std::string& text, int qos = 0, bool retained = false) {
    Message m;
    m.payload.assign(text.begin(), text.end());
    m.qos = static_cast<std::uint8_t>(qos);
    m.retained = retained;
    return m;
}

TEST(Transport, ConnectOutcomes) {
    TlsFiles tls;
    const int login = free_port();
    const int cert = free_port();
    const int wrong_name = free_port();
    Broker broker(tls.listener(login) + tls.listener(cert, false) +
                  tls.listener(wrong_name, true, true));
    const int closed = free_port();
    const Settings pass{{"username", "ipcd"}, {"password", "Hunter2"}};
    auto tls_with = [&](const std::string& key = "tls_cafile", const std::string& value = {}) {
        Settings s = pass;
        s["tls_cafile"] = tls.file("ca.crt");
        s[key] = value.empty() ? s[key] : value;
        return s;
    };
    const Settings client_cert{{"tls_cafile", tls.file("ca.crt")},
                               {"tls_certfile", tls.file("client.crt")},
                               {"tls_keyfile", tls.file("client.key")}};
    const struct {
        int port;
        Settings settings;
        std::string reason;  // a pattern of the error line; empty: connects
    } cases[] = {
        // clang-format off
        {broker.port(), {}, ""},
        {login, tls_with(), ""},
        {cert, client_cert, ""},
        {closed, {}, "Connection refused"},
        {closed, tls_with(), "Connection refused"},
        {login, tls_with("password", "wrong"), "not authorised"},
        {login, tls_with("tls_cafile", tls.file("other-ca.crt")), "certificate verify failed"},
        {wrong_name, tls_with(), "certificate verify failed|host name verification failed"},
        {broker.port(), tls_with(), "is it a plain port\\?"},
        {login, pass, "is it a TLS port\\?"},
        // clang-format on
    };
    for (const auto& c : cases) {
        LogCapture log;
        Client client(c.port, c.settings);
        EXPECT_EQ(client->connect(), c.reason.empty()) << c.reason;
        client->stop();
        const auto errors = log.find("cannot connect");
        ASSERT_EQ(errors.size(), c.reason.empty() ? 0U : 1U) << c.reason;
        if (!errors.empty()) {
            EXPECT_TRUE(std::regex_search(errors[0].text, std::regex(c.reason))) << errors[0].text;
        }
        for (const auto& line : log.lines()) {
            EXPECT_EQ(line.text.find("Hunter2"), std::string::npos) << line.text;
        }
    }
}

TEST(Transport, DeliveryRules) {
    LogCapture log;
    TlsFiles tls;
    const int login = free_port();
    Broker broker(tls.listener(login));
    Client t(login, {{"tls_cafile", tls.file("ca.crt")}, {"username", "ipcd"}, {"password", "Hunter2"}});
    auto rttx = std::make_shared<Recorder>();
    auto status = std::make_shared<Recorder>();
    ASSERT_TRUE(t->subscribe("rttx/#", 0, rttx));  // before connect: sent with the connection
    ASSERT_TRUE(t->connect());
    ASSERT_TRUE(t->subscribe("status/+", 0, status));  // after: at once
    EXPECT_FALSE(t->subscribe("bad/#/filter", 0, status));
    for (const char* topic : {"rttx/a", "rtt/x", "rttx/throw", "rttx/b/c", "status/one",
                              "status/one/two", "status/end"}) {
        Message m = message("x");
        EXPECT_EQ(t->publish(topic, m), 1) << topic;
    }
    EXPECT_TRUE(rttx->got().empty());  // deliveries wait for start()
    ASSERT_TRUE(t->start());
    ASSERT_TRUE(wait_until([&] { return status->got().size() == 2; }));
    EXPECT_EQ(rttx->got(), (std::vector<std::string>{"rttx/a", "rttx/b/c"}));
    EXPECT_EQ(status->got(), (std::vector<std::string>{"status/one", "status/end"}));
    EXPECT_EQ(log.find("observer failure").size(), 1U);
    // Retained and QoS 1 as published, for those who come later (on the plain listener).
    Message kept = message("R1", 1, true);
    EXPECT_EQ(t->publish("status/retained", kept), 1);
    ASSERT_TRUE(wait_until([&] { return t->pending() == 0; }));  // the PUBACK
    MqttPeer late(broker.port());
    late.subscribe("status/retained");
    ASSERT_TRUE(late.wait_for("status/retained"));
    const Received got = late.received("status/retained")[0];
    EXPECT_TRUE(got.retained);
    EXPECT_EQ(got.qos, 1);
    EXPECT_EQ(got.payload, (std::vector<std::uint8_t>{'R', '1'}));
}

TEST(Transport, ConcurrentPublishersLoseNothing) {
    Broker broker;
    Client t(broker.port(), {{"max_pending", "64"}});
    ASSERT_TRUE(t->connect());
    std::atomic<std::size_t> count{0};
    MqttPeer peer(broker.port(), [&](const mosquitto_message&) { ++count; });
    peer.subscribe("load/#", 0);
    std::vector<std::thread> threads;
    for (int p = 0; p < 3; ++p) {
        threads.emplace_back([&t] {
            for (int i = 0; i < 3000; ++i) {
                Message m = message("x");
                EXPECT_EQ(t->publish("load/x", m), 1);
            }
        });
    }
    for (auto& th : threads) {
        th.join();
    }
    EXPECT_TRUE(wait_until([&] { return count == 9000; }, 30s)) << count;
    EXPECT_LE(t->pending_high_water(), 64U);
}

// A broker frozen with the bound full, then killed: the waiting publisher is
// released into the offline queue, and after the broker's return nothing
// counted from the lost connection keeps the bound closed.
TEST(Transport, BrokerLossUnderLoad) {
    LogCapture log;
    Broker broker;
    Client t(broker.port(), {{"max_pending", "64"}, {"offline_queue", "500"}});
    ASSERT_TRUE(t->connect());
    std::atomic<bool> run{true};
    std::atomic<std::size_t> published{0};
    std::thread producer([&] {
        for (Message m = message(std::string(1024, 'x')); run; ++published) {
            EXPECT_EQ(t->publish("load/data", m), 1);
        }
    });
    broker.pause();
    int full = 0;
    ASSERT_TRUE(wait_until([&] { return (full = t->pending() == 64 ? full + 1 : 0) >= 50; }));
    broker.stop(true);
    ASSERT_TRUE(wait_until([&] { return !t->connected(); }));
    const std::size_t at_loss = published;
    EXPECT_TRUE(wait_until([&] { return published > at_loss + 1000; })) << "stuck while offline";
    broker.start();
    ASSERT_TRUE(wait_until([&] { return t->connected(); }));
    const std::size_t at_return = published;
    const bool moving = wait_until([&] { return published > at_return + 20000; }, 30s);
    EXPECT_TRUE(moving) << "stuck after reconnecting";
    run = false;
    if (!moving) {
        t->stop();  // releases the waiting producer
    }
    producer.join();
    EXPECT_TRUE(wait_until([&] { return t->pending() == 0; })) << t->pending() << " stale";
    EXPECT_EQ(log.find("lost:").size(), 1U);
    EXPECT_EQ(log.find("re-established").size(), 1U);
    EXPECT_EQ(log.find("were dropped while the broker was unreachable (limit 500)").size(), 1U);
}

}  // namespace
