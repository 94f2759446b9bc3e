// The first byte holds the flags, the second one after how many steps all outcomes are kept; then
// come pattern, NUL and subject. The match is the same whenever outcomes begin to be kept, lies
// within the subject, contains its groups, and is found without absurd work.

#include "nuvFuzz.h"
#include "nuvRegEx.h"
#include "nuvRegExMatcher.h"

#include <algorithm>
#include <string>
#include <vector>

namespace {

using namespace Nuv::Utils;
using NuvFuzz::require;

void checkGroups( const RegEx::SearchResults& results, const std::string& subject, bool isFound )
{
    require( results[0].isPartOfMatch() == isFound );
    for ( const RegEx::Subexpr& part : results ) {
        require( isFound || part.myStartPtr == nullptr );
        if ( part.myStartPtr != nullptr )
            require( part.myStartPtr >= results[0].myStartPtr && part.myStartPtr <= part.myEndPtr &&
                     part.myEndPtr <= results[0].myEndPtr &&
                     part.myEndPtr <= subject.c_str() + subject.size() );
    }
}

void compareWithKeeping( const RegEx& regEx, const std::string& subject, std::uint64_t nbrOfSteps,
                         const RegEx::SearchResults& results )
{
    const RegExPlan plan( regEx.program(), regEx.nbrOfGroups() );
    RegExScratch scratch;
    std::vector< RegExGroup > groups( results.size(),
                                      { RegExMatcher::noMatch, RegExMatcher::noMatch } );
    RegExMatcher matcher( plan, subject.c_str(), subject.size(), &scratch, nbrOfSteps );
    require( matcher.search( groups.data() ) == results[0].isPartOfMatch() );
    for ( std::size_t i = 0; i < groups.size(); ++i ) {
        const bool isSet = groups[i].myEnd != RegExMatcher::noMatch;
        require( isSet == ( results[i].myStartPtr != nullptr ) );
        require( !isSet || ( subject.c_str() + groups[i].myStart == results[i].myStartPtr &&
                             subject.c_str() + groups[i].myEnd == results[i].myEndPtr ) );
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    if ( nbrOfBytes < 2 )
        return 0;
    const std::string texts( reinterpret_cast< const char* >( dataPtr + 2 ), nbrOfBytes - 2 );
    const std::string pattern = texts.c_str();
    const std::string subject =
        texts.substr( std::min( pattern.size() + 1, texts.size() ) ).c_str();
    const unsigned int flags = dataPtr[0] & RegEx::caseInsensitive;
    const RegEx regEx( pattern.c_str(), flags | RegEx::silentCompile );
    RegEx::SearchResults results;
    const bool isFound = regEx.search( subject.c_str(), &results );
    const std::uint64_t size = subject.size() + 16;
    require( RegEx::lastNbrOfSteps() <= size * size * ( regEx.program().size() + 1u ) );
    checkGroups( results, subject, isFound );
    require( regEx.search( subject.c_str() ) == isFound );
    if ( regEx.isValid() && flags == 0 )
        compareWithKeeping( regEx, subject, dataPtr[1], results );
    std::string text;
    if ( isFound )
        RegEx::format( &text, pattern.c_str(), results );
    regEx.programText();
    return 0;
}
