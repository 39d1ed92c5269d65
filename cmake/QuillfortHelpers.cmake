# One helper per kind of target, and one interface target carrying the
# language level and warnings that every target links.

add_library(quillfort_options INTERFACE)
target_compile_features(quillfort_options INTERFACE cxx_std_23)
target_compile_options(quillfort_options INTERFACE -Wall -Wextra -Wpedantic)
target_compile_definitions(quillfort_options INTERFACE
  BOOST_ASIO_NO_DEPRECATED)

# libstdc++ 12 offers std::expected only when __cpp_concepts says C++20 concepts
# are complete; clang 16 implements what <expected> needs but still reports the
# older value, so tell the library the truth.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 17)
  target_compile_options(quillfort_options INTERFACE -U__cpp_concepts -D__cpp_concepts=202002L)
endif()

find_program(QUILLFORT_CCACHE ccache)
if(QUILLFORT_CCACHE AND NOT CMAKE_CXX_COMPILER_LAUNCHER)
  set(CMAKE_CXX_COMPILER_LAUNCHER ${QUILLFORT_CCACHE})
endif()

# quillfort_library(NAME name SOURCES ... DEPS ...)
# Makes the static library quillfort_<name> and its alias quillfort::<name>.
function(quillfort_library)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;DEPS" ${ARGN})
  add_library(quillfort_${ARG_NAME} STATIC ${ARG_SOURCES})
  add_library(quillfort::${ARG_NAME} ALIAS quillfort_${ARG_NAME})
  target_include_directories(quillfort_${ARG_NAME} PUBLIC ${PROJECT_SOURCE_DIR})
  target_link_libraries(quillfort_${ARG_NAME} PUBLIC quillfort_options ${ARG_DEPS})
endfunction()

# quillfort_test(NAME name SOURCES ... DEPS ...)
# One test binary per library, registered with CTest test by test.
function(quillfort_test)
  cmake_parse_arguments(ARG "" "NAME" "SOURCES;DEPS" ${ARGN})
  if(NOT ARG_SOURCES)
    return()  # a folder whose tests are not written yet
  endif()
  add_executable(${ARG_NAME} ${ARG_SOURCES})
  target_link_libraries(${ARG_NAME} PRIVATE quillfort_options ${ARG_DEPS}
    GTest::gmock GTest::gtest_main)
  gtest_discover_tests(${ARG_NAME} DISCOVERY_TIMEOUT 60
    PROPERTIES ENVIRONMENT "QUILLFORT_BUILD_DIR=${PROJECT_BINARY_DIR}")
endfunction()
