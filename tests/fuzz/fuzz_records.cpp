// The queue-port record stream decoder. The input is a sequence of chunks,
// each one length byte (chunk size 1 to 256) followed by the chunk's bytes,
// as short reads would deliver them. The records must be the same as when the
// whole stream is fed at once, and each must encode back to valid bytes.

#include <cstddef>
#include <cstdint>
#include <vector>

#include "fuzz_common.h"
#include "queue_port.h"

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
    IPCD_FUZZ_CHECK(chunked.pending() <= stream.size());

    ecu::kora::ipc::RecordDecoder whole;
    whole.feed(stream.data(), stream.size());
    std::vector<IpcSignal> from_whole;
    for (IpcSignal r; whole.next(r);) {
        from_whole.push_back(r);
    }
    IPCD_FUZZ_CHECK(from_whole.size() == from_chunks.size());
    for (std::size_t i = 0; i < from_whole.size(); ++i) {
        IPCD_FUZZ_CHECK(same(from_whole[i], from_chunks[i]));
    }
    IPCD_FUZZ_CHECK(whole.take_skipped() == skipped);
    IPCD_FUZZ_CHECK(whole.pending() == chunked.pending());

    std::size_t encoded = 0;
    for (const auto& r : from_whole) {
        IPCD_FUZZ_CHECK(r.data.size() <= ecu::kora::ipc::record_max_payload);
        std::vector<std::uint8_t> bytes;
        IPCD_FUZZ_CHECK(ecu::kora::ipc::encode_record(r, bytes));
        IPCD_FUZZ_CHECK(bytes.size() == ecu::kora::ipc::record_header_size + r.data.size());
        encoded += bytes.size();
    }
    // Every byte of the stream is a record, skipped damage, or still pending.
    IPCD_FUZZ_CHECK(encoded + skipped + whole.pending() == stream.size());
    return 0;
}
