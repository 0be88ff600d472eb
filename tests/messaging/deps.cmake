# The block cache's functions are hidden inside libzvkit.so: the cache's own
# tests compile a second copy of its source into this executable. That copy
# has its own thread caches and central store, which only BlockCacheTest.cpp
# uses, so the counts those tests read are not disturbed by the library's
# messages and lists.
target_sources(${ZVKIT_TEST_TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/messaging/internal/BlockCache.cpp)
target_include_directories(${ZVKIT_TEST_TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/messaging ${PROJECT_SOURCE_DIR})
