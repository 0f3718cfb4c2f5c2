// The internal frame against bytes written by hand: what other programs put
// on the broker, and what a broken or hostile sender may put there instead.

#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <type_traits>
#include <vector>

#include "date_time.h"
#include "message_adapter.h"
#include "rt_signal_frame.h"
#include "support.h"

namespace ecu::kora::com {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Error = PbInternalDeserializationError;
const std::string adapter_module = "kora.com.messageadapter";

std::uint64_t frame_info(std::uint64_t type, std::uint64_t header_length,
                         std::uint64_t body_length) {
    return type | (header_length << 16U) | (body_length << 32U);
}

void put_le64(Bytes& out, std::uint64_t value) {
    for (int i = 0; i < 8; ++i) {
        out.push_back(static_cast<std::uint8_t>(value >> (8 * i)));
    }
}

std::uint64_t get_le64(const Bytes& in, std::size_t at) {
    std::uint64_t value = 0;
    for (int i = 7; i >= 0; --i) {
        value = (value << 8U) | in.at(at + static_cast<std::size_t>(i));
    }
    return value;
}

// A frame as any other program writes it: the two fixed64 header fields
// (tags 0x09 and 0x11, little-endian values), then the body bytes.
Bytes frame(std::uint64_t info, std::uint64_t timestamp, const Bytes& body = {}) {
    Bytes out{0x09};
    put_le64(out, info);
    out.push_back(0x11);
    put_le64(out, timestamp);
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

template <typename T>
T sample();
template <>
pb::RtSignal sample() {
    pb::RtSignal s;
    s.set_timestamp(0x1122334455667788ULL);
    s.set_data(std::string("\x00\xff\x10", 3));
    s.set_tag(200);
    s.set_source("ipcd-a");
    return s;
}
template <>
pb::SubscriptionMessage sample() {
    pb::SubscriptionMessage s;
    for (const char* t : {"rt/a", "rt/b/c", ""}) {
        s.add_topics(t);
    }
    return s;
}
template <>
pb::SubscriptionStatus sample() {
    pb::SubscriptionStatus s;
    s.add_topics("rt/a");
    s.add_topics("rt/z");
    s.set_topic_count(12);
    s.set_requested_count(2);
    return s;
}
template <>
pb::TPAStatus sample() {
    pb::TPAStatus s;
    s.set_wait_for_target(true);
    s.set_target_reached(false);  // present though false: must survive the trip
    return s;
}
template <>
pb::SignalGroupData sample() {
    pb::SignalGroupData s;
    s.set_timestamp(99);
    auto* v = s.add_signals();
    v->set_name("speed");
    v->set_data(std::string("\x01\x00", 2));
    s.add_signals()->set_name("empty");
    return s;
}

template <typename T>
class FramingRoundTrip : public ::testing::Test {};
using Bodies = ::testing::Types<pb::RtSignal, pb::SubscriptionMessage, pb::SubscriptionStatus,
                                pb::TPAStatus, pb::SignalGroupData>;
// The empty name-generator argument keeps clang's -Wpedantic quiet.
TYPED_TEST_SUITE(FramingRoundTrip, Bodies, );

TYPED_TEST(FramingRoundTrip, GivesBackAnEqualBodyBehindAnEighteenByteHeader) {
    ipcd_test::LogCapture log;
    const TypeParam body = sample<TypeParam>();
    PbInternalMessageAdapter<TypeParam> writer;
    const std::uint64_t before = DateTime::time_since_boot_ns();
    const SerializationResult out = writer.serialize(body);
    const std::uint64_t after = DateTime::time_since_boot_ns();
    ASSERT_TRUE(out.success);
    const Bytes& payload = out.message.payload;
    ASSERT_EQ(payload.size(), body.ByteSizeLong() + 18);
    EXPECT_EQ(Bytes(payload.begin(), payload.begin() + 18),
              frame(frame_info(1, 18, body.ByteSizeLong()), get_le64(payload, 10)));
    EXPECT_EQ(Bytes(payload.begin() + 18, payload.end()), encode(body));
    // The RT record's own time for RtSignal, the time since boot for the rest.
    if constexpr (std::is_same_v<TypeParam, pb::RtSignal>) {
        EXPECT_EQ(get_le64(payload, 10), body.timestamp());
    } else {
        EXPECT_GE(get_le64(payload, 10), before);
        EXPECT_LE(get_le64(payload, 10), after);
    }
    EXPECT_EQ(out.message.timestamp, get_le64(payload, 10));
    EXPECT_EQ(out.message.format, 1);
    EXPECT_EQ(out.message.qos, 0);
    EXPECT_FALSE(out.message.retained);

    PbInternalMessageAdapter<TypeParam> reader;
    const auto in = reader.deserialize(out.message);
    ASSERT_TRUE(in.success);
    EXPECT_EQ(in.error, Error::no_error);
    EXPECT_EQ(encode(in.body), encode(body));
    EXPECT_TRUE(log.lines().empty());
}

class FramingRefusal : public ::testing::Test {
protected:
    // Expects a refusal with the code, a default body and exactly one log line.
    void expect_refused(const Bytes& payload, Error code, int severity, const std::string& text) {
        log.clear();
        const auto result = adapter.deserialize(message_of(payload));
        EXPECT_FALSE(result.success);
        EXPECT_EQ(result.error, code) << text;
        EXPECT_EQ(result.body.ByteSizeLong(), 0U) << "body not reset to default";
        const auto lines = log.lines();
        ASSERT_EQ(lines.size(), 1U) << text;
        EXPECT_EQ(lines[0].severity, severity);
        EXPECT_EQ(lines[0].module, adapter_module);
        EXPECT_EQ(lines[0].text, text);
    }

    ipcd_test::LogCapture log;
    PbInternalMessageAdapter<pb::RtSignal> adapter;
};

TEST_F(FramingRefusal, ShortPayloadsAreCode1AndOnlyNonEmptyOnesAreLogged) {
    const auto empty = adapter.deserialize(message_of({}));
    EXPECT_FALSE(empty.success);
    EXPECT_EQ(empty.error, Error::frame_too_short);
    EXPECT_TRUE(log.lines().empty());

    Bytes seventeen = frame(frame_info(1, 18, 0), 5);
    seventeen.pop_back();
    expect_refused(seventeen, Error::frame_too_short, logging::error,
                   "Total length is smaller then expected header length");
}

TEST_F(FramingRefusal, HeaderFaultsAreCodes2To4) {
    // Tag 0, an endless varint, and a length-delimited field running off the end.
    for (Bytes header : {Bytes(18, 0x00), Bytes(18, 0xFF), Bytes{0x0A, 0x40}}) {
        header.resize(18, 0x00);
        expect_refused(header, Error::header_undecodable, logging::error,
                       "Unable to decode the header.");
    }
    adapter.protocol_type = 7;
    expect_refused(frame(frame_info(0, 18, 0), 1), Error::protocol_not_used, logging::error,
                   "ProtocolType is set to not used!");
    EXPECT_EQ(adapter.protocol_type, 0);
    // These headers parse; only the declared header length is wrong.
    for (std::uint64_t header_length : {0U, 17U, 19U, 0xFFFFU}) {
        expect_refused(frame(frame_info(1, header_length, 0), 1), Error::header_length_mismatch,
                       logging::error, "Specified hdr-len does not comply.");
    }
}

TEST_F(FramingRefusal, BodyBeyondPayloadOrUnparsableIsCode5AtEmerg) {
    const Bytes four{0x18, 0x05, 0x18, 0x06};  // tag=5, tag=6: a valid body
    const Bytes full = encode(sample<pb::RtSignal>());
    const struct {
        std::uint64_t declared;
        Bytes present;
    } cases[] = {
        {5, four},
        {0xFFFFFFFFULL, four},
        {1, {0x00}},                         // tag 0
        {5, {0x08, 0x05, 0x12, 0x05, 'a'}},  // timestamp set, then a short string
        {full.size() - 1, full},             // the declared length cuts the source
    };
    for (const auto& c : cases) {
        expect_refused(frame(frame_info(1, 18, c.declared), 0, c.present), Error::body_undecodable,
                       logging::emerg, "Unable to deserialize protobuf");
    }
}

TEST(FramingAcceptance, EmptyBodyAndTrailingBytes) {
    ipcd_test::LogCapture log;
    PbInternalMessageAdapter<pb::RtSignal> adapter;
    const auto empty = adapter.deserialize(message_of(frame(frame_info(1, 18, 0), 42)));
    ASSERT_TRUE(empty.success);
    EXPECT_EQ(empty.error, Error::no_error);
    EXPECT_FALSE(empty.body.has_timestamp());
    EXPECT_EQ(empty.body.ByteSizeLong(), 0U);

    // Bytes after the declared body are ignored, even ones that would not parse.
    Bytes body = encode(sample<pb::RtSignal>());
    Bytes trailing = body;
    trailing.insert(trailing.end(), {0xFF, 0xFF, 0x00});
    const auto with_tail =
        adapter.deserialize(message_of(frame(frame_info(1, 18, body.size()), 0, trailing)));
    ASSERT_TRUE(with_tail.success);
    EXPECT_EQ(encode(with_tail.body), body);
    EXPECT_TRUE(log.lines().empty());
}

TEST(FramingAcceptance, BodyLengthUsesAllThirtyTwoBits) {
    pb::RtSignal body = sample<pb::RtSignal>();
    body.set_data(std::string(70000, '\x5a'));
    PbInternalMessageAdapter<pb::RtSignal> adapter;
    const auto out = adapter.serialize(body);
    ASSERT_TRUE(out.success);
    EXPECT_EQ(get_le64(out.message.payload, 1) >> 32U, body.ByteSizeLong());
    const auto in = adapter.deserialize(out.message);
    ASSERT_TRUE(in.success);
    EXPECT_EQ(in.body.data(), body.data());
}

TEST(FramingProtocolType, ReplyCarriesTheTypeLastReceivedInSixteenBits) {
    PbInternalMessageAdapter<pb::RtSignal> adapter;
    ASSERT_TRUE(adapter.deserialize(message_of(frame(frame_info(7, 18, 0), 0))).success);
    EXPECT_EQ(adapter.protocol_type, 7);
    EXPECT_EQ(get_le64(adapter.serialize(sample<pb::RtSignal>()).message.payload, 1) & 0xFFFFFFFFU,
              frame_info(7, 18, 0));

    // Bits above 16 must not spill into the header length that readers check.
    PbInternalMessageAdapter<pb::RtSignal> wide(0x10007);
    const auto out = wide.serialize(sample<pb::RtSignal>());
    EXPECT_EQ(get_le64(out.message.payload, 1) & 0xFFFFFFFFU, frame_info(7, 18, 0));
    EXPECT_TRUE(PbInternalMessageAdapter<pb::RtSignal>().deserialize(out.message).success);
}

TEST(FramingWire, RtSignalFrameMatchesHandEncodedBytes) {
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
    PbInternalMessageAdapter<pb::RtSignal> adapter;
    EXPECT_EQ(adapter.serialize(body).message.payload, expected);

    const auto in = adapter.deserialize(message_of(expected));
    ASSERT_TRUE(in.success);
    EXPECT_EQ(in.body.timestamp(), 0x0102030405060708ULL);
    EXPECT_EQ(in.body.data(), std::string("\x01\x02", 2));
    EXPECT_EQ(in.body.tag(), 5U);
    EXPECT_EQ(in.body.source(), "ipcd");
}

// The relay's own encoder must give the adapter's bytes for every record: a
// varint length at its boundaries, an empty payload (present, empty), the
// largest timestamp and tag, a reused message that held a longer frame.
TEST(FramingWire, RelayFrameIsTheAdaptersFrame) {
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
            const auto expected = PbInternalMessageAdapter<pb::RtSignal>(1).serialize(body).message;
            frame_rt_signal({timestamp, data.data(), data.size(), tag}, source, reused);
            ASSERT_EQ(reused.payload, expected.payload)
                << size << " bytes, timestamp " << timestamp;
            EXPECT_EQ(reused.timestamp, timestamp);
            EXPECT_EQ(reused.format, 1);
        }
    }
}

TEST(FramingRobustness, TruncationsAndGarbageOnlyEverYieldACode) {
    ipcd_test::LogCapture log;  // also keeps the many refusal lines off the output
    PbInternalMessageAdapter<pb::RtSignal> adapter;
    const Bytes valid = adapter.serialize(sample<pb::RtSignal>()).message.payload;
    auto check = [&adapter](const Bytes& payload) {
        const auto r = adapter.deserialize(message_of(payload));
        EXPECT_EQ(r.success, r.error == Error::no_error);
        EXPECT_LE(static_cast<int>(r.error), 5);
        if (!r.success) {
            EXPECT_EQ(r.body.ByteSizeLong(), 0U);
        }
        return r.error;
    };
    for (std::size_t n = 1; n < valid.size(); ++n) {
        EXPECT_EQ(check(Bytes(valid.begin(), valid.begin() + static_cast<long>(n))),
                  n < 18 ? Error::frame_too_short : Error::body_undecodable)
            << n << " bytes";
    }
    std::mt19937 rng(20240611);
    std::uniform_int_distribution<int> byte(0, 255);
    for (int i = 0; i < 3000; ++i) {
        Bytes garbage(static_cast<std::size_t>(rng() % 80));
        for (auto& b : garbage) {
            b = static_cast<std::uint8_t>(byte(rng));
        }
        check(garbage);
        Bytes mutated = valid;  // reaches the body parser far more often
        for (int k = 0; k < 3; ++k) {
            mutated[rng() % mutated.size()] = static_cast<std::uint8_t>(byte(rng));
        }
        check(mutated);
    }
}

}  // namespace
}  // namespace ecu::kora::com
