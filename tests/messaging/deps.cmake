# The block cache's functions are hidden inside libzvkit.so: the cache's own
# tests compile a second copy of its source into this executable. That copy
# has its own thread caches and central store, apart from the library's, so
# the counts BlockCacheTest.cpp reads are not disturbed by the library's
# messages and lists. ZvMessageCoreTest.cpp only asks the copy whether the
# cache is on: the copy decides as the library's does (the same
# ZVKIT_FORCE_NEW setting, the same sanitizer build).
target_sources(${ZVKIT_TEST_TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/messaging/internal/BlockCache.cpp)
target_include_directories(${ZVKIT_TEST_TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/messaging ${PROJECT_SOURCE_DIR})
# The walk over flattened blocks (offsets and reasons of malformed blocks) is
# internal as well; FlatWalkTest.cpp drives a copy of it.
target_sources(${ZVKIT_TEST_TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/messaging/internal/FlatWalk.cpp)
