# Warning and sanitizer flags shared by every target of the project.

if(ZVKIT_SANITIZE)
    add_compile_options(-fsanitize=${ZVKIT_SANITIZE} -fno-omit-frame-pointer -g)
    add_link_options(-fsanitize=${ZVKIT_SANITIZE})
    if(ZVKIT_SANITIZE MATCHES "undefined")
        add_compile_options(-fno-sanitize-recover=undefined)
    endif()
endif()

function(zvkit_set_warnings target)
    target_compile_options(${target} PRIVATE -Wall -Wextra)
    if(ZVKIT_WERROR)
        target_compile_options(${target} PRIVATE -Werror)
    endif()
endfunction()
