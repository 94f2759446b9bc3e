#pragma once

#include "nuv.h"
#include "nuvPackedData.h"

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <streambuf>
#include <string>
#include <string_view>
#include <vector>

namespace Nuv::Utils {

class InputArchiver;
class OutputArchiver;

/// An object that an archive can hold: it writes its own data and reads it back.
class NUV_API Archiveable
{
public:
    Archiveable() = default;
    Archiveable( const Archiveable& ) = default;
    Archiveable& operator=( const Archiveable& ) = default;
    virtual ~Archiveable();

    /// The name under which the class is registered, without a NUL.
    virtual const char* className() const = 0;
    virtual void writeTo( OutputArchiver& archiver ) const = 0;
    /// Reads what writeTo() wrote. The data come from outside: a count is checked before it is
    /// trusted, and InputArchiver::isComplete() tells whether it was there at all.
    virtual void readFrom( InputArchiver& archiver ) = 0;
};

/// The classes that archives may hold: a name and a factory each.
///
/// Threads: filled by one thread, during start-up; only read afterwards, by any.
/// Errors:  a null factory fails nuvAssert "factory != NULL".
class NUV_API ClassTableBuilder
{
public:
    /// Returns a new object, owned by the caller.
    using Factory = Archiveable* (*)();

    /// Registers the factory, or replaces the one of the same name.
    void add( std::string_view className, Factory factory );

    bool isValidClass( std::string_view className ) const;

    /// @return a new object, owned by the caller; null for an unknown name
    Archiveable* allocateClassObject( std::string_view className ) const;

private:
    std::map< std::string, Factory, std::less<> > myFactories;
};

/// Atomic pointer to the function that returns the registry; calling it calls the function.
class NUV_API ClassTableBuilderFunc
{
public:
    using Function = ClassTableBuilder* (*)();

    constexpr explicit ClassTableBuilderFunc( Function function )
        : myFunction( function )
    {
    }

    ClassTableBuilder* operator()() const { return myFunction.load( std::memory_order_acquire )(); }
    void set( Function function ) { myFunction.store( function, std::memory_order_release ); }
    Function get() const { return myFunction.load( std::memory_order_acquire ); }

private:
    std::atomic< Function > myFunction;
};

// The registry of the process. It is reached by calling classTableBuilderFuncPtr, in static
// initialisers too, which build it in any order:
//
//     classTableBuilderFuncPtr()->add( "Route", &newRoute );
//
// | state     | classTableBuilderPtr | classTableBuilderFuncPtr calls                            |
// |-----------|----------------------|-----------------------------------------------------------|
// | not built | null                 | initializeClassTableBuilderPtr: builds it, changes both   |
// | built     | the registry         | getClassTableBuilderPtr: returns it                       |
//
// Two threads that build it at once get the same one. It lasts as long as the process, unless
// deleteClassTableBuilder() leads back to the first state while no other thread uses it.

extern NUV_API std::atomic< ClassTableBuilder* > classTableBuilderPtr;
extern NUV_API ClassTableBuilderFunc classTableBuilderFuncPtr;

NUV_API ClassTableBuilder* getClassTableBuilderPtr();
/// A registry without classes, owned by the caller.
NUV_API ClassTableBuilder* newClassTableBuilder();
NUV_API ClassTableBuilder* initializeClassTableBuilderPtr();
NUV_API void deleteClassTableBuilder();

/// What the two directions of an archive have in common: a stream of numbers, booleans, strings
/// and objects, whose reader asks for the same types in the same order.
///
/// Threads: one at a time.
/// Errors:  Exception for what is no archive. The stream buffer's end throws only where a member
///          says so; isComplete() tells.
/// Owns:    nothing; the stream buffer is borrowed for the object's life.
/// Bytes:   numbers are big-endian, two's complement.
///
/// | item                     | bytes                                                            |
/// |--------------------------|------------------------------------------------------------------|
/// | header                   | C5 C0, version 00 00 00 01                                       |
/// | char, signed or not      | 1                                                                |
/// | bool                     | 1: 'T' or 'F'                                                    |
/// | short                    | 2                                                                |
/// | wchar_t                  | 2: the low 16 bits; read back as a signed value                  |
/// | int, long                | 4                                                                |
/// | long long                | 8                                                                |
/// | float, double            | 4, 8: the IEEE 754 bits                                          |
/// | string                   | 'a' (narrow) or 'w' (wide), 4: count, characters of 1 or 2 bytes |
/// | null object              | 'N'                                                              |
/// | first object of a class  | 'c', the class name as a string, 'd', the object's data          |
/// | later object of a class  | 'C', 4: class index, 'd', the object's data                      |
///
/// Classes are numbered from 0 in the order of their first objects, per archiver: one reader
/// reads a stream from its header on.
class NUV_API Archiver
{
public:
    /// Reason 0, error number 0. The text is one of
    ///
    ///     invalid signature or version
    ///     invalid bool tag
    ///     invalid string tag
    ///     invalid class tag
    ///     invalid class name
    ///     eof in operator>>( stl::string )
    ///     eof in operator>>( stl::wstring )
    ///     eof in readObject()
    ///     objects nested too deeply
    class NUV_API Exception : public RuntimeException
    {
    public:
        using RuntimeException::RuntimeException;
    };

    static constexpr std::uint32_t version = 1;

    /// How many objects may be in the midst of their readFrom() or writeTo() at once, one inside
    /// the other, unless setMaxNbrOfLevels() says otherwise: bounds the stack.
    static constexpr unsigned int defaultMaxNbrOfLevels = 2000;

    Archiver( const Archiver& ) = delete;
    Archiver& operator=( const Archiver& ) = delete;
    virtual ~Archiver();

    void setMaxNbrOfLevels( unsigned int maxNbrOfLevels ) { myMaxNbrOfLevels = maxNbrOfLevels; }

    /// Whether the stream buffer has given, or taken, every byte so far that it was asked to.
    bool isComplete() const { return myIsComplete; }

protected:
    explicit Archiver( std::streambuf* streamBufPtr );

    /// Counts the objects that lie in one another.
    class Level
    {
    public:
        explicit Level( Archiver* archiverPtr );
        Level( const Level& ) = delete;
        Level& operator=( const Level& ) = delete;
        ~Level() { --*myNbrOfLevelsPtr; }

    private:
        unsigned int* myNbrOfLevelsPtr;
    };

    static constexpr std::size_t scratchSize = 8;
    using ClassIndexes = std::map< std::string, std::int32_t, std::less<> >;

    std::streambuf* myStreamBufPtr;
    ClassIndexes myClassIndexes;
    std::int32_t myNextClassIndex = 0;
    unsigned char myScratch[scratchSize] = {};
    BigEndianPackedData myPackedScratch;
    /// The names by index; two indexes may have one name.
    std::vector< const std::string* > myClassNames;
    unsigned int myNbrOfLevels = 0;
    unsigned int myMaxNbrOfLevels = defaultMaxNbrOfLevels;
    bool myIsComplete = true;
};

/// Writes an archive; see Archiver.
///
/// Errors:  writing reports nothing but through isComplete() and what the stream buffer throws. A
///          long outside 32 bits and a string of 2^32 characters or more fail nuvAssert.
/// Example: OutputArchiver out( stream.rdbuf() ); out.put( 42 ); out << name; out.writeObject(
///          &route );
class NUV_API OutputArchiver : public Archiver
{
public:
    /// Writes the header.
    explicit OutputArchiver( std::streambuf* streamBufPtr );

    void put( char value );
    void put( signed char value );
    void put( unsigned char value );
    void put( bool value );
    void put( short value );
    void put( unsigned short value );
    void put( wchar_t value );
    void put( int value );
    void put( unsigned int value );
    void put( long value );
    void put( unsigned long value );
    void put( long long value );
    void put( unsigned long long value );
    void put( float value );
    void put( double value );

    /// A string record: 'a' for a narrow string, 'w' for a wide one.
    OutputArchiver& operator<<( std::string_view text );
    OutputArchiver& operator<<( std::wstring_view text );

    /// The count and the bytes without a tag, for InputArchiver::getString().
    void putString( std::string_view text );

    /// @param objectPtr may be null; its class name must not, nor be unregistered with the reader
    /// @throws Exception "objects nested too deeply"
    void writeObject( const Archiveable* objectPtr );

private:
    void write( const void* ptr, std::size_t nbrOfBytes );
    void put16Bits( std::uint16_t value );
    void put32Bits( std::uint32_t value );
    void put64Bits( std::uint64_t value );
    void putTag( char tag );
    void putCount( std::size_t count );
};

/// Reads an archive; see Archiver.
///
/// Errors:  a number past the end of input is not detected at once: a char reads as 0xFF, a wider
///          one as what the bytes that were there and older ones happen to give, and isComplete()
///          becomes false. Strings and objects throw.
/// Cost:    a string takes memory as its characters come, whatever its count says.
/// Example: InputArchiver in( stream.rdbuf() ); int number; in.get( &number ); in >> name;
///          Ptr< Archiveable > routePtr( in.readObject() );
class NUV_API InputArchiver : public Archiver
{
public:
    /// Reads and checks the header.
    /// @throws Exception "invalid signature or version", after a line on standard error
    explicit InputArchiver( std::streambuf* streamBufPtr );

    void get( char* valuePtr );
    void get( signed char* valuePtr );
    void get( unsigned char* valuePtr );
    /// @throws Exception "invalid bool tag", at the end of input too
    void get( bool* valuePtr );
    void get( short* valuePtr );
    void get( unsigned short* valuePtr );
    void get( wchar_t* valuePtr );
    void get( int* valuePtr );
    void get( unsigned int* valuePtr );
    void get( long* valuePtr );
    void get( unsigned long* valuePtr );
    void get( long long* valuePtr );
    void get( unsigned long long* valuePtr );
    void get( float* valuePtr );
    void get( double* valuePtr );

    /// A string record of either tag, converted through the global locale if the widths differ; a
    /// wide character without a narrow form becomes '.'. The text is replaced, and unspecified
    /// after an exception.
    /// @throws Exception "invalid string tag", or "eof in operator>>( ... )" if the input ends
    InputArchiver& operator>>( std::string& text );
    InputArchiver& operator>>( std::wstring& text );

    /// A count and that many bytes, without a tag.
    /// @throws Exception "eof in operator>>( stl::string )" if the input ends
    void getString( std::string* textPtr );

    /// @return a new object, owned by the caller; null for a null object, and if the class is not
    ///         followed by data
    /// @throws Exception "eof in readObject()", "invalid class tag", "invalid class name",
    ///         "objects nested too deeply", those of a string; and what the object's readFrom()
    ///         throws, the object then being deleted
    Archiveable* readObject();

private:
    int getByte();
    void read( std::size_t nbrOfBytes );
    std::uint16_t get16Bits();
    std::uint32_t get32Bits();
    std::uint64_t get64Bits();
    template < class Text >
    void getCharacters( Text* textPtr, std::size_t nbrOfBytesEach, const char* eofTextPtr );
    template < class Text >
    void getText( Text* textPtr, const char* eofTextPtr );
    const std::string* readClassName();
};

} // namespace Nuv::Utils
