# Build helpers shared by every CMake file of the project: warning and
# sanitizer flags, and the folder scan behind tests/ and bench/.

if(ZVKIT_SANITIZE)
    add_compile_options(-fsanitize=${ZVKIT_SANITIZE} -fno-omit-frame-pointer -g)
    add_link_options(-fsanitize=${ZVKIT_SANITIZE})
    if(ZVKIT_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
endif()

function(zvkit_set_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
    if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
        target_compile_options(${target} PRIVATE -fno-semantic-interposition)
    endif()
    get_target_property(type ${target} TYPE)
    if(type STREQUAL "SHARED_LIBRARY" OR type STREQUAL "OBJECT_LIBRARY")
        # The libraries call into one another (libzvkit into the platform's
        # semaphores on every lock) through the GOT, without a PLT stub:
        # one jump less per call.
        target_compile_options(${target} PRIVATE -fno-plt)
    endif()
    if(type STREQUAL "SHARED_LIBRARY")
        target_link_options(${target} PRIVATE -Wl,-Bsymbolic-functions)
    endif()
    if(ZVKIT_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()

# Sets <out> to the names of the folders below <dir> that hold .cpp sources:
# tests/ and bench/ build one executable per such folder.
function(zvkit_source_folders out dir)
    file(GLOB entries LIST_DIRECTORIES true CONFIGURE_DEPENDS ${dir}/*)
    set(names)
    foreach(entry IN LISTS entries)
        if(IS_DIRECTORY ${entry})
            file(GLOB sources CONFIGURE_DEPENDS ${entry}/*.cpp)
            if(sources)
                get_filename_component(name ${entry} NAME)
                list(APPEND names ${name})
            endif()
        endif()
    endforeach()
    set(${out} ${names} PARENT_SCOPE)
endfunction()

# Common settings of one subsystem of libzvkit, an object library whose
# objects go into the shared library: position-independent code, the
# library's own warnings, and the source root on the include path so that
# private headers are named by their folder ("base/internal/Spin.h").
# What a subsystem may use is what it links: only the layers below it.
function(zvkit_subsystem target)
    set_target_properties(${target} PROPERTIES POSITION_INDEPENDENT_CODE ON)
    target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR})
    target_compile_definitions(${target} PRIVATE ZVKIT_BUILDING)
    zvkit_set_warnings(${target})
    set_property(GLOBAL APPEND PROPERTY ZVKIT_SUBSYSTEM_TARGETS ${target})
endfunction()
