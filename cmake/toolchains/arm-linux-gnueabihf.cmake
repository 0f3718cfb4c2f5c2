# armhf (32-bit ARMv7, hard float); tests run under qemu-user.
set(CMAKE_SYSTEM_PROCESSOR arm)
set(IPCD_CROSS_TRIPLET arm-linux-gnueabihf)
set(IPCD_CROSS_MULTIARCH arm-linux-gnueabihf)
set(IPCD_DEB_ARCH armhf)
set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm)
include(${CMAKE_CURRENT_LIST_DIR}/debian-multiarch.cmake)
