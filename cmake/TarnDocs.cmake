# Manual pages: one per public header, made of its comments, and one per program, made of a source in
# docs/man and of its --help. The HTML reference is scripts/docs' own.
find_package(Python3 REQUIRED COMPONENTS Interpreter)

set(generator "${PROJECT_SOURCE_DIR}/scripts/header-docs")
set(man_dir "${PROJECT_BINARY_DIR}/man")
file(MAKE_DIRECTORY "${man_dir}/man1" "${man_dir}/man3" "${man_dir}/man8")

set(pages)
foreach(dir ${tarn_public_dirs})
  file(GLOB headers CONFIGURE_DEPENDS "${dir}/*.h" "${dir}/tarn.hpp")
  foreach(header ${headers})
    cmake_path(GET header FILENAME name)
    string(REGEX REPLACE "\\.h$" "" name "${name}")
    set(page "${man_dir}/man3/${name}.3")
    add_custom_command(
      OUTPUT "${page}"
      COMMAND Python3::Interpreter "${generator}" man "${header}" "${man_dir}/man3"
              "${PROJECT_VERSION}"
      DEPENDS "${header}" "${generator}"
      VERBATIM)
    list(APPEND pages "${page}")
  endforeach()
endforeach()
if(TARN_INSTALL)
  install(DIRECTORY "${man_dir}/man3" DESTINATION "${CMAKE_INSTALL_MANDIR}" COMPONENT dev)
endif()

# a program of another machine cannot be asked for its help
foreach(program gatewayd:8 tarnctl:1)
  string(REPLACE ":" ";" program "${program}")
  list(GET program 0 name)
  list(GET program 1 section)
  if(TARGET ${name} AND NOT CMAKE_CROSSCOMPILING)
    set(source "${PROJECT_SOURCE_DIR}/docs/man/${name}.${section}")
    set(page "${man_dir}/man${section}/${name}.${section}")
    add_custom_command(
      OUTPUT "${page}"
      COMMAND Python3::Interpreter "${generator}" program "${source}" "$<TARGET_FILE:${name}>"
              "${page}"
      DEPENDS "${source}" "${generator}" ${name}
      VERBATIM)
    list(APPEND pages "${page}")
    if(TARN_INSTALL)
      install(FILES "${page}" DESTINATION "${CMAKE_INSTALL_MANDIR}/man${section}" COMPONENT tools)
    endif()
  endif()
endforeach()
add_custom_target(man ALL DEPENDS ${pages})
