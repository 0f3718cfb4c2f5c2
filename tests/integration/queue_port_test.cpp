// Queue ports against real FIFOs and files: delivery whatever the chunking,
// damage reported once per stretch, the ends of a device, stopping, and the
// writer's failure modes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <thread>

#include "log_capture.h"
#include "logging.h"
#include "queue_port.h"
#include "temp_dir.h"

using namespace ecu::kora::ipc;
using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

namespace {

IpcSignal make(std::uint32_t id, std::size_t size) {
    return {id, static_cast<std::uint8_t>(id), 0x0102030405060708ULL + id,
            Bytes(size, static_cast<std::uint8_t>(id))};
}

Bytes encoded(const IpcSignal& s) {
    Bytes out;
    EXPECT_TRUE(encode_record(s, out));
    return out;
}

class Collector : public IDataConsumer<IpcSignal> {
public:
    void consume(const IpcSignal& s) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ids.push_back(s.id);
        if (stop_on_consume != nullptr) {
            *stop_on_consume = true;
        }
    }
    void finished() override { ++finished_count; }
    void resynchronised(std::size_t skipped) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        resyncs.push_back(skipped);
    }
    std::size_t count() {
        std::lock_guard<std::mutex> lock(m_mutex);
        return ids.size();
    }
    std::vector<std::uint32_t> ids;
    std::vector<std::size_t> resyncs;
    std::atomic<int> finished_count{0};
    std::atomic<bool>* stop_on_consume = nullptr;

private:
    std::mutex m_mutex;
};

// An RX port reading on its own thread; stopped and joined when it goes.
struct Reader {
    explicit Reader(const std::string& path) {
        EXPECT_TRUE(port.open(path));
        thread = std::thread([this] { port.read_loop(); });
    }
    ~Reader() {
        port.stop_requested = true;
        thread.join();
    }
    bool wait_finished() {
        return ipcd_test::wait_until([&] { return consumer.finished_count > 0; });
    }
    Collector consumer;
    RxQueuePort port{consumer};
    std::thread thread;
};

void write_all(int fd, const Bytes& b) {
    for (std::size_t done = 0; done < b.size();) {
        const auto n = ::write(fd, b.data() + done, b.size() - done);
        ASSERT_GT(n, 0);
        done += static_cast<std::size_t>(n);
    }
}

TEST(QueuePortReader, FifoDeliversAcrossReadsAndReportsEachDamageStretchOnce) {
    ipcd_test::LogCapture log;
    ipcd_test::TempDir dir;
    const auto path = dir.fifo("rx");
    Reader reader(path);
    // No writer yet: the FIFO is waited for, not ended.
    EXPECT_FALSE(ipcd_test::wait_until([&] { return reader.consumer.finished_count > 0; }, 200ms));
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    const Bytes big = encoded(make(1, 70000 - 24 - 4466));  // more than one pipe buffer
    write_all(fd, Bytes(big.begin(), big.begin() + 1000));
    ASSERT_TRUE(ipcd_test::wait_until([&] { return reader.port.rounds() > 2; }));
    write_all(fd, Bytes(big.begin() + 1000, big.end()));
    ASSERT_TRUE(ipcd_test::wait_until([&] { return reader.consumer.count() == 1; }));
    // Damage over several reads is one stretch, reported when a record follows.
    const Bytes garbage(37, 0xAB);
    write_all(fd, Bytes(garbage.begin(), garbage.begin() + 20));
    ASSERT_TRUE(ipcd_test::wait_until([&] { return reader.port.rounds() > 6; }));
    write_all(fd, Bytes(garbage.begin() + 20, garbage.end()));
    write_all(fd, encoded(make(2, 8)));
    ::close(fd);
    ASSERT_TRUE(reader.wait_finished());
    EXPECT_EQ(reader.consumer.ids, (std::vector<std::uint32_t>{1, 2}));
    EXPECT_EQ(reader.consumer.resyncs, std::vector<std::size_t>{37});
    const auto lines = log.find("out of step");
    ASSERT_EQ(lines.size(), 1U);
    EXPECT_EQ(lines[0].severity, ecu::kora::logging::error);
    EXPECT_EQ(reader.consumer.finished_count, 1);
}

TEST(QueuePortReader, FileIsReplayedAndEndsAndAStopIsPrompt) {
    ipcd_test::LogCapture log;
    ipcd_test::TempDir dir;
    Bytes file;
    for (std::uint32_t i = 0; i < 200; ++i) {
        const Bytes r = encoded(make(i, i % 9));
        file.insert(file.end(), r.begin(), r.end());
    }
    const Bytes cut = encoded(make(99, 10));
    file.insert(file.end(), cut.begin(), cut.begin() + 13);
    {
        Reader reader(dir.write("replay", std::string(file.begin(), file.end())));
        ASSERT_TRUE(reader.wait_finished());
        EXPECT_EQ(reader.consumer.count(), 200U);
        EXPECT_EQ(reader.consumer.finished_count, 1);
        EXPECT_EQ(log.find("skipped 13 bytes").size(), 1U);  // the cut record at the end
    }
    // Asked to stop while it has a backlog: it ends after at most a queue's depth.
    Collector consumer;
    RxQueuePort port(consumer);
    consumer.stop_on_consume = &port.stop_requested;
    ASSERT_TRUE(port.open(dir.file("replay")));
    port.read_loop();
    EXPECT_GE(consumer.count(), 1U);
    EXPECT_LE(consumer.count(), 24U);
    EXPECT_EQ(consumer.finished_count, 1);
    // Idle with a silent writer: the stop is seen within the poll period.
    const auto path = dir.fifo("idle");
    Reader idle(path);
    const int fd = ::open(path.c_str(), O_WRONLY | O_CLOEXEC);
    idle.port.stop_requested = true;
    EXPECT_TRUE(idle.wait_finished());
    ::close(fd);
    EXPECT_FALSE(port.open("/nonexistent/rx"));
    EXPECT_EQ(log.find("/nonexistent/rx: No such file or directory").size(), 1U);
}

TEST(QueuePortWriter, RoundTripAndFailures) {
    ipcd_test::LogCapture log;
    ipcd_test::TempDir dir;
    const auto path = dir.fifo("tx");
    TxQueuePort writer;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_FALSE(writer.open(path));  // no reader within the bounded wait
    EXPECT_GE(std::chrono::steady_clock::now() - begin, 1s);
    EXPECT_EQ(log.find("No such device or address").size(), 1U);
    {
        Reader reader(path);
        ASSERT_TRUE(writer.open(path));
        for (const auto& s : {make(1, 0), make(2, record_max_payload), make(3, 5000)}) {
            ASSERT_TRUE(writer.transmit_data(s));  // large ones go in parts, never torn
        }
        ASSERT_TRUE(ipcd_test::wait_until([&] { return reader.consumer.count() == 3; }));
        EXPECT_TRUE(reader.consumer.resyncs.empty());
    }
    // Nobody drains it: it fills, then a write gives up after the bounded wait.
    const int rfd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_TRUE(writer.open(path));
    EXPECT_FALSE(writer.transmit_data(make(1, record_max_payload + 1)));
    int sent = 0;
    while (writer.transmit_data(make(2, 4000))) {
        ASSERT_LT(++sent, 1000);
    }
    EXPECT_EQ(log.find("no room").size(), 1U);
    ::close(rfd);  // the reader goes: EPIPE, not SIGPIPE
    EXPECT_FALSE(writer.transmit_data(make(3, 1)));
    EXPECT_EQ(log.find("Broken pipe").size(), 1U);
}

}  // namespace
