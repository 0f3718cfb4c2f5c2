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
    ecu::kora::com::PbInternalMessageAdapter<T> writer(reader.protocol_type);
    auto framed = writer.serialize(result.body);
    IPCD_FUZZ_CHECK(framed.success);
    auto again = ecu::kora::com::PbInternalMessageAdapter<T>().deserialize(framed.message);
    IPCD_FUZZ_CHECK(again.success);
    IPCD_FUZZ_CHECK(again.body.SerializeAsString() == result.body.SerializeAsString());
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ipcd_fuzz::quiet_log();
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size == 0) {
        return 0;
    }
    namespace pb = ecu::kora::pb;
    switch (data[0] % 5) {
        case 0:
            exercise<pb::RtSignal>(data + 1, size - 1);
            break;
        case 1:
            exercise<pb::SubscriptionMessage>(data + 1, size - 1);
            break;
        case 2:
            exercise<pb::SubscriptionStatus>(data + 1, size - 1);
            break;
        case 3:
            exercise<pb::TPAStatus>(data + 1, size - 1);
            break;
        default:
            exercise<pb::SignalGroupData>(data + 1, size - 1);
            break;
    }
    return 0;
}
