// The MQTT client against a private mosquitto: connection outcomes over plain
// and TLS listeners, and delivery.

#include <gtest/gtest.h>
#include <openssl/err.h>

#include <map>
#include <regex>
#include <thread>

#include "frames.h"
#include "harness.h"
#include "mqtt_client.h"

using namespace ipcd_test;
using ecu::kora::com::Message;
using Settings = std::map<std::string, std::string>;

namespace {

// Keeps what it is given; one topic makes it throw.
struct Recorder : ecu::kora::com::ISubscriptionObserver {
    void message(const std::string& topic, const Message& msg) override {
        if (topic == "rttx/throw") {
            throw std::runtime_error("observer failure");
        }
        std::lock_guard<std::mutex> lock(mutex);
        seen.push_back(topic);
        payloads.emplace_back(msg.payload.begin(), msg.payload.end());
    }
    std::vector<std::string> topics() {
        std::lock_guard<std::mutex> lock(mutex);
        return seen;
    }
    std::vector<std::string> texts() {
        std::lock_guard<std::mutex> lock(mutex);
        return payloads;
    }
    std::mutex mutex;
    std::vector<std::string> seen;
    std::vector<std::string> payloads;
};

TEST(Transport, ConnectOutcomesAndATlsErrorWhileReconnecting) {
    TlsFiles tls;
    const int login = free_port();
    const int cert = free_port();
    const int wrong_name = free_port();
    Broker broker(tls.listener(login) + tls.listener(cert, false) +
                  tls.listener(wrong_name, true, true));
    const int closed = free_port();
    auto tls_with = [&](const char* key = "tls_cafile", const std::string& value = {}) {
        Settings s{
            {"tls_cafile", tls.file("ca.crt")}, {"username", "ipcd"}, {"password", "Hunter2"}};
        return value.empty() ? s : (s[key] = value, s);
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
        {closed, tls_with("host", "host.invalid"), "host.invalid:.*: .*(not known|name resolution)"},
        {closed, tls_with(), "Connection refused"},
        {login, tls_with("password", "wrong"), "not authorised"},
        {login, tls_with("tls_cafile", tls.file("other-ca.crt")), "certificate verify failed"},
        {wrong_name, tls_with(), "certificate verify failed|host name verification failed"},
        {broker.port(), tls_with(), "is it a plain port\\?"},
        {login, {{"username", "ipcd"}, {"password", "Hunter2"}}, "is it a TLS port\\?"},
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
    // A TLS file refused before connecting leaves OpenSSL's error queue
    // empty: a stale entry would be blamed on the next handshake.
    for (const Settings& refused : {tls_with("tls_cafile", tls.file("ca.key")),
                                    Settings{{"tls_cafile", tls.file("ca.crt")},
                                             {"tls_certfile", tls.file("client.crt")},
                                             {"tls_keyfile", tls.file("server.key")}}}) {
        EXPECT_FALSE(Client(login, refused).client);
        EXPECT_EQ(ERR_peek_error(), 0UL);
    }
    // A TLS error while reconnecting (a plain broker on the TLS port for a
    // while) does not end reconnecting, nor does a refusal. What waited beyond the
    // offline queue is counted.
    LogCapture log;
    Client t(login, tls_with("offline_queue", "1"));
    ASSERT_TRUE(t->connect());
    broker.stop();
    ASSERT_TRUE(log.wait_for(" lost: "));
    for (const char* text : {"1", "2", "3"}) {
        Message m = message(std::string(text));
        EXPECT_EQ(t->publish("a", m), 1);
    }
    Message q = message(std::string("q"), 1);  // QoS 1: libmosquitto keeps it itself
    EXPECT_EQ(t->publish("a", q), 1);
    {
        Broker plain("listener " + std::to_string(login) + " 127.0.0.1\nallow_anonymous true\n");
        ASSERT_TRUE(wait_until([&] {
            return t->link_status().waiting_reason.find("TLS") != std::string::npos;
        })) << t->link_status().waiting_reason;
    }
    {  // then one that knows ipcd no more: said, and kept as the reason
        std::string config = tls.listener(login);
        config.replace(config.find(tls.file("passwords")), tls.file("passwords").size(),
                       tls.file("strangers"));
        Broker refusing(config);
        ASSERT_TRUE(log.wait_for("refused the reconnection: Connection Refused: not authorised"));
        // The attempt ends after that line; its end must not replace the
        // broker's answer with the loop's error code.
        std::this_thread::sleep_for(100ms);
        const std::string reason = t->link_status().waiting_reason;
        EXPECT_NE(reason.find("not authorised"), std::string::npos) << reason;
    }
    broker.start();
    EXPECT_TRUE(log.wait_for("re-established"));
    EXPECT_TRUE(log.wait_for("2 messages were dropped while the broker was unreachable (limit 1)"));
    t->stop();

    // Two clients of one name take the session from each other for as long
    // as both run: one outage for each, told once, not a line a round.
    LogCapture fight;
    Client first(broker.port());
    Client second(broker.port());
    ASSERT_TRUE(first->connect());
    ASSERT_TRUE(second->connect());
    ASSERT_TRUE(wait_until([&] {
        return first->link_status().reconnects >= 4 && second->link_status().reconnects >= 4;
    }));
    EXPECT_LE(fight.find(" lost: ").size(), 2U);
    EXPECT_LE(fight.find("re-established").size(), 2U);
    first->stop();
    second->stop();
}

TEST(Transport, DeliveryRules) {
    LogCapture log;
    Broker broker;
    Client t(broker.port());
    auto rttx = std::make_shared<Recorder>();
    auto status = std::make_shared<Recorder>();
    ASSERT_TRUE(t->subscribe("rttx/#", 0, rttx));  // before connect: sent with the connection
    ASSERT_TRUE(t->connect());
    ASSERT_TRUE(t->subscribe("status/+", 0, status));  // after: at once
    EXPECT_FALSE(t->subscribe("bad/#/filter", 0, status));
    EXPECT_FALSE(Client(broker.port(), {{"host", ""}}).client);  // refused before connecting
    EXPECT_EQ(log.find("transport setting 'host' is not set").size(), 1U);
    for (const char* topic : {"rttx/a", "rtt/x", "rttx/throw", "rttx/b/c", "status/one",
                              "status/one/two", "status/end"}) {
        Message m = message(std::string("x"));
        EXPECT_EQ(t->publish(topic, m), 1) << topic;
    }
    EXPECT_FALSE(wait_until([&] { return !rttx->topics().empty(); }, 300ms));  // until start()
    ASSERT_TRUE(t->start());
    ASSERT_TRUE(wait_until([&] { return status->topics().size() == 2; }));
    EXPECT_EQ(rttx->topics(), (std::vector<std::string>{"rttx/a", "rttx/b/c"}));
    EXPECT_EQ(status->topics(), (std::vector<std::string>{"status/one", "status/end"}));
    EXPECT_EQ(status->texts(), (std::vector<std::string>{"x", "x"}));  // one byte is a payload
    EXPECT_EQ(log.find("observer failure").size(), 1U);
    broker.pause();  // a QoS 1 message is pending until the broker acknowledges it
    Message m = message(std::string("q"), 1);
    EXPECT_TRUE(t->publish("status/q", m) == 1 && t->pending() == 1);
    broker.resume();
    EXPECT_TRUE(wait_until([&] { return t->pending() == 0; }));
    {  // stopped before start(): the delivery waiting for it ends with it
        Client early(broker.port(), {{"client_name", "early"}});
        auto seen = std::make_shared<Recorder>();
        ASSERT_TRUE(early->subscribe("status/+", 0, seen) && early->connect());
        Message waits = message(std::string("w"), 1);
        t->publish("status/w", waits);
        ASSERT_TRUE(wait_until([&] { return t->pending() == 0; }));
        std::this_thread::sleep_for(100ms);  // the broker passes it on
        EXPECT_TRUE(early->stop());
        EXPECT_TRUE(seen->topics().empty());
    }
    Message last = message(std::string("last"), 1);  // the stop waits for its confirmation
    EXPECT_EQ(t->publish("status/last", last), 1);
    t->stop();
    EXPECT_TRUE(log.find("stopping with").empty());  // nothing was left behind
    {  // the broker holds the confirmation back: the stop says what it leaves
        Client held(broker.port(), {{"client_name", "held"}});
        ASSERT_TRUE(held->connect());
        broker.pause();
        Message unconfirmed = message(std::string("h"), 1);
        EXPECT_EQ(held->publish("status/h", unconfirmed), 1);
        EXPECT_TRUE(held->stop());
        broker.resume();
    }
    EXPECT_EQ(log.find("stopping with 1 messages not confirmed by the broker and 0 messages "
                       "never sent")
                  .size(),
              1U);
}

}  // namespace
