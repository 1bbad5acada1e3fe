# Warnings and sanitizers, applied the same way to every target of the tree.
function(udt_strict TARGET)
  target_compile_options(${TARGET} PRIVATE -Wall -Wextra -Wpedantic -Wshadow)
  if(UDT_SANITIZE)
    target_compile_options(${TARGET} PRIVATE -fsanitize=${UDT_SANITIZE} -fno-omit-frame-pointer
                           -fno-sanitize-recover=all)
    target_link_options(${TARGET} PRIVATE -fsanitize=${UDT_SANITIZE})
  endif()
endfunction()

# One test program per folder of tests/, its cases listed to ctest one by one.
function(udt_test_program NAME)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${NAME} ${ARG_SOURCES})
  target_compile_features(${NAME} PRIVATE cxx_std_17)
  target_link_libraries(${NAME} PRIVATE ${ARG_LIBS} GTest::gmock GTest::gtest_main)
  udt_strict(${NAME})
  gtest_discover_tests(${NAME} DISCOVERY_TIMEOUT 60 PROPERTIES TIMEOUT 300)
endfunction()
