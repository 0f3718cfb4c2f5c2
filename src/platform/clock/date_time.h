#pragma once

// The platform's clock: time since boot, which keeps counting through a
// suspend and never jumps with the wall clock, for frame and record stamps.

#include <cstdint>

namespace ecu::kora {

struct DateTime {
    // Nanoseconds since boot, suspend included (CLOCK_BOOTTIME).
    static std::uint64_t time_since_boot_ns();
};

}  // namespace ecu::kora
