#include "nuv.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <execinfo.h>
#include <memory>
#include <unistd.h>

namespace Nuv {

RuntimeException::RuntimeException( const char* textPtr, int reason, int errorNbr )
    : myReason( reason )
    , myErrorNbr( errorNbr )
    , myText( textPtr )
{
}

RuntimeException::~RuntimeException() = default;

const char* RuntimeException::what() const
{
    if ( myBuilt )
        return myText.c_str();
    if ( myText.empty() )
        getReasonStr();
    if ( myReason != 0 || myErrorNbr != 0 ) {
        myText += " [" + std::to_string( myReason ) + "," + std::to_string( myErrorNbr ) + "]";
    }
    myBuilt = true;
    return myText.c_str();
}

void RuntimeException::getReasonStr() const
{
    myText = "<unknown reason>";
}

FixedTextException::FixedTextException( const char* textPtr )
{
    std::strncpy( myText, textPtr, nbrOfTextBytes - 1 );
    myText[nbrOfTextBytes - 1] = '\0';
}

namespace {

constexpr int maxNbrOfFrames = 128;

// True while this thread reports an assertion: a second one then throws without a log line.
thread_local bool ourReporting = false;

// Frame 0, the function that captures the stack, is left out.
__attribute__( ( noinline ) ) void appendStack( std::string* textPtr )
{
    void* frames[maxNbrOfFrames];
    const int nbrOfFrames = ::backtrace( frames, maxNbrOfFrames );
    if ( nbrOfFrames < 2 )
        return;
    const std::unique_ptr< char*, decltype( &std::free ) > symbols(
        ::backtrace_symbols( frames, nbrOfFrames ), &std::free );
    if ( !symbols )
        return;
    for ( int i = 1; i < nbrOfFrames; ++i ) {
        textPtr->append( "   " ).append( symbols.get()[i] ).append( "\n" );
    }
}

std::string buildMessage( const char* kindPtr, const char* filePtr, unsigned int line,
                          const char* conditionPtr, const char* extraPtr )
{
    std::string text = kindPtr;
    text.append( ": Condition failed: " ).append( conditionPtr );
    if ( extraPtr != nullptr )
        text.append( ",  " ).append( extraPtr );
    text.append( " (FILE: " ).append( filePtr );
    text.append( "  LINE: " ).append( std::to_string( line ) ).append( ")\n" );
    appendStack( &text );
    return text;
}

void report( const std::string& text )
{
    if ( ourReporting )
        return;
    ourReporting = true;
    AssertHelpers::emitFatalLine( text.data(), text.size() );
    ourReporting = false;
}

} // namespace

namespace AssertHelpers {

void doNuvAssert( const char* filePtr, unsigned int line, const char* conditionPtr,
                  const char* messagePtr )
{
    const std::string text = buildMessage( "nuvAssert", filePtr, line, conditionPtr, messagePtr );
    report( text );
    throw LogicException( text.c_str() );
}

void doNuvIf( const char* filePtr, unsigned int line, const char* conditionPtr )
{
    const std::string text = buildMessage( "nuvIf", filePtr, line, conditionPtr, nullptr );
    report( text );
    throw LogicException( text.c_str() );
}

void doCheckResource( const char* filePtr, unsigned int line, const char* conditionPtr )
{
    const int errorNbr = errno;
    char errorText[256];
    const std::string text =
        buildMessage( "nuvCheckResource", filePtr, line, conditionPtr,
                      ::strerror_r( errorNbr, errorText, sizeof( errorText ) ) );
    report( text );
    throw ResourceException( text.c_str() );
}

} // namespace AssertHelpers
} // namespace Nuv

void nuvAbort()
{
    ::sync();
    std::abort();
}
