# The trimming of a client's queue, tested against every generation of ENet's lists: the installed
# ENet, and each generation in declarations of our own, found in place of the system's header.
function(vx_queue_trim_test name)
  add_executable(${name} queue_trim_test.cpp queued_peer.cpp
                 recorded_console.cpp ${CMAKE_SOURCE_DIR}/stream/queue_trim.cpp ${ARGN})
  target_link_libraries(${name} PRIVATE vx_flags GTest::gtest_main)
endfunction()

vx_queue_trim_test(queue_trim_test)
target_link_libraries(queue_trim_test PRIVATE PkgConfig::ENET)
vx_add_tests(queue_trim_test TEST_SUFFIX .InstalledEnet)

foreach(patch IN ITEMS 15 17 18)
  set(layouts ${CMAKE_CURRENT_SOURCE_DIR}/enet_layouts)
  vx_queue_trim_test(queue_trim_test_1_3_${patch} ${layouts}/enet_functions.cpp)
  target_include_directories(queue_trim_test_1_3_${patch} BEFORE PRIVATE ${layouts})
  target_compile_definitions(queue_trim_test_1_3_${patch} PRIVATE TEST_ENET_PATCH=${patch})
  vx_add_tests(queue_trim_test_1_3_${patch} TEST_SUFFIX .Enet_1_3_${patch})
endforeach()
