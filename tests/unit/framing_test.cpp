// The internal message frame: an 18-byte QTXHeader, then the body.

#include <gtest/gtest.h>

#include "date_time.h"
#include "frames.h"
#include "logging.h"
#include "rt_signal_frame.h"
#include "support.h"

namespace ecu::kora::com {
namespace {

using ipcd_test::Bytes;
using ipcd_test::message;
using Error = PbInternalDeserializationError;
using RtAdapter = PbInternalMessageAdapter<pb::RtSignal>;

// A frame as any program writes it: fixed64 fields 1 (type | header length <<
// 16 | body length << 32) and 2 (timestamp), little-endian, then the body.
Bytes frame(std::uint64_t type, std::uint64_t header_length, std::uint64_t body_length,
            std::uint64_t timestamp, const std::string& body = {}) {
    Bytes out;
    for (const std::uint64_t value :
         {type | header_length << 16U | body_length << 32U, timestamp}) {
        out.push_back(out.empty() ? 0x09 : 0x11);
        for (int i = 0; i < 8; ++i) {
            out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
    }
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

pb::RtSignal rt_signal(std::size_t data_size = 3) {
    pb::RtSignal s;
    s.set_timestamp(0x0102030405060708ULL);
    s.set_data(std::string(data_size, '\x5a'));
    s.set_tag(200);
    s.set_source("ipcd");
    return s;
}

TEST(Framing, WritesTheHeaderThenTheBody) {
    const pb::RtSignal body = rt_signal();
    const Message out = RtAdapter(0x10007).serialize(body).message;  // 16 bits, no spill
    EXPECT_EQ(out.payload,
              frame(7, 18, body.ByteSizeLong(), body.timestamp(), body.SerializeAsString()));
    EXPECT_EQ(out.timestamp, body.timestamp());  // the record's own time
    EXPECT_EQ(out.format, 1);
    EXPECT_EQ(out.qos, 0);
    EXPECT_FALSE(out.retained);
    const std::uint64_t before = DateTime::time_since_boot_ns();  // other bodies: time since boot
    EXPECT_GE(PbInternalMessageAdapter<pb::TPAStatus>().serialize({}).message.timestamp, before);
}

TEST(Framing, ReadsWhatFitsAndRefusesTheRestWithOneLine) {
    ipcd_test::LogCapture log;
    const std::string body = rt_signal().SerializeAsString();
    Bytes seventeen = frame(1, 18, 0, 5);
    seventeen.pop_back();
    const std::string bad_body = "Unable to deserialize protobuf";
    const std::string bad_length = "Specified hdr-len does not comply.";
    const struct {
        Bytes payload;
        Error code;
        int severity;
        std::string line;  // the line logged (empty: none); for a frame that reads, its body
    } cases[] = {
        // clang-format off
        {frame(9, 18, 0, 42), Error::no_error, 0, ""},
        {frame(1, 18, body.size(), 0, body + "\xff\xff"), Error::no_error, 0, body},
        {RtAdapter().serialize(rt_signal(70000)).message.payload, Error::no_error, 0, rt_signal(70000).SerializeAsString()},
        {{}, Error::frame_too_short, 0, ""},
        {seventeen, Error::frame_too_short, logging::error, "Total length is smaller then expected header length"},
        {Bytes(18, 0xFF), Error::header_undecodable, logging::error, "Unable to decode the header."},
        {frame(0, 18, 0, 1), Error::protocol_not_used, logging::error, "ProtocolType is set to not used!"},
        {frame(1, 17, 0, 1), Error::header_length_mismatch, logging::error, bad_length},
        {frame(1, 19, 0, 1), Error::header_length_mismatch, logging::error, bad_length},
        {frame(1, 18, body.size() + 1, 0, body), Error::body_undecodable, logging::emerg, bad_body},
        {frame(1, 18, 0xFFFFFFFF, 0, body), Error::body_undecodable, logging::emerg, bad_body},
        {frame(1, 18, body.size() - 1, 0, body), Error::body_undecodable, logging::emerg, bad_body},
        // clang-format on
    };
    for (const auto& c : cases) {
        log.clear();
        RtAdapter adapter(7);
        const auto result = adapter.deserialize(message(c.payload));
        EXPECT_EQ(result.success, c.code == Error::no_error) << c.line;
        EXPECT_EQ(result.error, c.code) << c.line;
        if (result.success) {  // the type as read, also for what it sends next
            EXPECT_EQ(result.body.SerializeAsString(), c.line);
            EXPECT_EQ(adapter.serialize(rt_signal()).message.payload.at(1), c.payload.at(1));
            continue;
        }
        EXPECT_EQ(result.body.ByteSizeLong(), 0U) << c.line;
        ASSERT_EQ(log.lines().size(), c.line.empty() ? 0U : 1U) << c.line;
        if (!c.line.empty()) {
            const auto l = log.lines()[0];  // by value: lines() is a copy
            EXPECT_TRUE(l.severity == c.severity && l.module == "kora.com.messageadapter")
                << l.text;
            EXPECT_EQ(l.text, c.line);
        }
        EXPECT_EQ(adapter.protocol_type, c.code <= Error::header_undecodable  ? 7
                                         : c.code == Error::protocol_not_used ? 0
                                                                              : 1);
    }
}

// The relay's own encoder must give the adapter's bytes for every record:
// varint lengths at their boundaries, an empty payload (present), the largest
// timestamp and tag, a reused message that held a longer frame.
TEST(Framing, RelayFrameIsTheAdaptersFrame) {
    Message reused;
    reused.payload.assign(70000, 0xFF);
    for (std::size_t size : {0, 1, 127, 128, 16383, 16384, 65536}) {
        for (std::uint64_t timestamp : {std::uint64_t{0}, std::uint64_t{300}, ~std::uint64_t{0}}) {
            const Bytes data(size, static_cast<std::uint8_t>(size));
            pb::RtSignal body;
            body.set_timestamp(timestamp);
            body.set_data(data.data(), data.size());
            body.set_tag(size % 2 == 0 ? 0 : 255);
            body.set_source(size == 128 ? std::string(200, 's') : "ipcd");
            frame_rt_signal({timestamp, data.data(), size, static_cast<std::uint8_t>(body.tag())},
                            body.source(), reused);
            ASSERT_EQ(reused.payload, RtAdapter().serialize(body).message.payload) << size;
            EXPECT_TRUE(reused.timestamp == timestamp && reused.format == 1);
        }
    }
}

}  // namespace
}  // namespace ecu::kora::com
