#pragma once

// The frame of one relayed RT record, written straight into a message.
//
// The bytes are exactly those of PbInternalMessageAdapter<pb::RtSignal>::
// serialize for a body with timestamp, data, tag and source set (protocol type
// 1), but no body object is built: the record's data is copied once, into the
// frame, and a message whose payload has grown to the largest record so far
// takes the next one without allocating. This is the relay's per-record path.

#include <cstddef>
#include <cstdint>
#include <string>

#include "message.h"

namespace ecu::kora::com {

// A record to relay, made whole by its one caller.
struct RtRecordView {
    std::uint64_t timestamp;
    const std::uint8_t* data;
    std::size_t size;
    std::uint8_t tag;
};

// Replaces out's payload with the frame and sets its timestamp (the record's)
// and format (1); qos and retained are left to the caller.
void frame_rt_signal(const RtRecordView& record, const std::string& source, Message& out);

}  // namespace ecu::kora::com
