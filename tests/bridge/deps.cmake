# The random message builder of the message tests.
target_include_directories(${ZVKIT_TEST_TARGET} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR}/messaging)
