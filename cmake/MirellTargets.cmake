# Helpers that give every target of the project the same warnings, sanitizers and test wiring.

set(MIRELL_WARNING_FLAGS -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align
    -Woverloaded-virtual -Wconversion -Wsign-conversion -Wnull-dereference -Wformat=2
    -Wimplicit-fallthrough)
# Which lock guards what, as the code's annotations say (mirell/base/thread_annotations.h): only
# clang checks them; the fuzz preset is a clang build of all product code, so CI checks them there.
if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
  list(APPEND MIRELL_WARNING_FLAGS -Wthread-safety)
endif()
if(MIRELL_WARNINGS_AS_ERRORS)
  list(APPEND MIRELL_WARNING_FLAGS -Werror)
endif()

if(MIRELL_SANITIZE STREQUAL "address")
  set(MIRELL_SANITIZER_FLAGS -fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
elseif(MIRELL_SANITIZE STREQUAL "thread")
  set(MIRELL_SANITIZER_FLAGS -fsanitize=thread -fno-omit-frame-pointer)
elseif(NOT MIRELL_SANITIZE STREQUAL "")
  message(FATAL_ERROR "MIRELL_SANITIZE must be empty, 'address' or 'thread', not '${MIRELL_SANITIZE}'")
endif()

# Fuzzing instruments everything for coverage; only the fuzzer executables link libFuzzer's main.
if(MIRELL_FUZZ)
  if(NOT CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    message(FATAL_ERROR "MIRELL_FUZZ needs clang (the fuzz preset)")
  endif()
  list(APPEND MIRELL_SANITIZER_FLAGS -fsanitize=fuzzer-no-link)
endif()

function(mirell_target_defaults target)
  target_compile_options(${target} PRIVATE ${MIRELL_WARNING_FLAGS} ${MIRELL_SANITIZER_FLAGS})
  target_link_options(${target} PRIVATE ${MIRELL_SANITIZER_FLAGS})
endfunction()

# Asio's scheduler, inlined into our code at -O2, trips g++ 12's flow-based -Wnull-dereference
# inside its own headers; the targets that use Asio keep every other warning.
# Under ThreadSanitizer g++ also warns that Asio's atomic_thread_fence is not instrumented.
function(mirell_uses_asio target)
  target_compile_options(${target} PRIVATE -Wno-null-dereference)
  if(MIRELL_SANITIZE STREQUAL "thread")
    target_compile_options(${target} PRIVATE -Wno-tsan)
  endif()
endfunction()

# nlohmann json's accessors, inlined at -O2, trip the same g++ 12 -Wnull-dereference false positive
# inside its own header; the targets that read JSON keep every other warning.
function(mirell_uses_json target)
  target_compile_options(${target} PRIVATE -Wno-null-dereference)
endfunction()

# mirell_library(<name> SOURCES ... [DEPS ...] [PRIVATE_DEPS ...])
# One static library per subsystem; its public headers live in include/mirell/<subsystem>/.
function(mirell_library name)
  cmake_parse_arguments(ARG "" "" "SOURCES;DEPS;PRIVATE_DEPS" ${ARGN})
  add_library(${name} STATIC ${ARG_SOURCES})
  target_include_directories(${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include)
  target_link_libraries(${name} PUBLIC ${ARG_DEPS} PRIVATE ${ARG_PRIVATE_DEPS})
  mirell_target_defaults(${name})
endfunction()

# mirell_test(<name> SOURCES ... [DEPS ...] [LABELS ...] [TIMEOUT seconds] [SERIAL] [FILTER gtest-filter])
# A GoogleTest executable whose tests CTest discovers one by one. SERIAL runs each of them with
# no other test beside it: for tests of real-time behaviour that a loaded machine would distort.
# FILTER keeps only the tests that match (two targets can so split one source's tests).
function(mirell_test name)
  if(NOT MIRELL_BUILD_TESTS)
    return()
  endif()
  cmake_parse_arguments(ARG "SERIAL" "TIMEOUT;FILTER" "SOURCES;DEPS;LABELS" ${ARGN})
  if(NOT ARG_TIMEOUT)
    set(ARG_TIMEOUT 120)
  endif()
  add_executable(${name} ${ARG_SOURCES})
  target_link_libraries(${name} PRIVATE ${ARG_DEPS} GTest::gtest GTest::gtest_main Threads::Threads)
  mirell_target_defaults(${name})
  set(properties TIMEOUT ${ARG_TIMEOUT})
  if(ARG_LABELS)
    # One label, the names joined by commas: test discovery splits a list apart and would read
    # a second name as a property's. "ctest -L x11" matches it all the same (-L is a regex).
    string(REPLACE ";" "," labels "${ARG_LABELS}")
    list(APPEND properties LABELS "${labels}")
  endif()
  if(ARG_SERIAL)
    list(APPEND properties RUN_SERIAL TRUE)
  endif()
  set(filter)
  if(ARG_FILTER)
    set(filter TEST_FILTER "${ARG_FILTER}")
  endif()
  gtest_discover_tests(${name} ${filter} PROPERTIES ${properties} DISCOVERY_TIMEOUT 60)
endfunction()

# mirell_fuzzer(<name> DEPS ... [INCLUDE_PRIVATE_SOURCES])
# One libFuzzer executable <name>_fuzzer from <name>_fuzzer.cc; only the fuzz preset builds these.
# INCLUDE_PRIVATE_SOURCES lets it reach the subsystem's private headers in ../src.
function(mirell_fuzzer name)
  cmake_parse_arguments(ARG "INCLUDE_PRIVATE_SOURCES" "" "DEPS" ${ARGN})
  add_executable(${name}_fuzzer ${name}_fuzzer.cc)
  target_link_libraries(${name}_fuzzer PRIVATE ${ARG_DEPS})
  if(ARG_INCLUDE_PRIVATE_SOURCES)
    target_include_directories(${name}_fuzzer PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/../src)
  endif()
  mirell_target_defaults(${name}_fuzzer)
  target_link_options(${name}_fuzzer PRIVATE -fsanitize=fuzzer)
endfunction()
