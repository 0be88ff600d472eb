# ZvMessageCoreTest.cpp asks the block cache's copy whether caching is on: it
# decides as the library's does.
zvkit_test_uses_block_cache(${ZVKIT_TEST_TARGET})
