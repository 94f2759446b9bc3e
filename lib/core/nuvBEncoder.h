#pragma once

#include "nuvBuffer.h"
#include "nuvUtils.h"

#include <cstdint>
#include <istream>
#include <list>
#include <map>
#include <ostream>
#include <string>

namespace Nuv::Utils {

/// Reader and writer of b-encoding, the text format of integers, byte strings, lists and
/// dictionaries that is known from peer-to-peer metadata files.
///
/// decode() makes a tree of Items, which share their parts through CountedPtr; each Item writes
/// itself with encode().
///
/// | item       | encoding                                                     | example         |
/// |------------|--------------------------------------------------------------|-----------------|
/// | integer    | 'i', signed decimal, 'e'                                     | i-3e            |
/// | string     | number of bytes in decimal, ':', the bytes                   | 4:spam          |
/// | list       | 'l', the items, 'e'                                          | li1e4:spame     |
/// | dictionary | 'd', for each entry key (a string) and value, 'e'; by key    | d3:cow3:mooe    |
///
/// The reader is as forgiving as formatted input: numbers may have white space and '+' before
/// them. They are decimal numbers of 32 bits, whatever the stream's own format. A repeated key
/// keeps its first value; entries may come in any order.
///
/// Threads: one at a time; of the items, only their CountedPtrs may be shared.
/// Errors:  DecodeException for malformed input; what was built is released. The stream then
///          stands where reading stopped, with failbit (and eofbit at the end of input) if it
///          ended there, and with badbit if its stream buffer threw.
/// Cost:    memory in proportion to the input that is really there: a count beyond it is not
///          reserved. Nesting is limited.
/// Bytes:   strings as they are, NULs included; a key ends at its first NUL.
/// Example: IBufferStream in( "d3:cow3:mooe" ); BEncoder::decode( in )->encode( &out );
class NUV_API BEncoder
{
public:
    /// Malformed input; reason 0, error number 0. The text is one of
    ///
    ///     Bad b-encoding item type starting with '<c>'
    ///     Bad string
    ///     Bad integer
    ///     Nesting too deep
    ///
    /// followed by " at character ", the stream's position (-1 if it has none) and a line feed.
    /// The character <c> is left out for NUL and for the end of input.
    class NUV_API DecodeException : public RuntimeException
    {
    public:
        using RuntimeException::RuntimeException;
    };

    enum ItemType : std::int32_t
    {
        typeInteger = 0,
        typeString = 1,
        typeList = 2,
        typeDictionary = 3
    };

    /// How many lists and dictionaries may lie in one another unless the caller says otherwise.
    static constexpr unsigned int defaultMaxNbrOfLevels = 256;

    class NUV_API Item
    {
    public:
        Item( const Item& ) = delete;
        Item& operator=( const Item& ) = delete;

        /// Writes the item; failures are in the stream's state.
        virtual void encode( std::ostream* streamPtr ) const = 0;
        virtual ~Item();

        ItemType type() const { return myType; }

    protected:
        explicit Item( ItemType type )
            : myType( type )
        {
        }

    private:
        ItemType myType;
    };

    using ItemPtr = CountedPtr< Item >;

    // Each constructor from a stream reads the item's encoding behind its type character; that of a
    // string reads it all.

    class NUV_API IntegerItem : public Item
    {
    public:
        explicit IntegerItem( std::istream& stream );
        explicit IntegerItem( std::int32_t value )
            : Item( typeInteger )
            , myValue( value )
        {
        }

        void encode( std::ostream* streamPtr ) const override;

        std::int32_t value() const { return myValue; }

    private:
        std::int32_t myValue;
    };

    class NUV_API StringItem : public Item
    {
    public:
        explicit StringItem( std::istream& stream );
        explicit StringItem( Buffer bytes )
            : Item( typeString )
            , myBytes( std::move( bytes ) )
        {
        }

        void encode( std::ostream* streamPtr ) const override;

        const Buffer& bytes() const { return myBytes; }

    private:
        Buffer myBytes;
    };

    class NUV_API List : public Item
    {
    public:
        using Items = std::list< ItemPtr >;

        List()
            : Item( typeList )
        {
        }
        /// @param maxNbrOfLevels this list's own level included
        explicit List( std::istream& stream, unsigned int maxNbrOfLevels = defaultMaxNbrOfLevels );

        /// Appends; null fails nuvAssert.
        void add( const ItemPtr& itemPtr );

        void encode( std::ostream* streamPtr ) const override;

        const Items& items() const { return myItems; }

    private:
        Items myItems;
    };

    class NUV_API Dictionary : public Item
    {
    public:
        /// In byte-wise order of the keys.
        using Entries = std::map< std::string, ItemPtr, std::less<> >;

        Dictionary()
            : Item( typeDictionary )
        {
        }
        /// @param maxNbrOfLevels this dictionary's own level included
        explicit Dictionary( std::istream& stream,
                             unsigned int maxNbrOfLevels = defaultMaxNbrOfLevels );

        /// Adds the entry or replaces its value; null fails nuvAssert.
        void set( const std::string& key, const ItemPtr& itemPtr );

        /// @return the value or null
        ItemPtr find( std::string_view key ) const;

        void encode( std::ostream* streamPtr ) const override;

        const Entries& entries() const { return myEntries; }

    private:
        Entries myEntries;
    };

    /// Reads one item.
    /// @param maxNbrOfLevels bounds the stack that reading and releasing the items take
    /// @return null if the next character is the terminator 'e', which is taken
    static ItemPtr decode( std::istream& stream,
                           unsigned int maxNbrOfLevels = defaultMaxNbrOfLevels )
    {
        return decodeItem( stream, maxNbrOfLevels );
    }
    static ItemPtr decodeItem( std::istream& stream,
                               unsigned int maxNbrOfLevels = defaultMaxNbrOfLevels );

    /// @return "<text> at character <position>" and a line feed
    static std::string errMsg( const std::string& text, std::streamoff position );
};

} // namespace Nuv::Utils
