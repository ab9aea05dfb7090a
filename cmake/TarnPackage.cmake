# Debian packages, one per install component: libtarn1 (runtime), libtarn-dev (dev), tarn-tools
# (tools). scripts/package builds them from the preset "package", whose prefix is /usr.
# Dependencies on other packages' libraries are what dpkg-shlibdeps finds.

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME tarn)
set(CPACK_PACKAGE_VENDOR tarn)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${PROJECT_DESCRIPTION}")
set(CPACK_PACKAGE_DIRECTORY "${PROJECT_BINARY_DIR}/packages")
set(CPACK_STRIP_FILES ON)
# the configuration files have places outside the prefix
set(CPACK_SET_DESTDIR ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev)
if(TARGET gatewayd OR TARGET tarnctl)
  list(APPEND CPACK_COMPONENTS_ALL tools)
endif()

set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "tarn maintainers <tarn@localhost>")
set(CPACK_DEBIAN_PACKAGE_RELEASE 1)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(same_version "(= ${PROJECT_VERSION}-${CPACK_DEBIAN_PACKAGE_RELEASE})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME "libtarn${PROJECT_VERSION_MAJOR}")
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "Process frame, threads, timers, sockets, TLS, RPC, IPC, shared heap, serial ports and logging for
daemons on Linux gateways: the shared library.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME libtarn-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
# pkg-config and the static library ask for the development files of what the library links
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} ${same_version}, libpcre2-dev")
if(tarn_has_tls)
  string(APPEND CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ", libssl-dev (>= 3)")
endif()
set(CPACK_COMPONENT_DEV_DESCRIPTION
    "Headers for C and C++, the static library, CMake package, pkg-config file and manual pages.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME tarn-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SHLIBDEPS ON)
# the library is not installed where the package is built, so no shlibs file names its package
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS "${PROJECT_BINARY_DIR}/lib")
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS
    "${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} (>= ${PROJECT_VERSION})")
if(TARGET gatewayd)
  set(gatewayd_control conffiles postinst prerm postrm)
  list(TRANSFORM gatewayd_control PREPEND "${CMAKE_CURRENT_LIST_DIR}/debian/")
  set(CPACK_DEBIAN_TOOLS_PACKAGE_CONTROL_EXTRA ${gatewayd_control})
endif()
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "gatewayd keeps the points of a gateway and serves them; tarnctl looks at and talks to everything
that uses libtarn.")

include(CPack)
