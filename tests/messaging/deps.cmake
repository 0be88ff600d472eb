# ZvMessageCoreTest.cpp asks the block cache's copy whether caching is on: it
# decides as the library's does. (The name index's copy below takes its
# arrays from the array store's copy.)
zvkit_test_uses_block_cache(${ZVKIT_TEST_TARGET})
# The walk over flattened blocks (offsets and reasons of malformed blocks) is
# hidden inside libzvkit.so as well; FlatWalkTest.cpp links the object file
# compiled for the library.
target_sources(${ZVKIT_TEST_TARGET} PRIVATE
    $<FILTER:$<TARGET_OBJECTS:zvkit_messaging>,INCLUDE,/FlatWalk[.]cpp[.]o$>)
# So is the name index; ZvMessageLookupTest.cpp tests it on its own through
# a copy compiled into the test.
target_sources(${ZVKIT_TEST_TARGET} PRIVATE ${PROJECT_SOURCE_DIR}/messaging/NameIndex.cpp)
add_dependencies(${ZVKIT_TEST_TARGET} zvkit_messaging)
