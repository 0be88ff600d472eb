# The evaluator tests compare against muparser where its rules agree with
# ordinary arithmetic. muparser is only installed for the host's own word
# size: where it does not link (the i386 build), those tests skip.
include(CheckCXXSourceCompiles)
find_path(ZVKIT_MUPARSER_INCLUDE muParser.h)
find_library(ZVKIT_MUPARSER_LIBRARY muparser)
if(ZVKIT_MUPARSER_INCLUDE AND ZVKIT_MUPARSER_LIBRARY)
    set(CMAKE_REQUIRED_INCLUDES ${ZVKIT_MUPARSER_INCLUDE})
    set(CMAKE_REQUIRED_LIBRARIES ${ZVKIT_MUPARSER_LIBRARY})
    check_cxx_source_compiles("
        #include <muParser.h>
        int main() { mu::Parser p; p.SetExpr(\"1+2\"); return p.Eval() == 3 ? 0 : 1; }"
        ZVKIT_MUPARSER_LINKS)
    unset(CMAKE_REQUIRED_INCLUDES)
    unset(CMAKE_REQUIRED_LIBRARIES)
endif()
if(ZVKIT_MUPARSER_LINKS)
    target_include_directories(${ZVKIT_TEST_TARGET} SYSTEM PRIVATE ${ZVKIT_MUPARSER_INCLUDE})
    target_link_libraries(${ZVKIT_TEST_TARGET} PRIVATE ${ZVKIT_MUPARSER_LIBRARY})
    target_compile_definitions(${ZVKIT_TEST_TARGET} PRIVATE ZVKIT_HAVE_MUPARSER)
endif()
