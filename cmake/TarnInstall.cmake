# Install rules. Components: runtime (libtarn.so.1), development (headers, link name, static library,
# CMake package, pkg-config file), tools.
include(CMakePackageConfigHelpers)

set(tarn_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tarn")

# two export sets: a user of the shared library needs no development files of PCRE2 or OpenSSL
install(
  TARGETS tarn
  EXPORT tarnSharedTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT development)
install(TARGETS tarn_static EXPORT tarnStaticTargets ARCHIVE COMPONENT development)
foreach(kind Shared Static)
  install(
    EXPORT tarn${kind}Targets
    NAMESPACE tarn::
    DESTINATION "${tarn_cmake_dir}"
    COMPONENT development)
endforeach()

foreach(dir ${tarn_public_dirs})
  install(
    DIRECTORY "${dir}/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tarn"
    COMPONENT development
    FILES_MATCHING
    PATTERN "*.h"
    PATTERN "*.hpp")
endforeach()

configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/tarnConfig.cmake.in" tarnConfig.cmake
                              INSTALL_DESTINATION "${tarn_cmake_dir}")
write_basic_package_version_file(tarnConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(
  FILES "${CMAKE_CURRENT_BINARY_DIR}/tarnConfig.cmake"
        "${CMAKE_CURRENT_BINARY_DIR}/tarnConfigVersion.cmake"
        "${PROJECT_SOURCE_DIR}/cmake/FindPCRE2Posix.cmake"
  DESTINATION "${tarn_cmake_dir}"
  COMPONENT development)

set(pc_requires_private "libpcre2-posix")
if(tarn_has_tls)
  string(APPEND pc_requires_private ", libssl >= 3, libcrypto >= 3")
endif()
set(pc_libs_private "-lstdc++ -lm -ldl -pthread")
set(pc_dir "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
file(RELATIVE_PATH pc_prefix "/prefix/${pc_dir}" "/prefix")
string(REGEX REPLACE "/$" "" pc_prefix "${pc_prefix}")
configure_file("${PROJECT_SOURCE_DIR}/cmake/tarn.pc.in" tarn.pc @ONLY)
install(
  FILES "${CMAKE_CURRENT_BINARY_DIR}/tarn.pc"
  DESTINATION "${pc_dir}"
  COMPONENT development)
