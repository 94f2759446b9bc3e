#include "nuvGetopt.h"

#include <cstdio>
#include <cstring>

namespace Nuv {

char* optarg = nullptr;
int optind = 1;
int opterr = 1;
int optopt = '?';

namespace {

// Where the next option character stands: its argument and the index within that.
int ourArgument = 1;
std::size_t ourIndex = 1;

char ourEmptyText[1] = "";

void gotoArgument( int argument )
{
    optind = argument;
    ourArgument = argument;
    ourIndex = 1;
}

bool isLetterOrDigit( char c )
{
    return ( c >= 'A' && c <= 'Z' ) || ( c >= 'a' && c <= 'z' ) || ( c >= '0' && c <= '9' );
}

// The argument of an option: what follows it in its own argument, else the next one, else empty.
void takeArgument( int argc, char* const argv[], char c, bool isSilent )
{
    char* const restPtr = argv[optind] + ourIndex + 1;
    if ( *restPtr != '\0' ) {
        optarg = restPtr;
        gotoArgument( optind + 1 );
    } else if ( optind + 1 < argc && argv[optind + 1] != nullptr ) {
        optarg = argv[optind + 1];
        gotoArgument( optind + 2 );
    } else {
        if ( !isSilent )
            std::fprintf( stderr, "Required argument for -%c option missing.\n", c );
        optarg = ourEmptyText;
        gotoArgument( optind + 1 );
    }
}

int reject( char c, const char* prefixPtr, bool isSilent )
{
    if ( !isSilent )
        std::fprintf( stderr, "%s%c\".\n", prefixPtr, c );
    optopt = static_cast< unsigned char >( c );
    return '?';
}

} // namespace

int getopt( int argc, char* const argv[], const char* optionsPtr )
{
    optarg = nullptr;
    if ( optind < 0 || optind >= argc || argv[optind] == nullptr )
        return -1;
    const bool isSilent = *optionsPtr == ':' || opterr == 0;
    const char* const argumentPtr = argv[optind];
    if ( argumentPtr[0] != '-' || argumentPtr[1] == '\0' )
        return -1;
    // The caller may have set optind, or go through another argv.
    if ( ourArgument != optind || ourIndex >= std::strlen( argumentPtr ) )
        gotoArgument( optind );

    const char c = argumentPtr[ourIndex];
    if ( c == '-' ) {
        gotoArgument( optind + 1 );
        return -1;
    }
    int result = static_cast< unsigned char >( c );
    const char* const foundPtr = isLetterOrDigit( c ) ? std::strchr( optionsPtr, c ) : nullptr;
    if ( !isLetterOrDigit( c ) ) {
        result = reject( c, "Illegal option \"", isSilent );
    } else if ( foundPtr == nullptr ) {
        result = reject( c, "Unknown option \"-", isSilent );
    } else if ( foundPtr[1] == ':' ) {
        takeArgument( argc, argv, c, isSilent );
        return result;
    }
    if ( argumentPtr[++ourIndex] == '\0' )
        gotoArgument( optind + 1 );
    return result;
}

} // namespace Nuv
