#pragma once

// The internal message frame: an 18-byte QTXHeader, then a protobuf body.
//
//   frame_info (fixed64): bits 0-15 protocol type (0 = not used), bits 16-31
//                         header length (18), bits 32-63 body length
//   timestamp (fixed64):  the record's time for RtSignal, else nanoseconds
//                         since boot
//
// PbInternalMessageAdapter<T> frames a body into a Message and takes a frame
// apart, checking the header step by step. An adapter keeps the protocol type
// of the last frame it read, so make one per use and do not share it between
// threads. Neither direction throws for any content.

#include <cstdint>
#include <memory>
#include <stdexcept>
#include <vector>

#include "bridge_bodies.pb.h"
#include "date_time.h"
#include "logging.h"
#include "message.h"
#include "qtx_header.pb.h"
#include "signal_group.pb.h"

namespace ecu::kora::com {

enum class PbInternalDeserializationError : int {
    no_error = 0,
    frame_too_short = 1,
    header_undecodable = 2,
    protocol_not_used = 3,
    header_length_mismatch = 4,
    body_undecodable = 5,
};

inline constexpr std::size_t qtx_header_length = 18;

struct SerializationResult {
    bool success{};
    Message message;
};

template <typename T, typename E>
struct DeserializationResult {
    bool success{};
    T body;
    E error{};
};

template <typename T, typename E>
class IMessageAdapter {
public:
    virtual ~IMessageAdapter() = default;
    virtual SerializationResult serialize(const T& body) = 0;
    virtual DeserializationResult<T, E> deserialize(const Message& message) = 0;
};

template <typename T>
class PbInternalMessageAdapter : public IMessageAdapter<T, PbInternalDeserializationError> {
public:
    using Result = DeserializationResult<T, PbInternalDeserializationError>;

    explicit PbInternalMessageAdapter(std::int32_t type = 1) : protocol_type(type) {}

    SerializationResult serialize(const T& body) override;
    Result deserialize(const Message& message) override;

    // The time a body carries: the RT record's timestamp for RtSignal.
    static std::uint64_t get_timestamp(const T& body);

    // Low 16 bits go on the wire; overwritten by every frame read.
    std::int32_t protocol_type;
};

template <typename T>
std::uint64_t PbInternalMessageAdapter<T>::get_timestamp(const T& /*body*/) {
    return DateTime::time_since_boot_ns();
}

template <>
inline std::uint64_t PbInternalMessageAdapter<pb::RtSignal>::get_timestamp(
    const pb::RtSignal& body) {
    return body.timestamp();
}

namespace detail {
const std::shared_ptr<logging::LogModule>& adapter_log();
}

template <typename T>
SerializationResult PbInternalMessageAdapter<T>::serialize(const T& body) {
    const auto& log = detail::adapter_log();
    SerializationResult result;
    pb::QTXHeader header;
    header.set_frame_info(1);
    header.set_timestamp(get_timestamp(body));
    const std::uint64_t body_length = body.ByteSizeLong();
    const std::uint64_t header_length = header.ByteSizeLong();
    header.set_frame_info((static_cast<std::uint64_t>(protocol_type) & 0xFFFFU) |
                          (header_length << 16U) | (body_length << 32U));
    try {
        // The frame is encoded straight into the message's payload: one buffer
        // of the exact size, and each part sized only once (the sizes computed
        // above are cached in the messages).
        std::vector<std::uint8_t> frame(header_length + body_length);
        std::uint8_t* end = header.SerializeWithCachedSizesToArray(frame.data());
        if (end != frame.data() + header_length) {
            throw std::runtime_error("unable to serialize QTXheader!");
        }
        end = body.SerializeWithCachedSizesToArray(end);
        if (end != frame.data() + frame.size()) {
            throw std::runtime_error("unable to serialize body!");
        }
        result.message.payload = std::move(frame);
        result.message.timestamp = header.timestamp();
        result.message.format = 1;
        result.success = true;
    } catch (const std::runtime_error& e) {
        logging::ERROR << log << e.what();
        result = SerializationResult{};
    } catch (...) {
        logging::EMERG << log << "Unable to allocate memory for serialization!";
        result = SerializationResult{};
    }
    return result;
}

template <typename T>
typename PbInternalMessageAdapter<T>::Result PbInternalMessageAdapter<T>::deserialize(
    const Message& message) {
    using Error = PbInternalDeserializationError;
    const auto& log = detail::adapter_log();
    Result result;
    auto fail = [&result](Error code) {
        result.success = false;
        result.body = T{};
        result.error = code;
        return result;
    };
    const auto& payload = message.payload;
    if (payload.empty()) {
        return fail(Error::frame_too_short);
    }
    if (payload.size() < qtx_header_length) {
        logging::ERROR << log << "Total length is smaller then expected header length";
        return fail(Error::frame_too_short);
    }
    pb::QTXHeader header;
    if (!header.ParseFromArray(payload.data(), static_cast<int>(qtx_header_length))) {
        logging::ERROR << log << "Unable to decode the header.";
        return fail(Error::header_undecodable);
    }
    const std::uint64_t frame_info = header.frame_info();
    protocol_type = static_cast<std::int32_t>(frame_info & 0xFFFFU);
    if (protocol_type == 0) {
        logging::ERROR << log << "ProtocolType is set to not used!";
        return fail(Error::protocol_not_used);
    }
    if (((frame_info >> 16U) & 0xFFFFU) != qtx_header_length) {
        logging::ERROR << log << "Specified hdr-len does not comply.";
        return fail(Error::header_length_mismatch);
    }
    // 64-bit arithmetic: 18 + a 32-bit length cannot overflow.
    const std::uint64_t body_length = frame_info >> 32U;
    if (qtx_header_length + body_length > payload.size() ||
        !result.body.ParseFromArray(payload.data() + qtx_header_length,
                                    static_cast<int>(body_length))) {
        logging::EMERG << log << "Unable to deserialize protobuf";
        return fail(Error::body_undecodable);
    }
    result.success = true;
    result.error = Error::no_error;
    return result;
}

}  // namespace ecu::kora::com
