// ipcActor: holds interprocess objects and works on them as lines of standard input say; a line of
// standard output answers each. At the end of its input it destroys what it holds.
//
//     semaphore NAME COUNT | segment NAME SIZE | fifo NAME SIZE | event NAME    created or joined
//     wait | post | peek | uses                                                 the semaphore
//     put TEXT | get                                                            the segment
//     write COUNT LENGTH ID | read                                              the ring
//     signal | await MS                                                         the event
//     drop             destroys all

#include "nuvEvent.h"
#include "nuvInterprocessFifo.h"
#include "nuvSemaphore.h"
#include "nuvSharedMemory.h"

#include <cstring>
#include <iostream>
#include <memory>
#include <sstream>
#include <string>

namespace {

using namespace Nuv;

std::unique_ptr< Mt::Semaphore > ourSemaphorePtr;
std::unique_ptr< Io::SharedMemory > ourSegmentPtr;
std::unique_ptr< Io::InterprocessFifo > ourFifoPtr;
std::unique_ptr< Mt::Event > ourEventPtr;

std::string made( bool isCreated )
{
    return isCreated ? "created" : "joined";
}

void drop()
{
    ourEventPtr.reset();
    ourFifoPtr.reset();
    ourSegmentPtr.reset();
    ourSemaphorePtr.reset();
}

std::string writeEntries( std::istream& arguments )
{
    int count = 0;
    std::size_t length = 0;
    std::string id;
    arguments >> count >> length >> id;
    for ( int i = 0; i < count; ++i ) {
        std::string text = id + " " + std::to_string( i ) + " ";
        text.resize( std::max( length, text.size() ), id[0] );
        ourFifoPtr->write( Utils::Buffer( text ) );
    }
    return std::to_string( ourFifoPtr->nbrOfDiscarded() );
}

std::string makeObject( const std::string& command, std::istream& arguments )
{
    std::string name;
    unsigned int number = 0;
    arguments >> name >> number;
    if ( command == "semaphore" ) {
        ourSemaphorePtr = std::make_unique< Mt::Semaphore >( name, number );
        return made( ourSemaphorePtr->isCreated() );
    }
    if ( command == "segment" ) {
        ourSegmentPtr =
            std::make_unique< Io::SharedMemory >( name, number, Io::SharedMemory::readWrite );
        return made( ourSegmentPtr->isCreated() );
    }
    if ( command == "fifo" ) {
        ourFifoPtr = std::make_unique< Io::InterprocessFifo >( name.c_str(), number );
        return made( ourFifoPtr->sharedMemory().isCreated() );
    }
    if ( command == "event" ) {
        ourEventPtr = std::make_unique< Mt::Event >( name );
        return "made";
    }
    return "unknown command";
}

std::string obey( const std::string& command, std::istream& arguments )
{
    std::string text;
    unsigned int timeoutMs = 0;
    if ( command == "wait" )
        return ourSemaphorePtr->wait() ? "taken" : "";
    if ( command == "post" )
        return ourSemaphorePtr->post() ? "posted" : "";
    if ( command == "peek" )
        return ourSemaphorePtr->peek() ? "taken" : "not taken";
    if ( command == "uses" )
        return std::to_string( ourSemaphorePtr->useCount() );
    if ( command == "put" && arguments >> text )
        return std::strcpy( ourSegmentPtr->memoryPtr(), text.c_str() );
    if ( command == "get" )
        return ourSegmentPtr->memoryPtr();
    if ( command == "write" )
        return writeEntries( arguments );
    if ( command == "read" ) {
        Utils::Buffer entry;
        return ourFifoPtr->read( &entry ) ? entry.str() : "-";
    }
    if ( command == "signal" ) {
        ourEventPtr->signal();
        return "signalled";
    }
    if ( command == "await" && arguments >> timeoutMs )
        return ourEventPtr->wait( timeoutMs ) ? "fired" : "timed out";
    if ( command == "drop" ) {
        drop();
        return "dropped";
    }
    return makeObject( command, arguments );
}

} // namespace

int main()
{
    std::string line;
    while ( std::getline( std::cin, line ) ) {
        std::istringstream arguments( line );
        std::string command;
        arguments >> command;
        try {
            std::cout << obey( command, arguments ) << std::endl;
        } catch ( const FixedTextException& exception ) {
            std::cout << exception.what() << std::endl;
        }
    }
    drop();
    return 0;
}
