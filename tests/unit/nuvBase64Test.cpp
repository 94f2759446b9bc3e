#include "nuvBase64.h"

#include "nuvTestSupport.h"

namespace Nuv::Utils {
namespace {

using namespace std::string_literals;

// Encodes, or decodes, in portions of this size.
std::string coded( bool isForward, const std::string& input, std::size_t portion = 1000 )
{
    Base64 base64( Base64::growOutput );
    Buffer output;
    for ( std::size_t i = 0; i < input.size(); i += portion ) {
        const Buffer piece( input.substr( i, portion ) );
        isForward ? base64.forwardUpdate( piece, &output ) : base64.reverseUpdate( piece, &output );
    }
    isForward ? base64.forwardFinal( &output ) : base64.reverseFinal( &output );
    EXPECT_EQ( '\0', *( output.data() + output.size() ) );
    return output.str();
}

template < class Action >
std::string failureOf( const Action& action )
{
    return NuvTest::textOf< Base64::Exception >( action );
}

const std::string invalidText = "Invalid Base64 encoded text [1,0]";
const std::string noCapacity = "Output buffer has insufficient capacity";

TEST( Base64Text, LeadsBackInAnyPortions )
{
    const std::pair< std::string, std::string > rows[] = {
        { "", "" },
        { "M", "TQ==" },
        { "Ma", "TWE=" },
        { "Man", "TWFu" },
        { "\xFB\xFF\xBF", "+/+/" },
        { "\0\1\2\3"s, "AAECAw==" },
        { std::string( 44, '\0' ), std::string( 59, 'A' ) + "=" }, // no full line: padded
        { std::string( 45, '\0' ), std::string( 60, 'A' ) + "\n" },
        { std::string( 91, '\0' ),
          std::string( 60, 'A' ) + "\n" + std::string( 60, 'A' ) + "\nAA==" } };
    for ( const auto& [bytes, text] : rows ) {
        for ( const std::size_t portion : { 1, 2, 3, 4, 5, 7, 46, 61, 1000 } ) {
            SCOPED_TRACE( text + " in " + std::to_string( portion ) );
            EXPECT_EQ( text, coded( true, bytes, portion ) );
            EXPECT_EQ( bytes, coded( false, text, portion ) );
        }
    }
    // Text before ours that fills the line gets its line feed after the next group.
    Buffer filled( 60, 'x' );
    Base64( Base64::growOutput ).forwardUpdate( "ManMan", &filled );
    EXPECT_EQ( std::string( 60, 'x' ) + "TWFu\nTWFu", filled.str() );
}

TEST( Base64Decoding, WhiteSpaceIsSkippedAndTheEndIsRespected )
{
    const std::pair< const char*, const char* > rows[] = {
        { " T\tW F\nu\r\rTWFu ", "ManMan" }, { "TQ==*ignored", "M" }, { "TQ=", "M" } };
    for ( const auto& [textPtr, bytesPtr] : rows )
        EXPECT_EQ( bytesPtr, coded( false, textPtr ) );
    // The padding may come in two portions, and another text after it.
    EXPECT_EQ( "M", coded( false, "TQ= =***", 4 ) );
    EXPECT_EQ( "MMan", coded( false, "TQ=\nTWFu", 4 ) );
    Base64 base64( Base64::growOutput );
    Buffer output;
    base64.reverseUpdate( Buffer( "TW\0**", 5 ), &output ); // a NUL ends a portion, not the text
    base64.reverseUpdate( "FuTWF", &output );
    base64.reverseUpdate( "uTW=", &output ); // the closest fit of the output
    EXPECT_EQ( "ManManM", output.str() );
}

TEST( Base64Decoding, WhatIsNoTextThrows )
{
    for ( const char* textPtr : { "T*", "=", "T=", "TWFu=", "TWF\x80", "TWFuT===", "TW-_", "TW\v",
                                  "T", "TWF", "TWFuTW" } )
        EXPECT_EQ( invalidText, failureOf( [&] { coded( false, textPtr ); } ) ) << textPtr;
    EXPECT_EQ( invalidText, failureOf( [] { coded( false, "TWE==", 4 ); } ) ); // one was enough
    Base64 base64( Base64::growOutput );
    Buffer output( "kept" );
    base64.reverseUpdate( "TWFuTW", &output );
    EXPECT_EQ( invalidText, failureOf( [&] { base64.reverseUpdate( "FuTWFu*", &output ); } ) );
    base64.reverseUpdate( "FuT", &output ); // what was pending before still is
    EXPECT_STREQ( "keptManMan", output.cStr() );
    EXPECT_EQ( invalidText, failureOf( [&] { base64.reverseFinal( &output ); } ) );
    EXPECT_EQ( "", failureOf( [&] { base64.reverseFinal( &output ); } ) );
    EXPECT_STREQ( "<Unknown Reason> [2,0]", Base64::Exception( "", 2, 0 ).what() );
}

TEST( Base64Capacity, IsAskedForBeforeAnythingChanges )
{
    Base64 base64, growing( Base64::growOutput );
    Buffer output( 8u ), decoded( 5u );
    EXPECT_EQ( noCapacity, failureOf( [&] { base64.forwardUpdate( "Man", &output ); } ) );
    output.reserve( 9 );
    base64.forwardUpdate( "Man", &output );
    base64.forwardUpdate( "M", &output ); // no group, no need
    output.reserve( 7 );
    EXPECT_EQ( noCapacity, failureOf( [&] { base64.forwardFinal( &output ); } ) );
    output.reserve( 8 );
    base64.forwardFinal( &output ); // still pending
    EXPECT_EQ( "TWFuTQ==", output.str() );
    EXPECT_EQ( noCapacity, failureOf( [&] { base64.reverseUpdate( "TWFu", &decoded ); } ) );
    growing.reverseUpdate( "TWFu", &decoded );
    EXPECT_EQ( "Man6", decoded.str() + std::to_string( decoded.capacity() ) );
    EXPECT_THROW( growing.handleOutputBufferCapacity( SIZE_MAX, &decoded ), std::bad_alloc );
}

} // namespace
} // namespace Nuv::Utils
