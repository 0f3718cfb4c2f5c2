// The frame's deserialize for every body type: the first byte picks the body,
// the rest is the broker payload. A frame that decodes must survive a round
// trip through serialize unchanged.

#include <cstddef>
#include <cstdint>

#include "fuzz_common.h"
#include "message_adapter.h"

namespace {

template <typename T>
void exercise(const std::uint8_t* data, std::size_t size) {
    ecu::kora::com::Message msg;
    msg.payload.assign(data, data + size);
    ecu::kora::com::PbInternalMessageAdapter<T> reader;
    auto result = reader.deserialize(msg);
    if (!result.success) {
        IPCD_FUZZ_CHECK(result.error != ecu::kora::com::PbInternalDeserializationError::no_error);
        return;
    }
    auto framed =
        ecu::kora::com::PbInternalMessageAdapter<T>(reader.protocol_type).serialize(result.body);
    IPCD_FUZZ_CHECK(framed.success);
    auto again = ecu::kora::com::PbInternalMessageAdapter<T>().deserialize(framed.message);
    IPCD_FUZZ_CHECK(again.success);
    IPCD_FUZZ_CHECK(again.body.SerializeAsString() == result.body.SerializeAsString());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    namespace pb = ecu::kora::pb;
    using Body = void (*)(const std::uint8_t*, std::size_t);
    static const Body bodies[] = {exercise<pb::RtSignal>, exercise<pb::SubscriptionMessage>,
                                  exercise<pb::SubscriptionStatus>, exercise<pb::TPAStatus>,
                                  exercise<pb::SignalGroupData>};
    if (size > 0) {
        bodies[data[0] % 5](data + 1, size - 1);
    }
    return 0;
}
