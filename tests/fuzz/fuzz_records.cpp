// The queue-port record stream decoder, fed chunks (a length byte, then 1 to
// 256 bytes) as short reads deliver them. Every byte ends up in a record that
// encodes back, or in skipped damage. Without damage the records do not
// depend on the chunking (with damage they may: a record's end is checked
// only once the bytes after it have arrived).

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_common.h"
#include "record_format.h"

namespace {

using ecu::kora::ipc::IpcSignal;

// What the decoder gives and skips, with the bytes those records encode to.
struct Decoded {
    std::vector<std::vector<std::uint8_t>> records;
    std::size_t bytes = 0;
    std::size_t skipped = 0;
    void take(ecu::kora::ipc::RecordDecoder& decoder) {
        for (IpcSignal r; decoder.next(r);) {
            records.emplace_back();
            IPCD_FUZZ_CHECK(ecu::kora::ipc::encode_record(r, records.back()));
            bytes += records.back().size();
        }
        skipped += decoder.take_skipped();
    }
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ecu::kora::ipc::RecordDecoder chunked;
    std::vector<std::uint8_t> stream;
    Decoded from_chunks;
    for (std::size_t at = 0; at < size;) {
        const std::size_t chunk = std::min<std::size_t>(data[at] + 1U, size - at - 1);
        chunked.feed(data + at + 1, chunk);
        stream.insert(stream.end(), data + at + 1, data + at + 1 + chunk);
        at += chunk + 1;
        from_chunks.take(chunked);
    }
    chunked.finish();
    from_chunks.take(chunked);

    ecu::kora::ipc::RecordDecoder whole;
    whole.feed(stream.data(), stream.size());
    whole.finish();
    Decoded from_whole;
    from_whole.take(whole);

    IPCD_FUZZ_CHECK(chunked.pending() == 0 && whole.pending() == 0);
    IPCD_FUZZ_CHECK(from_whole.bytes + from_whole.skipped == stream.size());
    IPCD_FUZZ_CHECK(from_chunks.bytes + from_chunks.skipped == stream.size());
    IPCD_FUZZ_CHECK(from_whole.skipped != 0 || from_chunks.records == from_whole.records);
    return 0;
}
