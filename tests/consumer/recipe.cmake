# The install recipe (the "install" preset: library and tour, no tests, no
# benchmarks) must work on a machine that has only the library's build
# dependencies. Every find_* below /usr, /usr/local and / is hidden, so
# Google Benchmark, GoogleTest, msgpack, pixman, muparser and stb cannot be
# found: first a configure that asks for the benchmarks must fail (the
# hiding works), then the recipe must configure, build and install.
#
# Inputs: ZVKIT_SOURCE_DIR, ZVKIT_WORK_DIR.

set(hide "-DCMAKE_IGNORE_PREFIX_PATH=/usr\\;/usr/local\\;/")
file(REMOVE_RECURSE ${ZVKIT_WORK_DIR})

execute_process(COMMAND ${CMAKE_COMMAND} --preset install -B ${ZVKIT_WORK_DIR}/probe
        ${hide} -DZVKIT_BUILD_BENCH=ON
    WORKING_DIRECTORY ${ZVKIT_SOURCE_DIR} RESULT_VARIABLE rc OUTPUT_QUIET ERROR_VARIABLE err)
if(rc EQUAL 0 OR NOT err MATCHES "benchmark")
    message(FATAL_ERROR "with the prefixes hidden, asking for the benchmarks should fail on "
        "Google Benchmark (result ${rc}):\n${err}")
endif()

set(build ${ZVKIT_WORK_DIR}/build)
foreach(step
        "${CMAKE_COMMAND};--preset;install;-B;${build};${hide}"
        "${CMAKE_COMMAND};--build;${build};-j2"
        "${CMAKE_COMMAND};--install;${build};--prefix;${ZVKIT_WORK_DIR}/prefix")
    execute_process(COMMAND ${step} WORKING_DIRECTORY ${ZVKIT_SOURCE_DIR}
        RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
    if(NOT rc EQUAL 0)
        message(FATAL_ERROR "step failed (${rc}): ${step}\n${out}\n${err}")
    endif()
endforeach()
foreach(file include/ZvKit/ZvKit.h lib/cmake/ZvKit/ZvKitConfig.cmake)
    if(NOT EXISTS ${ZVKIT_WORK_DIR}/prefix/${file})
        message(FATAL_ERROR "the install lacks ${file}")
    endif()
endforeach()
file(GLOB libs ${ZVKIT_WORK_DIR}/prefix/lib*/libzvkit.so.0 ${ZVKIT_WORK_DIR}/prefix/lib*/libzvplatform.so.0)
list(LENGTH libs count)
if(NOT count EQUAL 2)
    message(FATAL_ERROR "the install lacks a library: ${libs}")
endif()
