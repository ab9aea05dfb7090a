# The POSIX-style interface of PCRE2 (pcre2posix.h, libpcre2-posix on top of libpcre2-8).
#
# Defines PCRE2::posix and PCRE2Posix_FOUND. Installed with the package as well, because a program
# that links libtarn.a links PCRE2 too.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(PC_PCRE2Posix QUIET libpcre2-posix)
endif()

find_path(PCRE2Posix_INCLUDE_DIR NAMES pcre2posix.h HINTS ${PC_PCRE2Posix_INCLUDE_DIRS})
find_library(PCRE2Posix_LIBRARY NAMES pcre2-posix HINTS ${PC_PCRE2Posix_LIBRARY_DIRS})
find_library(PCRE2Posix_8_LIBRARY NAMES pcre2-8 HINTS ${PC_PCRE2Posix_LIBRARY_DIRS})
mark_as_advanced(PCRE2Posix_INCLUDE_DIR PCRE2Posix_LIBRARY PCRE2Posix_8_LIBRARY)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(
  PCRE2Posix
  REQUIRED_VARS PCRE2Posix_LIBRARY PCRE2Posix_8_LIBRARY PCRE2Posix_INCLUDE_DIR
  VERSION_VAR PC_PCRE2Posix_VERSION)

if(PCRE2Posix_FOUND AND NOT TARGET PCRE2::posix)
  add_library(PCRE2::posix UNKNOWN IMPORTED)
  set_target_properties(
    PCRE2::posix
    PROPERTIES IMPORTED_LOCATION "${PCRE2Posix_LIBRARY}"
               INTERFACE_INCLUDE_DIRECTORIES "${PCRE2Posix_INCLUDE_DIR}"
               INTERFACE_LINK_LIBRARIES "${PCRE2Posix_8_LIBRARY}")
endif()
