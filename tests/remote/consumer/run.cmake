# Installs the build tree into a scratch prefix, then builds and runs the
# remote consumer twice: through find_package(ZvKit CONFIG) and the
# ZvKit::zvremote target, and through pkg-config zvremote.

function(run_step)
    execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "step failed (${rc}): ${ARGN}\n${out}\n${err}")
    endif()
    message(STATUS "${out}")
endfunction()

set(prefix ${ZVKIT_WORK_DIR}/prefix)
file(REMOVE_RECURSE ${ZVKIT_WORK_DIR})
run_step(${CMAKE_COMMAND} --install ${ZVKIT_BUILD_DIR} --prefix ${prefix})

run_step(${CMAKE_COMMAND} -S ${ZVKIT_CONSUMER_SOURCE} -B ${ZVKIT_WORK_DIR}/cmake-build
    -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
run_step(${CMAKE_COMMAND} --build ${ZVKIT_WORK_DIR}/cmake-build)
run_step(${ZVKIT_WORK_DIR}/cmake-build/remote_consumer)

foreach(libdir lib lib64 lib/x86_64-linux-gnu)
    if(EXISTS ${prefix}/${libdir}/pkgconfig/zvremote.pc)
        set(ENV{PKG_CONFIG_PATH} ${prefix}/${libdir}/pkgconfig)
        set(pclibdir ${prefix}/${libdir})
    endif()
endforeach()
if(NOT pclibdir)
    message(FATAL_ERROR "zvremote.pc is not installed")
endif()
execute_process(COMMAND pkg-config --cflags --libs zvremote OUTPUT_VARIABLE flags
    RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pkg-config does not know zvremote")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
run_step(c++ -std=c++17 ${ZVKIT_CONSUMER_SOURCE}/main.cpp ${flags}
    -Wl,-rpath,${pclibdir} -o ${ZVKIT_WORK_DIR}/remote-consumer-pc)
run_step(${ZVKIT_WORK_DIR}/remote-consumer-pc)
