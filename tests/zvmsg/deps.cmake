# The JSON form of zvmsg is tested directly: this executable compiles the
# tool's converter and the internal walk it uses.
find_package(nlohmann_json 3 REQUIRED)
target_sources(${ZVKIT_TEST_TARGET} PRIVATE
    ${PROJECT_SOURCE_DIR}/tools/zvmsg/FlatJson.cpp
    $<FILTER:$<TARGET_OBJECTS:zvkit_messaging>,INCLUDE,/FlatWalk[.]cpp[.]o$>)
add_dependencies(${ZVKIT_TEST_TARGET} zvkit_messaging)
target_include_directories(${ZVKIT_TEST_TARGET} PRIVATE
    ${PROJECT_SOURCE_DIR}/tools/zvmsg ${CMAKE_CURRENT_SOURCE_DIR}/messaging)
target_link_libraries(${ZVKIT_TEST_TARGET} PRIVATE nlohmann_json::nlohmann_json)

# The installed tool, driven on the hand-written blocks and corrupted copies.
if(ZVKIT_BUILD_TOOLS)
    add_test(NAME zvmsg.InstalledToolOnGoldenAndCorruptedBlocks
        COMMAND bash ${CMAKE_CURRENT_SOURCE_DIR}/zvmsg/installed-zvmsg.sh
            ${CMAKE_BINARY_DIR} ${PROJECT_SOURCE_DIR} ${CMAKE_BINARY_DIR}/zvmsg-test)
    set_tests_properties(zvmsg.InstalledToolOnGoldenAndCorruptedBlocks PROPERTIES TIMEOUT 300)
endif()
