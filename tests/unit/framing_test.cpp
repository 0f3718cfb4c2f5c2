// The internal message frame: 18-byte QTXHeader, then the body.

#include <gtest/gtest.h>

#include <type_traits>

#include "date_time.h"
#include "log_capture.h"
#include "logging.h"
#include "message_adapter.h"
#include "rt_signal_frame.h"

namespace ecu::kora::com {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Error = PbInternalDeserializationError;

std::uint64_t info(std::uint64_t type, std::uint64_t header_length, std::uint64_t body_length) {
    return type | (header_length << 16U) | (body_length << 32U);
}

std::uint64_t le64(const Bytes& in, std::size_t at) {
    std::uint64_t value = 0;
    for (int i = 7; i >= 0; --i) {
        value = (value << 8U) | in.at(at + static_cast<std::size_t>(i));
    }
    return value;
}

// A frame as any other program writes it: tags 0x09 and 0x11 with
// little-endian fixed64 values, then the body bytes.
Bytes frame(std::uint64_t frame_info, std::uint64_t timestamp, const Bytes& body = {}) {
    Bytes out;
    for (const auto& [tag, value] :
         {std::pair<std::uint8_t, std::uint64_t>{0x09, frame_info}, {0x11, timestamp}}) {
        out.push_back(tag);
        for (int i = 0; i < 8; ++i) {
            out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
        }
    }
    out.insert(out.end(), body.begin(), body.end());
    return out;
}

Message message_of(Bytes payload) {
    Message message;
    message.payload = std::move(payload);
    return message;
}

template <typename T>
Bytes encode(const T& body) {
    const std::string s = body.SerializeAsString();
    return Bytes(s.begin(), s.end());
}

pb::RtSignal rt_signal() {
    pb::RtSignal s;
    s.set_timestamp(0x1122334455667788ULL);
    s.set_data(std::string("\x00\xff\x10", 3));
    s.set_tag(200);
    s.set_source("ipcd-a");
    return s;
}

template <typename T>
class FramingRoundTrip : public ::testing::Test {};
using Bodies = ::testing::Types<pb::RtSignal, pb::SubscriptionStatus, pb::TPAStatus>;
// The empty name-generator argument keeps clang's -Wpedantic quiet.
TYPED_TEST_SUITE(FramingRoundTrip, Bodies, );

TYPED_TEST(FramingRoundTrip, EqualBodyBehindAnEighteenByteHeader) {
    TypeParam body;
    if constexpr (std::is_same_v<TypeParam, pb::RtSignal>) {
        body = rt_signal();
    } else if constexpr (std::is_same_v<TypeParam, pb::TPAStatus>) {
        body.set_wait_for_target(true);
        body.set_target_reached(false);  // present though false: must survive the trip
    } else {
        body.add_topics("rt/a");
        body.set_topic_count(12);
        body.set_requested_count(1);
    }
    const std::uint64_t before = DateTime::time_since_boot_ns();
    const auto out = PbInternalMessageAdapter<TypeParam>().serialize(body);
    ASSERT_TRUE(out.success);
    const Bytes& payload = out.message.payload;
    const std::uint64_t timestamp = le64(payload, 10);
    EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 18),
              frame(info(1, 18, body.ByteSizeLong()), timestamp));
    EXPECT_EQ(Bytes(payload.begin() + 18, payload.end()), encode(body));
    // The record's own time for RtSignal, the time since boot for the rest.
    if constexpr (std::is_same_v<TypeParam, pb::RtSignal>) {
        EXPECT_EQ(timestamp, body.timestamp());
    } else {
        EXPECT_GE(timestamp, before);
        EXPECT_LE(timestamp, DateTime::time_since_boot_ns());
    }
    EXPECT_EQ(out.message.timestamp, timestamp);
    EXPECT_EQ(out.message.format, 1);
    EXPECT_EQ(out.message.qos, 0);
    EXPECT_FALSE(out.message.retained);
    const auto in = PbInternalMessageAdapter<TypeParam>().deserialize(out.message);
    ASSERT_TRUE(in.success);
    EXPECT_EQ(encode(in.body), encode(body));
}

TEST(Framing, RefusalsGiveTheirCodeAndOneLine) {
    ipcd_test::LogCapture log;
    Bytes seventeen = frame(info(1, 18, 0), 5);
    seventeen.pop_back();
    const Bytes body = encode(rt_signal());
    const std::string short_line = "Total length is smaller then expected header length";
    const std::string header_line = "Unable to decode the header.";
    const std::string length_line = "Specified hdr-len does not comply.";
    const std::string body_line = "Unable to deserialize protobuf";
    const struct {
        Bytes payload;
        Error code;
        int severity;
        std::string line;  // empty: nothing logged
    } cases[] = {
        {{}, Error::frame_too_short, 0, ""},
        {seventeen, Error::frame_too_short, logging::error, short_line},
        {Bytes(18, 0x00), Error::header_undecodable, logging::error, header_line},  // tag 0
        {Bytes(18, 0xFF), Error::header_undecodable, logging::error,
         header_line},  // endless varint
        {frame(info(0, 18, 0), 1), Error::protocol_not_used, logging::error,
         "ProtocolType is set to not used!"},
        {frame(info(1, 17, 0), 1), Error::header_length_mismatch, logging::error, length_line},
        {frame(info(1, 19, 0), 1), Error::header_length_mismatch, logging::error, length_line},
        {frame(info(1, 18, 5), 0, {0x18, 0x05, 0x18, 0x06}), Error::body_undecodable,
         logging::emerg, body_line},  // declared beyond the payload
        {frame(info(1, 18, 0xFFFFFFFF), 0, body), Error::body_undecodable, logging::emerg,
         body_line},
        {frame(info(1, 18, body.size() - 1), 0, body), Error::body_undecodable, logging::emerg,
         body_line},  // the declared length cuts the body
    };
    for (const auto& c : cases) {
        log.clear();
        PbInternalMessageAdapter<pb::RtSignal> adapter(7);
        const auto result = adapter.deserialize(message_of(c.payload));
        EXPECT_FALSE(result.success) << c.line;
        EXPECT_EQ(result.error, c.code) << c.line;
        EXPECT_EQ(result.body.ByteSizeLong(), 0U) << "body not reset: " << c.line;
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), c.line.empty() ? 0U : 1U) << c.line;
        if (!c.line.empty()) {
            EXPECT_EQ(lines[0].severity, c.severity);
            EXPECT_EQ(lines[0].module, "kora.com.messageadapter");
            EXPECT_EQ(lines[0].text, c.line);
        }
        if (c.code == Error::protocol_not_used) {
            EXPECT_EQ(adapter.protocol_type, 0);  // stored before the check
        }
    }
}

TEST(Framing, AcceptsEmptyBodiesTrailingBytesAndKeepsTheTypeItRead) {
    PbInternalMessageAdapter<pb::RtSignal> adapter;
    const auto empty = adapter.deserialize(message_of(frame(info(1, 18, 0), 42)));
    ASSERT_TRUE(empty.success);
    EXPECT_FALSE(empty.body.has_timestamp());
    Bytes body = encode(rt_signal());
    Bytes trailing = body;
    trailing.insert(trailing.end(), {0xFF, 0xFF, 0x00});  // would not parse
    const auto tail = adapter.deserialize(message_of(frame(info(1, 18, body.size()), 0, trailing)));
    ASSERT_TRUE(tail.success);
    EXPECT_EQ(encode(tail.body), body);

    ASSERT_TRUE(adapter.deserialize(message_of(frame(info(7, 18, 0), 0))).success);
    EXPECT_EQ(adapter.protocol_type, 7);
    EXPECT_EQ(le64(adapter.serialize(rt_signal()).message.payload, 1) & 0xFFFFFFFFU,
              info(7, 18, 0));
    // Bits above 16 must not spill into the header length that readers check.
    const auto wide = PbInternalMessageAdapter<pb::RtSignal>(0x10007).serialize(rt_signal());
    EXPECT_EQ(le64(wide.message.payload, 1) & 0xFFFFFFFFU, info(7, 18, 0));
    // A body longer than 16 bits of length.
    pb::RtSignal big = rt_signal();
    big.set_data(std::string(70000, 'Z'));
    const auto out = adapter.serialize(big);
    EXPECT_EQ(le64(out.message.payload, 1) >> 32U, big.ByteSizeLong());
    EXPECT_EQ(adapter.deserialize(out.message).body.data(), big.data());
}

TEST(Framing, RtSignalFrameMatchesHandEncodedBytes) {
    pb::RtSignal body;
    body.set_timestamp(0x0102030405060708ULL);
    body.set_data(std::string("\x01\x02", 2));
    body.set_tag(5);
    body.set_source("ipcd");
    const Bytes expected{
        0x09, 0x01, 0x00, 0x12, 0x00, 0x16, 0x00, 0x00, 0x00,        // type 1, header 18, body 22
        0x11, 0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,        // the record's timestamp
        0x08, 0x88, 0x8e, 0x98, 0xa8, 0xc0, 0xe0, 0x80, 0x81, 0x01,  // timestamp, varint
        0x12, 0x02, 0x01, 0x02,                                      // data
        0x18, 0x05,                                                  // tag
        0x22, 0x04, 'i',  'p',  'c',  'd',                           // source
    };
    EXPECT_EQ(PbInternalMessageAdapter<pb::RtSignal>().serialize(body).message.payload, expected);
}

// The relay's own encoder must give the adapter's bytes for every record: a
// varint length at its boundaries, an empty payload (present, empty), the
// largest timestamp and tag, a reused message that held a longer frame.
TEST(Framing, RelayFrameIsTheAdaptersFrame) {
    Message reused;
    reused.payload.assign(70000, 0xFF);
    for (std::size_t size : {0, 1, 127, 128, 16383, 16384, 65536}) {
        for (std::uint64_t timestamp : {std::uint64_t{0}, std::uint64_t{300}, ~std::uint64_t{0}}) {
            const Bytes data(size, static_cast<std::uint8_t>(size));
            const std::uint8_t tag = size % 2 == 0 ? 0 : 255;
            const std::string source = size == 128 ? std::string(200, 's') : "ipcd";
            pb::RtSignal body;
            body.set_timestamp(timestamp);
            body.set_data(data.data(), data.size());
            body.set_tag(tag);
            body.set_source(source);
            frame_rt_signal({timestamp, data.data(), data.size(), tag}, source, reused);
            ASSERT_EQ(reused.payload,
                      PbInternalMessageAdapter<pb::RtSignal>().serialize(body).message.payload)
                << size << " bytes, timestamp " << timestamp;
            EXPECT_EQ(reused.timestamp, timestamp);
            EXPECT_EQ(reused.format, 1);
        }
    }
}

}  // namespace
}  // namespace ecu::kora::com
