# An example of a toolchain file: 64-bit ARM from a Debian host, for
#     cmake --preset release -B build/aarch64 \
#           --toolchain cmake/toolchains/aarch64-linux-gnu.cmake -DTARN_BUILD_TESTS=OFF \
#           -DTARN_BUILD_BENCH=OFF -DTARN_BUILD_FUZZ=OFF
# with the packages g++-aarch64-linux-gnu, libssl-dev:arm64 and libpcre2-dev:arm64 (after
# dpkg --add-architecture arm64). TARN_SYSROOT=DIR takes headers and libraries from a copy of the
# target's file system instead; -DTARN_WITH_TLS=OFF needs no OpenSSL there.
set(CMAKE_SYSTEM_NAME Linux)
set(CMAKE_SYSTEM_PROCESSOR aarch64)

set(triplet aarch64-linux-gnu)
set(CMAKE_LIBRARY_ARCHITECTURE ${triplet})
# FORCE: the presets name the host's compilers
set(CMAKE_C_COMPILER ${triplet}-gcc CACHE STRING "" FORCE)
set(CMAKE_CXX_COMPILER ${triplet}-g++ CACHE STRING "" FORCE)

list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES TARN_SYSROOT)
if(TARN_SYSROOT)
  set(CMAKE_SYSROOT "${TARN_SYSROOT}")
  set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
  set(pkg_config_root "${TARN_SYSROOT}")
else()
  # Debian keeps the target's libraries beside the host's, and shares the headers
  set(CMAKE_FIND_ROOT_PATH /usr/${triplet} /usr)
  set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY BOTH)
  set(pkg_config_root)
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)

# pkg-config describes the host unless it is told where the target's files are
set(ENV{PKG_CONFIG_LIBDIR}
    "${pkg_config_root}/usr/lib/${triplet}/pkgconfig:${pkg_config_root}/usr/share/pkgconfig")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "${pkg_config_root}")
