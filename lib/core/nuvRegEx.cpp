#include "nuvRegEx.h"

#include "nuvRegExCompiler.h"
#include "nuvRegExMatcher.h"
#include "nuvRegExPlan.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <utility>

namespace Nuv::Utils {
namespace {

// What a thread's searches share, one after another.
struct ThreadSearch
{
    RegExScratch myScratch;
    std::array< RegExGroup, RegExProgram::maxNbrOfGroups + 1 > myGroups;
    std::uint64_t myNbrOfSteps = 0;
};

// Trivial, so that a search from an exit handler, behind the thread's own end, finds it made anew.
constinit thread_local ThreadSearch* ourThreadSearchPtr = nullptr;

struct ThreadSearchCleaner
{
    ~ThreadSearchCleaner() { delete std::exchange( ourThreadSearchPtr, nullptr ); }
};

ThreadSearch& threadSearch()
{
    if ( ourThreadSearchPtr == nullptr ) {
        static thread_local ThreadSearchCleaner ourCleaner;
        static_cast< void >( ourCleaner );
        ourThreadSearchPtr = new ThreadSearch();
    }
    return *ourThreadSearchPtr;
}

const CountedPtr< const RegExPlan > compile( const char* patternPtr, unsigned int flags )
{
    RegExCompiler compiler( patternPtr, ( flags & RegEx::caseInsensitive ) != 0 );
    Buffer program = compiler.compileProgram();
    return CountedPtr< const RegExPlan >(
        new RegExPlan( std::move( program ), compiler.nbrOfGroups() ) );
}

const char* fold( const char* subjectPtr, std::size_t size, std::vector< char >* foldedPtr )
{
    foldedPtr->resize( size + 1 );
    std::transform( subjectPtr, subjectPtr + size + 1, foldedPtr->begin(), []( char c ) {
        return static_cast< char >( std::tolower( static_cast< unsigned char >( c ) ) );
    } );
    return foldedPtr->data();
}

RegEx::Subexpr subexprOf( const char* subjectPtr, const RegExGroup& group )
{
    if ( group.myEnd == RegExMatcher::noMatch )
        return {};
    return { subjectPtr + group.myStart, subjectPtr + group.myEnd, group.myStart != group.myEnd };
}

// Reads the digits of a group's number in a template.
// @return the number, or some greater one than a group has
std::size_t groupNumber( const char** digitPtrPtr )
{
    std::size_t number = 0;
    for ( const char*& digitPtr = *digitPtrPtr; *digitPtr >= '0' && *digitPtr <= '9'; ++digitPtr )
        number = std::min< std::size_t >(
            number * 10 + static_cast< std::size_t >( *digitPtr - '0' ), 0xFFFF );
    return number;
}

} // namespace

RegEx::RegEx( const char* patternPtr, unsigned int flags )
    : myFlags( flags )
{
    nuvAssert( patternPtr != NULL );
    try {
        myPlanPtr = compile( patternPtr, flags );
    } catch ( const RegExSyntaxError& error ) {
        if ( ( flags & silentCompile ) == 0 )
            throw Exception( error.myTextPtr, 0, 0 );
    }
}

RegEx::RegEx( const RegEx& other ) = default;
RegEx::RegEx( RegEx&& other ) noexcept = default;
RegEx& RegEx::operator=( const RegEx& other ) = default;
RegEx& RegEx::operator=( RegEx&& other ) noexcept = default;
RegEx::~RegEx() = default;

bool RegEx::search( const char* subjectPtr, SearchResults* resultsPtr ) const
{
    nuvAssert( subjectPtr != NULL );
    if ( resultsPtr != nullptr )
        resultsPtr->assign( nbrOfGroups() + 1, Subexpr() );
    ThreadSearch& thread = threadSearch();
    thread.myNbrOfSteps = 0;
    if ( !isValid() )
        return false;
    const std::size_t size = std::strlen( subjectPtr );
    if ( size > RegExMatcher::maxSubjectSize )
        throw Exception( "Subject too long", 0, 0 );
    const char* const searchedPtr = ( myFlags & caseInsensitive ) != 0
                                        ? fold( subjectPtr, size, &thread.myScratch.myFolded )
                                        : subjectPtr;
    RegExMatcher matcher( *myPlanPtr, searchedPtr, size, &thread.myScratch );
    RegExGroup* const groupsPtr = resultsPtr == nullptr ? nullptr : thread.myGroups.data();
    std::fill_n( thread.myGroups.begin(), nbrOfGroups() + 1,
                 RegExGroup{ RegExMatcher::noMatch, RegExMatcher::noMatch } );
    const bool isFound = matcher.search( groupsPtr );
    thread.myNbrOfSteps = matcher.nbrOfSteps();
    thread.myScratch.trim();
    if ( isFound && resultsPtr != nullptr ) {
        for ( std::size_t i = 0; i < resultsPtr->size(); ++i )
            ( *resultsPtr )[i] = subexprOf( subjectPtr, thread.myGroups[i] );
        ( *resultsPtr )[0].myMatched = true;
    }
    return isFound;
}

void RegEx::format( std::string* outputPtr, const char* templatePtr, const SearchResults& results )
{
    nuvAssert( outputPtr != NULL && templatePtr != NULL );
    if ( results.empty() || !results[0].isPartOfMatch() )
        throw Exception( "Attempting replace on invalid search.", 0, 0 );
    for ( const char* charPtr = templatePtr; *charPtr != '\0'; ) {
        const char c = *charPtr++;
        const char following = c == '\\' ? *charPtr : '\0';
        if ( c == '&' ) {
            outputPtr->append( results[0].text() );
        } else if ( following >= '0' && following <= '9' ) {
            const std::size_t group = groupNumber( &charPtr );
            if ( group < results.size() )
                outputPtr->append( results[group].text() );
        } else if ( following == '\\' || following == '&' ) {
            outputPtr->push_back( *charPtr++ );
        } else {
            outputPtr->push_back( c );
        }
    }
}

unsigned int RegEx::nbrOfGroups() const
{
    return isValid() ? myPlanPtr->myNbrOfGroups : 0;
}

const Buffer& RegEx::program() const
{
    static const Buffer ourNone;
    return isValid() ? myPlanPtr->myProgram : ourNone;
}

std::string RegEx::programText() const
{
    return RegExProgram::listing( program() );
}

std::uint64_t RegEx::lastNbrOfSteps()
{
    return threadSearch().myNbrOfSteps;
}

} // namespace Nuv::Utils
