# What every target of ours has in common.

find_package(Threads REQUIRED)

# Results do not depend on where they were built: messages and debug information name files as seen
# from the top of the sources.
add_compile_options(-ffile-prefix-map=${CMAKE_BINARY_DIR}=build -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)

# The platform libraries that Debian ships: <android-base/…>, <utils/…>, <cutils/…>, <log/…>.
set(android_lib_dir /usr/lib/${CMAKE_LIBRARY_ARCHITECTURE}/android)
add_library(android_libs INTERFACE)
target_include_directories(android_libs SYSTEM INTERFACE /usr/include/android)
target_link_directories(android_libs INTERFACE ${android_lib_dir})
target_link_options(android_libs INTERFACE -Wl,-rpath,${android_lib_dir})
target_link_libraries(android_libs INTERFACE utils cutils base log Threads::Threads)

add_library(bthal_options INTERFACE)
target_compile_options(bthal_options INTERFACE -Wall -Wextra -Wshadow -Wconversion -Werror)
# g++ does not know the attributes of thread-safety analysis.
target_compile_options(bthal_options INTERFACE $<$<CXX_COMPILER_ID:GNU>:-Wno-attributes>)
# A unity file includes sources, which g++ then takes for headers when it warns of this.
target_compile_options(bthal_options INTERFACE
                       $<$<AND:$<BOOL:${CMAKE_UNITY_BUILD}>,$<CXX_COMPILER_ID:GNU>>:-Wno-subobject-linkage>)
if(BTHAL_COMPILE_ONLY AND CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  target_compile_options(bthal_options INTERFACE -Wthread-safety -Wthread-safety-beta)
endif()
if(BTHAL_SANITIZE)
  # A finding ends the program: code that went on after it would take a third longer to compile.
  add_compile_options(-fsanitize=${BTHAL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${BTHAL_SANITIZE})
  add_compile_definitions(BTHAL_SANITIZED=1)
  # The check of a virtual table needs a pipe, and takes a process without descriptors for a finding.
  add_compile_options(-fno-sanitize=vptr)
  # g++ takes what the sanitizers add to <regex> for reads of what was never written.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
endif()

# bthal_executable(NAME SOURCES…): skipped when only objects are wanted.
function(bthal_executable name)
  if(BTHAL_COMPILE_ONLY)
    add_library(${name} OBJECT ${ARGN})
  else()
    add_executable(${name} ${ARGN})
  endif()
  target_link_libraries(${name} PRIVATE bthal_options)
endfunction()

# bthal_test(NAME SOURCES… [LABELS LABEL]): a GoogleTest program, one ctest entry per case. A case that
# takes more than five seconds of real time is labelled slow. ctest starts what has a cost first: the
# quick cases, which find most faults, then the slow ones.
include(GoogleTest)
function(bthal_test name)
  cmake_parse_arguments(PARSE_ARGV 1 test "" "LABELS" "")
  add_executable(${name} ${test_UNPARSED_ARGUMENTS})
  target_link_libraries(${name} PRIVATE bthal_options test_support GTest::gmock GTest::gtest_main)
  set_target_properties(${name} PROPERTIES RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/tests)
  set(properties TIMEOUT 300)
  if(test_LABELS)
    list(APPEND properties LABELS ${test_LABELS})
  endif()
  if(NOT test_LABELS STREQUAL "slow")
    list(APPEND properties COST 1000)
  endif()
  gtest_discover_tests(${name} DISCOVERY_TIMEOUT 60 DISCOVERY_MODE PRE_TEST
                       PROPERTIES ${properties})
endfunction()

# bthal_own_log_tags(TARGET...): each file of a unity build logs with its own tag. <android-base/logging.h> knows of tags
# only if there is one where it is included first.
function(bthal_own_log_tags)
  set_target_properties(${ARGN} PROPERTIES UNITY_BUILD_CODE_BEFORE_INCLUDE
                        "#undef LOG_TAG\n#define LOG_TAG\n#include <android-base/logging.h>\n#undef LOG_TAG")
endfunction()
