# Builds for 32-bit ARM with Debian's cross compiler, against the armhf packages below
# CONFSVC_ARM_SYSROOT (see scripts/arm-sysroot.sh), and runs what it builds under qemu.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR armv7l)
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES CONFSVC_ARM_SYSROOT)
set(CMAKE_FIND_ROOT_PATH ${CONFSVC_ARM_SYSROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(ENV{PKG_CONFIG_SYSROOT_DIR} ${CONFSVC_ARM_SYSROOT})
set(ENV{PKG_CONFIG_LIBDIR} ${CONFSVC_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig)
set(ENV{PKG_CONFIG_ALLOW_SYSTEM_CFLAGS} 1)

# Where the linker finds the libraries that ours need in their turn.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    -Wl,-rpath-link,${CONFSVC_ARM_SYSROOT}/usr/lib/arm-linux-gnueabihf)
set(CMAKE_SHARED_LINKER_FLAGS_INIT ${CMAKE_EXE_LINKER_FLAGS_INIT})
set(CMAKE_MODULE_LINKER_FLAGS_INIT ${CMAKE_EXE_LINKER_FLAGS_INIT})

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L ${CONFSVC_ARM_SYSROOT})
