# Cross build for 32-bit Arm Linux gateways (armhf) with Debian's arm-linux-gnueabihf compiler, against the
# sysroot that scripts/armhf-sysroot.sh prepares from Debian's armhf packages.
#
#   scripts/armhf-sysroot.sh
#   cmake -S . -B build-armhf -DCMAKE_TOOLCHAIN_FILE=cmake/armhf-toolchain.cmake
#
# The sysroot is ZELT_ARMHF_SYSROOT (cache variable or environment), by default the one scripts/armhf-sysroot.sh
# prepares: $ZELT_ARMHF_CACHE/sysroot, else ~/.cache/zelt-armhf/sysroot.
# Built programs and tests run under qemu-arm with the sysroot as its library prefix (CMAKE_CROSSCOMPILING_EMULATOR,
# which ctest and gtest_discover_tests use).

set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR arm)
set(ZELT_ARMHF_TRIPLET arm-linux-gnueabihf)
set(CMAKE_LIBRARY_ARCHITECTURE ${ZELT_ARMHF_TRIPLET})

set(CMAKE_C_COMPILER ${ZELT_ARMHF_TRIPLET}-gcc)
set(CMAKE_CXX_COMPILER ${ZELT_ARMHF_TRIPLET}-g++)

if(NOT ZELT_ARMHF_SYSROOT)
  if(DEFINED ENV{ZELT_ARMHF_SYSROOT})
    set(ZELT_ARMHF_SYSROOT "$ENV{ZELT_ARMHF_SYSROOT}")
  elseif(DEFINED ENV{ZELT_ARMHF_CACHE})
    set(ZELT_ARMHF_SYSROOT "$ENV{ZELT_ARMHF_CACHE}/sysroot")
  elseif(DEFINED ENV{XDG_CACHE_HOME})
    set(ZELT_ARMHF_SYSROOT "$ENV{XDG_CACHE_HOME}/zelt-armhf/sysroot")
  else()
    set(ZELT_ARMHF_SYSROOT "$ENV{HOME}/.cache/zelt-armhf/sysroot")
  endif()
endif()
set(ZELT_ARMHF_SYSROOT "${ZELT_ARMHF_SYSROOT}" CACHE PATH "armhf sysroot (scripts/armhf-sysroot.sh)")
if(NOT EXISTS "${ZELT_ARMHF_SYSROOT}/usr/lib/${ZELT_ARMHF_TRIPLET}/cmake/Qt5Core")
  message(FATAL_ERROR "No armhf sysroot at ${ZELT_ARMHF_SYSROOT}: run scripts/armhf-sysroot.sh first")
endif()
# try_compile projects see only the variables named here.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES ZELT_ARMHF_SYSROOT)

# The compiler keeps its own C and C++ runtime (the same versions as the sysroot's); libraries, headers and CMake
# packages come from the sysroot only, programs (moc, pkg-config) from the build machine.
set(CMAKE_FIND_ROOT_PATH "${ZELT_ARMHF_SYSROOT}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Headers that differ per architecture (OpenSSL's opensslconf.h, configuration.h) live in the multiarch folder,
# which the compiler only searches by itself with --sysroot.
set(CMAKE_C_STANDARD_INCLUDE_DIRECTORIES "${ZELT_ARMHF_SYSROOT}/usr/include/${ZELT_ARMHF_TRIPLET}")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${ZELT_ARMHF_SYSROOT}/usr/include/${ZELT_ARMHF_TRIPLET}")

# The linker follows the sysroot libraries' own dependencies (ICU, zlib, ... behind Qt) without linking them.
set(_zelt_rpath_link
    "-Wl,-rpath-link,${ZELT_ARMHF_SYSROOT}/lib/${ZELT_ARMHF_TRIPLET} -Wl,-rpath-link,${ZELT_ARMHF_SYSROOT}/usr/lib/${ZELT_ARMHF_TRIPLET}")
set(CMAKE_EXE_LINKER_FLAGS_INIT "${_zelt_rpath_link}")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "${_zelt_rpath_link}")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "${_zelt_rpath_link}")

set(ENV{PKG_CONFIG_SYSROOT_DIR} "${ZELT_ARMHF_SYSROOT}")
set(ENV{PKG_CONFIG_LIBDIR}
    "${ZELT_ARMHF_SYSROOT}/usr/lib/${ZELT_ARMHF_TRIPLET}/pkgconfig:${ZELT_ARMHF_SYSROOT}/usr/share/pkgconfig")

# moc is a build tool: the build machine's own, of the same Qt 5.15, generates code for any target.
set(ZELT_NATIVE_MOC /usr/lib/qt5/bin/moc CACHE FILEPATH "moc of the build machine")

set(CMAKE_CROSSCOMPILING_EMULATOR qemu-arm -L "${ZELT_ARMHF_SYSROOT}")
# The Debian architecture of the packages CPack builds.
set(ZELT_DEBIAN_ARCHITECTURE armhf)
