# velko_library(NAME DEPS ...): a static library of every .cpp under src/NAME.
function(velko_library name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${name}/*.cpp)
  if(NOT sources)
    set(sources ${CMAKE_SOURCE_DIR}/cmake/empty.cpp)
  endif()
  add_library(velko_${name} STATIC ${sources})
  target_include_directories(velko_${name} PUBLIC ${CMAKE_SOURCE_DIR}/src)
  target_link_libraries(velko_${name} PUBLIC ${ARG_DEPS})
endfunction()

# velko_test_suite(DIR LABEL DEPS ...): one test program per folder of tests,
# each GoogleTest case registered with CTest under the label.
function(velko_test_suite dir label)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB_RECURSE sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/tests/${dir}/*.cpp)
  if(NOT sources)
    return()
  endif()
  string(REPLACE "/" "_" target "velko_tests_${dir}")
  add_executable(${target} ${sources})
  target_include_directories(${target} PRIVATE ${CMAKE_SOURCE_DIR}/tests)
  target_link_libraries(${target} PRIVATE ${ARG_DEPS} velko_testsupport GTest::gtest GTest::gmock)
  # One target per label, so a build can stop at what it is going to run.
  if(NOT TARGET velko_${label}_tests)
    add_custom_target(velko_${label}_tests)
  endif()
  add_dependencies(velko_${label}_tests ${target})
  gtest_discover_tests(${target}
    DISCOVERY_MODE PRE_TEST
    PROPERTIES LABELS ${label} ENVIRONMENT "VELKO_BINARY_DIR=${CMAKE_BINARY_DIR};VELKO_SOURCE_DIR=${CMAKE_SOURCE_DIR}")
endfunction()
