# BlockCacheTest.cpp and ArrayStoreTest.cpp read the counts of their own
# copies of the block cache and the array store.
zvkit_test_uses_block_cache(${ZVKIT_TEST_TARGET})
