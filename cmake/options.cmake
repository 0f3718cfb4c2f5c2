# Every build option of the project, in one place. Project targets get their
# flags through ipcd_target_defaults(), never through global definitions.

option(IPCD_WERROR "Treat warnings as errors on project code" ON)
option(IPCD_BENCH "Build the benchmarks (Google Benchmark)" OFF)
option(IPCD_FUZZ "Build the libFuzzer targets (needs clang)" OFF)
set(IPCD_SANITIZE "" CACHE STRING "Sanitizers for every target: 'address;undefined' or 'thread'")

if(IPCD_SANITIZE)
  list(JOIN IPCD_SANITIZE "," _ipcd_sanitizers)
  # Sanitizers must reach every object, libraries and tests alike.
  add_compile_options(-fsanitize=${_ipcd_sanitizers} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${_ipcd_sanitizers})
endif()
if(IPCD_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "IPCD_FUZZ needs clang (CXX=clang++)")
  endif()
  # Coverage instrumentation everywhere, the fuzzer main only in the fuzz targets.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
endif()

function(ipcd_target_defaults target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic $<$<BOOL:${IPCD_WERROR}>:-Werror>)
endfunction()

function(ipcd_print_options)
  message(STATUS "ipcd ${PROJECT_VERSION}: build type ${CMAKE_BUILD_TYPE}, compiler ${CMAKE_CXX_COMPILER_ID}")
  message(STATUS "  IPCD_WERROR=${IPCD_WERROR} IPCD_BENCH=${IPCD_BENCH} IPCD_FUZZ=${IPCD_FUZZ} IPCD_SANITIZE='${IPCD_SANITIZE}'")
endfunction()
