// Queue ports against real FIFOs and files: delivery across reads, damage
// reported once per stretch, the ends of a device, stopping, and the writer's
// failure modes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "logging.h"
#include "queue_port.h"
#include "support.h"

using namespace ecu::kora::ipc;
using namespace ipcd_test;
using Bytes = std::vector<std::uint8_t>;

namespace {

Bytes encoded(std::uint32_t id, std::size_t size) {
    Bytes out;
    encode_record({id, 0, id, Bytes(size, static_cast<std::uint8_t>(id))}, out);
    return out;
}

// An RX port reading path on its own thread, and what it delivered; stopped
// and joined when it goes. stop_at_first: it asks itself to stop on a record.
struct Reader : IDataConsumer<IpcSignal> {
    explicit Reader(const std::string& path, bool stop_at_first = false)
        : stop_at(stop_at_first), opened(port.open(path)), thread([this] { port.read_loop(); }) {}
    ~Reader() override {
        port.stop_requested = true;
        thread.join();
    }
    void consume(const IpcSignal& s) override {
        std::lock_guard<std::mutex> lock(mutex);
        ids.push_back(s.id);
        port.stop_requested = port.stop_requested || stop_at;
    }
    void finished() override { ++finished_count; }
    void resynchronised(std::size_t skipped) override { resyncs.push_back(skipped); }
    std::size_t count() {
        std::lock_guard<std::mutex> lock(mutex);
        return ids.size();
    }
    std::mutex mutex;
    std::vector<std::uint32_t> ids;
    std::vector<std::size_t> resyncs;
    std::atomic<int> finished_count{0};
    bool stop_at;
    RxQueuePort port{*this};
    bool opened;
    std::thread thread;
};

void write_all(int fd, const Bytes& b) {
    ASSERT_EQ(::write(fd, b.data(), b.size()), static_cast<ssize_t>(b.size()));
}

// Whether the reader has taken everything written into the FIFO so far.
bool drained(int fd) {
    return wait_until([fd] {
        int unread = 0;
        return ioctl(fd, FIONREAD, &unread) == 0 && unread == 0;
    });
}

TEST(QueuePort, ReaderDeliversAcrossReadsAndReportsEachDamageStretchOnce) {
    LogCapture log;
    TempDir dir;
    Reader reader(dir.fifo("rx"));
    EXPECT_FALSE(wait_until([&] { return reader.finished_count > 0; }, 200ms));  // no writer yet
    const int fd = ::open(dir.file("rx").c_str(), O_WRONLY | O_CLOEXEC);
    const Bytes first = encoded(1, 30);
    write_all(fd, Bytes(first.begin(), first.begin() + 10));
    ASSERT_TRUE(drained(fd));
    write_all(fd, Bytes(first.begin() + 10, first.end()));
    ASSERT_TRUE(wait_until([&] { return reader.count() == 1; }));
    write_all(fd, Bytes(20, 0xAB));  // one stretch of damage over two reads
    ASSERT_TRUE(drained(fd));
    write_all(fd, Bytes(17, 0xAB));
    write_all(fd, encoded(2, 8));
    ASSERT_TRUE(wait_until([&] { return reader.count() == 2; }));
    // A length that claims more than ever comes, then silence: the record is
    // given up after a short wait, and the one its length covered goes out.
    Bytes claims = encoded(3, 1000);
    claims.resize(record_header_size + 20);
    const Bytes after = encoded(4, 5);
    claims.insert(claims.end(), after.begin(), after.end());
    write_all(fd, claims);
    ASSERT_TRUE(wait_until([&] { return reader.count() == 3; }));
    Bytes named = encoded(5, 8);  // twenty bytes name a record: its id and its length
    named.resize(20);
    write_all(fd, named);
    ASSERT_TRUE(wait_until([&] { return !log.find("record of id 5 announced 8").empty(); }));
    ::close(fd);
    ASSERT_TRUE(wait_until([&] { return reader.finished_count > 0; }));
    EXPECT_EQ(reader.ids, (std::vector<std::uint32_t>{1, 2, 4}));
    EXPECT_EQ(reader.resyncs, (std::vector<std::size_t>{37, record_header_size + 20, 20}));
    ASSERT_EQ(log.find("out of step").size(), 1U);
    EXPECT_EQ(log.find("out of step")[0].severity, ecu::kora::logging::error);
    ASSERT_EQ(log.find("record of id 3 announced 1000 payload bytes, only 49 arrived within 300 ms")
                  .size(),
              1U)
        << log.lines().size();
    EXPECT_EQ(reader.finished_count, 1);
}

TEST(QueuePort, FileIsReplayedAndEndsAndStopsArePrompt) {
    LogCapture log;
    TempDir dir;
    Bytes file;
    for (std::uint32_t i = 0; i < 200; ++i) {
        const Bytes r = encoded(i, i % 9);
        file.insert(file.end(), r.begin(), r.end());
    }
    dir.write("replay", std::string(file.begin(), file.end()));
    auto fds = [] {
        return std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {});
    };
    const auto open_before = fds();
    {
        Reader reader(dir.file("replay"));
        ASSERT_TRUE(wait_until([&] { return reader.finished_count > 0; }));
        EXPECT_EQ(reader.count(), 200U);
    }
    EXPECT_EQ(fds(), open_before);  // the port's descriptor closed with it
    {
        Reader stopped(dir.file("replay"), true);  // with a backlog: ends within a queue's depth
        ASSERT_TRUE(wait_until([&] { return stopped.finished_count > 0; }));
        EXPECT_LE(stopped.count(), 24U);
    }
    StopRequest request;  // what the loop polls: quiet until set, then readable
    pollfd wake{request.fd(), POLLIN, 0};
    EXPECT_EQ(::poll(&wake, 1, 0), 0);
    request = true;
    EXPECT_EQ(::poll(&wake, 1, 0), 1);
    Reader idle(dir.fifo("idle"));  // idle with a silent writer: the stop is seen
    const int fd = ::open(dir.file("idle").c_str(), O_WRONLY | O_CLOEXEC);
    idle.port.stop_requested = true;
    EXPECT_TRUE(wait_until([&] { return idle.finished_count > 0; }));
    ::close(fd);
    EXPECT_FALSE(idle.port.open("/nonexistent/rx"));
    EXPECT_EQ(log.find("/nonexistent/rx: No such file or directory").size(), 1U);
}

TEST(QueuePort, WriterRoundTripAndFailures) {
    LogCapture log;
    TempDir dir;
    const auto path = dir.fifo("tx");
    TxQueuePort writer;
    EXPECT_FALSE(writer.open(path));  // no reader within the bounded wait
    EXPECT_EQ(log.find("No such device or address").size(), 1U);
    {
        std::unique_ptr<Reader> reader;
        std::thread late([&] {  // a reader that comes within the wait is waited for
            std::this_thread::sleep_for(100ms);
            reader = std::make_unique<Reader>(path);
        });
        const bool opened = writer.open(path);
        late.join();
        ASSERT_TRUE(opened);
        for (const IpcSignal& s :
             {IpcSignal{1, 0, 0, {}}, IpcSignal{2, 0, 0, Bytes(record_max_payload)}}) {
            ASSERT_TRUE(writer.transmit_data(s));  // a large one goes in parts, never torn
        }
        ASSERT_TRUE(wait_until([&] { return reader->count() == 2; }));
        EXPECT_TRUE(reader->resyncs.empty());
    }
    const int rfd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_TRUE(writer.open(path));
    EXPECT_FALSE(writer.transmit_data({1, 0, 0, Bytes(record_max_payload + 1)}));
    for (int sent = 0; writer.transmit_data({2, 0, 0, Bytes(4000)}); ++sent) {
        ASSERT_LT(sent, 1000);  // nobody drains it: full, then the bounded wait gives up
    }
    EXPECT_EQ(log.find("no room").size(), 1U);
    ::close(rfd);  // the reader goes: EPIPE, not SIGPIPE
    EXPECT_FALSE(writer.transmit_data({3, 0, 0, {1}}));
    EXPECT_EQ(log.find("Broken pipe").size(), 1U);
}

}  // namespace
