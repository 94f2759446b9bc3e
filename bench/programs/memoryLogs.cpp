// A program that logs to one file.
#include "nuvLog.h"

#include "memoryReport.h"

int main()
{
    const Nuv::Log::Source source( Nuv::Log::warning, "memory" );
    for ( int i = 0; i < 1000; ++i )
        nuvLogTo( source ) << "line " << i;
    printMemoryReport();
}
