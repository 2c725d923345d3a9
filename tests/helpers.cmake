# The helper libraries that the tests and the benchmarks share, defined once
# here for both (the top-level CMakeLists.txt includes this file when either
# is built). Only kscdp_test_support needs Google Test, so the benchmarks
# build without it.

# The recording fake platform behind the library's own code: the unit tests,
# the gateway benchmarks.
kscdp_add_fake_platform(kscdp_fakes)

# What the programs that run against real transports share: a mosquitto
# broker of their own (mosquitto_broker.h) and an MQTT subscriber
# (mqtt_subscriber.h).
add_library(kscdp_testbed STATIC
  ${CMAKE_CURRENT_LIST_DIR}/integration/mosquitto_broker.cpp
  ${CMAKE_CURRENT_LIST_DIR}/integration/mqtt_subscriber.cpp)
target_include_directories(kscdp_testbed PUBLIC ${CMAKE_CURRENT_LIST_DIR}/integration)
target_compile_options(kscdp_testbed PRIVATE ${KSCDP_WARNINGS})
target_link_libraries(kscdp_testbed PRIVATE PkgConfig::MOSQUITTO)

# The test programs' own: the stand-in platform's files with a master
# simulator in process (standin_environment.h, whose Google Test environment
# a program gets by calling its functions), besides the testbed.
if(KSCDP_BUILD_TESTS)
  find_package(GTest REQUIRED)
  add_library(kscdp_test_support STATIC
    ${CMAKE_CURRENT_LIST_DIR}/integration/program_run.cpp
    ${CMAKE_CURRENT_LIST_DIR}/integration/standin_environment.cpp)
  target_compile_options(kscdp_test_support PRIVATE ${KSCDP_WARNINGS})
  target_compile_definitions(kscdp_test_support PRIVATE KSCDP_SCRIPTS_DIR="${PROJECT_SOURCE_DIR}/scripts")
  target_link_libraries(kscdp_test_support PUBLIC kscdp_master_sim_core kscdp_testbed GTest::gtest)
endif()
