# Shared part of the cross toolchain files: Debian's cross compiler for
# IPCD_CROSS_TRIPLET, and the target's libraries as Debian installs them
# beside the machine's own (multiarch, /usr/lib/<multiarch>). Installed by
# `scripts/install-deps --arch <Debian architecture>`.
#
# Each toolchain file sets IPCD_CROSS_TRIPLET (the compiler's prefix),
# IPCD_CROSS_MULTIARCH (the library directory), IPCD_DEB_ARCH (the Debian
# architecture of the package) and CMAKE_SYSTEM_PROCESSOR, then includes
# this file.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_C_COMPILER ${IPCD_CROSS_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${IPCD_CROSS_TRIPLET}-g++)
set(CMAKE_LIBRARY_ARCHITECTURE ${IPCD_CROSS_MULTIARCH})

# Programs are the machine's own (protoc generates the code here); headers,
# libraries and CMake packages come from /usr with the target's multiarch
# directory, which CMAKE_LIBRARY_ARCHITECTURE puts first.
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config must see the target's .pc files only: the machine's would give
# the right flags for the wrong libraries.
set(ENV{PKG_CONFIG_LIBDIR} "/usr/lib/${IPCD_CROSS_MULTIARCH}/pkgconfig:/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# The package's Architecture field (cmake/packaging.cmake).
set(IPCD_DEB_ARCH ${IPCD_DEB_ARCH} CACHE STRING "Debian architecture of the package" FORCE)
