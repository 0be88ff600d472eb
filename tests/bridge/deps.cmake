# The bridge tests share the message tests' helpers ("messaging/...").
target_include_directories(${ZVKIT_TEST_TARGET} PRIVATE ${CMAKE_CURRENT_SOURCE_DIR})
