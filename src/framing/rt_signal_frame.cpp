#include "rt_signal_frame.h"

#include <algorithm>

namespace ecu::kora::com {

namespace {

// Protobuf wire format: a field's key is (number << 3) | wire type.
constexpr std::uint8_t key_fixed64(unsigned field) {
    return static_cast<std::uint8_t>(field << 3U | 1U);
}
constexpr std::uint8_t key_varint(unsigned field) {
    return static_cast<std::uint8_t>(field << 3U);
}
constexpr std::uint8_t key_bytes(unsigned field) {
    return static_cast<std::uint8_t>(field << 3U | 2U);
}

constexpr std::size_t header_length = 18;
constexpr std::uint64_t protocol_type = 1;

std::size_t varint_size(std::uint64_t value) {
    std::size_t n = 1;
    while (value >= 0x80) {
        value >>= 7U;
        ++n;
    }
    return n;
}

std::uint8_t* put_varint(std::uint8_t* at, std::uint64_t value) {
    while (value >= 0x80) {
        *at++ = static_cast<std::uint8_t>(value | 0x80U);
        value >>= 7U;
    }
    *at++ = static_cast<std::uint8_t>(value);
    return at;
}

std::uint8_t* put_fixed64(std::uint8_t* at, std::uint64_t value) {
    for (int i = 0; i < 8; ++i) {
        *at++ = static_cast<std::uint8_t>(value >> (8 * i));
    }
    return at;
}

std::uint8_t* put_bytes(std::uint8_t* at, const void* data, std::size_t size) {
    at = put_varint(at, size);
    // data may be null when size is 0, which memcpy does not allow.
    return std::copy_n(static_cast<const std::uint8_t*>(data), size, at);
}

}  // namespace

void frame_rt_signal(const RtRecordView& record, const std::string& source, Message& out) {
    // RtSignal { timestamp = 1; data = 2; tag = 3; source = 4 }, in field order
    // as the generated code writes them.
    const std::size_t body_length =
        1 + varint_size(record.timestamp) + 1 + varint_size(record.size) + record.size + 1 +
        varint_size(record.tag) + 1 + varint_size(source.size()) + source.size();
    out.payload.resize(header_length + body_length);
    std::uint8_t* at = out.payload.data();
    // QTXHeader { fixed64 frame_info = 1; fixed64 timestamp = 2 }
    const std::uint64_t frame_info =
        protocol_type | (std::uint64_t{header_length} << 16U) | (std::uint64_t{body_length} << 32U);
    *at++ = key_fixed64(1);
    at = put_fixed64(at, frame_info);
    *at++ = key_fixed64(2);
    at = put_fixed64(at, record.timestamp);

    *at++ = key_varint(1);
    at = put_varint(at, record.timestamp);
    *at++ = key_bytes(2);
    at = put_bytes(at, record.data, record.size);
    *at++ = key_varint(3);
    at = put_varint(at, record.tag);
    *at++ = key_bytes(4);
    put_bytes(at, source.data(), source.size());

    out.timestamp = record.timestamp;
    out.format = 1;
}

}  // namespace ecu::kora::com
