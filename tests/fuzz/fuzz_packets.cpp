// The publish-only connection's packets. What the broker sends, cut into any
// chunks, never makes the reader hand out more than a whole packet within its
// limit; and a PUBLISH built from the input reads back as the same topic,
// payload and retain flag.

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "mqtt_packets.h"

using namespace ecu::kora::com::packets;

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (size < 2) {
        return 0;
    }
    const std::size_t chunk = data[0] % 16 + 1;
    PacketReader reader;
    std::uint8_t type = 0;
    std::vector<std::uint8_t> body;
    std::size_t taken = 0;
    for (std::size_t at = 2; at < size; at += chunk) {
        reader.feed(data + at, std::min(chunk, size - at));
        while (reader.next(type, body)) {
            IPCD_FUZZ_CHECK(body.size() <= PacketReader::max_packet);
            taken += body.size() + 2;
        }
    }
    IPCD_FUZZ_CHECK(taken <= size);

    const std::size_t split = std::min<std::size_t>(data[1], size - 2);
    const std::string topic(data + 2, data + 2 + split);
    const std::uint8_t* payload = data + 2 + split;
    const std::size_t payload_size = size - 2 - split;
    const bool retained = (data[0] & 0x80U) != 0;
    std::vector<std::uint8_t> out;
    IPCD_FUZZ_CHECK(append_publish(out, topic, payload, payload_size, retained));
    PacketReader back;
    back.feed(out.data(), out.size());
    IPCD_FUZZ_CHECK(back.next(type, body));
    IPCD_FUZZ_CHECK(type == publish && (out[0] & 1U) == (retained ? 1U : 0U));
    IPCD_FUZZ_CHECK(body.size() == 2 + topic.size() + payload_size);
    IPCD_FUZZ_CHECK((static_cast<std::size_t>(body[0]) << 8U | body[1]) == topic.size());
    IPCD_FUZZ_CHECK(
        std::string(body.begin() + 2, body.begin() + 2 + static_cast<long>(topic.size())) == topic);
    IPCD_FUZZ_CHECK(std::equal(payload, payload + payload_size,
                               body.begin() + 2 + static_cast<long>(topic.size())));
    return 0;
}
