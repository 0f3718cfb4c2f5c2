// The catalogue loader and unpack. The input is a JSON catalogue, a zero
// byte, and a broker payload; the catalogue is loaded from a file, then the
// payload is unpacked for every topic, and a group that unpacks is padded.

#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <fstream>

#include "fuzz_common.h"
#include "signal_adapter.h"

namespace {
std::string g_path;
}

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    char name[] = "/tmp/ipcd-fuzz-catalogue-XXXXXX";
    const int fd = mkstemp(name);
    IPCD_FUZZ_CHECK(fd >= 0);
    close(fd);
    g_path = name;
    setenv("KIRN_RT_CATALOGUE", name, 1);  // the instance's first load: this file
    std::atexit([] { unlink(g_path.c_str()); });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto* zero = std::find(data, data + size, 0);
    std::ofstream(g_path, std::ios::binary | std::ios::trunc)
        .write(reinterpret_cast<const char*>(data), zero - data);
    auto& catalogue = ecu::kora::rt::SignalAdapter::instance();
    const bool loaded = catalogue.load(g_path);
    ecu::kora::com::Message msg;
    msg.payload.assign(std::min(zero + 1, data + size), data + size);
    const auto topics = catalogue.get_topics("");
    IPCD_FUZZ_CHECK(loaded || topics.empty());
    for (const auto& topic : topics) {
        const auto* group = catalogue.find_group(topic);
        IPCD_FUZZ_CHECK(group != nullptr && catalogue.map_topic_to_rtid(topic) == group->id());
        IPCD_FUZZ_CHECK(catalogue.is_topic_retained(topic) == group->retained());
        auto [ok, unpacked, error] = catalogue.unpack(topic, msg);
        IPCD_FUZZ_CHECK(ok || !error.empty());
        if (!ok) {
            continue;
        }
        const std::string image = catalogue.add_padding(unpacked);
        IPCD_FUZZ_CHECK(image.size() == group->size());
        // Signals may share bytes (a later one then overwrites), so only a
        // signal that overlaps no other carried one must read back unchanged.
        const auto names = unpacked.signal_names();
        for (const auto& name : names) {
            const auto& s = unpacked.signal(name);
            const std::size_t end = s.offset() + s.data().size();
            IPCD_FUZZ_CHECK(end <= image.size());
            const bool alone = std::all_of(names.begin(), names.end(), [&](const auto& other) {
                const auto& o = unpacked.signal(other);
                return other == name || o.data().empty() || o.offset() >= end ||
                       s.offset() >= o.offset() + o.data().size();
            });
            IPCD_FUZZ_CHECK(!alone ||
                            image.compare(s.offset(), s.data().size(),
                                          std::string(s.data().begin(), s.data().end())) == 0);
        }
    }
    return 0;
}
