// Faults around the real daemon: the broker going away under a record
// stream, garbage from clients, the TX port lost.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <iostream>
#include <set>
#include <utility>

#include "frames.h"
#include "harness.h"

using namespace ipcd_test;
namespace pb = ecu::kora::pb;

namespace {

const std::string g_battery = "rt/vehicle/battery";  // requested by release(); not retained

// The first signal of what a watch received: the generated records' numbers.
std::vector<std::uint64_t> counts(const Process& watch) {
    std::vector<std::uint64_t> out;
    for (const auto& j : json_lines(watch.out())) {
        out.push_back(j["body"]["signals"]["voltage_mv"]);
    }
    return out;
}

// The broker goes (gracefully, then killed, then killed under a TLS session
// with a login) under a stream and comes back: relaying resumes, what is
// written after the return arrives once and in order, the other direction
// works, and the retained state is there again. (The tools use the plain
// listener.)
TEST(Fault, BrokerRestartsUnderAStream) {
    TlsFiles tls;
    for (const auto& [hard, over_tls] : {std::pair{false, false}, {true, false}, {true, true}}) {
        const int tls_port = free_port();
        Broker broker(over_tls ? tls.listener(tls_port) : "");
        Daemon daemon(over_tls ? tls_port : broker.port());
        daemon.start(over_tls
                         ? std::vector<std::string>{"-c", daemon.dir().write(
                                                              "ipcd.conf",
                                                              "tls_cafile=" + tls.file("ca.crt") +
                                                                  "\nusername=ipcd\n"
                                                                  "password=Hunter2\n")}
                         : std::vector<std::string>{});
        release(daemon, broker.port());
        daemon.write_record(20, {0x2a, 0x00, 0x01}, 42);
        auto sim = generate(daemon, g_battery, 2000, 8000);
        ASSERT_TRUE(wait_until([&] { return generated(*sim) >= 1000; }));
        broker.stop(hard);
        ASSERT_TRUE(daemon.process().wait_out("lost:"));
        ASSERT_TRUE(wait_until([&] { return generated(*sim) >= 3000; }));
        broker.start();
        auto after = watch(broker.port(), {g_battery});
        ASSERT_TRUE(after->wait_out(g_battery, 20s)) << daemon.process().out();
        const std::size_t at_return = generated(*sim);
        ASSERT_TRUE(wait_until(
            [&] { return !counts(*after).empty() && counts(*after).back() == 8000; }, 20s));
        const auto got = counts(*after);
        EXPECT_TRUE(std::adjacent_find(got.begin(), got.end(), std::greater_equal<>()) ==
                    got.end());
        EXPECT_GE(got.size(), 8000 - at_return);
        // The RT data connection says once that it cannot reach the broker,
        // and once that it is back.
        const std::string link = "RT data connection to broker 127.0.0.1:" +
                                 std::to_string(over_tls ? tls_port : broker.port());
        EXPECT_LE(count_of(daemon.process().out(), link + ": "), 1U) << daemon.process().out();
        EXPECT_EQ(count_of(daemon.process().out(), link + " re-established"), 1U);
        auto late =
            watch(broker.port(), {"--count", "2", "system/ipc/subscriptions", "rt/vehicle/speed"});
        ASSERT_EQ(late->wait(), 0);
        EXPECT_NE(late->out().find(R"("timestamp":42)"), std::string::npos) << late->out();
        EXPECT_NE(late->out().find(R"("topics":["rt/vehicle/battery"])"), std::string::npos);
        EXPECT_EQ(ctl(broker.port(), {"send", "rttx/hmi/climate_request", "fan_level=1"}).status,
                  0);
        EXPECT_EQ(daemon.tx_records(1).size(), 1U);
        daemon.process().signal(SIGTERM);  // an orderly end, nothing leaked
        EXPECT_EQ(daemon.process().wait(10s), 0) << daemon.process().out();
    }
}

// A vehicle with nothing to relay: the RT data connection keeps itself alive
// with its own pings, and the broker's answer keeps it up. No other timer
// wakes the loop meanwhile (statistics once a minute).
TEST(Fault, IdleRtDataConnectionPingsAndStaysUp) {
    Broker broker("log_type all\n");
    Daemon daemon(broker.port());
    daemon.start({"-c", daemon.dir().write("ipcd.conf", "keepalive=2\nstats_interval=60\n")});
    release(daemon, broker.port());
    daemon.write_record(20, {0x2a, 0x00, 0x01}, 42);
    ASSERT_TRUE(wait_until(
        [&] {
            return broker.process().err().find("Sending PINGRESP to ipcd-rt") != std::string::npos;
        },
        20s));
    std::this_thread::sleep_for(300ms);  // a link given up at its ping says so at once
    EXPECT_EQ(count_of(daemon.process().out(), " lost: "), 0U) << daemon.process().out();
    for (const char* client : {"as ipcd-rt (", "as ipcd ("}) {  // 2 s raised to the least, 5 s
        const std::string log = broker.process().err();
        const auto at = log.find(client);
        ASSERT_NE(at, std::string::npos) << log;
        EXPECT_NE(log.substr(at, log.find(')', at) - at).find(", k5"), std::string::npos) << log;
    }
}

// Garbage on every topic ipcd listens to, every cut and every byte changed of
// a good frame: each is dropped, and ipcd goes on relaying. With statistics
// off (stats_interval=0), which must not turn into a timer without a period.
TEST(Fault, GarbageOnEveryControlTopic) {
    Broker broker;
    Daemon daemon(broker.port());
    daemon.start({"-c", daemon.dir().write("ipcd.conf", "stats_interval=0\n")});
    auto speed = watch(broker.port(), {"rt/vehicle/speed"});
    Client peer(broker.port());
    ASSERT_TRUE(peer->connect());
    const Bytes good = group_data({{"fan_level", "\x01"}}, 5);
    for (const char* topic :
         {"rttx/hmi/climate_request", "rttx/vehicle/unknown", "subscription/announcement",
          "system/state/rt", "system/tpa/status"}) {
        for (std::size_t i = 0; i < good.size(); ++i) {
            auto cut = message(Bytes(good.begin(), good.begin() + static_cast<long>(i)));
            auto changed = message(good);
            changed.payload[i] ^= 0xA5;
            peer->publish(topic, cut);
            peer->publish(topic, changed);
        }
    }
    auto marker = message(Bytes{}, 1);  // QoS 1: once ipcd has logged it, the garbage is behind it
    peer->publish("rttx/vehicle/after_the_garbage", marker);
    ASSERT_TRUE(daemon.process().wait_out("'rt/vehicle/after_the_garbage'", 60s));
    daemon.write_record(20, {1, 0, 1}, 77);
    EXPECT_TRUE(speed->wait_out("rt/vehicle/speed"));
}

// The RT side stops reading TX, gone or leaving it full: while a message
// waits its second for room, RT records still reach the broker (the two
// directions do not share a thread); then ipcd stops the service stack
// (through the systemctl first on PATH, here one that records its call) and
// ends.
TEST(Fault, LostTxPortStopsTheServiceStackAndEnds) {
    for (bool stalled : {false, true}) {
        Broker broker;
        Daemon daemon(broker.port());
        const std::string calls = daemon.dir().file("calls");
        chmod(daemon.dir().write("systemctl", "#!/bin/sh\necho \"$@\" >> " + calls + "\n").c_str(),
              0755);
        daemon.start({}, {"PATH=" + daemon.dir().path() + ":" + std::getenv("PATH")});
        const std::string send = "rttx/hmi/climate_request";
        int filler = -1;
        if (stalled) {
            auto speed = watch(broker.port(), {"rt/vehicle/speed"});
            filler = ::open(daemon.dir().file("tx").c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
            const Bytes junk(65536, 0);
            while (::write(filler, junk.data(), junk.size()) > 0) {
            }
            EXPECT_EQ(ctl(broker.port(), {"send", send, "fan_level=1"}).status, 0);
            daemon.write_record(20, {1, 0, 1}, 77);
            EXPECT_TRUE(speed->wait_out("rt/vehicle/speed"));
            EXPECT_EQ(daemon.process().out().find("TX queue port is gone"), std::string::npos);
        } else {
            daemon.close_tx();
            EXPECT_EQ(ctl(broker.port(), {"send", send, "fan_level=1"}).status, 0);
        }
        EXPECT_EQ(daemon.process().wait(), 0);
        EXPECT_NE(daemon.process().out().find("ALERT daemon: TX queue port is gone"),
                  std::string::npos);
        EXPECT_EQ(read_file(calls), "stop norvex\n");
        if (filler >= 0) {
            ::close(filler);
        }
    }
}

// SIGHUP is noted and changes nothing. SIGTERM ends ipcd promptly and in
// order whatever the others do: a service manager that reads no notification,
// a broker paused with the socket full (the RT side kept waiting), a broker
// gone. The deadline only fails a hang;
// the figure itself comes from the benchmark.
TEST(Fault, StopIsPromptWhateverTheBrokerAndTheServiceManager) {
    enum class Broken { notify_socket, broker_paused, broker_gone };
    for (Broken broken : {Broken::notify_socket, Broken::broker_paused, Broken::broker_gone}) {
        Broker broker;
        Daemon daemon(broker.port());
        daemon.start({"-c", daemon.dir().write("ipcd.conf", "max_pending=1\n")},
                     {"WATCHDOG_USEC=200000"});
        release(daemon, broker.port());
        auto sim = generate(daemon, g_battery, 20000);
        ASSERT_TRUE(wait_until([&] { return generated(*sim) >= 1000; }));
        if (broken == Broken::notify_socket) {
            daemon.process().signal(SIGHUP);
            ASSERT_TRUE(daemon.process().wait_out("NOTICE supervisor: Received SIGHUP, ignored"));
            daemon.stop_draining();
        } else if (broken == Broken::broker_paused) {
            broker.pause();
            ASSERT_TRUE(wait_until(
                [&] {  // the RT side waits: the socket and the FIFO are full
                    const std::size_t before = generated(*sim);
                    std::this_thread::sleep_for(600ms);
                    return generated(*sim) == before;
                },
                60s));
        } else {
            broker.stop(true);
            ASSERT_TRUE(daemon.process().wait_out("lost:"));
        }
        daemon.process().signal(SIGTERM);
        EXPECT_EQ(daemon.process().wait(10s), 0) << daemon.process().out();
        EXPECT_NE(daemon.process().out().find("Queue reading has been finished."),
                  std::string::npos);
        broker.resume();
    }
}

// The shipped fleet bridge: what ipcd relays while the fleet broker is down
// for seconds arrives there once it is back, in order, none lost. QoS 1 may
// deliver some twice; they are counted.
TEST(Fault, FleetBridgeDeliversWhatAnOutageHeldBack) {
    Broker fleet({}, true);  // its sessions survive its restart
    Broker local(Shipped{fleet.port()});
    // The fleet's subscriber: a persistent session, made first (-E: leave once
    // subscribed), which the fleet broker keeps and queues for while it is away.
    std::vector<std::string> subscriber{"/usr/bin/mosquitto_sub",
                                        "-h",
                                        "127.0.0.1",
                                        "-p",
                                        std::to_string(fleet.port()),
                                        "-q",
                                        "1",
                                        "-c",
                                        "-i",
                                        "fleet",
                                        "-t",
                                        "vehicles/+/rt/#",
                                        "-F",
                                        "%t %x",
                                        "-E"};
    ASSERT_EQ(run(subscriber).status, 0);
    subscriber.pop_back();
    Daemon daemon(local.port());
    daemon.start({"-c", ipcd_login(daemon.dir())});
    release(daemon, local.port(), login("platform"));
    const unsigned count = 6000;
    auto sim = generate(daemon, g_battery, 500, count);
    ASSERT_TRUE(wait_until([&] { return generated(*sim) >= 1000; }));
    fleet.stop();
    ASSERT_TRUE(wait_until([&] { return generated(*sim) >= 3500; }));  // 5 s down
    fleet.start();
    Process upstream(subscriber);

    // The frame header's time stamp of each arrival: its record's, which rise.
    std::vector<std::uint64_t> stamps;
    auto arrived = [&] {
        stamps.clear();
        std::istringstream lines(upstream.out());
        for (std::string line; std::getline(lines, line) && !lines.eof();) {
            if (line.find("/rt/vehicle/battery ") != std::string::npos) {
                const std::string hex = line.substr(line.find(' ') + 1);
                std::uint64_t stamp = 0;
                for (int i = 7; i >= 0; --i) {
                    stamp = stamp << 8U | std::stoull(hex.substr(20 + 2 * i, 2), nullptr, 16);
                }
                stamps.push_back(stamp);
            }
        }
        return std::set<std::uint64_t>(stamps.begin(), stamps.end()).size();
    };
    ASSERT_TRUE(wait_until([&] { return arrived() == count; }, 120s)) << arrived();
    std::set<std::uint64_t> seen;  // in order of first arrival
    EXPECT_TRUE(std::all_of(stamps.begin(), stamps.end(), [&, last = 0UL](auto s) mutable {
        return !seen.insert(s).second || std::exchange(last, s) < s;
    }));
    std::cout << "fleet bridge: " << count << " records, none lost, " << stamps.size() - count
              << " duplicates\n";
    RecordProperty("duplicates", static_cast<int>(stamps.size() - count));
}

}  // namespace
