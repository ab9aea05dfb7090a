# uthash, a header-only library of hash table macros. Defines uthash::uthash and uthash_FOUND.
find_path(uthash_INCLUDE_DIR NAMES uthash.h)
mark_as_advanced(uthash_INCLUDE_DIR)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(uthash REQUIRED_VARS uthash_INCLUDE_DIR)

if(uthash_FOUND AND NOT TARGET uthash::uthash)
  add_library(uthash::uthash INTERFACE IMPORTED)
  # SYSTEM by nature of being imported: its macros are not held to our warnings
  set_target_properties(uthash::uthash PROPERTIES INTERFACE_INCLUDE_DIRECTORIES
                                                  "${uthash_INCLUDE_DIR}")
endif()
