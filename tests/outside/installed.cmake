# cmake -DBUILD=dir -DSOURCE=dir -DWORK=dir -DGENERATOR=.. -DCXX=.. -DLAUNCHER=.. -P installed.cmake
# Installs into an empty prefix, moves it, and builds strangers' projects against what lies there: with CMake and
# with pkg-config and make. Looks at the tools and their manual, too.
cmake_minimum_required(VERSION 3.25)

function(run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE RESULT OUTPUT_VARIABLE OUTPUT ERROR_VARIABLE OUTPUT)
  if(NOT RESULT EQUAL 0)
    string(REPLACE ";" " " COMMAND "${ARGN}")
    message(FATAL_ERROR "${COMMAND}\nended with ${RESULT}:\n${OUTPUT}")
  endif()
  set(OUTPUT "${OUTPUT}" PARENT_SCOPE)
endfunction()

file(REMOVE_RECURSE ${WORK})
run(${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/first)
# An installed tree can be moved: nothing in it names the place it was put to.
file(RENAME ${WORK}/first ${WORK}/prefix)
set(PREFIX ${WORK}/prefix)

file(GLOB SONAME ${PREFIX}/lib*/libudtrecv.so.* ${PREFIX}/lib/*/libudtrecv.so.*)
list(FILTER SONAME INCLUDE REGEX "\\.so\\.[0-9]+$")
if(NOT SONAME)
  message(FATAL_ERROR "no shared library under its SONAME in ${PREFIX}")
endif()
cmake_path(GET SONAME PARENT_PATH LIBDIR)
set(ENV{LD_LIBRARY_PATH} ${LIBDIR})
set(ENV{PKG_CONFIG_PATH} ${LIBDIR}/pkgconfig)

# Every header is found by its bare name in the one folder.
file(GLOB HEADERS RELATIVE ${PREFIX}/include/udtrecv ${PREFIX}/include/udtrecv/*.h)
foreach(WANTED udtrecv.h IUDT.h AVGUDTRecv.h AVGUDTCodec.h UDTLog.h xpmess.h RtpIntake.h)
  if(NOT WANTED IN_LIST HEADERS)
    message(FATAL_ERROR "${WANTED} is not in ${PREFIX}/include/udtrecv")
  endif()
endforeach()

run(${CMAKE_COMMAND} -S ${SOURCE}/package -B ${WORK}/package -G ${GENERATOR} -DCMAKE_PREFIX_PATH=${PREFIX}
    -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_COMPILER=${CXX} -DCMAKE_CXX_COMPILER_LAUNCHER=${LAUNCHER})
run(${CMAKE_COMMAND} --build ${WORK}/package)
run(${CMAKE_CTEST_COMMAND} --test-dir ${WORK}/package --output-on-failure)

file(COPY ${SOURCE}/pkgconfig ${SOURCE}/main.cpp DESTINATION ${WORK})
run(make -C ${WORK}/pkgconfig CXX=${CXX} EXAMPLES=${PREFIX}/share/doc/libudtrecv-dev/examples)
run(${WORK}/pkgconfig/outside)
run(${WORK}/pkgconfig/outside_c)

if(EXISTS ${PREFIX}/bin/udtlab)
  run(${PREFIX}/bin/udtlab simulate --scenario ${PREFIX}/share/udtrecv/scenarios/train-outages.json --seconds 5)
  file(READ ${PREFIX}/share/man/man1/udtlab.1 MANUAL)
  foreach(WANTED "udtlab replay" "udtlab simulate" "scenario FILE" "EXIT STATUS")
    string(FIND "${MANUAL}" "${WANTED}" AT)
    if(AT EQUAL -1)
      message(FATAL_ERROR "the manual page has no '${WANTED}'")
    endif()
  endforeach()
  # What Tab offers in bash.
  file(WRITE ${WORK}/complete.sh "
source '${PREFIX}/share/bash-completion/completions/udtlab'
COMP_WORDS=('${PREFIX}/bin/udtlab' s); COMP_CWORD=1; _udtlab; echo \"<\${COMPREPLY[*]}>\"
COMP_WORDS=('${PREFIX}/bin/udtlab' simulate --jit); COMP_CWORD=2; _udtlab; echo \"<\${COMPREPLY[*]}>\"
COMP_WORDS=('${PREFIX}/bin/udtlab' simulate --mode l); COMP_CWORD=3; _udtlab; echo \"<\${COMPREPLY[*]}>\"
")
  run(bash ${WORK}/complete.sh)
  if(NOT OUTPUT MATCHES "<simulate.*>\n<--jitter>\n<low-latency>\n")
    message(FATAL_ERROR "bash completion offers\n${OUTPUT}")
  endif()
endif()
file(REMOVE_RECURSE ${WORK})
