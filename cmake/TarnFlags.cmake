# How this project compiles its own code. Nothing in here reaches a project that uses the library.
#
# tarn_flags          language level, warnings, hardening, sanitizers: every target of ours
# tarn_library_flags  what the library's own sources add: hidden symbols, no RTTI

add_library(tarn_flags INTERFACE)
target_compile_features(tarn_flags INTERFACE cxx_std_20 c_std_11)
set(CMAKE_C_EXTENSIONS ON)
set(CMAKE_CXX_EXTENSIONS ON)

if(TARN_WARNINGS)
  target_compile_options(tarn_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    # the lock wrapper carries thread-safety annotations; sign conversions as g++ counts them
    target_compile_options(tarn_flags INTERFACE -Wthread-safety -Wno-sign-conversion
                                                -Wno-gnu-zero-variadic-macro-arguments)
  endif()
endif()
if(TARN_WERROR)
  target_compile_options(tarn_flags INTERFACE -Werror)
endif()

if(TARN_SANITIZE)
  set(sanitize -fsanitize=${TARN_SANITIZE} -fno-sanitize-recover=all)
  target_compile_options(tarn_flags INTERFACE ${sanitize} -fno-omit-frame-pointer)
  target_link_options(tarn_flags INTERFACE ${sanitize})
else()
  # optimised builds only: fortify needs the optimiser, and hides errors from a sanitizer
  set(optimised "$<CONFIG:Release,RelWithDebInfo,MinSizeRel>")
  target_compile_options(
    tarn_flags INTERFACE "$<${optimised}:-fstack-protector-strong>" "$<${optimised}:-U_FORTIFY_SOURCE>"
                         "$<${optimised}:-D_FORTIFY_SOURCE=2>")
  target_link_options(tarn_flags INTERFACE
                      "$<${optimised}:LINKER:-z,relro,-z,now,-z,noexecstack>")
endif()

if(TARN_COVERAGE)
  target_compile_options(tarn_flags INTERFACE --coverage -fprofile-update=atomic)
  target_link_options(tarn_flags INTERFACE --coverage)
endif()

# Exceptions stay enabled although no source throws: a cancelled thread is unwound through our
# frames, and without unwind tables its lock guards and owners would be skipped silently.
add_library(tarn_library_flags INTERFACE)
target_link_libraries(tarn_library_flags INTERFACE tarn_flags)
target_compile_options(
  tarn_library_flags
  INTERFACE -fvisibility=hidden "$<$<COMPILE_LANGUAGE:CXX>:-fvisibility-inlines-hidden>"
            "$<$<COMPILE_LANGUAGE:CXX>:-fno-rtti>")

# tarn_add_program(<name> <sources>...): an executable of ours, built into bin/.
function(tarn_add_program name)
  add_executable(${name} ${ARGN})
  target_link_libraries(${name} PRIVATE tarn_flags)
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON
                                           RUNTIME_OUTPUT_DIRECTORY "${PROJECT_BINARY_DIR}/bin")
endfunction()
