// The queue-port record format: encoding, and splitting a byte stream into
// records whatever the chunking, with damage skipped.

#include <gtest/gtest.h>

#include "record_format.h"

namespace ecu::kora::ipc {
namespace {

using Bytes = std::vector<std::uint8_t>;
using Ids = std::vector<std::uint32_t>;

Bytes encoded(std::uint32_t id, std::size_t size, std::uint32_t declared_length = UINT32_MAX) {
    Bytes out(64, 0xEE);  // a reused buffer: every header byte must be written
    EXPECT_TRUE(encode_record(
        {id, static_cast<std::uint8_t>(id + 100), 0x1122334455667788ULL, Bytes(size, 7)}, out));
    for (std::size_t i = 0; declared_length != UINT32_MAX && i < 4; ++i) {
        out[16 + i] = static_cast<std::uint8_t>(declared_length >> (8 * i));
    }
    return out;
}

Bytes concat(std::initializer_list<Bytes> parts) {
    Bytes all;
    for (const auto& p : parts) {
        all.insert(all.end(), p.begin(), p.end());
    }
    return all;
}

// The ids the decoder gives for the stream fed in pieces of a size, then
// ended, and the bytes it skipped.
std::pair<Ids, std::size_t> decode(const Bytes& stream, std::size_t piece) {
    RecordDecoder d;
    Ids ids;
    std::size_t skipped = 0;
    auto drain = [&] {
        for (IpcSignal s; d.next(s);) {
            ids.push_back(s.id);
        }
        skipped += d.take_skipped();
    };
    for (std::size_t at = 0; at < stream.size(); at += piece) {
        d.feed(stream.data() + at, std::min(piece, stream.size() - at));
        drain();
    }
    d.finish();
    drain();
    EXPECT_EQ(d.pending(), 0U);
    return {ids, skipped};
}

TEST(RecordFormat, EncodesTheHeaderAndLimitsThePayload) {
    const Bytes record = encoded(0x01020304, 3);
    EXPECT_EQ(Bytes(record.begin(), record.begin() + 24),
              (Bytes{'Q',  'P',  'R',  '1',  4, 3, 2, 1, 0x88, 0x77, 0x66, 0x55,
                     0x44, 0x33, 0x22, 0x11, 3, 0, 0, 0, 0x68, 0,    0,    0}));
    Bytes out;
    EXPECT_TRUE(encode_record({1, 0, 0, Bytes(65536)}, out));
    EXPECT_FALSE(encode_record({1, 0, 0, Bytes(65537)}, out));
}

TEST(RecordFormat, SplitsAnUndamagedStreamAtEveryPoint) {
    const Bytes stream = concat({encoded(1, 5), encoded(2, 0), encoded(3, 300)});
    for (std::size_t piece = 1; piece <= stream.size(); ++piece) {
        EXPECT_EQ(decode(stream, piece), std::make_pair(Ids{1, 2, 3}, std::size_t{0})) << piece;
    }
}

// Damage is skipped to the next magic, the damaged record with it, and
// nothing after it is lost. A wrong end is seen once the bytes after it have
// arrived (a record is not held back for them): no piece ends there.
TEST(RecordFormat, SkipsDamageAndKeepsWhatFollows) {
    const Bytes wrong = encoded(9, 20);
    const std::pair<const char*, Bytes> cases[] = {
        {"garbage with a lone Q and a partial magic", {'x', 'Q', 'Z', 'Q', 'P', 'R', '0', 'y'}},
        {"length over the limit", encoded(9, 20, 65537)},
        {"length too long, reaching into the next record", encoded(9, 20, 30)},
        {"length too short", encoded(9, 20, 2)},
        {"a cut record", Bytes(wrong.begin(), wrong.begin() + 30)},
    };
    for (const auto& [what, damage] : cases) {
        for (std::size_t piece : {7, 4096}) {
            EXPECT_EQ(decode(concat({damage, encoded(1, 5), encoded(2, 30)}), piece),
                      std::make_pair(Ids{1, 2}, damage.size()))
                << what << ", pieces of " << piece;
        }
    }
    EXPECT_EQ(decode(concat({encoded(1, 5), {'x', 'Q'}, encoded(2, 3)}), 4096).first,
              Ids{2});  // stray bytes behind
    // A length past the end of the stream: the records it covered come out.
    EXPECT_EQ(
        decode(concat({encoded(1, 5), encoded(9, 20, 600), encoded(2, 3), encoded(3, 3)}), 4096),
        std::make_pair(Ids{1, 2, 3}, wrong.size()));
    RecordDecoder d;  // a partial magic may still become a record, until the end
    const Bytes part = concat({encoded(1, 5), {'Q', 'P'}});
    d.feed(part.data(), part.size());
    IpcSignal s;
    EXPECT_TRUE(d.next(s) && !d.next(s) && d.pending() == 2U);
    // A record given up while the next one is still arriving: the next one
    // is waited for, not given up with it.
    RecordDecoder g;
    const Bytes next = encoded(2, 8);
    const Bytes held = concat({encoded(9, 20, 600), Bytes(next.begin(), next.begin() + 10)});
    g.feed(held.data(), held.size());
    EXPECT_FALSE(g.next(s));
    g.abandon_partial();
    EXPECT_FALSE(g.next(s));
    g.feed(next.data() + 10, next.size() - 10);
    EXPECT_TRUE(g.next(s) && s.id == 2);
}

}  // namespace
}  // namespace ecu::kora::ipc
