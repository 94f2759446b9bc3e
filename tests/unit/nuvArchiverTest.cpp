#include "nuvArchiver.h"

#include "nuvUtils.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <locale>
#include <sstream>
#include <string>
#include <thread>

namespace Nuv::Utils {
namespace {

using namespace std::string_literals;

const std::string header = "\xC5\xC0\0\0\0\1"s;

// A node of a tree, with a number; counts its living objects.
struct Node : Archiveable
{
    Node() { ++ourNbrOfNodes; }
    ~Node() override { --ourNbrOfNodes; }
    const char* className() const override { return "Node"; }
    void writeTo( OutputArchiver& archiver ) const override
    {
        archiver.put( myNumber );
        archiver.writeObject( myChildPtr.get() );
    }
    void readFrom( InputArchiver& archiver ) override
    {
        archiver.get( &myNumber );
        myChildPtr = archiver.readObject();
    }

    int myNumber = 0;
    Ptr< Archiveable > myChildPtr;
    static inline int ourNbrOfNodes = 0;
};

struct Leaf : Archiveable
{
    const char* className() const override { return "B"; }
    void writeTo( OutputArchiver& archiver ) const override { archiver.put( 'x' ); }
    void readFrom( InputArchiver& archiver ) override { archiver.get( &myMark ); }

    char myMark = 0;
};

struct OtherLeaf : Leaf
{
    const char* className() const override { return "A"; }
};

template < class Object >
Archiveable* make()
{
    return new Object();
}

class ArchiverObjects : public ::testing::Test
{
protected:
    ArchiverObjects()
    {
        classTableBuilderFuncPtr()->add( "Node", &make< Node > );
        classTableBuilderFuncPtr()->add( "B", &make< Leaf > );
        classTableBuilderFuncPtr()->add( "A", &make< OtherLeaf > );
    }
    ~ArchiverObjects() override
    {
        deleteClassTableBuilder();
        EXPECT_EQ( 0, Node::ourNbrOfNodes );
    }
};

template < class Action >
std::string archive( Action action )
{
    std::stringbuf buf;
    OutputArchiver archiver( &buf );
    action( archiver );
    EXPECT_TRUE( archiver.isComplete() );
    EXPECT_EQ( header, buf.str().substr( 0, header.size() ) );
    return buf.str().substr( header.size() );
}

// The text of the exception that the action throws on an archive of these bytes; "" for none.
template < class Action >
std::string failureOf( const std::string& bytes, Action action )
{
    std::stringbuf buf( bytes );
    try {
        InputArchiver archiver( &buf );
        action( archiver );
    } catch ( const Archiver::Exception& exception ) {
        EXPECT_EQ( 0, exception.reason() );
        EXPECT_EQ( 0, exception.errorNbr() );
        return exception.what();
    }
    return "";
}

TEST( ArchiverHeader, IsWrittenAndChecked )
{
    std::stringbuf buf;
    const OutputArchiver archiver( &buf );
    EXPECT_EQ( header, buf.str() );
    const auto nothing = []( InputArchiver& ) {};
    EXPECT_EQ( "", failureOf( header, nothing ) );
    struct Case
    {
        std::string bytes;
        const char* versionPtr;
    };
    for ( const Case& c :
          { Case{ "", "0" }, Case{ "\xC5", "0" }, Case{ "\xC4\xC0\0\0\0\1"s, "0" },
            Case{ "\xC5\xC1\0\0\0\1"s, "0" }, Case{ "\xC5\xC0\1\0\0\1"s, "16777217" },
            Case{ "\xC5\xC0\0\0\0"s, "0" }, Case{ "\xC5\xC0\0\0\0\0"s, "0" } } ) {
        SCOPED_TRACE( c.bytes );
        testing::internal::CaptureStderr();
        EXPECT_EQ( "invalid signature or version", failureOf( c.bytes, nothing ) );
        EXPECT_EQ( std::string( "Got Version: " ) + c.versionPtr + " was expecting: 1\n",
                   testing::internal::GetCapturedStderr() );
    }
    EXPECT_THROW( OutputArchiver( nullptr ), LogicException );
}

// Each value's bytes, and that they read back.
template < class Value >
void checkValue( Value value, const std::string& bytes, Value back )
{
    EXPECT_EQ( bytes, archive( [&]( OutputArchiver& out ) { out.put( value ); } ) );
    std::stringbuf buf( header + bytes );
    InputArchiver in( &buf );
    Value read{};
    in.get( &read );
    EXPECT_EQ( back, read );
    EXPECT_TRUE( in.isComplete() );
    EXPECT_EQ( std::streambuf::traits_type::eof(), buf.sgetc() );
}

template < class Value >
void checkValue( Value value, const std::string& bytes )
{
    checkValue( value, bytes, value );
}

TEST( ArchiverValues, HaveTheirBytes )
{
    checkValue( 'a', "a" );
    checkValue( static_cast< signed char >( -2 ), "\xFE" );
    checkValue( static_cast< unsigned char >( 0xFE ), "\xFE" );
    checkValue( true, "T" );
    checkValue( false, "F" );
    checkValue( static_cast< short >( -2 ), "\xFF\xFE" );
    checkValue( static_cast< unsigned short >( 0x1234 ), "\x12\x34" );
    checkValue( L'\x7F12', "\x7F\x12" );
    checkValue( L'\x12345', "\x23\x45", L'\x2345' );
    checkValue( L'\x8001', "\x80\x01", static_cast< wchar_t >( -0x7FFF ) );
    checkValue( -2, "\xFF\xFF\xFF\xFE" );
    checkValue( 0xFEDCBA98u, "\xFE\xDC\xBA\x98" );
    checkValue( -2L, "\xFF\xFF\xFF\xFE" );
    checkValue( 0xFEDCBA98ul, "\xFE\xDC\xBA\x98" );
    checkValue( -2LL, "\xFF\xFF\xFF\xFF\xFF\xFF\xFF\xFE" );
    checkValue( 0x0123456789ABCDEFull, "\x01\x23\x45\x67\x89\xAB\xCD\xEF" );
    checkValue( 1.5f, "\x3F\xC0\0\0"s );
    checkValue( -2.0, "\xC0\0\0\0\0\0\0\0"s );
    checkValue( std::numeric_limits< double >::infinity(), "\x7F\xF0\0\0\0\0\0\0"s );
}

TEST( ArchiverValues, LongBeyondThirtyTwoBitsAsserts )
{
    if ( sizeof( long ) == 4 )
        GTEST_SKIP() << "a long has 32 bits here";
    std::stringbuf buf;
    OutputArchiver out( &buf );
    const long long tooLarge = 1LL << 31;
    EXPECT_THROW( out.put( static_cast< long >( tooLarge ) ), LogicException );
    EXPECT_THROW( out.put( static_cast< long >( -tooLarge - 1 ) ), LogicException );
    EXPECT_THROW( out.put( static_cast< unsigned long >( 2 * tooLarge ) ), LogicException );
    EXPECT_EQ( header, buf.str() );
}

TEST( ArchiverEnd, NumbersGoOnAndTheStateTells )
{
    std::stringbuf buf( header + "\x12\x34\x56" );
    InputArchiver in( &buf );
    unsigned short shortValue = 0;
    in.get( &shortValue );
    EXPECT_TRUE( in.isComplete() );
    unsigned int value = 0;
    in.get( &value ); // one byte comes, three are left from before
    EXPECT_EQ( 0x56u, value >> 24 );
    EXPECT_FALSE( in.isComplete() );
    char c = 0;
    in.get( &c );
    EXPECT_EQ( '\xFF', c );
    unsigned char u = 0;
    in.get( &u );
    EXPECT_EQ( 0xFF, u );
    std::stringbuf cutBuf( header + "\0\0\0\0a\0\0"s );
    InputArchiver cut( &cutBuf );
    cut.get( &value );
    std::string text;
    EXPECT_THROW( cut >> text, Archiver::Exception ); // no empty text from the zeros before
    std::stringbuf full( std::ios_base::in );         // takes nothing
    EXPECT_FALSE( OutputArchiver( &full ).isComplete() );
}

TEST( ArchiverStrings, RecordsOfBothWidthsReadIntoBoth )
{
    const std::string narrow = archive( []( OutputArchiver& out ) { out << "ab\xE9"; } );
    EXPECT_EQ( "a\0\0\0\3ab\xE9"s, narrow );
    const std::string wide = archive( []( OutputArchiver& out ) { out << L"a\x20AC\x8001"; } );
    EXPECT_EQ( "w\0\0\0\3\0a\x20\xAC\x80\1"s, wide );
    const std::string raw = archive( []( OutputArchiver& out ) { out.putString( "\0b"s ); } );
    EXPECT_EQ( "\0\0\0\2\0b"s, raw );

    std::stringbuf buf( header + narrow + wide + raw + narrow.substr( 0, 4 ) + "\2ab"s + wide );
    InputArchiver in( &buf );
    std::string text = "replaced";
    std::wstring wideText = L"replaced";
    in >> text;
    EXPECT_EQ( "ab\xE9", text );
    in >> text;
    EXPECT_EQ( "a..", text );
    in.getString( &text );
    EXPECT_EQ( "\0b"s, text );
    in >> wideText;
    EXPECT_EQ( L"ab", wideText );
    in >> wideText;
    EXPECT_EQ( ( std::wstring{ L'a', L'\x20AC', static_cast< wchar_t >( -0x7FFF ) } ), wideText );
    EXPECT_TRUE( in.isComplete() );
}

TEST( ArchiverStrings, LongOnesCrossThePortions )
{
    for ( const std::size_t size : { 0, 511, 512, 513, 1024, 1025, 5000 } ) {
        const std::string text( size, 'y' );
        const std::wstring wideText( size, L'\x3042' );
        const std::string bytes =
            archive( [&]( OutputArchiver& out ) { out << text << wideText; } );
        std::stringbuf buf( header + bytes );
        InputArchiver in( &buf );
        std::string readText;
        std::wstring readWide;
        in >> readText >> readWide;
        EXPECT_EQ( text, readText );
        EXPECT_EQ( wideText, readWide );
    }
}

TEST( ArchiverRefusals, EachHasItsText )
{
    const auto readBool = []( InputArchiver& in ) {
        bool value;
        in.get( &value );
    };
    const auto readText = []( InputArchiver& in ) {
        std::string text;
        in >> text;
    };
    const auto readWide = []( InputArchiver& in ) {
        std::wstring text;
        in >> text;
    };
    const auto readRaw = []( InputArchiver& in ) {
        std::string text;
        in.getString( &text );
    };
    const auto readObject = []( InputArchiver& in ) { delete in.readObject(); };
    const std::string noString = "eof in operator>>( stl::string )";
    const std::string noWString = "eof in operator>>( stl::wstring )";
    struct Case
    {
        std::string bytes;
        std::string text;
        std::function< void( InputArchiver& ) > action;
    };
    const Case cases[] = {
        { "", "invalid bool tag", readBool },
        { "t", "invalid bool tag", readBool },
        { "", noString, readText },
        { "", noWString, readWide },
        { "A", "invalid string tag", readText },
        { "d", "invalid string tag", readWide },
        { "a\0\0\0"s, noString, readText }, // the count is cut
        { "a\0\0\0\2x"s, noString, readText },
        { "w\0\0\0\2xxx"s, noWString, readWide },
        { "a\xFF\xFF\xFF\xFFxxxx", noString, readText }, // no 4 GiB are taken
        { "w\xFF\xFF\xFF\xFFxxxx", noString, readText },
        { "\xFF\xFF\xFF\xFFxxxx", noString, readRaw },
        { "", "eof in readObject()", readObject },
        { "x", "invalid class tag", readObject },
        { "ca\0\0\0\1Zd"s, "invalid class name", readObject },
        { "cN", "invalid string tag", readObject },
        { "C\0\0\0\0C\xFF\xFF\xFF\xFF"s, "eof in readObject()", readObject },
    };
    for ( const Case& c : cases ) {
        SCOPED_TRACE( c.bytes );
        EXPECT_EQ( c.text, failureOf( header + c.bytes, c.action ) );
    }
}

TEST_F( ArchiverObjects, AreWrittenByClassIndexAndRestoredInOrder )
{
    const OtherLeaf a;
    const Leaf b;
    const std::string bytes = archive( [&]( OutputArchiver& out ) {
        for ( const Archiveable* objectPtr :
              { static_cast< const Leaf* >( &a ), static_cast< const Leaf* >( &a ), &b } )
            out.writeObject( objectPtr );
        out.writeObject( nullptr );
        out.writeObject( &b );
    } );
    EXPECT_EQ( "ca\0\0\0\1AdxC\0\0\0\0dxca\0\0\0\1BdxNC\0\0\0\1dx"s, bytes );
    std::stringbuf buf( header + bytes );
    InputArchiver in( &buf );
    std::string names;
    for ( int i = 0; i < 5; ++i ) {
        const Ptr< Archiveable > objectPtr( in.readObject() );
        names += objectPtr ? objectPtr->className() : "-";
        if ( objectPtr ) {
            EXPECT_EQ( 'x', dynamic_cast< Leaf& >( *objectPtr ).myMark );
        }
    }
    EXPECT_EQ( "AAB-B", names );
    EXPECT_TRUE( in.isComplete() );
}

TEST_F( ArchiverObjects, OddRecordsAreReadAsTheyStand )
{
    const auto namesIn = []( const std::string& bytes ) {
        std::stringbuf buf( header + bytes );
        InputArchiver in( &buf );
        std::string names;
        while ( buf.sgetc() != std::streambuf::traits_type::eof() ) {
            const Ptr< Archiveable > objectPtr( in.readObject() );
            names += objectPtr ? objectPtr->className() : "-";
        }
        return names;
    };
    const std::string newA = "ca\0\0\0\1Adx"s;
    const std::string newB = "ca\0\0\0\1Bdx"s;
    const std::string wideB = "cw\0\0\0\1\0Bdx"s;
    const auto old = []( char index ) { return "C\0\0\0"s + index + "dx"; };
    // A class that comes twice has both indexes.
    EXPECT_EQ( "ABAABA", namesIn( newA + newB + newA + old( 0 ) + old( 1 ) + old( 2 ) ) );
    EXPECT_EQ( "BB", namesIn( wideB + old( 0 ) ) );
    // An unknown index is passed over; a class without data is no object, and is known from then
    // on.
    EXPECT_EQ( "A", namesIn( old( 0 ).substr( 0, 5 ) + "C\xFF\xFF\xFF\xFF" + newA ) );
    EXPECT_EQ( "-A", namesIn( newA.substr( 0, 7 ) + "x" + old( 0 ) ) );
    EXPECT_EQ( "-", namesIn( newA.substr( 0, 7 ) ) );
}

TEST_F( ArchiverObjects, FailuresReleaseTheObject )
{
    const std::string node = "ca\0\0\0\4Noded\0\0\0\5"s;
    const auto readObject = []( InputArchiver& in ) { delete in.readObject(); };
    EXPECT_EQ( "", failureOf( header + node + "N", readObject ) );
    EXPECT_EQ( "eof in readObject()", failureOf( header + node, readObject ) );
    EXPECT_EQ( "invalid class tag",
               failureOf( header + node + "C\0\0\0\0d\0\0\0\6?"s, readObject ) );
    classTableBuilderFuncPtr()->add( "A", []() -> Archiveable* { return nullptr; } );
    try {
        failureOf( header + "ca\0\0\0\1Ad"s, readObject );
        FAIL();
    } catch ( const LogicException& exception ) {
        EXPECT_EQ( 0u, std::string( exception.what() )
                           .find( "nuvAssert: Condition failed: myPtr != NULL (" ) );
    }
}

TEST_F( ArchiverObjects, NestingIsBoundedBothWays )
{
    const std::string first = "ca\0\0\0\4Noded\0\0\0\5"s;
    const std::string next = "C\0\0\0\0d\0\0\0\5"s;
    const auto chain = [&]( unsigned int nbrOfNodes ) {
        std::string bytes = header + first;
        for ( unsigned int i = 1; i < nbrOfNodes; ++i )
            bytes += next;
        return bytes + "N";
    };
    const auto readObject = []( InputArchiver& in ) { delete in.readObject(); };
    // The null object inside the last one needs no level of its own.
    EXPECT_EQ( "", failureOf( chain( Archiver::defaultMaxNbrOfLevels ), readObject ) );
    EXPECT_EQ( "objects nested too deeply",
               failureOf( chain( Archiver::defaultMaxNbrOfLevels + 1 ), readObject ) );
    EXPECT_EQ( "objects nested too deeply", failureOf( chain( 3 ), []( InputArchiver& in ) {
                   in.setMaxNbrOfLevels( 2 );
                   delete in.readObject();
               } ) );
    Node top;
    Node* const middlePtr = new Node();
    top.myChildPtr = middlePtr;
    middlePtr->myChildPtr = new Node();
    std::stringbuf buf;
    OutputArchiver out( &buf );
    out.setMaxNbrOfLevels( 2 );
    EXPECT_THROW( out.writeObject( &top ), Archiver::Exception );
    out.setMaxNbrOfLevels( 3 );
    EXPECT_NO_THROW( out.writeObject( &top ) );
}

TEST( ClassTable, IsBuiltOnFirstUseAndAnewAfterDeletion )
{
    deleteClassTableBuilder();
    EXPECT_EQ( nullptr, classTableBuilderPtr.load() );
    EXPECT_EQ( &initializeClassTableBuilderPtr, classTableBuilderFuncPtr.get() );
    ClassTableBuilder* const tablePtr = classTableBuilderFuncPtr();
    EXPECT_EQ( tablePtr, classTableBuilderPtr.load() );
    EXPECT_EQ( tablePtr, getClassTableBuilderPtr() );
    EXPECT_EQ( &getClassTableBuilderPtr, classTableBuilderFuncPtr.get() );
    EXPECT_EQ( tablePtr, classTableBuilderFuncPtr() );
    EXPECT_EQ( tablePtr, initializeClassTableBuilderPtr() );

    EXPECT_FALSE( tablePtr->isValidClass( "A" ) );
    EXPECT_EQ( nullptr, tablePtr->allocateClassObject( "A" ) );
    tablePtr->add( "A", &make< Leaf > );
    tablePtr->add( "A", &make< OtherLeaf > );
    EXPECT_TRUE( tablePtr->isValidClass( "A" ) );
    EXPECT_STREQ( "A", Ptr< Archiveable >( tablePtr->allocateClassObject( "A" ) )->className() );
    EXPECT_THROW( tablePtr->add( "A", nullptr ), LogicException );
    deleteClassTableBuilder();
    EXPECT_FALSE( classTableBuilderFuncPtr()->isValidClass( "A" ) );
    deleteClassTableBuilder();

    ClassTableBuilder* seen[2] = {};
    std::thread threads[2];
    for ( int i = 0; i < 2; ++i )
        threads[i] = std::thread( [&seen, i] { seen[i] = classTableBuilderFuncPtr(); } );
    for ( std::thread& thread : threads )
        thread.join();
    EXPECT_EQ( seen[0], seen[1] );
    EXPECT_EQ( seen[0], classTableBuilderPtr.load() );
    deleteClassTableBuilder();
}

} // namespace
} // namespace Nuv::Utils
