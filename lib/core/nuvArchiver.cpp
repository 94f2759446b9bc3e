#include "nuvArchiver.h"

#include "nuvUtils.h"

#include <algorithm>
#include <bit>
#include <iostream>
#include <limits>
#include <locale>
#include <memory>

namespace Nuv::Utils {
namespace {

constexpr unsigned char signature[] = { 0xC5, 0xC0 };

constexpr char tagTrue = 'T';
constexpr char tagFalse = 'F';
constexpr char tagNarrow = 'a';
constexpr char tagWide = 'w';
constexpr char tagNull = 'N';
constexpr char tagNewClass = 'c';
constexpr char tagOldClass = 'C';
constexpr char tagData = 'd';

constexpr const char* eofInString = "eof in operator>>( stl::string )";
constexpr const char* eofInWString = "eof in operator>>( stl::wstring )";

[[noreturn]] void fail( const char* textPtr )
{
    throw Archiver::Exception( textPtr, 0, 0 );
}

// A wide character in its two bytes; read back, the upper half of the range is negative.
wchar_t wideCharOf( const unsigned char* ptr )
{
    return static_cast< wchar_t >( static_cast< std::int16_t >( ptr[0] << 8 | ptr[1] ) );
}

void appendNarrow( std::string* textPtr, const unsigned char* ptr, std::size_t count )
{
    textPtr->append( reinterpret_cast< const char* >( ptr ), count );
}

void appendNarrow( std::wstring* textPtr, const unsigned char* ptr, std::size_t count )
{
    const char* const charPtr = reinterpret_cast< const char* >( ptr );
    const std::size_t oldSize = textPtr->size();
    textPtr->resize( oldSize + count );
    const std::locale global;
    std::use_facet< std::ctype< wchar_t > >( global ).widen( charPtr, charPtr + count,
                                                             textPtr->data() + oldSize );
}

void appendWide( std::wstring* textPtr, const unsigned char* ptr, std::size_t count )
{
    for ( ; count != 0; --count, ptr += 2 )
        textPtr->push_back( wideCharOf( ptr ) );
}

void appendWide( std::string* textPtr, const unsigned char* ptr, std::size_t count )
{
    const std::locale global;
    const auto& facet = std::use_facet< std::ctype< wchar_t > >( global );
    for ( ; count != 0; --count, ptr += 2 )
        textPtr->push_back( facet.narrow( wideCharOf( ptr ), '.' ) );
}

} // namespace

// The registry

constinit std::atomic< ClassTableBuilder* > classTableBuilderPtr = nullptr;
constinit ClassTableBuilderFunc classTableBuilderFuncPtr( &initializeClassTableBuilderPtr );

ClassTableBuilder* getClassTableBuilderPtr()
{
    return classTableBuilderPtr.load( std::memory_order_acquire );
}

ClassTableBuilder* newClassTableBuilder()
{
    return new ClassTableBuilder();
}

ClassTableBuilder* initializeClassTableBuilderPtr()
{
    std::unique_ptr< ClassTableBuilder > newPtr( newClassTableBuilder() );
    ClassTableBuilder* builtPtr = nullptr;
    if ( classTableBuilderPtr.compare_exchange_strong( builtPtr, newPtr.get(),
                                                       std::memory_order_acq_rel ) )
        builtPtr = newPtr.release();
    classTableBuilderFuncPtr.set( &getClassTableBuilderPtr );
    return builtPtr;
}

void deleteClassTableBuilder()
{
    classTableBuilderFuncPtr.set( &initializeClassTableBuilderPtr );
    delete classTableBuilderPtr.exchange( nullptr, std::memory_order_acq_rel );
}

void ClassTableBuilder::add( std::string_view className, Factory factory )
{
    nuvAssert( factory != NULL );
    myFactories.insert_or_assign( std::string( className ), factory );
}

bool ClassTableBuilder::isValidClass( std::string_view className ) const
{
    return myFactories.find( className ) != myFactories.end();
}

Archiveable* ClassTableBuilder::allocateClassObject( std::string_view className ) const
{
    const auto i = myFactories.find( className );
    return i != myFactories.end() ? i->second() : nullptr;
}

Archiveable::~Archiveable() = default;

// Archiver

Archiver::Archiver( std::streambuf* streamBufPtr )
    : myStreamBufPtr( streamBufPtr )
    , myPackedScratch( myScratch, sizeof( myScratch ) )
{
    nuvAssert( streamBufPtr != NULL );
}

Archiver::~Archiver() = default;

Archiver::Level::Level( Archiver* archiverPtr )
    : myNbrOfLevelsPtr( &archiverPtr->myNbrOfLevels )
{
    if ( *myNbrOfLevelsPtr >= archiverPtr->myMaxNbrOfLevels )
        fail( "objects nested too deeply" );
    ++*myNbrOfLevelsPtr;
}

// OutputArchiver

OutputArchiver::OutputArchiver( std::streambuf* streamBufPtr )
    : Archiver( streamBufPtr )
{
    write( signature, sizeof( signature ) );
    put32Bits( version );
}

void OutputArchiver::write( const void* ptr, std::size_t nbrOfBytes )
{
    const std::streamsize count = static_cast< std::streamsize >( nbrOfBytes );
    if ( myStreamBufPtr->sputn( static_cast< const char* >( ptr ), count ) != count )
        myIsComplete = false;
}

void OutputArchiver::putTag( char tag )
{
    if ( myStreamBufPtr->sputc( tag ) == std::streambuf::traits_type::eof() )
        myIsComplete = false;
}

void OutputArchiver::put16Bits( std::uint16_t value )
{
    myPackedScratch.set16BitValue( value, 0 );
    write( myScratch, sizeof( value ) );
}

void OutputArchiver::put32Bits( std::uint32_t value )
{
    myPackedScratch.set32BitValue( value, 0 );
    write( myScratch, sizeof( value ) );
}

void OutputArchiver::put64Bits( std::uint64_t value )
{
    myPackedScratch.set64BitValue( value, 0 );
    write( myScratch, sizeof( value ) );
}

void OutputArchiver::putCount( std::size_t count )
{
    nuvAssert( count <= std::numeric_limits< std::uint32_t >::max() );
    put32Bits( static_cast< std::uint32_t >( count ) );
}

void OutputArchiver::put( char value )
{
    putTag( value );
}

void OutputArchiver::put( signed char value )
{
    putTag( static_cast< char >( value ) );
}

void OutputArchiver::put( unsigned char value )
{
    putTag( static_cast< char >( value ) );
}

void OutputArchiver::put( bool value )
{
    putTag( value ? tagTrue : tagFalse );
}

void OutputArchiver::put( short value )
{
    put16Bits( static_cast< std::uint16_t >( value ) );
}

void OutputArchiver::put( unsigned short value )
{
    put16Bits( value );
}

void OutputArchiver::put( wchar_t value )
{
    put16Bits( static_cast< std::uint16_t >( value ) );
}

void OutputArchiver::put( int value )
{
    put32Bits( static_cast< std::uint32_t >( value ) );
}

void OutputArchiver::put( unsigned int value )
{
    put32Bits( value );
}

void OutputArchiver::put( long value )
{
    nuvAssert( value == static_cast< std::int32_t >( value ) );
    put32Bits( static_cast< std::uint32_t >( value ) );
}

void OutputArchiver::put( unsigned long value )
{
    nuvAssert( value == static_cast< std::uint32_t >( value ) );
    put32Bits( static_cast< std::uint32_t >( value ) );
}

void OutputArchiver::put( long long value )
{
    put64Bits( static_cast< std::uint64_t >( value ) );
}

void OutputArchiver::put( unsigned long long value )
{
    put64Bits( value );
}

void OutputArchiver::put( float value )
{
    put32Bits( std::bit_cast< std::uint32_t >( value ) );
}

void OutputArchiver::put( double value )
{
    put64Bits( std::bit_cast< std::uint64_t >( value ) );
}

OutputArchiver& OutputArchiver::operator<<( std::string_view text )
{
    putTag( tagNarrow );
    putString( text );
    return *this;
}

OutputArchiver& OutputArchiver::operator<<( std::wstring_view text )
{
    putTag( tagWide );
    putCount( text.size() );
    for ( const wchar_t c : text )
        put( c );
    return *this;
}

void OutputArchiver::putString( std::string_view text )
{
    putCount( text.size() );
    write( text.data(), text.size() );
}

void OutputArchiver::writeObject( const Archiveable* objectPtr )
{
    if ( objectPtr == nullptr ) {
        putTag( tagNull );
        return;
    }
    const Level level( this );
    const char* const className = objectPtr->className();
    nuvAssert( className != NULL );
    const std::string_view name = className;
    const auto i = myClassIndexes.find( name );
    if ( i != myClassIndexes.end() ) {
        putTag( tagOldClass );
        put( i->second );
    } else {
        myClassIndexes.emplace( name, myNextClassIndex++ );
        putTag( tagNewClass );
        *this << name;
    }
    putTag( tagData );
    objectPtr->writeTo( *this );
}

// InputArchiver

InputArchiver::InputArchiver( std::streambuf* streamBufPtr )
    : Archiver( streamBufPtr )
{
    std::uint32_t versionRead = 0;
    if ( getByte() == signature[0] && getByte() == signature[1] )
        versionRead = get32Bits();
    if ( versionRead == version )
        return;
    std::cerr << "Got Version: " << versionRead << " was expecting: " << version << std::endl;
    fail( "invalid signature or version" );
}

// @return the byte, or the streams' end-of-file
int InputArchiver::getByte()
{
    const int c = myStreamBufPtr->sbumpc();
    if ( c == std::streambuf::traits_type::eof() )
        myIsComplete = false;
    return c;
}

// To the scratch area's front; what does not come leaves older bytes there.
void InputArchiver::read( std::size_t nbrOfBytes )
{
    const std::streamsize count = static_cast< std::streamsize >( nbrOfBytes );
    if ( myStreamBufPtr->sgetn( reinterpret_cast< char* >( myScratch ), count ) != count )
        myIsComplete = false;
}

std::uint16_t InputArchiver::get16Bits()
{
    read( sizeof( std::uint16_t ) );
    return myPackedScratch.unsigned16BitValue( 0 );
}

std::uint32_t InputArchiver::get32Bits()
{
    read( sizeof( std::uint32_t ) );
    return myPackedScratch.unsigned32BitValue( 0 );
}

std::uint64_t InputArchiver::get64Bits()
{
    read( sizeof( std::uint64_t ) );
    return myPackedScratch.unsigned64BitValue( 0 );
}

void InputArchiver::get( char* valuePtr )
{
    *valuePtr = static_cast< char >( getByte() ); // the end of file is -1
}

void InputArchiver::get( signed char* valuePtr )
{
    *valuePtr = static_cast< signed char >( getByte() );
}

void InputArchiver::get( unsigned char* valuePtr )
{
    *valuePtr = static_cast< unsigned char >( getByte() );
}

void InputArchiver::get( bool* valuePtr )
{
    const int tag = getByte();
    if ( tag != tagTrue && tag != tagFalse )
        fail( "invalid bool tag" );
    *valuePtr = tag == tagTrue;
}

void InputArchiver::get( short* valuePtr )
{
    *valuePtr = static_cast< short >( get16Bits() );
}

void InputArchiver::get( unsigned short* valuePtr )
{
    *valuePtr = get16Bits();
}

void InputArchiver::get( wchar_t* valuePtr )
{
    *valuePtr = static_cast< wchar_t >( static_cast< std::int16_t >( get16Bits() ) );
}

void InputArchiver::get( int* valuePtr )
{
    *valuePtr = static_cast< int >( get32Bits() );
}

void InputArchiver::get( unsigned int* valuePtr )
{
    *valuePtr = get32Bits();
}

void InputArchiver::get( long* valuePtr )
{
    *valuePtr = static_cast< std::int32_t >( get32Bits() );
}

void InputArchiver::get( unsigned long* valuePtr )
{
    *valuePtr = get32Bits();
}

void InputArchiver::get( long long* valuePtr )
{
    *valuePtr = static_cast< long long >( get64Bits() );
}

void InputArchiver::get( unsigned long long* valuePtr )
{
    *valuePtr = get64Bits();
}

void InputArchiver::get( float* valuePtr )
{
    *valuePtr = std::bit_cast< float >( get32Bits() );
}

void InputArchiver::get( double* valuePtr )
{
    *valuePtr = std::bit_cast< double >( get64Bits() );
}

// Count and characters. Memory grows with what has come, not with what the count promises.
template < class Text >
void InputArchiver::getCharacters( Text* textPtr, std::size_t nbrOfBytesEach,
                                   const char* eofTextPtr )
{
    textPtr->clear();
    std::size_t count = get32Bits();
    if ( !myIsComplete )
        fail( eofTextPtr );
    unsigned char portion[1024];
    if ( count * std::uint64_t( nbrOfBytesEach ) <= sizeof( portion ) )
        textPtr->reserve( count );
    while ( count != 0 ) {
        const std::size_t nbrOfNext = std::min( count, sizeof( portion ) / nbrOfBytesEach );
        const std::streamsize nbrOfBytes =
            static_cast< std::streamsize >( nbrOfNext * nbrOfBytesEach );
        if ( myStreamBufPtr->sgetn( reinterpret_cast< char* >( portion ), nbrOfBytes ) !=
             nbrOfBytes ) {
            myIsComplete = false;
            fail( eofTextPtr );
        }
        if ( nbrOfBytesEach == 1 )
            appendNarrow( textPtr, portion, nbrOfNext );
        else
            appendWide( textPtr, portion, nbrOfNext );
        count -= nbrOfNext;
    }
}

template < class Text >
void InputArchiver::getText( Text* textPtr, const char* eofTextPtr )
{
    const int tag = getByte();
    if ( tag == std::streambuf::traits_type::eof() )
        fail( eofTextPtr );
    if ( tag != tagNarrow && tag != tagWide )
        fail( "invalid string tag" );
    getCharacters( textPtr, tag == tagNarrow ? 1 : 2, eofTextPtr );
}

InputArchiver& InputArchiver::operator>>( std::string& text )
{
    getText( &text, eofInString );
    return *this;
}

InputArchiver& InputArchiver::operator>>( std::wstring& text )
{
    getText( &text, eofInWString );
    return *this;
}

void InputArchiver::getString( std::string* textPtr )
{
    getCharacters( textPtr, 1, eofInString );
}

// @return the class of the next object, null for a null object. An index without a class is passed
//         over, with its tag.
const std::string* InputArchiver::readClassName()
{
    for ( ;; ) {
        const int tag = getByte();
        if ( tag == std::streambuf::traits_type::eof() )
            fail( "eof in readObject()" );
        if ( tag == tagNull )
            return nullptr;
        if ( tag == tagNewClass ) {
            std::string name;
            *this >> name;
            if ( !classTableBuilderFuncPtr()->isValidClass( name ) )
                fail( "invalid class name" );
            const auto i =
                myClassIndexes.insert_or_assign( std::move( name ), myNextClassIndex++ ).first;
            myClassNames.push_back( &i->first );
            return &i->first;
        }
        if ( tag != tagOldClass )
            fail( "invalid class tag" );
        const std::uint32_t index = get32Bits();
        if ( index < myClassNames.size() )
            return myClassNames[index];
    }
}

Archiveable* InputArchiver::readObject()
{
    const std::string* const namePtr = readClassName();
    if ( namePtr == nullptr || getByte() != tagData )
        return nullptr;
    const Level level( this );
    Ptr< Archiveable > objectPtr( classTableBuilderFuncPtr()->allocateClassObject( *namePtr ) );
    objectPtr->readFrom( *this ); // a factory that made nothing fails the pointer's assertion
    return objectPtr.release();
}

} // namespace Nuv::Utils
