# Cross build for the instrument: AM335x, ARMv7 hard float, 32-bit, with
# Debian's cross compiler. The C library is the cross compiler's own; zlib,
# libpng and GoogleTest come from the armhf sysroot that
# scripts/armhf-sysroot.sh unpacks. Tests run under qemu-arm.
#
# time_t is 32 bits, the ABI of Debian's armhf libraries (bookworm): the
# program links the system's libstdc++, zlib and libpng built that way. See
# the README ("The instrument's build") for what 2038 means here.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT VELA_ARMHF_SYSROOT)
  set(VELA_ARMHF_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf)
endif()
get_filename_component(VELA_ARMHF_SYSROOT ${VELA_ARMHF_SYSROOT} ABSOLUTE)
set(CMAKE_FIND_ROOT_PATH ${VELA_ARMHF_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(VELA_ARMHF_LIBC /usr/arm-linux-gnueabihf)
# The C library from the cross compiler, zlib and libpng from the sysroot
# (run-time paths of the sysroot are not written into the binaries, which
# are the ones packaged for the instrument). The cross C library is named
# first: an armhf libc of another version installed on the host (multiarch)
# must never be loaded next to the cross compiler's ld.so.
set(CMAKE_CROSSCOMPILING_EMULATOR /usr/bin/qemu-arm -L ${VELA_ARMHF_LIBC}
    -E LD_LIBRARY_PATH=${VELA_ARMHF_LIBC}/lib:${VELA_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf)
