# The build stamp ("branch - x.y.z - hash - date - TYPE") is written at build
# time, not configure time, so that a new commit shows up without re-running
# cmake. A tree without git still builds; its git fields read "unknown".

string(TOUPPER "${CMAKE_BUILD_TYPE}" _ipcd_build_type)
if(NOT _ipcd_build_type)
  set(_ipcd_build_type "NONE")
endif()
set(IPCD_STAMP_SOURCE ${CMAKE_BINARY_DIR}/generated/build_stamp.cpp)

add_custom_target(ipcd_build_stamp_gen
  COMMAND ${CMAKE_COMMAND}
          -DSOURCE_DIR=${CMAKE_SOURCE_DIR}
          -DOUTPUT=${IPCD_STAMP_SOURCE}
          -DVERSION=${PROJECT_VERSION}
          -DBUILD_TYPE=${_ipcd_build_type}
          -P ${CMAKE_SOURCE_DIR}/cmake/write_build_stamp.cmake
  BYPRODUCTS ${IPCD_STAMP_SOURCE}
  COMMENT "Build stamp"
  VERBATIM)

add_library(kora_build_stamp STATIC ${IPCD_STAMP_SOURCE})
add_dependencies(kora_build_stamp ipcd_build_stamp_gen)
target_include_directories(kora_build_stamp PUBLIC ${CMAKE_SOURCE_DIR}/src/main)
