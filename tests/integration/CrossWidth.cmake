# One test program, built for each pointer width, as client and as service of itself.
add_executable(cross_width_test CrossWidthTest.cpp ../platform/Endpoint.cpp ../support/Process.cpp)
nipc_target_defaults(cross_width_test)
target_include_directories(cross_width_test PRIVATE ${PROJECT_SOURCE_DIR}/platform ${PROJECT_SOURCE_DIR}/tests/support)
target_link_libraries(cross_width_test PRIVATE nex_nipc GTest::gtest)

add_test(NAME CrossWidth.SameWidth COMMAND cross_width_test)
set(tests CrossWidth.SameWidth)

if(CMAKE_CROSSCOMPILING)
  # The other end: the same tree built for the machine that builds, of which only this one program is wanted.
  include(ExternalProject)
  set(native ${CMAKE_BINARY_DIR}/native)
  set(native_test ${native}/tests/integration/cross_width_test)
  ExternalProject_Add(native_cross_width_test
    SOURCE_DIR ${PROJECT_SOURCE_DIR}
    PREFIX ${CMAKE_BINARY_DIR}/native-stamps
    BINARY_DIR ${native}
    CMAKE_ARGS -DCMAKE_BUILD_TYPE=${CMAKE_BUILD_TYPE} -DNIPC_BUILD_EXAMPLES=OFF
    BUILD_COMMAND ${CMAKE_COMMAND} --build ${native} --target cross_width_test
    INSTALL_COMMAND ""
    BUILD_ALWAYS ON)
  add_test(NAME CrossWidth.ServiceOfTheOtherWidth COMMAND cross_width_test ${native_test})
  add_test(NAME CrossWidth.ClientOfTheOtherWidth
    COMMAND ${native_test} ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:cross_width_test>)
  list(APPEND tests CrossWidth.ServiceOfTheOtherWidth CrossWidth.ClientOfTheOtherWidth)
endif()
set_tests_properties(${tests} PROPERTIES LABELS integration TIMEOUT 120)
