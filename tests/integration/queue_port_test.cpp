// Queue ports against real FIFOs and files: framing, resynchronisation after
// damage, the ends of a device, stopping, and the writer's failure modes.

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "queue_port.h"
#include "support.h"

using namespace ecu::kora::ipc;
using namespace std::chrono_literals;
using Bytes = std::vector<std::uint8_t>;

namespace {

IpcSignal make(std::uint32_t id, std::size_t size, std::uint8_t tag = 7) {
    IpcSignal s;
    s.id = id;
    s.tag = tag;
    s.timestamp = 0x0102030405060708ULL + id;
    for (std::size_t i = 0; i < size; ++i) {
        s.data.push_back(static_cast<std::uint8_t>(id * 31 + i));
    }
    return s;
}

Bytes encoded(const IpcSignal& s) {
    Bytes out;
    EXPECT_TRUE(encode_record(s, out));
    return out;
}

void expect_same(const IpcSignal& a, const IpcSignal& b) {
    EXPECT_EQ(a.id, b.id);
    EXPECT_EQ(a.tag, b.tag);
    EXPECT_EQ(a.timestamp, b.timestamp);
    EXPECT_EQ(a.data, b.data);
}

class Collector : public IDataConsumer<IpcSignal> {
public:
    void consume(const IpcSignal& s) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_records.push_back(s);
        if (stop_on_consume != nullptr) {
            *stop_on_consume = true;
        }
    }
    void finished() override {
        std::lock_guard<std::mutex> lock(m_mutex);
        ++m_finished;
    }
    void resynchronised(std::size_t skipped) override {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_resyncs.push_back(skipped);
    }
    std::vector<IpcSignal> records() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_records;
    }
    std::size_t count() const { return records().size(); }
    int finished_count() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_finished;
    }
    std::vector<std::size_t> resyncs() const {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_resyncs;
    }

    std::atomic<bool>* stop_on_consume = nullptr;

private:
    mutable std::mutex m_mutex;
    std::vector<IpcSignal> m_records;
    int m_finished = 0;
    std::vector<std::size_t> m_resyncs;
};

// An RX port reading on its own thread; stopped and joined when it goes.
struct RunningReader {
    Collector consumer;
    RxQueuePort port{consumer};
    std::thread thread;

    explicit RunningReader(const std::string& path) {
        EXPECT_TRUE(port.open(path));
        thread = std::thread([this] { port.read_loop(); });
    }
    ~RunningReader() {
        port.stop_requested = true;
        thread.join();
    }
    bool wait_finished() {
        return ipcd_test::wait_until([&] { return consumer.finished_count() > 0; });
    }
};

// The test's own end of a FIFO, with plain blocking writes.
struct FifoWriter {
    int fd;
    explicit FifoWriter(const std::string& path) : fd(::open(path.c_str(), O_WRONLY | O_CLOEXEC)) {
        EXPECT_GE(fd, 0);
    }
    ~FifoWriter() { close(); }
    void write(const Bytes& b) {
        std::size_t done = 0;
        while (done < b.size()) {
            const auto n = ::write(fd, b.data() + done, b.size() - done);
            ASSERT_GT(n, 0);
            done += static_cast<std::size_t>(n);
        }
    }
    int unread() const {
        int n = -1;
        ::ioctl(fd, FIONREAD, &n);
        return n;
    }
    void close() {
        if (fd >= 0) {
            ::close(fd);
            fd = -1;
        }
    }
};

Bytes concat(const std::vector<Bytes>& parts) {
    Bytes all;
    for (const auto& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

std::string as_string(const Bytes& b) {
    return std::string(b.begin(), b.end());
}

}  // namespace

TEST(RecordDecoder, SplitsAStreamAtEveryPointAndSkipsDamage) {
    const IpcSignal a = make(1, 5), b = make(2, 0, 200);
    const Bytes stream = concat({encoded(a), encoded(b)});
    for (std::size_t cut = 0; cut <= stream.size(); ++cut) {
        RecordDecoder d;
        std::vector<IpcSignal> got;
        IpcSignal s;
        d.feed(stream.data(), cut);
        while (d.next(s)) {
            got.push_back(s);
        }
        d.feed(stream.data() + cut, stream.size() - cut);
        while (d.next(s)) {
            got.push_back(s);
        }
        ASSERT_EQ(got.size(), 2u) << "cut at " << cut;
        expect_same(got[0], a);
        expect_same(got[1], b);
        EXPECT_EQ(d.take_skipped(), 0u);
        EXPECT_EQ(d.pending(), 0u);
    }

    // Garbage (with a lone 'Q' and a partial magic) and an over-long header.
    Bytes oversize = encoded(make(3, 1));
    oversize[16] = 0x01, oversize[17] = 0x00, oversize[18] = 0x01;  // 65537
    const Bytes garbage{'x', 'Q', 'Z', 'Q', 'P', 'R', '0', 'y'};
    const Bytes damaged = concat({garbage, encoded(a), oversize, encoded(b), {'Q', 'P'}});
    RecordDecoder d;
    IpcSignal s;
    std::vector<IpcSignal> got;
    std::size_t skipped = 0;
    for (auto byte : damaged) {  // one byte at a time
        d.feed(&byte, 1);
        while (d.next(s)) {
            got.push_back(s);
        }
        skipped += d.take_skipped();
    }
    ASSERT_EQ(got.size(), 2u);
    expect_same(got[0], a);
    expect_same(got[1], b);
    EXPECT_EQ(skipped, garbage.size() + oversize.size());
    EXPECT_EQ(d.pending(), 2u);  // the "QP" may still become a record

    // A length that is wrong within the limit: the record is dropped and what
    // follows it is kept, whether the length reaches into the next record, falls
    // short of the record's own end, or reaches past the end of the stream.
    for (std::uint32_t length : {30u, 2u, 600u}) {
        Bytes wrong = encoded(make(7, 20));
        wrong[16] = static_cast<std::uint8_t>(length),
        wrong[17] = static_cast<std::uint8_t>(length >> 8);
        const Bytes stream = concat({encoded(a), wrong, encoded(b), encoded(a)});
        RecordDecoder whole;
        whole.feed(stream.data(), stream.size());
        whole.finish();
        std::vector<std::uint32_t> ids;
        while (whole.next(s)) {
            ids.push_back(s.id);
        }
        EXPECT_EQ(ids, (std::vector<std::uint32_t>{1, 2, 1})) << "length " << length;
        EXPECT_EQ(whole.take_skipped(), wrong.size()) << "length " << length;
    }
}

TEST(RecordEncoding, LimitsThePayload) {
    Bytes out;
    EXPECT_TRUE(encode_record(make(1, record_max_payload), out));
    EXPECT_EQ(out.size(), record_header_size + record_max_payload);
    EXPECT_EQ(as_string(Bytes(out.begin(), out.begin() + 4)), "QPR1");
    EXPECT_FALSE(encode_record(make(1, record_max_payload + 1), out));
}

TEST(QueuePortReader, FifoDeliversRecordsWhateverTheChunking) {
    ipcd_test::TempDir dir;
    const auto path = dir.fifo("rx");
    RunningReader reader(path);
    FifoWriter writer(path);
    std::vector<IpcSignal> sent;
    for (std::uint32_t i = 0; i < 6; ++i) {  // one byte per write
        sent.push_back(make(i, i * 3));
        for (auto byte : encoded(sent.back())) {
            writer.write({byte});
        }
    }
    std::vector<Bytes> many;
    for (std::uint32_t i = 6; i < 206; ++i) {  // many records per write
        sent.push_back(make(i, i % 50));
        many.push_back(encoded(sent.back()));
    }
    writer.write(concat(many));
    for (std::uint32_t i = 206; i < 210; ++i) {  // one record per write
        sent.push_back(make(i, i == 209 ? record_max_payload : 100));
        writer.write(encoded(sent.back()));
    }
    writer.close();
    ASSERT_TRUE(reader.wait_finished());
    const auto got = reader.consumer.records();
    ASSERT_EQ(got.size(), sent.size());
    for (std::size_t i = 0; i < sent.size(); ++i) {
        expect_same(got[i], sent[i]);
    }
    EXPECT_EQ(reader.consumer.finished_count(), 1);
    EXPECT_TRUE(reader.consumer.resyncs().empty());
}

TEST(QueuePortReader, SkipsDamageAndLogsEachStretchOnce) {
    ipcd_test::LogCapture log;
    ipcd_test::TempDir dir;
    const auto path = dir.fifo("rx");
    RunningReader reader(path);
    FifoWriter writer(path);
    Bytes oversize = encoded(make(9, 4));
    oversize[18] = 0x02;  // length 131076
    const Bytes garbage(37, 0xAB);
    writer.write(garbage);
    writer.write(encoded(make(1, 8)));
    // Stray bytes right behind a record make it damaged too: let it go first.
    ASSERT_TRUE(ipcd_test::wait_until([&] { return writer.unread() == 0; }));
    for (auto byte : garbage) {  // a stretch spread over many reads: each byte drained first
        writer.write({byte});
        ASSERT_TRUE(ipcd_test::wait_until([&] { return writer.unread() == 0; }));
    }
    writer.write(oversize);
    writer.write(encoded(make(2, 8)));
    writer.write(encoded(make(3, 8)));
    writer.close();
    ASSERT_TRUE(reader.wait_finished());
    const auto got = reader.consumer.records();
    ASSERT_EQ(got.size(), 3u);
    expect_same(got[2], make(3, 8));
    EXPECT_EQ(reader.consumer.resyncs(), (std::vector<std::size_t>{37, 37 + oversize.size()}));
    const auto lines = log.find("out of step");
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_EQ(lines[0].severity, ecu::kora::logging::error);
    EXPECT_EQ(lines[0].module, "kora.ipc.queueport");
    EXPECT_NE(lines[1].text.find(std::to_string(37 + oversize.size()) + " bytes"),
              std::string::npos);
}

TEST(QueuePortReader, RegularFileIsReplayedAndEnds) {
    ipcd_test::LogCapture log;
    ipcd_test::TempDir dir;
    std::vector<Bytes> parts;
    for (std::uint32_t i = 0; i < 50; ++i) {
        parts.push_back(encoded(make(i, i)));
    }
    {
        RunningReader reader(dir.write("replay", as_string(concat(parts))));
        ASSERT_TRUE(reader.wait_finished());
        EXPECT_EQ(reader.consumer.count(), 50u);
        EXPECT_EQ(reader.consumer.finished_count(), 1);
        EXPECT_TRUE(log.find("skipped").empty());
    }
    // A header cut short at the end: the records before it count, the rest is reported.
    const Bytes last = encoded(make(99, 10));
    parts.push_back(Bytes(last.begin(), last.begin() + 13));
    RunningReader reader(dir.write("cut", as_string(concat(parts))));
    ASSERT_TRUE(reader.wait_finished());
    EXPECT_EQ(reader.consumer.count(), 50u);
    ASSERT_TRUE(log.wait_for("skipped 13 bytes"));
    EXPECT_EQ(log.find("skipped 13 bytes")[0].severity, ecu::kora::logging::error);
    EXPECT_EQ(reader.consumer.finished_count(), 1);
}

TEST(QueuePortReader, FifoWithoutWriterIsWaitedForUntilItsWriterCloses) {
    ipcd_test::TempDir dir;
    const auto path = dir.fifo("rx");
    RunningReader reader(path);
    // No writer has opened it yet: read() gives 0 here, which must not end it.
    EXPECT_FALSE(
        ipcd_test::wait_until([&] { return reader.consumer.finished_count() > 0; }, 200ms));
    FifoWriter writer(path);
    writer.write(encoded(make(5, 3)));
    ASSERT_TRUE(ipcd_test::wait_until([&] { return reader.consumer.count() == 1; }));
    EXPECT_EQ(reader.consumer.finished_count(), 0);
    writer.close();
    ASSERT_TRUE(reader.wait_finished());
    expect_same(reader.consumer.records()[0], make(5, 3));
    EXPECT_EQ(reader.consumer.finished_count(), 1);
}

TEST(QueuePortReader, StopRequestEndsTheLoopPromptly) {
    ipcd_test::TempDir dir;
    for (bool with_writer : {false, true}) {  // no writer yet; a writer that says nothing
        const auto path = dir.fifo(with_writer ? "silent" : "idle");
        RunningReader reader(path);
        std::unique_ptr<FifoWriter> writer;
        if (with_writer) {
            writer = std::make_unique<FifoWriter>(path);
        }
        const auto begin = std::chrono::steady_clock::now();
        reader.port.stop_requested = true;
        ASSERT_TRUE(reader.wait_finished());
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - begin)
                            .count();
        std::printf("stop noticed after %lld ms (writer: %d)\n", static_cast<long long>(ms),
                    with_writer);
        EXPECT_LT(ms, 1000);  // only a hung loop fails this
        EXPECT_EQ(reader.consumer.finished_count(), 1);
    }
    // A stop asked for while a backlog is delivered ends it after at most Depth records.
    std::vector<Bytes> parts(200, encoded(make(1, 1)));
    Collector consumer;
    RxQueuePort port(consumer);
    consumer.stop_on_consume = &port.stop_requested;
    ASSERT_TRUE(port.open(dir.write("backlog", as_string(concat(parts)))));
    port.read_loop();
    EXPECT_GE(consumer.count(), 1u);
    EXPECT_LE(consumer.count(), 24u);
    EXPECT_EQ(consumer.finished_count(), 1);
}

TEST(QueuePortReader, OpenFailureNamesPathAndReason) {
    ipcd_test::LogCapture log;
    Collector c;
    RxQueuePort port(c);
    EXPECT_FALSE(port.open("/nonexistent/rx"));
    EXPECT_EQ(log.find("/nonexistent/rx: No such file or directory").size(), 1u);
}

TEST(QueuePortWriter, RoundTripThroughAFifo) {
    ipcd_test::TempDir dir;
    const auto path = dir.fifo("tx");
    RunningReader reader(path);
    TxQueuePort writer;
    ASSERT_TRUE(writer.open(path));
    std::vector<IpcSignal> sent{make(1, 0, 0), make(0xFFFFFFFF, 17, 255),
                                make(3, record_max_payload), make(4, 5000), make(5, 1)};
    for (const auto& s : sent) {
        ASSERT_TRUE(writer.transmit_data(s));  // the large ones go in parts, never torn
    }
    ASSERT_TRUE(ipcd_test::wait_until([&] { return reader.consumer.count() == sent.size(); }));
    const auto got = reader.consumer.records();
    for (std::size_t i = 0; i < sent.size(); ++i) {
        expect_same(got[i], sent[i]);
    }
    EXPECT_TRUE(reader.consumer.resyncs().empty());
}

TEST(QueuePortWriter, ReportsALostOrFullPortAndOversizedRecords) {
    ipcd_test::LogCapture log;
    ipcd_test::TempDir dir;
    const auto path = dir.fifo("tx");
    int rfd = ::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC);
    ASSERT_GE(rfd, 0);
    TxQueuePort writer;
    ASSERT_TRUE(writer.open(path));
    EXPECT_FALSE(writer.transmit_data(make(1, record_max_payload + 1)));
    EXPECT_EQ(log.find("65537 payload bytes").size(), 1u);

    // Nobody drains the FIFO: it fills, then a write gives up after the bounded wait.
    int sent = 0;
    while (writer.transmit_data(make(2, 4000))) {
        ASSERT_LT(++sent, 1000);
    }
    EXPECT_GT(sent, 0);
    EXPECT_EQ(log.find("no room").size(), 1u);

    ::close(rfd);  // the reader goes: EPIPE, not SIGPIPE
    EXPECT_FALSE(writer.transmit_data(make(3, 1)));
    EXPECT_EQ(log.find("Broken pipe").size(), 1u);
}

TEST(QueuePortWriter, OpenWaitsBoundedlyForAReader) {
    ipcd_test::LogCapture log;
    ipcd_test::TempDir dir;
    const auto path = dir.fifo("tx");
    {
        TxQueuePort writer;
        const auto begin = std::chrono::steady_clock::now();
        EXPECT_FALSE(writer.open(path));
        const auto ms = std::chrono::duration_cast<std::chrono::milliseconds>(
                            std::chrono::steady_clock::now() - begin)
                            .count();
        std::printf("open gave up after %lld ms\n", static_cast<long long>(ms));
        EXPECT_GE(ms, 1900);  // it did wait rather than fail at once
        EXPECT_EQ(log.find(path + ": No such device or address").size(), 1u);
    }
    TxQueuePort writer;
    bool opened = false;
    std::thread opener([&] { opened = writer.open(path); });
    std::this_thread::sleep_for(300ms);  // let the writer be waiting before the reader comes
    RunningReader reader(path);
    opener.join();
    ASSERT_TRUE(opened);
    ASSERT_TRUE(writer.transmit_data(make(8, 8)));
    ASSERT_TRUE(ipcd_test::wait_until([&] { return reader.consumer.count() == 1; }));
}
