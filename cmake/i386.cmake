# The appliance's own width: 32-bit code made by the x86-64 machine's multilib compiler, with file
# offsets and times of 64 bits.
set( CMAKE_SYSTEM_NAME Linux )
set( CMAKE_SYSTEM_PROCESSOR i686 )
set( CMAKE_LIBRARY_ARCHITECTURE i386-linux-gnu )
set( CMAKE_CXX_FLAGS_INIT "-m32 -D_FILE_OFFSET_BITS=64 -D_TIME_BITS=64" )
set( CMAKE_SHARED_LINKER_FLAGS_INIT -m32 )
set( CMAKE_EXE_LINKER_FLAGS_INIT -m32 )
set( NUV_I386 ON )

# Not every kernel runs 32-bit programs. (The tests find out for themselves, in run-isolated.)
execute_process( COMMAND /lib/ld-linux.so.2 --version
                 RESULT_VARIABLE nuvRunOf32Bit OUTPUT_QUIET ERROR_QUIET )
if( NOT nuvRunOf32Bit EQUAL 0 )
    set( CMAKE_CROSSCOMPILING_EMULATOR qemu-i386 )
endif()
