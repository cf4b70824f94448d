# How all our targets are compiled. Third-party headers are SYSTEM includes, so warnings are about
# our own code only.

add_library(vx_flags INTERFACE)
target_compile_features(vx_flags INTERFACE cxx_std_17)
target_compile_options(vx_flags INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion
                                          $<$<BOOL:${VELANTRIX_WERROR}>:-Werror>)
target_include_directories(vx_flags INTERFACE ${CMAKE_SOURCE_DIR})

# Hardening: every program reads what the network sends. Fortified calls need an optimised build and
# disturb the sanitizers.
include(CheckPIESupported)
check_pie_supported()
target_compile_options(vx_flags INTERFACE -fstack-protector-strong)
if(NOT VELANTRIX_SANITIZE)
  target_compile_options(vx_flags INTERFACE
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE$<SEMICOLON>-D_FORTIFY_SOURCE=2>)
endif()
target_link_options(vx_flags INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

set(VX_SANITIZER_DEFAULTS ${CMAKE_SOURCE_DIR}/cmake/sanitizer_defaults.cpp)
if(VELANTRIX_SANITIZE)
  add_compile_options(-fsanitize=${VELANTRIX_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${VELANTRIX_SANITIZE})
  # Undefined behaviour ends the program, or a test would pass with it.
  if(VELANTRIX_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

# Coverage: keeps the counts of processes that end by _exit or a signal.
if(VELANTRIX_COVERAGE)
  add_compile_options(--coverage -fprofile-update=atomic)
  add_link_options(--coverage)
  add_library(vx_coverage_counts OBJECT ${CMAKE_SOURCE_DIR}/cmake/coverage_counts.cpp)
  target_compile_options(vx_coverage_counts PRIVATE -fno-profile-arcs -fno-test-coverage)
  target_sources(vx_flags INTERFACE
    $<$<STREQUAL:$<TARGET_PROPERTY:TYPE>,EXECUTABLE>:$<TARGET_OBJECTS:vx_coverage_counts>>)
endif()

# vx_library(NAME source...): a static library with the project's flags, includable from the
# source root ("stream/wire_format.h").
function(vx_library name)
  add_library(${name} STATIC ${ARGN})
  target_link_libraries(${name} PUBLIC vx_flags)
endfunction()

# vx_program(NAME source...): an executable with the project's flags, placed in the build root.
function(vx_program name)
  add_executable(${name} ${ARGN})
  if(VELANTRIX_SANITIZE)
    target_sources(${name} PRIVATE ${VX_SANITIZER_DEFAULTS})
  endif()
  target_link_libraries(${name} PRIVATE vx_flags)
endfunction()
