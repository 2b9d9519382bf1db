# Cross-compiles for the appliance's 64-bit ARM Linux with Debian's cross toolchain
# (crossbuild-essential-arm64) against the arm64 multiarch -dev packages. Test programs
# run through qemu-user, so no binfmt registration is needed. They load the multiarch
# arm64 C library (libc6:arm64, under /lib/aarch64-linux-gnu), not the cross toolchain's
# copy under /usr/aarch64-linux-gnu: with that one, qemu 7.2 spins forever in the first
# pthread_create.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)
set(CMAKE_C_COMPILER aarch64-linux-gnu-gcc)
set(CMAKE_CXX_COMPILER aarch64-linux-gnu-g++)
set(CMAKE_LIBRARY_ARCHITECTURE aarch64-linux-gnu)

# Headers are shared between architectures under /usr/include; libraries are found
# only in the arm64 multiarch directories.
set(CMAKE_FIND_ROOT_PATH /usr/aarch64-linux-gnu)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE BOTH)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE BOTH)
set(ENV{PKG_CONFIG_LIBDIR} /usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig)
set(ENV{PKG_CONFIG_PATH} "")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-aarch64-static)
