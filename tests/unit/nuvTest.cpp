#include "nuv.h"
#include "nuvTestSupport.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <gtest/gtest.h>
#include <string>
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
    const struct
    {
        const char* textPtr;
        int reason;
        int errorNbr;
        const char* whatPtr;
    } cases[] = {
        { "", 0, 0, "<unknown reason>" },
        { "", 4, 0, "<unknown reason> [4,0]" },
        { "late", 0, 0, "late" },
        { "late", 2, 0, "late [2,0]" },
        { "late", 0, 13, "late [0,13]" },
        { "late", -1, -2147483647, "late [-1,-2147483647]" },
        { "late [1,2]", 0, 5, "late [1,2] [0,5]" },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.whatPtr );
        const RuntimeException exception( row.textPtr, row.reason, row.errorNbr );
        EXPECT_STREQ( exception.what(), row.whatPtr );
        EXPECT_STREQ( exception.what(), row.whatPtr );
        EXPECT_STREQ( RuntimeException( exception ).what(), row.whatPtr ); // copied after composing
        EXPECT_EQ( exception.reason(), row.reason );
        EXPECT_EQ( exception.errorNbr(), row.errorNbr );
    }
}

TEST( NuvRuntimeException, DerivedClassGivesTheTextOfItsReasons )
{
    EXPECT_STREQ( ReasonedException( 1 ).what(), "first reason [1,0]" );
    EXPECT_THROW( ReasonedException( 2 ).what(), LogicException );
    const RuntimeException& base = ReasonedException( 1 );
    EXPECT_STREQ( base.what(), "first reason [1,0]" );
}

TEST( NuvFixedTextException, KeepsTheFirst199Characters )
{
    const std::string text( 500, 'x' );
    const LogicException exception( text.c_str() );
    EXPECT_EQ( exception.what(), text.substr( 0, 199 ) );
    EXPECT_EQ( static_cast< const void* >( &exception ), exception.what() );
    EXPECT_EQ( ResourceException( "short" ).what(), std::string( "short" ) );
}

TEST( NuvAssertion, MessageHoldsConditionExtraAndPosition )
{
    static const char* const nullPtr = nullptr;
    static int line = 0;
    const struct
    {
        void ( *failPtr )();
        std::string text;
    } cases[] = {
        { [] {
             line = __LINE__ + 1;
             nuvAssert( line < 5 && nullPtr != NULL );
         },
          "nuvAssert: Condition failed: line < 5 && nullPtr != NULL" },
        { [] {
             line = __LINE__ + 1;
             nuvAssert( line == 5, "five" );
         },
          "nuvAssert: Condition failed: line == 5,  five" },
        { [] {
             line = __LINE__ + 1;
             nuvAssert( line == 5, "" );
         },
          "nuvAssert: Condition failed: line == 5,  " },
        { [] {
             line = __LINE__ + 1;
             nuvAssert( line == 5, nullPtr );
         },
          "nuvAssert: Condition failed: line == 5" },
        { [] {
             line = __LINE__ + 1;
             nuvAssertText( line == 5, "given text" );
         },
          "nuvAssert: Condition failed: given text" },
        { [] {
             line = __LINE__ + 1;
             nuvIf( line == 5 );
         },
          "nuvIf: Condition failed: line == 5" },
        { [] {
             line = __LINE__ + 1;
             nuvCheckResource( ::write( -1, "x", 1 ) == 1 );
         },
          "nuvCheckResource: Condition failed: ::write( -1, \"x\", 1 ) == 1,  " +
              std::string( std::strerror( EBADF ) ) },
    };
    for ( const auto& row : cases ) {
        SCOPED_TRACE( row.text );
        const std::string text = row.text.starts_with( "nuvCheck" )
                                     ? textOf< ResourceException >( row.failPtr )
                                     : textOf< LogicException >( row.failPtr );
        const std::string head =
            row.text + " (FILE: nuvTest.cpp  LINE: " + std::to_string( line ) + ")\n";
        // The stack's lines follow; they do not fit into the exception's 199 characters.
        EXPECT_EQ( text.substr( 0, head.size() + 3 ), head + "   " );
        EXPECT_EQ( text.size(), 199U );
    }
    EXPECT_NO_THROW( nuvAssert( line != 5, "five" ); nuvIf( true ); nuvCheckResource( true ) );
}

TEST( NuvAssertion, FailureInsideTheConditionOfAnotherIsThrownAsItIs )
{
    const auto inner = [] {
        nuvAssert( 1 > 2 );
        return true;
    };
    EXPECT_EQ( textOf< LogicException >( [&] {
                   nuvAssert( inner() );
               } ).find( "nuvAssert: Condition failed: 1 > 2" ),
               0U );
}

TEST( NuvAbort, EndsTheProcessBySignal )
{
    EXPECT_EQ( NuvTest::runInChild( [] { nuvAbort(); } ).signal(), SIGABRT );
}
