# Peers of the numeric benchmarks: muparser (evaluator), stb_image_resize's box
# filter and pixman's separable box convolution (resampler). The stb and
# muparser headers are included as system headers so that their own warnings
# do not trip -Werror.
find_package(PkgConfig REQUIRED)
pkg_check_modules(ZVKIT_PIXMAN REQUIRED IMPORTED_TARGET pixman-1)
find_path(ZVKIT_MUPARSER_INCLUDE muParser.h REQUIRED)
find_library(ZVKIT_MUPARSER_LIBRARY muparser REQUIRED)
find_path(ZVKIT_STB_INCLUDE stb_image_resize.h PATH_SUFFIXES stb REQUIRED)
target_include_directories(${ZVKIT_BENCH_TARGET} SYSTEM PRIVATE
    ${ZVKIT_MUPARSER_INCLUDE} ${ZVKIT_STB_INCLUDE})
target_link_libraries(${ZVKIT_BENCH_TARGET} PRIVATE PkgConfig::ZVKIT_PIXMAN ${ZVKIT_MUPARSER_LIBRARY})
