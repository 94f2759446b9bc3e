#include "nuvUtils.h"

#include <cctype>
#include <unistd.h>

namespace Nuv::Utils {

void Handle::reset( int fd ) noexcept
{
    if ( myFd == fd )
        return;
    const int oldFd = std::exchange( myFd, fd );
    if ( oldFd >= 0 ) {
        const int savedErrno = errno;
        ::close( oldFd );
        errno = savedErrno;
    }
}

namespace {

bool isSpace( char c )
{
    return std::isspace( static_cast< unsigned char >( c ) ) != 0;
}

const char* skipSpace( const char* textPtr )
{
    while ( isSpace( *textPtr ) ) {
        ++textPtr;
    }
    return textPtr;
}

// The value of a digit, 36 for any other character. In no locale but the classic one are there
// more.
unsigned int digitValue( char c )
{
    if ( c >= '0' && c <= '9' )
        return static_cast< unsigned int >( c - '0' );
    if ( c >= 'a' && c <= 'z' )
        return static_cast< unsigned int >( c - 'a' ) + 10;
    if ( c >= 'A' && c <= 'Z' )
        return static_cast< unsigned int >( c - 'A' ) + 10;
    return 36;
}

// The base that the prefix tells; only a hexadecimal prefix is skipped.
unsigned int baseOfPrefix( const char** textPtrPtr )
{
    const char* const textPtr = *textPtrPtr;
    if ( textPtr[0] != '0' )
        return 10;
    if ( textPtr[1] != 'x' && textPtr[1] != 'X' )
        return 8;
    *textPtrPtr += 2;
    return 16;
}

void tell( char** endPtrPtr, const char* endPtr, bool* overflowPtr, bool overflow )
{
    if ( endPtrPtr != nullptr )
        *endPtrPtr = const_cast< char* >( endPtr );
    if ( overflowPtr != nullptr )
        *overflowPtr = overflow;
}

} // namespace

std::uint64_t strtou64( const char* textPtr, char** endPtrPtr, int base, bool* overflowPtr )
{
    nuvAssert( textPtr != NULL );
    if ( base < 0 || base == 1 || base > 36 ) {
        tell( endPtrPtr, textPtr, overflowPtr, false );
        return 0;
    }
    const char* ptr = skipSpace( textPtr );
    const bool isNegative = *ptr == '-';
    if ( *ptr == '-' || *ptr == '+' )
        ++ptr;
    const unsigned int radix =
        base == 0 ? baseOfPrefix( &ptr ) : static_cast< unsigned int >( base );
    while ( *ptr == '0' ) {
        ++ptr;
    }
    std::uint64_t value = 0;
    bool overflow = false;
    for ( ; !overflow && digitValue( *ptr ) < radix; ptr += overflow ? 0 : 1 ) {
        const std::uint64_t next = value * radix + digitValue( *ptr );
        overflow = next <= value;
        value = next;
    }
    tell( endPtrPtr, ptr, overflowPtr, overflow );
    return isNegative ? 0 - value : value;
}

std::int64_t strtoi64( const char* textPtr, char** endPtrPtr, int base, bool* overflowPtr )
{
    const std::int64_t value =
        static_cast< std::int64_t >( strtou64( textPtr, endPtrPtr, base, overflowPtr ) );
    const bool isNegative = *skipSpace( textPtr ) == '-';
    if ( overflowPtr != nullptr && ( isNegative ? value > 0 : value < 0 ) )
        *overflowPtr = true;
    return value;
}

} // namespace Nuv::Utils
