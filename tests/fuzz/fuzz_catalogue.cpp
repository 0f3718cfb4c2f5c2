// The catalogue loader and unpack. The input is a JSON catalogue, a zero
// byte, and a broker payload; the catalogue is loaded from a file, then the
// payload is unpacked for every topic, and a group that unpacks is padded
// into an image of its size that holds every signal.

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
        const std::string image = ok ? catalogue.add_padding(unpacked) : "";
        IPCD_FUZZ_CHECK(!ok || image.size() == group->size());
        for (const auto& name : ok ? unpacked.signal_names() : std::vector<std::string>{}) {
            const auto& signal = unpacked.signal(name);
            IPCD_FUZZ_CHECK(signal.offset() + signal.data().size() <= image.size());
        }
    }
    return 0;
}
