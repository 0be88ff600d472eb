# The remote benchmarks compare the endpoint with raw ZeroMQ sockets that
# send the same bytes.
target_link_libraries(${ZVKIT_BENCH_TARGET} PRIVATE ZvKit::zvremote PkgConfig::ZMQ)
