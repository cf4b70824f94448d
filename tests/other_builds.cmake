# Builds of the same sources beside this one, for what its sanitizers exclude. scripts/test --checks
# names them; tests of theirs make them, and run while others sleep.

set(VELANTRIX_PLAIN_BUILD "" CACHE PATH
    "Build folder without sanitizers, for the tests that cannot run with one")
set(VELANTRIX_THREAD_BUILD "" CACHE PATH
    "Build folder with the thread sanitizer, for a second run of some system tests")
set(VELANTRIX_QT6_BUILD "" CACHE PATH "Build folder with Qt 6, for a second run of the window's tests")

# Where the tests that measure, that replace malloc or that look at the programs as they are shipped
# find them. Empty in a build with sanitizers that knows no other one: such tests are left out.
set(VX_PLAIN "${VELANTRIX_PLAIN_BUILD}")
if(NOT VX_PLAIN AND NOT VELANTRIX_SANITIZE)
  set(VX_PLAIN ${CMAKE_BINARY_DIR})
endif()

# The needed targets of the other builds.
set(VX_PLAIN_TARGETS VelantrixServer velantrix-listen velantrix-web packaging/all instruction_count stream_client
    soak_server soak_clients paced_capture torture enet_probe callback_tripwire_test scarce_resources_test
    listen_callback_test preload_clock preload_faults preload_scarce)
set(VX_THREAD_TARGETS VelantrixServer enet_probe preload_faults)
set(VX_QT6_UNIT_TESTS no_child_test settings_test volume_control_test window_test)

# vx_other_build(NAME FOLDER PRESET TARGET...): the test build.NAME makes targets of a preset; the
# tests that vx_needs_build(TEST NAME) names wait for it.
function(vx_other_build name folder preset)
  if(folder)
    add_test(NAME build.${name}
             COMMAND ${VX_LAST} ${CMAKE_SOURCE_DIR}/scripts/lib/build-preset ${preset} ${ARGN})
    set_tests_properties(build.${name} PROPERTIES
      LABELS check RESOURCE_LOCK every_core COST 1000 TIMEOUT 1500 FIXTURES_SETUP build_${name})
  endif()
endfunction()

function(vx_needs_build test name)
  set_property(TEST ${test} APPEND PROPERTY FIXTURES_REQUIRED build_${name})
endfunction()

vx_other_build(plain "${VELANTRIX_PLAIN_BUILD}" dev ${VX_PLAIN_TARGETS})
vx_other_build(thread "${VELANTRIX_THREAD_BUILD}" tsan ${VX_THREAD_TARGETS})
vx_other_build(qt6 "${VELANTRIX_QT6_BUILD}" qt6 VelantrixServer enet_probe preload_faults ${VX_QT6_UNIT_TESTS})
