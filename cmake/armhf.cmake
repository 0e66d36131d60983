# Cross build for the instrument: AM335x, ARMv7 hard float, 32-bit, with
# Debian's cross compiler. The C library is the cross compiler's own; zlib,
# libpng and GoogleTest come from the armhf sysroot that
# scripts/armhf-sysroot.sh unpacks. Tests run under qemu-arm.
#
# time_t and file offsets are 64 bits (glibc's _TIME_BITS=64), so that the
# clock, the RTC and every timer carry on past 2038-01-19. The libraries the
# program links keep Debian bookworm's 32-bit time_t ABI, which is safe only
# because none of them takes a time_t or an off_t across the interface the
# program uses; see the README ("The instrument's build").
#
# -Wno-psabi: GCC notes every std::vector iterator passed by value because
# its passing changed in GCC 7.1; everything here is built by one compiler
# of a later version, so the notes only bury real diagnostics.
set(VELA_ARMHF_FLAGS "-D_TIME_BITS=64 -D_FILE_OFFSET_BITS=64 -Wno-psabi")
set(CMAKE_C_FLAGS_INIT "${VELA_ARMHF_FLAGS}")
set(CMAKE_CXX_FLAGS_INIT "${VELA_ARMHF_FLAGS}")

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
