// The catalogue loader and unpack. The input is a JSON catalogue, a zero
// byte, and a broker payload; the catalogue is loaded from a file, then the
// payload is unpacked for every topic, and a group that unpacks is padded.

#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <string>

#include "fuzz_common.h"
#include "signal_adapter.h"

namespace {
std::string g_path;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    ipcd_fuzz::quiet_log();
    char name[] = "/tmp/ipcd-fuzz-catalogue-XXXXXX";
    const int fd = mkstemp(name);
    IPCD_FUZZ_CHECK(fd >= 0);
    close(fd);
    g_path = name;
    // The first use of the instance loads this file instead of the system's.
    setenv("KIRN_RT_CATALOGUE", name, 1);
    std::atexit([] { unlink(g_path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* end = data + size;
    const auto* zero = std::find(data, end, 0);
    {
        std::ofstream file(g_path, std::ios::binary | std::ios::trunc);
        file.write(reinterpret_cast<const char*>(data), zero - data);
    }
    auto& catalogue = ecu::kora::rt::SignalAdapter::instance();
    const bool loaded = catalogue.load(g_path);
    ecu::kora::com::Message msg;
    if (zero != end) {
        msg.payload.assign(zero + 1, end);
    }
    const auto topics = catalogue.get_topics("");
    IPCD_FUZZ_CHECK(loaded || topics.empty());
    for (const auto& topic : topics) {
        const auto* group = catalogue.find_group(topic);
        IPCD_FUZZ_CHECK(group != nullptr);
        IPCD_FUZZ_CHECK(catalogue.map_topic_to_rtid(topic) == group->id());
        IPCD_FUZZ_CHECK(catalogue.is_topic_retained(topic) == group->retained());
        auto [ok, unpacked, error] = catalogue.unpack(topic, msg);
        if (!ok) {
            IPCD_FUZZ_CHECK(!error.empty());
            continue;
        }
        const std::string image = catalogue.add_padding(unpacked);
        IPCD_FUZZ_CHECK(image.size() == group->size());
        // Signals may share bytes (the catalogue allows it; a later one then
        // overwrites), so only a signal that overlaps no other carried one
        // must read back unchanged.
        const auto& names = unpacked.signal_names();
        for (const auto& name : names) {
            const auto& signal = unpacked.signal(name);
            IPCD_FUZZ_CHECK(signal.offset() + signal.data().size() <= image.size());
            bool alone = true;
            for (const auto& other_name : names) {
                const auto& other = unpacked.signal(other_name);
                alone = alone && (other_name == name || other.data().empty() ||
                                  other.offset() >= signal.offset() + signal.data().size() ||
                                  signal.offset() >= other.offset() + other.data().size());
            }
            IPCD_FUZZ_CHECK(!alone || image.compare(signal.offset(), signal.data().size(),
                                                    std::string(signal.data().begin(),
                                                                signal.data().end())) == 0);
        }
    }
    return 0;
}
