# The server from the capture callback down, with a capture that is driven faster than real time.
add_executable(long_stream_test long_stream_test.cpp
               ${CMAKE_SOURCE_DIR}/tests/support/driven_capture.cpp)
target_link_libraries(long_stream_test PRIVATE vx_core vx_test_network GTest::gtest)
target_link_options(long_stream_test PRIVATE -Wl,--wrap=enet_host_service)
vx_add_tests(long_stream_test PROPERTIES TIMEOUT 300)
