#pragma once

#include <cstdint>

namespace ecu::kora {

struct DateTime {
    // Nanoseconds since boot, suspend included (CLOCK_BOOTTIME).
    static std::uint64_t time_since_boot_ns();
};

}  // namespace ecu::kora
