// The queue-port record format: encoding, and splitting a byte stream into
// records whatever the chunking, with damage skipped.

#include <gtest/gtest.h>

#include "record_format.h"

namespace ecu::kora::ipc {
namespace {

using Bytes = std::vector<std::uint8_t>;

IpcSignal make(std::uint32_t id, std::size_t size, std::uint64_t timestamp = 7) {
    Bytes data(size);
    for (std::size_t i = 0; i < size; ++i) {
        data[i] = static_cast<std::uint8_t>(i * 7 + id);
    }
    return {id, static_cast<std::uint8_t>(id + 100), timestamp, data};
}

Bytes encoded(const IpcSignal& s) {
    Bytes out;
    EXPECT_TRUE(encode_record(s, out));
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const auto& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

// Everything the decoder gives for the stream fed in pieces of the given
// sizes (the last repeats), then ended; the bytes it skipped.
std::pair<std::vector<IpcSignal>, std::size_t> decode(const Bytes& stream,
                                                      std::vector<std::size_t> pieces) {
    RecordDecoder d;
    std::vector<IpcSignal> got;
    std::size_t skipped = 0;
    auto take = [&] {
        for (IpcSignal s; d.next(s);) {
            got.push_back(s);
        }
        skipped += d.take_skipped();
    };
    for (std::size_t at = 0, i = 0; at < stream.size(); ++i) {
        const std::size_t n = std::min(pieces[std::min(i, pieces.size() - 1)], stream.size() - at);
        d.feed(stream.data() + at, n);
        at += n;
        take();
    }
    d.finish();
    take();
    EXPECT_EQ(d.pending(), 0U);
    return {got, skipped};
}

std::vector<std::uint32_t> ids(const std::vector<IpcSignal>& records) {
    std::vector<std::uint32_t> out;
    for (const auto& r : records) {
        out.push_back(r.id);
    }
    return out;
}

TEST(RecordFormat, EncodesTheHeaderAndLimitsThePayload) {
    const Bytes record = encoded(make(0x01020304, 3, 0x1122334455667788ULL));
    const Bytes header(record.begin(), record.begin() + 24);
    EXPECT_EQ(header, (Bytes{'Q',  'P',  'R',  '1',  4, 3, 2, 1, 0x88, 0x77, 0x66, 0x55,
                             0x44, 0x33, 0x22, 0x11, 3, 0, 0, 0, 0x68, 0,    0,    0}));
    Bytes out;
    EXPECT_TRUE(encode_record(make(1, record_max_payload), out));
    EXPECT_FALSE(encode_record(make(1, record_max_payload + 1), out));
}

TEST(RecordFormat, SplitsAStreamAtEveryPoint) {
    const IpcSignal a = make(1, 5);
    const IpcSignal b = make(2, 0, 200);
    const Bytes stream = concat({encoded(a), encoded(b)});
    for (std::size_t cut = 1; cut <= stream.size(); ++cut) {
        const auto [got, skipped] = decode(stream, {cut, stream.size()});
        ASSERT_EQ(got.size(), 2U) << "cut at " << cut;
        EXPECT_EQ(encoded(got[0]), encoded(a));
        EXPECT_EQ(encoded(got[1]), encoded(b));
        EXPECT_EQ(skipped, 0U);
    }
}

// Damage is skipped to the next magic and nothing after it is lost; a record
// whose declared end is not followed by a record's start is damaged too.
TEST(RecordFormat, SkipsDamageAndKeepsWhatFollows) {
    const IpcSignal a = make(1, 5);
    const IpcSignal b = make(2, 30);
    auto with_length = [](Bytes bytes, std::uint32_t length) {
        for (std::size_t i = 0; i < 4; ++i) {
            bytes[16 + i] = static_cast<std::uint8_t>(length >> (8 * i));
        }
        return bytes;
    };
    const Bytes wrong = encoded(make(9, 20));
    const Bytes garbage{'x', 'Q', 'Z', 'Q', 'P', 'R', '0', 'y'};
    const std::pair<const char*, Bytes> cases[] = {
        {"garbage with a lone Q and a partial magic", garbage},
        {"length over the limit", with_length(wrong, record_max_payload + 1)},
        {"length too long, reaching into the next record", with_length(wrong, 30)},
        {"length too short", with_length(wrong, 2)},
        {"a cut record", Bytes(wrong.begin(), wrong.begin() + 30)},
    };
    // A wrong end is seen when the bytes after it have arrived: a record is not
    // held back to wait for them, so no piece may end exactly there.
    for (const auto& [what, damage] : cases) {
        for (std::size_t piece : {std::size_t{7}, std::size_t{4096}}) {
            const auto [got, skipped] = decode(concat({damage, encoded(a), encoded(b)}), {piece});
            EXPECT_EQ(ids(got), (std::vector<std::uint32_t>{1, 2}))
                << what << ", pieces of " << piece;
            EXPECT_EQ(skipped, damage.size()) << what;
        }
    }
    // Stray bytes right behind a record make it damaged too.
    EXPECT_EQ(ids(decode(concat({encoded(a), garbage, encoded(b)}), {4096}).first),
              std::vector<std::uint32_t>{2});
    // A length past the end of the stream: the records it covered come out.
    const auto [got, skipped] =
        decode(concat({encoded(a), with_length(wrong, 600), encoded(b), encoded(a)}), {4096});
    EXPECT_EQ(ids(got), (std::vector<std::uint32_t>{1, 2, 1}));
    EXPECT_EQ(skipped, wrong.size());
    // A partial magic at the end may still become a record until the end.
    RecordDecoder d;
    const Bytes qp{'Q', 'P'};
    d.feed(qp.data(), qp.size());
    IpcSignal s;
    EXPECT_FALSE(d.next(s));
    EXPECT_EQ(d.pending(), 2U);
    EXPECT_EQ(d.take_skipped(), 0U);
}

}  // namespace
}  // namespace ecu::kora::ipc
