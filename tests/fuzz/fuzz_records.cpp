// The queue-port record stream decoder. The input is a sequence of chunks,
// each one length byte (chunk size 1 to 256) followed by the chunk's bytes,
// as short reads would deliver them. Every byte ends up in a record that
// encodes back to valid bytes, or in skipped damage. A stream without damage
// gives the same records however it is chunked. (With damage it need not: a
// record is checked against the bytes after it only when they have arrived.)

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_common.h"
#include "record_format.h"

namespace {

using ecu::kora::ipc::IpcSignal;

bool same(const IpcSignal& a, const IpcSignal& b) {
    return a.id == b.id && a.tag == b.tag && a.timestamp == b.timestamp && a.data == b.data;
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ipcd_fuzz::quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    ecu::kora::ipc::RecordDecoder chunked;
    std::vector<std::uint8_t> stream;
    std::vector<IpcSignal> from_chunks;
    std::size_t skipped = 0;
    for (std::size_t at = 0; at < size;) {
        std::size_t chunk = static_cast<std::size_t>(data[at]) + 1;
        ++at;
        chunk = std::min(chunk, size - at);
        chunked.feed(data + at, chunk);
        stream.insert(stream.end(), data + at, data + at + chunk);
        at += chunk;
        for (IpcSignal r; chunked.next(r);) {
            from_chunks.push_back(r);
        }
        skipped += chunked.take_skipped();
    }
    chunked.finish();
    for (IpcSignal r; chunked.next(r);) {
        from_chunks.push_back(r);
    }
    skipped += chunked.take_skipped();
    IPCD_FUZZ_CHECK(chunked.pending() == 0);

    ecu::kora::ipc::RecordDecoder whole;
    whole.feed(stream.data(), stream.size());
    whole.finish();
    std::vector<IpcSignal> from_whole;
    for (IpcSignal r; whole.next(r);) {
        from_whole.push_back(r);
    }
    const std::size_t whole_skipped = whole.take_skipped();
    IPCD_FUZZ_CHECK(whole.pending() == 0);
    if (whole_skipped == 0) {
        IPCD_FUZZ_CHECK(skipped == 0);
        IPCD_FUZZ_CHECK(from_whole.size() == from_chunks.size());
        for (std::size_t i = 0; i < from_whole.size(); ++i) {
            IPCD_FUZZ_CHECK(same(from_whole[i], from_chunks[i]));
        }
    }

    auto encoded_size = [](const std::vector<IpcSignal>& records) {
        std::size_t encoded = 0;
        for (const auto& r : records) {
            std::vector<std::uint8_t> bytes;
            IPCD_FUZZ_CHECK(ecu::kora::ipc::encode_record(r, bytes));
            encoded += bytes.size();
        }
        return encoded;
    };
    IPCD_FUZZ_CHECK(encoded_size(from_whole) + whole_skipped == stream.size());
    IPCD_FUZZ_CHECK(encoded_size(from_chunks) + skipped == stream.size());
    return 0;
}
