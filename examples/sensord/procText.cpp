#include "procText.h"

#include <algorithm>
#include <charconv>
#include <limits>

namespace Sensor {

namespace {

/// Takes lines off the front of a text.
class Lines
{
public:
    explicit Lines( std::string_view text )
        : myRest( text )
    {
    }

    bool next( std::string_view* linePtr )
    {
        if ( myRest.empty() )
            return false;
        const std::size_t end = myRest.find( '\n' );
        *linePtr = myRest.substr( 0, end );
        myRest.remove_prefix( end == std::string_view::npos ? myRest.size() : end + 1 );
        return true;
    }

private:
    std::string_view myRest;
};

/// Takes words, separated by blanks, off the front of a line.
class Words
{
public:
    explicit Words( std::string_view line )
        : myRest( line )
    {
    }

    /// @return the next word, empty at the end
    std::string_view next()
    {
        skipBlanks();
        const std::size_t end = std::min( myRest.find_first_of( " \t" ), myRest.size() );
        const std::string_view word = myRest.substr( 0, end );
        myRest.remove_prefix( end );
        return word;
    }

    /// @return false, with *numberPtr unchanged, if the next word is no decimal number of its type
    template < class T >
    bool number( T* numberPtr )
    {
        return toNumber( next(), numberPtr );
    }

    std::string_view rest()
    {
        skipBlanks();
        return myRest;
    }

    template < class T >
    static bool toNumber( std::string_view word, T* numberPtr )
    {
        const char* const endPtr = word.data() + word.size();
        T value = 0;
        const auto result = std::from_chars( word.data(), endPtr, value );
        if ( result.ec != std::errc() || result.ptr != endPtr )
            return false;
        *numberPtr = value;
        return true;
    }

private:
    void skipBlanks()
    {
        const std::size_t begin = myRest.find_first_not_of( " \t" );
        myRest.remove_prefix( begin == std::string_view::npos ? myRest.size() : begin );
    }

    std::string_view myRest;
};

/// "eth0: 1 2 3 ...": eight numbers of what was received, eight of what was sent.
bool parseInterface( std::string_view line, Interface* interfacePtr )
{
    const std::size_t colon = line.rfind( ':' ); // an alias, "eth0:1", has one in its name
    if ( colon == std::string_view::npos )
        return false;
    interfacePtr->myName = Words( line.substr( 0, colon ) ).next();
    Words words( line.substr( colon + 1 ) );
    std::uint64_t numbers[16] = {};
    for ( std::uint64_t& number : numbers ) {
        if ( !words.number( &number ) )
            return false;
    }
    interfacePtr->myReceivedBytes = numbers[0];
    interfacePtr->myReceivedPackets = numbers[1];
    interfacePtr->myReceiveErrors = numbers[2];
    interfacePtr->myReceiveDrops = numbers[3];
    interfacePtr->mySentBytes = numbers[8];
    interfacePtr->mySentPackets = numbers[9];
    interfacePtr->mySendErrors = numbers[10];
    interfacePtr->mySendDrops = numbers[11];
    return !interfacePtr->myName.empty();
}

/// "1.25" is 125; more decimals are cut.
bool toHundredths( std::string_view word, std::uint32_t* hundredthsPtr )
{
    const std::size_t point = word.find( '.' );
    std::uint32_t whole = 0;
    std::uint32_t decimals = 0;
    if ( point == std::string_view::npos || word.size() < point + 3 ||
         !Words::toNumber( word.substr( 0, point ), &whole ) ||
         !Words::toNumber( word.substr( point + 1, 2 ), &decimals ) ||
         whole > ( std::numeric_limits< std::uint32_t >::max() - 99 ) / 100 )
        return false;
    *hundredthsPtr = whole * 100 + decimals;
    return true;
}

} // namespace

std::vector< Interface > parseNetDev( std::string_view text, unsigned int* nbrOfBadPtr )
{
    std::vector< Interface > interfaces;
    *nbrOfBadPtr = 0;
    Lines lines( text );
    std::string_view line;
    while ( lines.next( &line ) ) {
        if ( line.find( '|' ) != std::string_view::npos )
            continue; // heading
        Interface interface;
        if ( parseInterface( line, &interface ) )
            interfaces.push_back( std::move( interface ) );
        else
            ++*nbrOfBadPtr;
    }
    return interfaces;
}

bool parseMemInfo( std::string_view text, Memory* memoryPtr )
{
    bool hasTotal = false;
    bool hasAvailable = false;
    bool ignored = false;
    const struct
    {
        std::string_view myName;
        std::uint64_t* myValuePtr;
        bool* myFoundPtr;
    } fields[] = { { "MemTotal:", &memoryPtr->myTotal, &hasTotal },
                   { "MemFree:", &memoryPtr->myFree, &ignored },
                   { "MemAvailable:", &memoryPtr->myAvailable, &hasAvailable },
                   { "SwapTotal:", &memoryPtr->mySwapTotal, &ignored },
                   { "SwapFree:", &memoryPtr->mySwapFree, &ignored } };
    Lines lines( text );
    std::string_view line;
    while ( lines.next( &line ) ) {
        Words words( line );
        const std::string_view name = words.next();
        for ( const auto& field : fields ) {
            if ( name == field.myName && words.number( field.myValuePtr ) )
                *field.myFoundPtr = true;
        }
    }
    return hasTotal && hasAvailable;
}

bool parseLoadAvg( std::string_view text, Load* loadPtr )
{
    Words words( text.substr( 0, text.find( '\n' ) ) );
    Load load;
    if ( !toHundredths( words.next(), &load.myOneMinute ) ||
         !toHundredths( words.next(), &load.myFiveMinutes ) ||
         !toHundredths( words.next(), &load.myFifteenMinutes ) )
        return false;
    const std::string_view threads = words.next(); // "2/345": running, all
    const std::size_t slash = threads.find( '/' );
    if ( slash == std::string_view::npos ||
         !Words::toNumber( threads.substr( 0, slash ), &load.myNbrRunning ) ||
         !Words::toNumber( threads.substr( slash + 1 ), &load.myNbrOfThreads ) )
        return false;
    *loadPtr = load;
    return true;
}

std::vector< Interrupt > parseInterrupts( std::string_view text, unsigned int* nbrOfProcessorsPtr )
{
    std::vector< Interrupt > interrupts;
    *nbrOfProcessorsPtr = 0;
    Lines lines( text );
    std::string_view line;
    if ( !lines.next( &line ) )
        return interrupts;
    Words heading( line );
    while ( heading.next().substr( 0, 3 ) == "CPU" )
        ++*nbrOfProcessorsPtr;
    while ( *nbrOfProcessorsPtr > 0 && lines.next( &line ) ) {
        Words words( line );
        std::string_view name = words.next();
        if ( name.size() < 2 || name.back() != ':' )
            continue;
        name.remove_suffix( 1 );
        Interrupt interrupt{ std::string( name ), 0, {} };
        // Lines such as "ERR:" have one number for all processors.
        std::uint64_t number = 0;
        for ( unsigned int i = 0; i < *nbrOfProcessorsPtr; ++i ) {
            Words ahead = words;
            if ( !ahead.number( &number ) )
                break;
            words = ahead;
            interrupt.myTotal += number;
        }
        interrupt.myDescription = words.rest();
        interrupts.push_back( std::move( interrupt ) );
    }
    return interrupts;
}

} // namespace Sensor
