#include "nuv.h"
#include "nuvTestSupport.h"

#include <csignal>
#include <cstdlib>
#include <functional>
#include <gtest/gtest.h>
#include <string>
#include <tuple>
#include <unistd.h>

using Nuv::LogicException;
using Nuv::ResourceException;
using Nuv::RuntimeException;

namespace {

class ReasonedException : public RuntimeException
{
public:
    explicit ReasonedException( int reason )
        : RuntimeException( "", reason, 0 )
    {
    }
    void getReasonStr() const override
    {
        nuvAssert( myReason == 1 );
        myText = "first reason";
    }
};

// @return the thrown text of a statement that must throw Exception
template < class Exception, class Statement >
std::string textOf( Statement statement )
{
    try {
        statement();
    } catch ( const Exception& exception ) {
        return exception.what();
    }
    ADD_FAILURE() << "nothing was thrown";
    return "";
}

} // namespace

TEST( NuvRuntimeException, WhatComposesTextReasonAndErrorNumberOnce )
{
    const std::tuple< const char*, int, int, const char* > rows[] = {
        { "", 0, 0, "<unknown reason>" },
        { "", 4, 0, "<unknown reason> [4,0]" },
        { "late", 2, 0, "late [2,0]" },
        { "late", 0, 13, "late [0,13]" },
        { "late", -1, -2147483647, "late [-1,-2147483647]" },
        { "late [1,2]", 0, 5, "late [1,2] [0,5]" },
    };
    for ( const auto& [textPtr, reason, errorNbr, whatPtr] : rows ) {
        const RuntimeException exception( textPtr, reason, errorNbr );
        EXPECT_STREQ( exception.what(), whatPtr );
        EXPECT_STREQ( exception.what(), whatPtr );
        EXPECT_STREQ( RuntimeException( exception ).what(), whatPtr ); // copied after composing
        EXPECT_EQ( exception.reason(), reason );
        EXPECT_EQ( exception.errorNbr(), errorNbr );
    }
}

TEST( NuvRuntimeException, DerivedClassGivesTheTextOfItsReasons )
{
    EXPECT_STREQ( ReasonedException( 1 ).what(), "first reason [1,0]" );
    EXPECT_THROW( ReasonedException( 2 ).what(), LogicException );
}

TEST( NuvFixedTextException, KeepsTheFirst199Characters )
{
    const std::string text( 500, 'x' );
    const LogicException exception( text.c_str() );
    EXPECT_EQ( exception.what(), text.substr( 0, 199 ) );
    EXPECT_EQ( static_cast< const void* >( &exception ), exception.what() );
}

constexpr int ourFirstLine = __LINE__;

TEST( NuvAssertion, MessageHoldsConditionExtraAndPosition )
{
    const char* const nullPtr = nullptr;
    const std::pair< std::function< void() >, std::string > rows[] = {
        { [=] { nuvAssert( 1 > 2 && nullPtr != NULL ); },
          "nuvAssert: Condition failed: 1 > 2 && nullPtr != NULL" },
        { [] { nuvAssert( 1 > 2, "extra" ); }, "nuvAssert: Condition failed: 1 > 2,  extra" },
        { [] { nuvAssert( 1 > 2, "" ); }, "nuvAssert: Condition failed: 1 > 2,  " },
        { [=] { nuvAssert( 1 > 2, nullPtr ); }, "nuvAssert: Condition failed: 1 > 2" },
        { [] { nuvAssertText( 1 > 2, "given" ); }, "nuvAssert: Condition failed: given" },
        { [] { nuvIf( 1 > 2 ); }, "nuvIf: Condition failed: 1 > 2" },
        { [] { nuvCheckResource( ::close( -1 ) == 0 ); },
          "nuvCheckResource: Condition failed: ::close( -1 ) == 0,  Bad file descriptor" } };
    for ( const auto& [fail, expected] : rows ) {
        SCOPED_TRACE( expected );
        const std::string text = expected.starts_with( "nuvCheck" )
                                     ? textOf< ResourceException >( fail )
                                     : textOf< LogicException >( fail );
        const std::string head = expected + " (FILE: nuvTest.cpp  LINE: ";
        EXPECT_EQ( text.substr( 0, head.size() ), head );
        // The stack's lines follow; they do not fit into the exception's 199 characters.
        const std::string rest = text.substr( std::min( head.size(), text.size() ) );
        const int line = std::atoi( rest.c_str() );
        EXPECT_EQ( rest.substr( 0, rest.find( '\n' ) + 4 ), std::to_string( line ) + ")\n   " );
        EXPECT_TRUE( ourFirstLine < line && line < __LINE__ ) << line;
        EXPECT_EQ( text.size(), 199U );
    }
    EXPECT_NO_THROW( nuvAssert( 2 > 1, "two" ); nuvIf( true ); nuvCheckResource( true ) );
}

TEST( NuvAbort, EndsTheProcessBySignal )
{
    EXPECT_EQ( NuvTest::runInChild( [] { nuvAbort(); } ).signal(), SIGABRT );
}
