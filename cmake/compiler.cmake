# Warnings, hardening and sanitizers, the same for every target of the project.

add_compile_options(-Wall -Wextra -Wshadow -Wconversion -fno-omit-frame-pointer)
if(NASCTRL_WERROR)
    add_compile_options(-Werror)
endif()

# GCC 12 sees overlapping copies in its own std::string concatenation.
if(CMAKE_CXX_COMPILER_ID STREQUAL GNU AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    add_compile_options(-Wno-restrict)
endif()

# Calls of the library's own exported functions go through the dynamic linker, so that a host may put its own in their
# place. GCC keeps this by default, clang only on request.
if(CMAKE_CXX_COMPILER_ID MATCHES Clang)
    add_compile_options(-fsemantic-interposition)
endif()

if(NASCTRL_FUZZ)
    if(NOT CMAKE_CXX_COMPILER_ID MATCHES Clang)
        message(FATAL_ERROR "NASCTRL_FUZZ needs clang; the preset fuzz chooses it")
    endif()
    add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
elseif(NASCTRL_SANITIZE STREQUAL "address")
    add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=undefined)
    add_link_options(-fsanitize=address,undefined)
elseif(NASCTRL_SANITIZE STREQUAL "thread")
    add_compile_options(-fsanitize=thread)
    add_link_options(-fsanitize=thread)
    # The thread sanitizer does not understand the fences that Asio puts around handlers; its locks order them too.
    add_compile_definitions(BOOST_ASIO_DISABLE_FENCED_BLOCK)
elseif(CMAKE_BUILD_TYPE STREQUAL "Release" OR CMAKE_BUILD_TYPE STREQUAL "RelWithDebInfo")
    add_compile_options(-D_FORTIFY_SOURCE=2 -fstack-protector-strong)
    add_link_options(-Wl,-z,relro,-z,now)
endif()

find_program(CCACHE ccache)
if(CCACHE)
    set(CMAKE_C_COMPILER_LAUNCHER ${CCACHE})
    set(CMAKE_CXX_COMPILER_LAUNCHER ${CCACHE})
endif()
