# Install rules. Components: runtime (libtarn.so.1), dev (headers, link name, static library, CMake
# package, pkg-config file), tools (programs, and what makes gatewayd a service).
include(CMakePackageConfigHelpers)

set(tarn_cmake_dir "${CMAKE_INSTALL_LIBDIR}/cmake/tarn")

# two export sets: a user of the shared library needs no development files of PCRE2 or OpenSSL
install(
  TARGETS tarn
  EXPORT tarnSharedTargets
  LIBRARY COMPONENT runtime NAMELINK_COMPONENT dev)
install(TARGETS tarn_static EXPORT tarnStaticTargets ARCHIVE COMPONENT dev)
foreach(kind Shared Static)
  install(
    EXPORT tarn${kind}Targets
    NAMESPACE tarn::
    DESTINATION "${tarn_cmake_dir}"
    COMPONENT dev)
endforeach()

foreach(dir ${tarn_public_dirs})
  install(
    DIRECTORY "${dir}/"
    DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/tarn"
    COMPONENT dev
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
  COMPONENT dev)

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
  COMPONENT dev)

if(TARGET tarnctl)
  install(TARGETS tarnctl RUNTIME COMPONENT tools)
endif()
if(TARGET gatewayd)
  install(TARGETS gatewayd RUNTIME COMPONENT tools)
  set(gatewayd_dir "${PROJECT_SOURCE_DIR}/examples/gatewayd")
  # the unit names the programs and files of a package; elsewhere they have other places
  file(READ "${gatewayd_dir}/gatewayd.service" unit)
  string(REPLACE "/usr/bin/" "${CMAKE_INSTALL_FULL_BINDIR}/" unit "${unit}")
  string(REPLACE "/etc/" "${CMAKE_INSTALL_FULL_SYSCONFDIR}/" unit "${unit}")
  file(CONFIGURE OUTPUT gatewayd.service CONTENT "${unit}" @ONLY)
  file(READ "${gatewayd_dir}/gatewayd.default" options)
  string(REPLACE "/etc/" "${CMAKE_INSTALL_FULL_SYSCONFDIR}/" options "${options}")
  file(CONFIGURE OUTPUT gatewayd.default CONTENT "${options}" @ONLY)
  install(
    FILES "${CMAKE_CURRENT_BINARY_DIR}/gatewayd.service"
    DESTINATION lib/systemd/system
    COMPONENT tools)
  install(
    FILES "${gatewayd_dir}/gatewayd.sysusers"
    DESTINATION lib/sysusers.d
    RENAME gatewayd.conf
    COMPONENT tools)
  install(
    FILES "${CMAKE_CURRENT_BINARY_DIR}/gatewayd.default"
    DESTINATION "${CMAKE_INSTALL_SYSCONFDIR}/default"
    RENAME gatewayd
    COMPONENT tools)
  install(
    FILES "${gatewayd_dir}/gatewayd.conf"
    DESTINATION "${CMAKE_INSTALL_SYSCONFDIR}"
    COMPONENT tools)
endif()

if(PROJECT_IS_TOP_LEVEL)
  include(TarnPackage)
endif()
