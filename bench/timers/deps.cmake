# The timer benchmarks compare against Boost.Asio (header-only, Debian
# libboost-dev); without it the Asio peer is left out.
find_package(Boost 1.66 QUIET)
if(Boost_FOUND)
    target_link_libraries(${ZVKIT_BENCH_TARGET} PRIVATE Boost::headers)
    target_compile_definitions(${ZVKIT_BENCH_TARGET} PRIVATE ZVKIT_HAVE_ASIO=1)
endif()
