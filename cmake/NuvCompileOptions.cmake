# Flags of everything that is built here; the library's own are added in lib/CMakeLists.txt.

# The position of an assertion is printed with the bare name of its file. ccache hands the compiler
# paths relative to the build folder; without it they are absolute.
cmake_path( RELATIVE_PATH CMAKE_SOURCE_DIR BASE_DIRECTORY ${CMAKE_BINARY_DIR}
            OUTPUT_VARIABLE relativeSource )
foreach( folder IN ITEMS lib/core tests/unit tests/process tests/peers tests/fuzz tests/support )
    if( NUV_CCACHE )
        add_compile_options( -fmacro-prefix-map=${relativeSource}/${folder}/= )
    else()
        add_compile_options( -fmacro-prefix-map=${CMAKE_SOURCE_DIR}/${folder}/= )
    endif()
endforeach()

add_compile_options( -fvisibility=hidden -fvisibility-inlines-hidden -pthread
                     -Wall -Wextra -Wshadow -Wformat=2 -Wundef -Wcast-align
                     -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast )
if( NUV_WERROR )
    add_compile_options( -Werror )
endif()
if( CMAKE_CXX_COMPILER_ID STREQUAL "Clang" )
    # The lock annotations are empty under g++; here they are checked.
    add_compile_options( -Wthread-safety -Werror=thread-safety )
endif()

if( NUV_SANITIZE )
    add_compile_options( -fsanitize=${NUV_SANITIZE} -fno-omit-frame-pointer )
    add_link_options( -fsanitize=${NUV_SANITIZE} )
    if( NUV_SANITIZE MATCHES "undefined" )
        add_compile_options( -fno-sanitize-recover=undefined )
    endif()
    if( NUV_FUZZ )
        add_compile_options( -fsanitize=fuzzer-no-link )
    endif()
else()
    add_link_options( -Wl,--no-undefined )
endif()
add_link_options( -pthread )
