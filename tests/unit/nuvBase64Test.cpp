#include "nuvBase64.h"

#include <gtest/gtest.h>

#include <string>

namespace Nuv::Utils {
namespace {

using namespace std::string_literals;

std::string sample( std::size_t size )
{
    std::string bytes;
    for ( unsigned int i = 0; i < size; ++i )
        bytes += static_cast< char >( i * 151 + 3 );
    return bytes;
}

// Encodes or decodes in portions of a size each; 0 is all at once.
std::string encode( const std::string& bytes, std::size_t portion = 0,
                    unsigned int flags = Base64::growOutput )
{
    Base64 base64( flags );
    Buffer output;
    for ( std::size_t i = 0; i < bytes.size(); i += portion == 0 ? bytes.size() : portion )
        base64.forwardUpdate( bytes.substr( i, portion == 0 ? std::string::npos : portion ),
                              &output );
    base64.forwardFinal( &output );
    EXPECT_EQ( '\0', *( output.data() + output.size() ) );
    return output.str();
}

std::string decode( const std::string& text, std::size_t portion = 0 )
{
    Base64 base64( Base64::growOutput );
    Buffer output;
    for ( std::size_t i = 0; i < text.size(); i += portion == 0 ? text.size() : portion )
        base64.reverseUpdate( text.substr( i, portion == 0 ? std::string::npos : portion ),
                              &output );
    base64.reverseFinal( &output );
    EXPECT_EQ( '\0', *( output.data() + output.size() ) );
    return output.str();
}

template < class Action >
std::string failureOf( Action action )
{
    try {
        action();
    } catch ( const Base64::Exception& exception ) {
        return exception.what();
    }
    return "";
}

const std::string invalidText = "Invalid Base64 encoded text [1,0]";
const std::string noCapacity = "Output buffer has insufficient capacity";

TEST( Base64Encoding, KnownTexts )
{
    EXPECT_EQ( "", encode( "" ) );
    EXPECT_EQ( "TQ==", encode( "M" ) );
    EXPECT_EQ( "TWE=", encode( "Ma" ) );
    EXPECT_EQ( "TWFu", encode( "Man" ) );
    EXPECT_EQ( "+/+/", encode( "\xFB\xFF\xBF" ) );
    EXPECT_EQ( "AAECAwQFBgc=", encode( "\0\1\2\3\4\5\6\7"s ) );
}

TEST( Base64Encoding, LinesHoldSixtyCharacters )
{
    const std::string line = encode( sample( 42 ) ) + encode( sample( 45 ).substr( 42 ) );
    EXPECT_EQ( line + "\n", encode( sample( 45 ) ) );
    Base64 base64( Base64::growOutput );
    Buffer output;
    base64.forwardUpdate( sample( 46 ), &output );
    EXPECT_EQ( line + "\n", output.str() );
    base64.forwardFinal( &output );
    EXPECT_EQ( 65u, output.size() );
    EXPECT_EQ( line, encode( sample( 44 ) ).substr( 0, 56 ) + line.substr( 56 ) );
    EXPECT_EQ( std::string::npos, encode( sample( 44 ) ).find( '\n' ) ); // padded, 60 characters
    // Text before ours that fills the line gets its line feed after the next group.
    Buffer filled( 60, 'x' );
    base64.forwardUpdate( sample( 48 ), &filled );
    EXPECT_EQ( std::string( 60, 'x' ) + line.substr( 0, 4 ) + "\n" +
                   encode( sample( 48 ).substr( 3 ) ),
               filled.str() );
}

TEST( Base64Encoding, PortionsDoNotMatterAndDecodeLeadsBack )
{
    for ( const std::size_t size : { 1, 2, 3, 44, 45, 46, 47, 89, 90, 91, 200 } ) {
        const std::string bytes = sample( size );
        const std::string text = encode( bytes );
        for ( const std::size_t portion : { 1, 2, 3, 4, 5, 7, 46, 61 } ) {
            SCOPED_TRACE( testing::Message() << size << " in " << portion );
            EXPECT_EQ( text, encode( bytes, portion ) );
            EXPECT_EQ( bytes, decode( text, portion ) );
        }
        EXPECT_EQ( bytes, decode( text ) );
    }
}

TEST( Base64Decoding, WhiteSpaceIsSkippedAndTheEndIsRespected )
{
    EXPECT_EQ( "ManMa", decode( "TWFu\r\nTWE=" ) );
    EXPECT_EQ( "ManMan", decode( " T\tW F\nu\r\rTWFu " ) );
    EXPECT_EQ( "M", decode( "TQ==*ignored" ) );
    EXPECT_EQ( "M", decode( "TQ=" ) );
    EXPECT_EQ( "\xFB\xFF\xBF", decode( "+/+/" ) );
    // A NUL ends a portion, not the text.
    Base64 base64( Base64::growOutput );
    Buffer output;
    base64.reverseUpdate( "TW\0**"s, &output );
    base64.reverseUpdate( "Fu", &output );
    EXPECT_EQ( "Man", output.str() );
    // The padding may come in two portions, and another text after it.
    EXPECT_EQ( "M", decode( "TQ= =***", 4 ) );
    EXPECT_EQ( "MMan", decode( "TQ=\nTWFu", 4 ) );
    // Three pending characters, a quartet and a half to come: the closest fit of the output.
    base64.reverseUpdate( "TWF", &output );
    base64.reverseUpdate( "uTW=", &output );
    EXPECT_EQ( "ManManM", output.str() );
}

TEST( Base64Decoding, WhatIsNoTextThrows )
{
    for ( const char* textPtr : { "T*", "=", "T=", "TWFu=", "TWF\x80", "TWFuT===", "\xFF", "TW-_",
                                  "TW\v", "T", "TW", "TWF", "TWFuTW" } ) {
        SCOPED_TRACE( textPtr );
        EXPECT_EQ( invalidText, failureOf( [&] { decode( textPtr ); } ) );
    }
    EXPECT_EQ( invalidText, failureOf( [] { decode( "TWE==", 4 ); } ) ); // one '=' was enough
    Base64 base64( Base64::growOutput );
    Buffer output( "kept" );
    base64.reverseUpdate( "TWFuTW", &output );
    EXPECT_EQ( invalidText, failureOf( [&] { base64.reverseUpdate( "FuTWFu*", &output ); } ) );
    EXPECT_STREQ( "keptMan", output.cStr() );
    base64.reverseUpdate( "Fu", &output ); // what was pending before still is
    EXPECT_STREQ( "keptManMan", output.cStr() );
    base64.reverseUpdate( "T", &output );
    EXPECT_EQ( invalidText, failureOf( [&] { base64.reverseFinal( &output ); } ) );
    EXPECT_EQ( "", failureOf( [&] { base64.reverseFinal( &output ); } ) );
}

TEST( Base64Capacity, IsAskedForBeforeAnythingChanges )
{
    const Base64 sizes;
    EXPECT_EQ( 5u, sizes.suggestedForwardOutputReserve( 0 ) );
    EXPECT_EQ( 9u, sizes.suggestedForwardOutputReserve( 3 ) );
    EXPECT_EQ( 66u, sizes.suggestedForwardOutputReserve( 45 ) );
    EXPECT_EQ( 3u, sizes.suggestedReverseOutputReserve( 0 ) );
    EXPECT_EQ( 6u, sizes.suggestedReverseOutputReserve( 4 ) );

    Base64 base64;
    Buffer output;
    EXPECT_EQ( noCapacity, failureOf( [&] { base64.forwardUpdate( "Man", &output ); } ) );
    output.reserve( 8 );
    EXPECT_EQ( noCapacity, failureOf( [&] { base64.forwardUpdate( "Man", &output ); } ) );
    EXPECT_EQ( "", output.str() );
    output.reserve( 9 );
    base64.forwardUpdate( "Man", &output );
    base64.forwardUpdate( "M", &output ); // no group, no need
    output.reserve( 7 );
    EXPECT_EQ( noCapacity, failureOf( [&] { base64.forwardFinal( &output ); } ) );
    output.reserve( 8 );
    base64.forwardFinal( &output ); // still pending
    EXPECT_EQ( "TWFuTQ==", output.str() );
    EXPECT_EQ( 8u, output.capacity() );

    Buffer decoded( 5 );
    EXPECT_EQ( noCapacity, failureOf( [&] { base64.reverseUpdate( "TWFu", &decoded ); } ) );
    decoded.reserve( 6 );
    base64.reverseUpdate( "TWFu", &decoded );
    EXPECT_EQ( "Man", decoded.str() );

    Base64 growing( Base64::growOutput );
    growing.reverseUpdate( "TWFu", &decoded ); // 3 of 6 bytes are free
    EXPECT_EQ( 3u + 6u, decoded.capacity() );
    EXPECT_THROW( growing.handleOutputBufferCapacity( SIZE_MAX, &decoded ), std::bad_alloc );
}

TEST( Base64Exception, UnknownReasonHasAText )
{
    EXPECT_STREQ( "<Unknown Reason> [2,0]", Base64::Exception( "", 2, 0 ).what() );
}

TEST( TransformAlgorithmBase, OffersNothing )
{
    TransformAlgorithm base( 5 );
    EXPECT_EQ( 5u, base.flags() );
    Buffer output;
    const auto textOf = [&]( auto action ) -> std::string {
        try {
            action();
        } catch ( const LogicException& exception ) {
            return exception.what();
        }
        return "";
    };
    const std::string prefix = "nuvAssert: Condition failed: false,  ";
    EXPECT_EQ(
        0u, textOf( [&] {
                base.forwardUpdate( Buffer(), &output );
            } ).find( prefix + "forwardUpdate not implemented (FILE: nuvTransformAlgorithm.cpp" ) );
    EXPECT_EQ( 0u, textOf( [&] {
                       base.reverseUpdate( Buffer(), &output );
                   } ).find( prefix + "reverseUpdate not implemented (" ) );
    EXPECT_EQ( 0u, textOf( [&] {
                       base.forwardFinal( &output );
                   } ).find( prefix + "forwardFinal not implemented (" ) );
    EXPECT_EQ( 0u, textOf( [&] {
                       base.reverseFinal( &output );
                   } ).find( prefix + "reverseFinal not implemented (" ) );
}

} // namespace
} // namespace Nuv::Utils
