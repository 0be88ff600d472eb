# Installs a ThreadSanitizer build of ZvKit into a scratch prefix, builds a
# multi-threaded program with -fsanitize=thread against it through
# find_package(ZvKit), runs it with no LD_LIBRARY_PATH and fails on any
# report: a program instrumented by TSan needs ZvKit instrumented as well,
# or the library's own synchronisation is invisible to it.
#
# Inputs: ZVKIT_BUILD_DIR, ZVKIT_SOURCE_DIR, ZVKIT_WORK_DIR.

set(prefix ${ZVKIT_WORK_DIR}/prefix)
file(REMOVE_RECURSE ${ZVKIT_WORK_DIR})
foreach(step
        "${CMAKE_COMMAND};--install;${ZVKIT_BUILD_DIR};--prefix;${prefix}"
        "${CMAKE_COMMAND};-S;${ZVKIT_SOURCE_DIR}/tests/consumer;-B;${ZVKIT_WORK_DIR}/build;-DCMAKE_PREFIX_PATH=${prefix};-DCMAKE_BUILD_TYPE=RelWithDebInfo;-DZVKIT_TSAN_PROGRAM=ON"
        "${CMAKE_COMMAND};--build;${ZVKIT_WORK_DIR}/build;--target;tsan_program")
    execute_process(COMMAND ${step} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "step failed (${rc}): ${step}\n${out}\n${err}")
    endif()
endforeach()

unset(ENV{LD_LIBRARY_PATH})
# Every report is counted: TSan goes on after each one and exits with 66.
set(ENV{TSAN_OPTIONS} "halt_on_error=0:exitcode=66")
execute_process(COMMAND ${ZVKIT_WORK_DIR}/build/tsan_program
    RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err TIMEOUT 120)
string(REGEX MATCHALL "WARNING: ThreadSanitizer" reports "${out}${err}")
list(LENGTH reports count)
if(NOT rc EQUAL 0 OR count GREATER 0)
    message(FATAL_ERROR "tsan_program exited with ${rc} and ${count} ThreadSanitizer reports:\n${out}\n${err}")
endif()
message(STATUS "${out}")
