#include "date_time.h"

#include <ctime>

namespace ecu::kora {

std::uint64_t DateTime::time_since_boot_ns() {
    timespec now{};
    clock_gettime(CLOCK_BOOTTIME, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000000ULL +
           static_cast<std::uint64_t>(now.tv_nsec);
}

}  // namespace ecu::kora
