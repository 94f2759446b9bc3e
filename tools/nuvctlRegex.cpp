#include "nuvctl.h"
#include "nuvctlEncode.h"

#include "nuvRegEx.h"

#include <iostream>
#include <sstream>

namespace Nuv::Ctl {
namespace {

using Utils::RegEx;

/// A subject, what the pattern matches in it, and the work that took.
struct Search
{
    Search( const RegEx& regEx, const std::string& subject )
        : mySubject( subject )
        , myIsFound( regEx.search( mySubject.c_str(), &myResults ) )
        , myNbrOfSteps( RegEx::lastNbrOfSteps() )
    {
    }

    std::ptrdiff_t offsetOf( const char* ptr ) const { return ptr - mySubject.c_str(); }

    const std::string& mySubject;
    RegEx::SearchResults myResults;
    bool myIsFound;
    std::uint64_t myNbrOfSteps;
};

Json partJson( const Search& search, const RegEx::Subexpr& part )
{
    if ( part.myStartPtr == nullptr )
        return nullptr;
    return { { "from", search.offsetOf( part.myStartPtr ) },
             { "to", search.offsetOf( part.myEndPtr ) },
             { "text", bytesJson( part.text() ) },
             { "takesPart", part.isPartOfMatch() } };
}

Json searchJson( const Search& search, std::size_t line )
{
    Json json = { { "line", line }, { "steps", search.myNbrOfSteps }, { "match", nullptr } };
    if ( !search.myIsFound )
        return json;
    json["match"] = partJson( search, search.myResults[0] );
    json["groups"] = Json::array();
    for ( std::size_t i = 1; i < search.myResults.size(); ++i )
        json["groups"].push_back( partJson( search, search.myResults[i] ) );
    return json;
}

void printSearch( const Search& search )
{
    Table table( { "PART", "FROM", "TO", "TEXT" } );
    for ( std::size_t i = 0; search.myIsFound && i < search.myResults.size(); ++i ) {
        const RegEx::Subexpr& part = search.myResults[i];
        const std::string name = i == 0 ? "match" : "group " + std::to_string( i );
        if ( part.myStartPtr == nullptr )
            table.add( { name, "-", "-", "" } );
        else
            table.add( { name, std::to_string( search.offsetOf( part.myStartPtr ) ),
                         std::to_string( search.offsetOf( part.myEndPtr ) ),
                         std::string( part.text() ) } );
    }
    if ( !search.myIsFound )
        std::cout << "no match\n";
    table.print();
    std::cout << search.myNbrOfSteps << " steps\n";
}

/// The text itself, or the lines of standard input.
bool readSubjects( const std::string& text, std::vector< std::string >* subjectsPtr )
{
    if ( text != "-" ) {
        subjectsPtr->push_back( text );
        return true;
    }
    std::string bytes;
    if ( !readInput( text, &bytes ) )
        return false;
    std::istringstream stream( bytes );
    for ( std::string line; std::getline( stream, line ); )
        subjectsPtr->push_back( line );
    for ( const std::string& subject : *subjectsPtr ) {
        if ( subject.find( '\0' ) != std::string::npos )
            return complain( "a subject ends at its first NUL, and the input holds one" ), false;
    }
    return true;
}

Json programJson( const RegEx& regEx )
{
    Json lines = Json::array();
    std::istringstream stream( regEx.programText() );
    for ( std::string line; std::getline( stream, line ); )
        lines.push_back( line );
    return lines;
}

} // namespace

int searchRegex( const CommonOptions& common, const RegexOptions& options )
try {
    const RegEx regEx( options.myPattern.c_str(),
                       options.myIgnoresCase ? RegEx::caseInsensitive : 0u );
    std::vector< std::string > subjects;
    if ( options.myHasText && !readSubjects( options.myText, &subjects ) )
        return problem;
    Json json = { { "groups", regEx.nbrOfGroups() }, { "programSize", regEx.program().size() } };
    if ( options.myShowsProgram )
        json["program"] = programJson( regEx );
    if ( options.myShowsProgram && !common.myJson )
        std::cout << regEx.programText();
    bool isFound = !options.myHasText;
    json["searches"] = Json::array();
    for ( std::size_t i = 0; i < subjects.size(); ++i ) {
        const Search search( regEx, subjects[i] );
        isFound |= search.myIsFound;
        if ( common.myJson ) {
            json["searches"].push_back( searchJson( search, i + 1 ) );
        } else if ( search.myIsFound || subjects.size() == 1 ) {
            if ( subjects.size() > 1 )
                std::cout << "line " << i + 1 << ": " << printable( subjects[i] ) << '\n';
            printSearch( search );
        }
    }
    if ( common.myJson )
        printJson( json );
    else if ( !options.myHasText && !options.myShowsProgram )
        std::cout << regEx.nbrOfGroups() << " groups, program of " << regEx.program().size()
                  << " bytes\n";
    return isFound ? good : problem;
} catch ( const RegEx::Exception& exception ) {
    return complain( exception.what() ), wrongUsage;
}

} // namespace Nuv::Ctl
