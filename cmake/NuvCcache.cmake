# Compiles through ccache where it is installed. Paths below the source folder are hashed relative to
# the build folder, so that several clones on one machine share what was compiled once.
find_program( NUV_CCACHE ccache )
mark_as_advanced( NUV_CCACHE )
if( NUV_CCACHE )
    set( CMAKE_CXX_COMPILER_LAUNCHER
         ${CMAKE_COMMAND};-E;env;CCACHE_BASEDIR=${CMAKE_SOURCE_DIR};CCACHE_NOHASHDIR=1;${NUV_CCACHE} )
endif()
