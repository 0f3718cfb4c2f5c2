# i386 (32-bit x86): the 32-bit build whose tests run directly on an amd64
# machine. Debian's cross compiler rather than gcc -m32: gcc-multilib cannot
# be installed beside the ARM cross compilers.
set(CMAKE_SYSTEM_PROCESSOR i686)
set(IPCD_CROSS_TRIPLET i686-linux-gnu)
set(IPCD_CROSS_MULTIARCH i386-linux-gnu)
set(IPCD_DEB_ARCH i386)
include(${CMAKE_CURRENT_LIST_DIR}/debian-multiarch.cmake)
