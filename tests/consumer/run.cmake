# Installs the build tree into a scratch prefix, moves the prefix elsewhere
# (an install must not depend on where it was made), then builds programs
# against the moved prefix through find_package(ZvKit) and through
# pkg-config, and runs each with no LD_LIBRARY_PATH: the installed libraries
# must find each other by themselves. The README's first example and its
# pkg-config command line are taken from README.md as written.
#
# Inputs: ZVKIT_BUILD_DIR, ZVKIT_SOURCE_DIR, ZVKIT_WORK_DIR.

function(run_step)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "step failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    message(STATUS "${out}")
endfunction()

# Runs a program and checks that its output holds the expected text.
function(run_program program expect)
    run_step(${program})
    execute_process(COMMAND ${program} OUTPUT_VARIABLE out)
    if(NOT out MATCHES "${expect}")
        message(FATAL_ERROR "${program} printed:\n${out}\nexpected: ${expect}")
    endif()
endfunction()

set(consumer_dir ${ZVKIT_SOURCE_DIR}/tests/consumer)
set(installed ${ZVKIT_WORK_DIR}/installed)
set(prefix ${ZVKIT_WORK_DIR}/moved/prefix)
file(REMOVE_RECURSE ${ZVKIT_WORK_DIR})
file(MAKE_DIRECTORY ${ZVKIT_WORK_DIR}/moved)
run_step(${CMAKE_COMMAND} --install ${ZVKIT_BUILD_DIR} --prefix ${installed})
file(RENAME ${installed} ${prefix})
unset(ENV{LD_LIBRARY_PATH})

# The README's first example: the first cpp block of README.md.
file(READ ${ZVKIT_SOURCE_DIR}/README.md readme)
string(FIND "${readme}" "```cpp\n" start)
if(start EQUAL -1)
    message(FATAL_ERROR "README.md has no cpp example")
endif()
math(EXPR start "${start} + 7")
string(SUBSTRING "${readme}" ${start} -1 rest)
string(FIND "${rest}" "```" end)
string(SUBSTRING "${rest}" 0 ${end} example)
set(app_dir ${ZVKIT_WORK_DIR}/app)
file(WRITE ${app_dir}/app.cpp "${example}")

# CMake package.
run_step(${CMAKE_COMMAND} -S ${consumer_dir} -B ${ZVKIT_WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release
    -DZVKIT_README_EXAMPLE=${app_dir}/app.cpp
    -DZVKIT_TOUR_DIR=${ZVKIT_SOURCE_DIR}/examples/tour)
run_step(${CMAKE_COMMAND} --build ${ZVKIT_WORK_DIR}/cmake-build)
run_program(${ZVKIT_WORK_DIR}/cmake-build/zv_only "zv-only consumer: what 42, n 7")
run_program(${ZVKIT_WORK_DIR}/cmake-build/platform_kits "consumer: ZvKit [0-9.]+ works")
run_program(${ZVKIT_WORK_DIR}/cmake-build/readme_example "^1 hello\n$")
run_program(${ZVKIT_WORK_DIR}/cmake-build/tour "Tour finished")

# pkg-config, with the command line the README gives for a private prefix.
set(pcdir "")
foreach(libdir lib lib64 lib/x86_64-linux-gnu lib/i386-linux-gnu)
    if(EXISTS ${prefix}/${libdir}/pkgconfig/zvkit.pc)
        set(pcdir ${prefix}/${libdir}/pkgconfig)
    endif()
endforeach()
if(NOT pcdir)
    message(FATAL_ERROR "no zvkit.pc under ${prefix}")
endif()
set(ENV{PKG_CONFIG_PATH} ${pcdir})
string(REGEX MATCH "\nc\\+\\+ [^\n]*app\\.cpp[^\n]*pkg-config[^\n]*" command "${readme}")
if(NOT command)
    message(FATAL_ERROR "README.md has no c++ ... app.cpp ... pkg-config line")
endif()
string(STRIP "${command}" command)
execute_process(COMMAND sh -c "${command}" WORKING_DIRECTORY ${app_dir}
    RESULT_VARIABLE rc ERROR_VARIABLE err)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "the README's pkg-config line failed: ${command}\n${err}")
endif()
file(GLOB built LIST_DIRECTORIES false ${app_dir}/*)
list(REMOVE_ITEM built ${app_dir}/app.cpp)
list(LENGTH built count)
if(NOT count EQUAL 1)
    message(FATAL_ERROR "the README's pkg-config line should build one program, found: ${built}")
endif()
run_program(${built} "^1 hello\n$")
# The same line for the other two programs.
foreach(program zv_only platform_kits)
    string(REPLACE "app.cpp" "${consumer_dir}/${program}.cpp" line "${command}")
    string(REGEX REPLACE "-o [^ ]+" "" line "${line}")
    execute_process(COMMAND sh -c "${line} -o ${ZVKIT_WORK_DIR}/${program}-pc"
        WORKING_DIRECTORY ${app_dir} RESULT_VARIABLE rc ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "pkg-config build of ${program} failed\n${err}")
    endif()
endforeach()
run_program(${ZVKIT_WORK_DIR}/zv_only-pc "zv-only consumer: what 42, n 7")
run_program(${ZVKIT_WORK_DIR}/platform_kits-pc "consumer: ZvKit [0-9.]+ works")
