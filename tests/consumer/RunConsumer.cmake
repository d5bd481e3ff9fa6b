# Installs the built project into a fresh prefix, builds tests/consumer against it with find_package, with
# the first C++ example of README.md as its program, and runs that program.
# -DSOURCE=<project source dir> -DBUILD=<project build dir> -DWORK=<scratch dir> -DGENERATOR=<generator>
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
execute_process(COMMAND ${CMAKE_COMMAND} --install ${BUILD} --prefix ${WORK}/prefix
                RESULT_VARIABLE rc OUTPUT_QUIET)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "cmake --install failed (${rc})")
endif()
# Every installed public header, included the way a consumer writes it.
file(GLOB headers RELATIVE ${WORK}/prefix/include/kivTamber ${WORK}/prefix/include/kivTamber/*.h)
set(includes "// Every public header of the installed package (compiled, never run).\n")
foreach(h ${headers})
  string(APPEND includes "#include <kivTamber/${h}>\n")
endforeach()
file(WRITE ${WORK}/allHeaders.cpp "${includes}")
file(READ ${SOURCE}/README.md readme)
string(FIND "${readme}" "```cpp\n" start)
if(start EQUAL -1)
  message(FATAL_ERROR "README.md has no C++ example")
endif()
math(EXPR start "${start} + 7")
string(SUBSTRING "${readme}" ${start} -1 rest)
string(FIND "${rest}" "```" stop)
string(SUBSTRING "${rest}" 0 ${stop} example)
file(WRITE ${WORK}/readme.cpp "${example}")
execute_process(COMMAND ${CMAKE_COMMAND} -S ${SOURCE}/tests/consumer -B ${WORK}/build -G ${GENERATOR}
                        -DCMAKE_PREFIX_PATH=${WORK}/prefix -DREADME_EXAMPLE=${WORK}/readme.cpp -DALL_HEADERS=${WORK}/allHeaders.cpp
                        -DCMAKE_BUILD_TYPE=Release
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "configuring the consumer against the installed package failed (${rc})")
endif()
execute_process(COMMAND ${CMAKE_COMMAND} --build ${WORK}/build RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "building the consumer failed (${rc})")
endif()
# The installed libraries are found as an installed application finds them: through the loader's path.
file(GLOB_RECURSE libs ${WORK}/prefix/*/libkivCore.so*)
list(GET libs 0 lib)
get_filename_component(libdir ${lib} DIRECTORY)
execute_process(COMMAND ${CMAKE_COMMAND} -E env LD_LIBRARY_PATH=${libdir} ${WORK}/build/readme-example
                RESULT_VARIABLE rc)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the README example exited with ${rc}")
endif()
