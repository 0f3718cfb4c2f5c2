#pragma once

// A quiet log (every rejected input is logged) and a check that aborts in
// every build type, so that libFuzzer records the input.

#include <cstdio>
#include <cstdlib>

#include "logging.h"

namespace ipcd_fuzz {

inline const bool g_quiet = [] {
    ecu::kora::logging::set_sink([](int, const std::string&, const std::string&) {});
    return true;
}();

#define IPCD_FUZZ_CHECK(cond)                                                             \
    do {                                                                                  \
        if (!(cond)) {                                                                    \
            std::fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond); \
            std::abort();                                                                 \
        }                                                                                 \
    } while (false)

}  // namespace ipcd_fuzz
