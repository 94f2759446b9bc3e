#include "nuvString.h"

#include <memory>
#include <new>

namespace Nuv::Utils {
namespace {

template < class Char >
constexpr std::basic_string_view< Char > trimSet();

template <>
constexpr std::string_view trimSet< char >()
{
    return " \r\n\t";
}

template <>
constexpr std::wstring_view trimSet< wchar_t >()
{
    return L" \r\n\t";
}

void convert( const std::ctype< wchar_t >& facet, const wchar_t* s, std::size_t length,
              char* outPtr )
{
    facet.narrow( s, s + length, '.', outPtr );
}

void convert( const std::ctype< wchar_t >& facet, const char* s, std::size_t length,
              wchar_t* outPtr )
{
    facet.widen( s, s + length, outPtr );
}

template < class Char >
std::size_t checkedLength( const Char* s )
{
    nuvAssert( s != NULL );
    return std::char_traits< Char >::length( s );
}

} // namespace

template < class Char >
BasicString< Char >::BasicString( const OtherChar* s, std::size_t length )
{
    nuvAssert( s != NULL );
    this->resize( length );
    convert( std::use_facet< std::ctype< wchar_t > >( myLocale ), s, length, this->data() );
}

template < class Char >
BasicString< Char >::BasicString( const OtherChar* s )
    : BasicString( s, checkedLength( s ) )
{
}

template < class Char >
void BasicString< Char >::trimLeft()
{
    this->erase( 0, std::min( this->find_first_not_of( trimSet< Char >() ), this->size() ) );
    myScanPos = 0;
}

template < class Char >
void BasicString< Char >::trimRight()
{
    this->erase( this->find_last_not_of( trimSet< Char >() ) + 1 ); // npos + 1 is 0
    myScanPos = 0;
}

template < class Char >
bool BasicString< Char >::nextToken( BasicString* tokenStrPtr, View delimiters )
{
    nuvAssert( tokenStrPtr != NULL );
    const std::size_t start = this->find_first_not_of( delimiters, myScanPos );
    const std::size_t stop = start == npos ? npos : this->find_first_of( delimiters, start );
    myScanPos = stop;
    if ( start == npos ) {
        tokenStrPtr->clear();
        return false;
    }
    *tokenStrPtr = this->substr( start, stop == npos ? npos : stop - start );
    return true;
}

template < class Char >
void BasicString< Char >::toupperHelper( const Text& source, Text* targetPtr ) const
{
    if ( targetPtr != &source )
        *targetPtr = source;
    Char* const dataPtr = targetPtr->data();
    std::use_facet< std::ctype< Char > >( myLocale )
        .toupper( dataPtr, dataPtr + targetPtr->size() );
}

template < class Char >
void BasicString< Char >::tolowerHelper( const Text& source, Text* targetPtr ) const
{
    if ( targetPtr != &source )
        *targetPtr = source;
    Char* const dataPtr = targetPtr->data();
    std::use_facet< std::ctype< Char > >( myLocale )
        .tolower( dataPtr, dataPtr + targetPtr->size() );
}

template < class Char >
typename BasicString< Char >::Text BasicString< Char >::lowered( const Text& source ) const
{
    Text result;
    tolowerHelper( source, &result );
    return result;
}

template < class Char >
int BasicString< Char >::compareNoCase( const Char* stringPtr ) const
{
    nuvAssert( stringPtr != NULL );
    return lowered( *this ).compare( lowered( stringPtr ) );
}

template < class Char >
std::size_t BasicString< Char >::findNoCase( const Char* stringPtr, std::size_t pos ) const
{
    nuvAssert( stringPtr != NULL );
    return lowered( *this ).find( lowered( stringPtr ), pos );
}

template < class Char >
std::size_t BasicString< Char >::rfindNoCase( const Char* stringPtr, std::size_t pos ) const
{
    nuvAssert( stringPtr != NULL );
    return lowered( *this ).rfind( lowered( stringPtr ), pos );
}

template class BasicString< char >;
template class BasicString< wchar_t >;

// SimpleStr

char SimpleStr::nullChar = '\0';

void SimpleStr::alloc( const char* textPtr, std::size_t length )
{
    nuvAssert( textPtr != NULL );
    std::unique_ptr< char[] > copyPtr;
    if ( length == std::string::npos ) // would wrap
        throw std::bad_array_new_length();
    if ( length != 0 ) {
        copyPtr.reset( new char[length + 1] );
        const std::size_t count = ::strnlen( textPtr, length );
        std::memcpy( copyPtr.get(), textPtr, count );
        copyPtr[count] = '\0';
    }
    dealloc();
    if ( copyPtr )
        myPtr = copyPtr.release();
}

void SimpleStr::alloc( const char* textPtr )
{
    nuvAssert( textPtr != NULL );
    alloc( textPtr, std::strlen( textPtr ) );
}

void SimpleStr::dealloc()
{
    if ( myPtr != &nullChar )
        delete[] myPtr;
    myPtr = &nullChar;
}

} // namespace Nuv::Utils
