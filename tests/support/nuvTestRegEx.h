#pragma once

#include "nuvRegEx.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace NuvTest {

// The offsets of the match and each group: of number n 2n is the start, 2n + 1 the end.
using Ends = std::vector< std::size_t >;
inline constexpr std::size_t none = std::string::npos;

// "start-end" of each, with '!' for a group that takes no part; "none" if nothing matched.
inline std::string textOf( const Ends& ends )
{
    std::string text;
    for ( std::size_t i = 0; i < ends.size(); i += 2 ) {
        text += i == 0 ? "" : " ";
        if ( ends[i + 1] != none )
            text += std::to_string( ends[i] ) + "-" + std::to_string( ends[i + 1] );
        text += i != 0 && ends[i] == ends[i + 1] ? "!" : "";
    }
    return ends[1] == none ? "none" : text;
}

inline std::string matchOf( const Nuv::Utils::RegEx& regEx, const std::string& subject )
{
    Nuv::Utils::RegEx::SearchResults results;
    const bool isFound = regEx.search( subject.c_str(), &results );
    Ends ends;
    for ( const Nuv::Utils::RegEx::Subexpr& part : results ) {
        const bool isSet = part.myStartPtr != nullptr;
        const bool isWhole = &part == results.data();
        EXPECT_EQ( isWhole ? isFound : part.myStartPtr != part.myEndPtr, part.isPartOfMatch() );
        ends.push_back( isSet ? static_cast< std::size_t >( part.myStartPtr - subject.c_str() )
                              : none );
        ends.push_back( isSet ? ends.back() + part.text().size() : none );
    }
    return textOf( ends );
}

} // namespace NuvTest
