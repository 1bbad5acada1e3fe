# Warnings and sanitizers, applied the same way to every target of the tree.
function(udt_strict TARGET)
  target_compile_options(${TARGET} PRIVATE -Wall -Wextra -Wpedantic -Wshadow)
  if(UDT_SANITIZE)
    # PUBLIC: whoever links an instrumented library is instrumented with it, or it would not link.
    target_compile_options(${TARGET} PUBLIC -fsanitize=${UDT_SANITIZE} -fno-omit-frame-pointer
                           -fno-sanitize-recover=all)
    target_link_options(${TARGET} PUBLIC -fsanitize=${UDT_SANITIZE})
  endif()
  if(UDT_FUZZERS)
    # The fuzzers see which ways were taken; what was compared with what only of those that read foreign bytes, as it
    # halves the speed of all tests.
    target_compile_options(${TARGET} PRIVATE -fsanitize=fuzzer-no-link -fno-sanitize-coverage=trace-cmp)
  endif()
endfunction()
function(udt_reads_bytes TARGET)
  if(UDT_FUZZERS)
    target_compile_options(${TARGET} PRIVATE -fsanitize-coverage=trace-cmp)
  endif()
endfunction()

# What precompiled headers need for ccache: it sees which were used, and they are the same whenever they were made.
function(udt_precompiled TARGET)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    target_compile_options(${TARGET} PRIVATE -fpch-preprocess)
  else()
    target_compile_options(${TARGET} PRIVATE "SHELL:-Xclang -fno-pch-timestamp")
  endif()
endfunction()

# Headers that nobody here writes, with those of the standard library that come with most of them: read once.
function(udt_read_once TARGET)
  udt_precompiled(${TARGET})
  target_precompile_headers(${TARGET} PRIVATE ${ARGN} <algorithm> <atomic> <fstream> <functional> <map> <memory>
                            <random> <set> <string> <thread> <vector>)
endfunction()

# Tests are compiled far longer than they run, above all under sanitizers. What they test keeps its own flags.
function(udt_test_flags TARGET)
  udt_strict(${TARGET})
  if(UDT_SANITIZE)
    target_compile_options(${TARGET} PRIVATE -O0)
    if(UDT_FUZZERS)
      target_compile_options(${TARGET} PRIVATE -fno-sanitize=fuzzer-no-link)
    endif()
  else()
    target_compile_options(${TARGET} PRIVATE $<$<CONFIG:Release>:-O0>)
  endif()
  udt_precompiled(${TARGET})
endfunction()

# What the tests share of that: two fifths of the time of most.
function(udt_test_headers NAME)
  set(SOURCE ${CMAKE_CURRENT_BINARY_DIR}/${NAME}.cpp)
  file(CONFIGURE OUTPUT ${SOURCE} CONTENT "")
  add_library(${NAME} OBJECT ${SOURCE})
  target_compile_features(${NAME} PRIVATE cxx_std_17)
  target_link_libraries(${NAME} PRIVATE udt::recv GTest::gmock)
  udt_test_flags(${NAME})
  udt_read_once(${NAME} <gmock/gmock.h> <gtest/gtest.h>)
endfunction()

# Several files as one: what each makes anew of the templates of gtest, the standard library and ours is made once. Not
# where precompiled headers are off: there each file stands alone, for those who work on one.
function(udt_as_few TARGET FILES_EACH)
  if(CMAKE_DISABLE_PRECOMPILE_HEADERS)
    return()
  endif()
  set_target_properties(${TARGET} PROPERTIES UNITY_BUILD ON UNITY_BUILD_BATCH_SIZE ${FILES_EACH})
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU") # which holds what is in a file's own namespace for a header's
    target_compile_options(${TARGET} PRIVATE -Wno-subobject-linkage)
  endif()
endfunction()

# Of the templates that a test and a library both made the linker takes the first. So the library's come first: what is
# tested is what was compiled for it, and not slowed by the tests' flags.
function(udt_link_first TARGET)
  set(ARCHIVES)
  foreach(LIB ${ARGN})
    list(APPEND ARCHIVES $<$<STREQUAL:$<TARGET_PROPERTY:${LIB},TYPE>,STATIC_LIBRARY>:$<TARGET_FILE:${LIB}>>)
  endforeach()
  if(CMAKE_SYSTEM_NAME STREQUAL "Linux")
    target_link_options(${TARGET} PRIVATE LINKER:--whole-archive ${ARCHIVES} LINKER:--no-whole-archive)
  endif()
endfunction()

# One test program per folder of tests/, its cases listed to ctest one by one. They are listed when
# ctest starts, not while building: so a program is never run by a build, and ctest's own environment
# (see the thread sanitizer in ./run) holds for listing too.
function(udt_test_program NAME)
  cmake_parse_arguments(ARG "OPTIMISED" "LABEL" "SOURCES;LIBS" ${ARGN})
  set(LABEL)
  if(ARG_LABEL)
    set(LABEL LABELS ${ARG_LABEL} COST 60) # these wait in real time: they begin first, others run beside them
  endif()
  add_executable(${NAME} ${ARG_SOURCES})
  target_compile_features(${NAME} PRIVATE cxx_std_17)
  target_link_libraries(${NAME} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  target_compile_definitions(${NAME} PRIVATE UDT_SOURCE_DIR="${PROJECT_SOURCE_DIR}")
  udt_test_flags(${NAME})
  if(ARG_OPTIMISED)
    target_compile_options(${NAME} PRIVATE $<$<NOT:$<CONFIG:Debug>>:-O1>)
  else()
    target_precompile_headers(${NAME} REUSE_FROM udt_tests_headers)
  endif()
  udt_as_few(${NAME} 14)
  udt_link_first(${NAME} ${ARG_LIBS})
  gtest_discover_tests(${NAME} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300 ${LABEL})
  add_dependencies(udt_tests ${NAME})
endfunction()

# The thread sanitizer runs the test files that start threads, and no others. This keeps of a list of
# sources: the files that make threads or have a suite named Threaded..., and the files without any suite
# (helpers of the others); nothing where no file starts a thread.
function(udt_threaded_sources OUT)
  set(THREADED)
  set(HELPERS)
  foreach(SOURCE ${ARGN})
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${SOURCE})
    file(STRINGS ${SOURCE} SUITES REGEX "^(TYPED_)?TEST(_F|_P)?\\(")
    file(STRINGS ${SOURCE} THREADS REGEX "^[^/]*(std::thread|std::async|StartThread)")
    if(SUITES AND (THREADS OR SUITES MATCHES "\\(Threaded"))
      list(APPEND THREADED ${SOURCE})
    elseif(NOT SUITES)
      list(APPEND HELPERS ${SOURCE})
    endif()
  endforeach()
  if(THREADED)
    list(APPEND THREADED ${HELPERS})
  endif()
  set(${OUT} ${THREADED} PARENT_SCOPE)
endfunction()

# Every header of the given folders compiles alone, by its bare name, and twice in one file.
function(udt_header_checks NAME)
  set(CHECKS)
  foreach(FOLDER ${ARGN})
    file(GLOB HEADERS CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/${FOLDER}/*.h)
    foreach(HEADER ${HEADERS})
      cmake_path(GET HEADER FILENAME HEADER)
      set(CHECK ${PROJECT_BINARY_DIR}/header_checks/${HEADER}.cpp)
      file(CONFIGURE OUTPUT ${CHECK} CONTENT "#include \"${HEADER}\"\n#include \"${HEADER}\"\n" @ONLY)
      list(APPEND CHECKS ${CHECK})
    endforeach()
  endforeach()
  if(CHECKS)
    add_library(${NAME} OBJECT ${CHECKS})
    target_link_libraries(${NAME} PRIVATE udt::recv)
    udt_strict(${NAME})
  else()
    add_custom_target(${NAME})
  endif()
endfunction()
