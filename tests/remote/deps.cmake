# The remote endpoint's tests link libzvremote, and libzmq for the raw
# sockets that send garbage. The peer program is the second process of the
# two-process tests; the tests find it by its path.
target_link_libraries(${ZVKIT_TEST_TARGET} PRIVATE ZvKit::zvremote PkgConfig::ZMQ)
add_executable(zvkit_remote_peer ${CMAKE_CURRENT_SOURCE_DIR}/remote/peer/RemotePeer.cpp
    ${CMAKE_CURRENT_SOURCE_DIR}/remote/TsanHooks.cpp)
target_include_directories(zvkit_remote_peer PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/support)
target_compile_definitions(zvkit_remote_peer PRIVATE ZVKIT_REMOTE_PEER="$<TARGET_FILE:zvkit_remote_peer>")
target_link_libraries(zvkit_remote_peer PRIVATE ZvKit::zvremote Threads::Threads)
zvkit_set_warnings(zvkit_remote_peer)
target_compile_definitions(${ZVKIT_TEST_TARGET} PRIVATE ZVKIT_REMOTE_PEER="$<TARGET_FILE:zvkit_remote_peer>")
add_dependencies(${ZVKIT_TEST_TARGET} zvkit_remote_peer)
# The race and leak detectors' suppressions for libzmq (TsanHooks.cpp) are
# found through the dynamic symbol table: the executables export their symbols.
if(ZVKIT_SANITIZE MATCHES "thread|address")
    target_link_options(${ZVKIT_TEST_TARGET} PRIVATE -rdynamic)
    target_link_options(zvkit_remote_peer PRIVATE -rdynamic)
endif()

# The example pair, run as two programs.
if(TARGET remote_service AND TARGET remote_client)
    add_test(NAME remote.ExampleServiceAndClientTalk
        COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/remote/example-pair.sh
            $<TARGET_FILE:remote_service> $<TARGET_FILE:remote_client>)
    set_tests_properties(remote.ExampleServiceAndClientTalk PROPERTIES TIMEOUT 90
        ENVIRONMENT "TSAN_OPTIONS=halt_on_error=1:second_deadlock_stack=1:suppressions=${CMAKE_CURRENT_SOURCE_DIR}/remote/tsan-zmq.supp")
endif()

# The installed component, used from outside the tree (CMake package and
# pkg-config), as tests/consumer does for libzvkit. Not in sanitizer builds:
# the consumer is built without the sanitizer, and a program must be built
# with the same one as the libraries it loads.
if(ZVKIT_TEST_CONSUMER AND NOT ZVKIT_SANITIZE)
    add_test(NAME remote.InstalledPackageBuildsAndRuns
        COMMAND ${CMAKE_COMMAND}
            -DZVKIT_BUILD_DIR=${CMAKE_BINARY_DIR}
            -DZVKIT_CONSUMER_SOURCE=${CMAKE_CURRENT_SOURCE_DIR}/remote/consumer
            -DZVKIT_WORK_DIR=${CMAKE_BINARY_DIR}/remote-consumer-test
            -P ${CMAKE_CURRENT_SOURCE_DIR}/remote/consumer/run.cmake)
    set_tests_properties(remote.InstalledPackageBuildsAndRuns PROPERTIES TIMEOUT 600)
endif()
