# arm64 (64-bit ARM); tests run under qemu-user.
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(IPCD_CROSS_TRIPLET aarch64-linux-gnu)
set(IPCD_CROSS_MULTIARCH aarch64-linux-gnu)
set(IPCD_DEB_ARCH arm64)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64)
include(${CMAKE_CURRENT_LIST_DIR}/debian-multiarch.cmake)
