#include "nuvArchiver.h"

#include "nuvTestSupport.h"
#include "nuvUtils.h"

#include <sstream>
#include <thread>
#include <tuple>

namespace Nuv::Utils {
namespace {

using namespace std::string_literals;
using NuvTest::textOf;

const std::string header = "\xC5\xC0\0\0\0\1"s;

// Holds another object.
struct Node : Archiveable
{
    explicit Node( const char* namePtr, Archiveable* childPtr = nullptr )
        : myNamePtr( namePtr )
        , myChildPtr( childPtr )
    {
    }
    const char* className() const override { return myNamePtr; }
    void writeTo( OutputArchiver& out ) const override { out.writeObject( myChildPtr.get() ); }
    void readFrom( InputArchiver& in ) override { myChildPtr = in.readObject(); }

    const char* myNamePtr;
    Ptr< Archiveable > myChildPtr;
};

void registerNodes()
{
    classTableBuilderFuncPtr()->add( "A", []() -> Archiveable* { return new Node( "A" ); } );
    classTableBuilderFuncPtr()->add( "B", []() -> Archiveable* { return new Node( "B" ); } );
}

template < class Action >
std::string archive( const Action& action )
{
    std::stringbuf buf;
    OutputArchiver out( &buf );
    action( out );
    EXPECT_TRUE( out.isComplete() );
    EXPECT_EQ( header, buf.str().substr( 0, header.size() ) );
    return buf.str().substr( header.size() );
}

// What the next item reads as, which is a narrow string (n), a wide one (w), a raw one (r) or an
// object (o).
std::string readItem( InputArchiver& in, char kind )
{
    std::string text = "replaced";
    std::wstring wideText = L"replaced";
    if ( kind == 'n' ) {
        in >> text;
    } else if ( kind == 'w' ) {
        in >> wideText;
        text.assign( wideText.begin(), wideText.end() );
    } else if ( kind == 'r' ) {
        in.getString( &text );
    } else {
        const Ptr< Archiveable > objectPtr( in.readObject() );
        text = objectPtr ? objectPtr->className() : "null";
    }
    return text + ",";
}

// The items of these kinds, and what ended the reading.
std::string read( const std::string& bytes, const std::string& kinds )
{
    std::stringbuf buf( bytes );
    std::string result;
    result += textOf< Archiver::Exception >( [&] {
        InputArchiver in( &buf );
        for ( const char kind : kinds )
            result += readItem( in, kind );
    } );
    return result;
}

template < class Value >
void checkValue( Value value, const std::string& bytes )
{
    EXPECT_EQ( bytes, archive( [&]( OutputArchiver& out ) { out.put( value ); } ) );
    std::stringbuf buf( header + bytes );
    InputArchiver in( &buf );
    Value back{};
    in.get( &back );
    EXPECT_EQ( value, back );
}

TEST( ArchiverValues, HaveTheirBytes )
{
    checkValue( 'a', "a" );
    checkValue( static_cast< signed char >( -2 ), "\xFE" );
    checkValue( static_cast< unsigned char >( 0xFE ), "\xFE" );
    checkValue( true, "T" );
    checkValue( false, "F" );
    std::stringbuf noBool( header + "t" );
    bool isTrue;
    EXPECT_EQ( "invalid bool tag",
               textOf< Archiver::Exception >( [&] { InputArchiver( &noBool ).get( &isTrue ); } ) );
    checkValue( static_cast< short >( -2 ), "\xFF\xFE" );
    checkValue( static_cast< unsigned short >( 0x1234 ), "\x12\x34" );
    checkValue( static_cast< wchar_t >( -0x7FFE ), "\x80\x02" );
    EXPECT_EQ( "\x23\x45", archive( []( OutputArchiver& out ) { out.put( L'\x12345' ); } ) );
    checkValue( -2, "\xFF\xFF\xFF\xFE" );
    checkValue( 0xFEDCBA98u, "\xFE\xDC\xBA\x98" );
    checkValue( -2L, "\xFF\xFF\xFF\xFE" );
    checkValue( 0xFEDCBA98ul, "\xFE\xDC\xBA\x98" );
    checkValue( -2LL, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE" );
    checkValue( 0x0123456789ABCDEFull, "\x01\x23\x45\x67\x89\xAB\xCD\xEF" );
    checkValue( 1.5f, "\x3F\xC0\0\0"s );
    checkValue( -2.0, "\xC0\0\0\0\0\0\0\0"s );
    if ( sizeof( long ) > 4 ) {
        EXPECT_THROW( checkValue( static_cast< long >( 1LL << 31 ), "" ), LogicException );
        EXPECT_THROW( checkValue( static_cast< long >( ~( 1LL << 31 ) ), "" ), LogicException );
        EXPECT_THROW( checkValue( static_cast< unsigned long >( 1LL << 32 ), "" ), LogicException );
    }
}

TEST( ArchiverEnd, NumbersGoOnAndTheStateTells )
{
    std::stringbuf buf( header + "\1\2\3\4\5" ), full( std::ios_base::in );
    InputArchiver in( &buf );
    int value = 0;
    in.get( &value );
    EXPECT_TRUE( in.isComplete() );
    in.get( &value ); // one byte comes, three are left from before
    EXPECT_EQ( 0x05020304, value );
    EXPECT_FALSE( in.isComplete() || OutputArchiver( &full ).isComplete() ); // that takes nothing
}

TEST( ArchiverStrings, OfAnyLengthLeadBack )
{
    const auto write = []( OutputArchiver& out ) {
        ( out << "ab\xE9" << L"a\x20AC\x8001" ).putString( "c" );
    };
    EXPECT_EQ( "a\0\0\0\3ab\xE9w\0\0\0\3\0a\x20\xAC\x80\1\0\0\0\1c"s, archive( write ) );
    for ( const std::size_t size : { 0, 511, 512, 513, 1024, 1025, 5000 } ) {
        const std::string text( size, 'y' );
        const std::wstring wideText( size, static_cast< wchar_t >( -0x7F42 ) );
        std::stringbuf buf( header +
                            archive( [&]( OutputArchiver& out ) { out << text << wideText; } ) );
        std::string readText;
        std::wstring readWide;
        InputArchiver( &buf ) >> readText >> readWide;
        EXPECT_EQ( text, readText );
        EXPECT_EQ( wideText, readWide );
    }
}

TEST( ArchiverItems, ReadAsTabled )
{
    registerNodes();
    const std::string newA = "ca\0\0\0\1AdN"s, newB = "cw\0\0\0\1\0BdN"s;
    const auto old = []( char index ) { return "C\0\0\0"s + index + "dN"; };
    const std::string noString = "eof in operator>>( stl::string )";
    const std::string noWString = "eof in operator>>( stl::wstring )";
    // Bytes, kinds of items; what is read, or the refusal.
    const std::tuple< std::string, const char*, std::string > rows[] = {
        { "a\0\0\0\3ab\xE9w\0\0\0\2\0a\x20\xAC\0\0\0\2\0b"s, "nnrn", "ab\xE9,a.,\0b,"s + noString },
        { "w\0\0\0\1\0aa\0\0\0\2ab"s, "www", "a,ab," + noWString },
        { "a\0\0\0\0a\0\0"s, "nn", "," + noString }, // the cut count is not that of before
        { "a\xFF\xFF\xFF\xFFxxxx", "n", noString },  // no 4 GiB are taken
        { "w\xFF\xFF\xFF\xFFxxxx", "n", noString },
        { "\xFF\xFF\xFF\xFFxxxx", "r", noString },
        { "", "o", "eof in readObject()" },
        { "x", "o", "invalid class tag" },
        { "ca\0\0\0\1Zd"s, "o", "invalid class name" },
        { "cN", "o", "invalid string tag" },
        { "ca\0\0\0\1AdC\0\0\0\0d?"s, "o", "invalid class tag" },
        // A class that comes twice has both indexes.
        { newA + newB + newA + old( 0 ) + old( 1 ) + old( 2 ), "oooooo", "A,B,A,A,B,A," },
        // An unknown index is passed over; a class without data is no object, but known then.
        { old( 0 ).substr( 0, 5 ) + "C\xFF\xFF\xFF\xFF" + newA, "o", "A," },
        { newA.substr( 0, 7 ) + "x" + old( 0 ), "oo", "null,A," },
        { newA.substr( 0, 7 ), "o", "null," } };
    for ( const std::string& bytes :
          { ""s, "\xC4\xC0\0\0\0\1"s, "\xC5\xC1\0\0\0\1"s, "\xC5\xC0\1\0\0\1"s } )
        EXPECT_EQ( "invalid signature or version", read( bytes, "" ) );
    for ( const auto& [bytes, kindsPtr, result] : rows ) {
        SCOPED_TRACE( bytes );
        EXPECT_EQ( result, read( header + bytes, kindsPtr ) );
    }
    classTableBuilderFuncPtr()->add( "A", []() -> Archiveable* { return nullptr; } );
    EXPECT_THROW( read( header + newA, "o" ), LogicException );
}

TEST( ArchiverObjects, AreWrittenByClassIndexAndNestingIsBounded )
{
    registerNodes();
    const Node chain( "A", new Node( "B", new Node( "A" ) ) );
    const auto write = [&]( OutputArchiver& out ) {
        out.setMaxNbrOfLevels( 3 );
        out.writeObject( &chain );
        out.writeObject( nullptr );
        out.setMaxNbrOfLevels( 2 );
        EXPECT_THROW( out.writeObject( &chain ), Archiver::Exception );
    };
    const std::string newB = "ca\0\0\0\1Bd"s, oldA = "C\0\0\0\0d"s;
    EXPECT_EQ( "ca\0\0\0\1Ad"s + newB + oldA + "NNC\0\0\0\0dC\0\0\0\1d"s, archive( write ) );
    std::string bytes = header + newB;
    for ( unsigned int i = 1; i < Archiver::defaultMaxNbrOfLevels; ++i )
        bytes += oldA;
    EXPECT_EQ( "B,", read( bytes + "N", "o" ) ); // the null object needs no level
    EXPECT_EQ( "objects nested too deeply", read( bytes + oldA + "N", "o" ) );
}

TEST( ClassTable, IsBuiltOnceByAnyThreadAndAnewAfterDeletion )
{
    deleteClassTableBuilder();
    ClassTableBuilder* otherPtr;
    std::thread other( [&] { otherPtr = classTableBuilderFuncPtr(); } );
    ClassTableBuilder* const tablePtr = classTableBuilderFuncPtr();
    other.join();
    EXPECT_EQ( tablePtr, otherPtr );
    EXPECT_FALSE( tablePtr->isValidClass( "A" ) );
    EXPECT_THROW( tablePtr->add( "A", nullptr ), LogicException );
    deleteClassTableBuilder();
    EXPECT_EQ( nullptr, classTableBuilderPtr.load() );
}

} // namespace
} // namespace Nuv::Utils
