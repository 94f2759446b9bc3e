#include "nuv.h"

#include <gtest/gtest.h>

TEST( NuvRuntimeException, WhatComposesTextReasonAndErrorNumber )
{
    EXPECT_STREQ( Nuv::RuntimeException( "read timed out", 0, 0 ).what(), "read timed out" );
    EXPECT_STREQ( Nuv::RuntimeException( "", 3, 5 ).what(), "<unknown reason> [3,5]" );
}
