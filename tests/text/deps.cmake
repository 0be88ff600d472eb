# Utf8ScanTest.cpp compares the block tests with one another and with a plain
# walk; they are hidden inside libzvkit.so, so it links the object file
# compiled for the library.
target_sources(${ZVKIT_TEST_TARGET} PRIVATE
    $<FILTER:$<TARGET_OBJECTS:zvkit_text>,INCLUDE,/Utf8Scan[.]cpp[.]o$>)
add_dependencies(${ZVKIT_TEST_TARGET} zvkit_text)
