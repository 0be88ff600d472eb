# BlockCacheTest.cpp reads the counts of its own copy of the block cache.
zvkit_test_uses_block_cache(${ZVKIT_TEST_TARGET})
