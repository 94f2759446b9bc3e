#pragma once

#include "nuv.h"

#include <algorithm>
#include <compare>
#include <concepts>
#include <cstddef>
#include <cstring>
#include <locale>
#include <ostream>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Nuv::Utils {

/// The standard string with trimming, tokens, case handling and conversion between widths: String
/// is the narrow one, StringW the wide one (wchar_t).
///
/// A string carries a scan position, where the next nextToken() starts, and the global locale of
/// its construction, which maps case and converts widths. A copy has the scan position and locale
/// of its source; assigning a String copies text and scan position; any other new text and any trim
/// set the scan position to 0.
///
/// Threads: one at a time.
/// Errors:  a null text or pointer fails nuvAssert where the member says so.
/// Example: String token; while ( line.nextToken( &token, "," ) ) use( token );
template < class Char >
class BasicString : public std::basic_string< Char >
{
public:
    using Text = std::basic_string< Char >;
    using View = std::basic_string_view< Char >;
    using OtherChar = std::conditional_t< std::same_as< Char, char >, wchar_t, char >;
    using Text::npos;

    BasicString() = default;
    BasicString( const Char* textPtr )
        : Text( textPtr )
    {
    }
    BasicString( const Char* textPtr, std::size_t length )
        : Text( textPtr, length )
    {
    }
    BasicString( std::size_t count, Char c )
        : Text( count, c )
    {
    }
    BasicString( const Text& text )
        : Text( text )
    {
    }
    BasicString( Text&& text ) noexcept
        : Text( std::move( text ) )
    {
    }
    BasicString( const Text& text, std::size_t pos, std::size_t count = npos )
        : Text( text, pos, count )
    {
    }
    explicit BasicString( View text )
        : Text( text )
    {
    }
    template < std::input_iterator Iterator >
    BasicString( Iterator first, Iterator last )
        : Text( first, last )
    {
    }
    /// Converts through the locale; a wide character without a narrow form becomes '.'.
    /// Null fails nuvAssert "s != NULL".
    explicit BasicString( const OtherChar* s );
    BasicString( const OtherChar* s, std::size_t length );

    BasicString( const BasicString& ) = default;
    BasicString( BasicString&& ) noexcept = default;
    virtual ~BasicString() = default;

    BasicString& operator=( const BasicString& other )
    {
        Text::operator=( other );
        myScanPos = other.myScanPos;
        return *this;
    }
    BasicString& operator=( BasicString&& other ) noexcept
    {
        Text::operator=( std::move( static_cast< Text& >( other ) ) );
        myScanPos = other.myScanPos;
        return *this;
    }
    BasicString& operator=( const Text& text ) { return setText( text ); }
    BasicString& operator=( Text&& text ) { return setText( std::move( text ) ); }
    BasicString& operator=( View text ) { return setText( text ); }
    BasicString& operator=( const Char* textPtr ) { return setText( textPtr ); }
    BasicString& operator=( Char c ) { return setText( c ); }

    /// Removes space, CR, LF and TAB.
    void trimLeft();
    void trimRight();

    /// Takes the next run of characters that are no delimiters, skipping the delimiters before it.
    /// @param tokenStrPtr its scan position becomes 0; cleared when there is no further token.
    ///        Null fails nuvAssert "tokenStrPtr != NULL".
    /// @return whether there was one
    bool nextToken( BasicString* tokenStrPtr, View delimiters );

    void makeUpper() { toupperHelper( *this, this ); }
    void makeLower() { tolowerHelper( *this, this ); }

    /// Writes the converted source into the target; they may be the same.
    void toupperHelper( const Text& source, Text* targetPtr ) const;
    void tolowerHelper( const Text& source, Text* targetPtr ) const;

    // On lower-cased copies of both; null fails nuvAssert "stringPtr != NULL".

    /// @return 0 when equal, else the sign of the first difference or of the lengths' difference
    int compareNoCase( const Char* stringPtr ) const;
    /// @return the offset or npos
    std::size_t findNoCase( const Char* stringPtr, std::size_t pos = 0 ) const;
    std::size_t rfindNoCase( const Char* stringPtr, std::size_t pos = npos ) const;

    /// Where the next nextToken() starts.
    std::size_t scanPos() const { return myScanPos; }

private:
    template < class Source >
    BasicString& setText( Source&& source )
    {
        Text::operator=( std::forward< Source >( source ) );
        myScanPos = 0;
        return *this;
    }
    Text lowered( const Text& source ) const;

    typename Text::size_type myScanPos = 0;
    std::locale myLocale;
};

extern template class NUV_API BasicString< char >;
extern template class NUV_API BasicString< wchar_t >;

using String = BasicString< char >;
using StringW = BasicString< wchar_t >;

/// The least owned character string: one pointer to a NUL-terminated array.
///
/// Threads: one at a time; empty ones share the byte nullChar, which is only read.
/// Errors:  a null text fails nuvAssert; std::bad_alloc leaves the old text.
/// Owns:    its array, except nullChar.
class NUV_API SimpleStr
{
public:
    static char nullChar;

    SimpleStr() = default;
    SimpleStr( const char* textPtr ) { alloc( textPtr ); }
    SimpleStr( const char* textPtr, std::size_t length ) { alloc( textPtr, length ); }
    SimpleStr( const SimpleStr& other ) { alloc( other.myPtr ); }
    SimpleStr( SimpleStr&& other ) noexcept
        : myPtr( std::exchange( other.myPtr, &nullChar ) )
    {
    }
    ~SimpleStr() { dealloc(); }

    SimpleStr& operator=( const char* textPtr )
    {
        alloc( textPtr );
        return *this;
    }
    SimpleStr& operator=( const SimpleStr& other )
    {
        if ( myPtr != other.myPtr )
            alloc( other.myPtr );
        return *this;
    }
    SimpleStr& operator=( SimpleStr&& other ) noexcept
    {
        std::swap( myPtr, other.myPtr );
        return *this;
    }

    /// Takes a copy of the text, which ends at length or at its NUL, in an array of length + 1
    /// bytes; length 0 allocates nothing. What was held is released; the text may be part of it.
    void alloc( const char* textPtr, std::size_t length );
    void alloc( const char* textPtr );
    void dealloc();
    void assign( const char* textPtr, std::size_t length ) { alloc( textPtr, length ); }

    const char* cStr() const { return myPtr; }
    bool empty() const { return *myPtr == '\0'; }
    operator std::string_view() const { return std::string_view( myPtr ); }

    friend bool operator==( const SimpleStr& a, const SimpleStr& b )
    {
        return std::strcmp( a.myPtr, b.myPtr ) == 0;
    }
    friend std::ostream& operator<<( std::ostream& stream, const SimpleStr& text )
    {
        return stream << text.myPtr;
    }

private:
    char* myPtr = &nullChar;
};

/// N characters in place, always NUL-terminated and padded with NULs; longer texts are cut
/// silently.
///
/// Trivially copyable and without pointers, so that it may lie in a record that processes share.
///
/// Bytes:   N characters, nothing else.
/// Errors:  none; a null text fails nuvAssert.
template < class Char, std::size_t N >
class FixedString
{
    static_assert( N > 0 );

public:
    using View = std::basic_string_view< Char >;

    /// Greatest number of characters that fit.
    static constexpr std::size_t maxLength = N - 1;

    constexpr FixedString() = default;
    constexpr FixedString( const Char* textPtr ) { *this = textPtr; }
    explicit constexpr FixedString( View text ) { *this = text; }

    constexpr FixedString& operator=( const Char* textPtr )
    {
        nuvAssert( textPtr != NULL );
        return *this = View( textPtr );
    }
    /// The text up to its first NUL. It may be part of this one.
    constexpr FixedString& operator=( View text )
    {
        text = text.substr( 0, std::min( { text.find( Char() ), text.size(), maxLength } ) );
        std::char_traits< Char >::move( myChars, text.data(), text.size() );
        std::fill( myChars + text.size(), myChars + N, Char() );
        return *this;
    }

    constexpr const Char* cStr() const { return myChars; }
    /// Ends at the first NUL, or at N if another process has destroyed the terminator.
    constexpr View view() const
    {
        const View all( myChars, N );
        return all.substr( 0, all.find( Char() ) );
    }
    constexpr operator View() const { return view(); }
    constexpr std::size_t length() const { return view().size(); }
    constexpr bool empty() const { return myChars[0] == Char(); }

    // Over all N characters; chars as unsigned values.
    friend constexpr bool operator==( const FixedString& a, const FixedString& b )
    {
        return View( a.myChars, N ) == View( b.myChars, N );
    }
    friend constexpr std::strong_ordering operator<=>( const FixedString& a, const FixedString& b )
    {
        return View( a.myChars, N ) <=> View( b.myChars, N );
    }
    friend std::basic_ostream< Char >& operator<<( std::basic_ostream< Char >& stream,
                                                   const FixedString& text )
    {
        return stream << text.view();
    }

private:
    Char myChars[N] = {};
};

static_assert( sizeof( FixedString< char, 16 > ) == 16 );
static_assert( std::is_trivially_copyable_v< FixedString< char, 16 > > );

} // namespace Nuv::Utils
