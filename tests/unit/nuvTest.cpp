#include "nuv.h"
#include "nuvTestInterprocess.h"

#include <csignal>
#include <functional>
#include <string>
#include <tuple>
#include <unistd.h>
#include <utility>

using Nuv::LogicException;
using Nuv::ResourceException;
using Nuv::RuntimeException;

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
        EXPECT_STREQ( RuntimeException( exception ).what(), whatPtr ); // copied after composing
    }
}

TEST( NuvFixedTextException, KeepsTheFirst199Characters )
{
    const std::string text( 500, 'x' );
    const LogicException exception( text.c_str() );
    EXPECT_EQ( exception.what(), text.substr( 0, 199 ) );
    EXPECT_EQ( static_cast< const void* >( &exception ), exception.what() );
}

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
    for ( const auto& [fail, expected] : rows )
        NuvTest::expectFailure( expected + " (FILE: nuvTest.cpp  LINE: ", fail );
    const auto failHere = [] { nuvAssert( false ); };
    const std::string line = std::to_string( __LINE__ - 1 );
    NuvTest::expectFailure( " LINE: " + line + ")\n   ", failHere ); // the stack's lines follow
    EXPECT_THROW( failHere(), LogicException );
    EXPECT_THROW( nuvCheckResource( false ), ResourceException );
    EXPECT_NO_THROW( nuvAssert( 2 > 1, "two" ); nuvIf( true ); nuvCheckResource( true ) );
    EXPECT_FALSE( NuvTest::InterprocessFixture::exists( "shm_LogConfigManager" ) )
        << "a process that does not log only throws";
    EXPECT_EQ( NuvTest::runInChild( [] { nuvAbort(); } ).signal(), SIGABRT );
}
