#pragma once

#include <cstdio>
#include <dirent.h>
#include <unistd.h>

/// Prints what the process holds: resident KiB, open files, threads.
inline void printMemoryReport()
{
    long size = 0;
    long resident = 0;
    if ( std::FILE* const filePtr = std::fopen( "/proc/self/statm", "r" ) ) {
        if ( std::fscanf( filePtr, "%ld %ld", &size, &resident ) != 2 )
            resident = 0;
        std::fclose( filePtr );
    }
    const auto count = []( const char* folderPtr ) {
        int n = 0;
        if ( ::DIR* const directoryPtr = ::opendir( folderPtr ) ) {
            while ( ::readdir( directoryPtr ) != nullptr )
                ++n;
            ::closedir( directoryPtr );
        }
        return n;
    };
    std::printf( "%ld %d %d\n", resident * ( ::sysconf( _SC_PAGESIZE ) / 1024 ),
                 count( "/proc/self/fd" ), count( "/proc/self/task" ) );
}
