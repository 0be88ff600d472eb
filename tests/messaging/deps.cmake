# ZvMessageCoreTest.cpp asks the block cache's copy whether caching is on: it
# decides as the library's does.
zvkit_test_uses_block_cache(${ZVKIT_TEST_TARGET})
# The walk over flattened blocks (offsets and reasons of malformed blocks) is
# internal as well; FlatWalkTest.cpp drives a copy of it.
target_sources(${ZVKIT_TEST_TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/messaging/internal/FlatWalk.cpp)
