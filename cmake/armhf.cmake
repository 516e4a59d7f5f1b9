# Cross-compiling for the controller: 32-bit ARM, hard-float (Debian's armhf).
#
#   cmake -S . -B build/armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf.cmake
#
# Compiler: Debian's g++-arm-linux-gnueabihf. Libraries and headers (jsoncpp, libevent,
# libmodbus, googletest, glibc, libstdc++) come from a sysroot of Debian armhf packages
# unpacked into a folder, by default build/sysroot-armhf beside this file's tree
# (scripts/cross-armhf.sh makes it). Another folder: -DMCD_ARMHF_SYSROOT=<dir> or the
# environment variable MCD_ARMHF_SYSROOT.
#
# Programs built here run on this machine through qemu-user (qemu-arm -L <sysroot>):
# CMAKE_CROSSCOMPILING_EMULATOR makes gtest_discover_tests and ctest use it, so the test
# suite runs with a plain `ctest --test-dir build/armhf`.

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(CMAKE_LIBRARY_ARCHITECTURE arm-linux-gnueabihf)

# try_compile projects re-read this file without the cache: pass the sysroot on.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES MCD_ARMHF_SYSROOT)
if(NOT MCD_ARMHF_SYSROOT)
  if(DEFINED ENV{MCD_ARMHF_SYSROOT} AND NOT "$ENV{MCD_ARMHF_SYSROOT}" STREQUAL "")
    set(MCD_ARMHF_SYSROOT "$ENV{MCD_ARMHF_SYSROOT}")
  else()
    get_filename_component(MCD_ARMHF_SYSROOT "${CMAKE_CURRENT_LIST_DIR}/../build/sysroot-armhf" ABSOLUTE)
  endif()
endif()
set(MCD_ARMHF_SYSROOT "${MCD_ARMHF_SYSROOT}" CACHE PATH "Folder of unpacked Debian armhf packages")
if(NOT EXISTS "${MCD_ARMHF_SYSROOT}/usr/include/arm-linux-gnueabihf")
  message(FATAL_ERROR "No armhf sysroot at ${MCD_ARMHF_SYSROOT}: run scripts/cross-armhf.sh --sysroot-only")
endif()
# Exported for the (sub-)processes that need it without the cache, e.g. try_compile.
set(ENV{MCD_ARMHF_SYSROOT} "${MCD_ARMHF_SYSROOT}")

set(CMAKE_SYSROOT "${MCD_ARMHF_SYSROOT}")
set(CMAKE_C_COMPILER arm-linux-gnueabihf-gcc)
set(CMAKE_CXX_COMPILER arm-linux-gnueabihf-g++)
set(CMAKE_STRIP arm-linux-gnueabihf-strip CACHE FILEPATH "")

# Headers, libraries and package configurations only from the sysroot; programs
# (python3, pkg-config, qemu) from this machine.
set(CMAKE_FIND_ROOT_PATH "${MCD_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config reads only the sysroot's .pc files and prefixes their paths with it.
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${MCD_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${MCD_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf/pkgconfig:${MCD_ARMHF_SYSROOT}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")

# 64-bit file offsets and inode numbers (readdir64, stat64). Without them readdir() and
# stat() of a 32-bit program fail with EOVERFLOW on file systems that hand out 64-bit
# directory offsets or inode numbers (ext4 directory hashes seen by a 64-bit kernel,
# which is what qemu-user runs on, and large storage cards). time_t stays 32 bits: the
# Debian armhf libraries the daemon links are built that way.
set(CMAKE_C_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")
set(CMAKE_CXX_FLAGS_INIT "-D_FILE_OFFSET_BITS=64")

# The armhf libraries' own dependencies (libsystemd -> libgcrypt, liblzma, ...) are found
# through the sysroot when the linker follows DT_NEEDED entries.
set(CMAKE_EXE_LINKER_FLAGS_INIT
    "-Wl,-rpath-link,${MCD_ARMHF_SYSROOT}/usr/lib/arm-linux-gnueabihf -Wl,-rpath-link,${MCD_ARMHF_SYSROOT}/lib/arm-linux-gnueabihf")

find_program(MCD_QEMU_ARM NAMES qemu-arm qemu-arm-static)
if(MCD_QEMU_ARM)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${MCD_QEMU_ARM};-L;${MCD_ARMHF_SYSROOT}")
endif()
