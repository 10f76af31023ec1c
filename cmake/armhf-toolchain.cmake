# Cross build for the phone's 32-bit ARM (arm-linux-gnueabihf) with Debian's
# cross gcc. OpenSSL (and GoogleTest, for the tests) come from a sysroot of
# armhf packages unpacked into the build tree, never from the host's
# multiarch: QUARRY_ARM_SYSROOT (cache or environment) names it, see
# tests/arm/run.sh. Programs run under qemu-arm.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

if(NOT QUARRY_ARM_SYSROOT)
  set(QUARRY_ARM_SYSROOT "$ENV{QUARRY_ARM_SYSROOT}")
endif()
if(NOT QUARRY_ARM_SYSROOT)
  message(FATAL_ERROR "QUARRY_ARM_SYSROOT is not set (tests/arm/run.sh makes one)")
endif()
# try_compile projects read this file again in their own directories.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUARRY_ARM_SYSROOT)

set(QUARRY_ARM_LIBDIR ${QUARRY_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf)
set(QUARRY_ARM_RUNTIME /usr/arm-linux-gnueabihf)

set(CMAKE_FIND_ROOT_PATH ${QUARRY_ARM_SYSROOT} ${QUARRY_ARM_RUNTIME})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# Without these, FindOpenSSL takes the host's x86-64 libcrypto through
# pkg-config.
set(ENV{PKG_CONFIG_LIBDIR} "${QUARRY_ARM_LIBDIR}/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${QUARRY_ARM_SYSROOT}")

# OpenSSL's configuration headers sit in the multiarch include folder, and
# the linker must find libcrypto behind libssl.
set(CMAKE_C_FLAGS_INIT "-isystem ${QUARRY_ARM_SYSROOT}/usr/include/arm-linux-gnueabihf")
set(CMAKE_CXX_FLAGS_INIT "-isystem ${QUARRY_ARM_SYSROOT}/usr/include/arm-linux-gnueabihf")
set(CMAKE_EXE_LINKER_FLAGS_INIT "-Wl,-rpath-link,${QUARRY_ARM_LIBDIR}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-Wl,-rpath-link,${QUARRY_ARM_LIBDIR}")

# No binfmt_misc here: every ARM program is started through qemu-arm.
find_program(QUARRY_QEMU_ARM NAMES qemu-arm qemu-arm-static REQUIRED)
set(CMAKE_CROSSCOMPILING_EMULATOR
    ${QUARRY_QEMU_ARM};-L;${QUARRY_ARM_RUNTIME};-E;LD_LIBRARY_PATH=${QUARRY_ARM_LIBDIR})
