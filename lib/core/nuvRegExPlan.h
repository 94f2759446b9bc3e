#pragma once

#include "nuvBuffer.h"
#include "nuvRegExProgram.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Nuv::Utils {

/// A set of the 256 byte values. NUL stands for the end of the subject.
class RegExCharSet
{
public:
    bool test( char c ) const { return ( word( c ) >> bit( c ) & 1 ) != 0; }
    void set( char c ) { myWords[static_cast< unsigned char >( c ) / 64] |= 1ull << bit( c ); }
    void reset( char c )
    {
        myWords[static_cast< unsigned char >( c ) / 64] &= ~( 1ull << bit( c ) );
    }
    void setAll() { myWords.fill( ~0ull ); }
    void add( const RegExCharSet& other );
    bool intersects( const RegExCharSet& other ) const;
    /// Stores the members in their order; there must be room for all.
    /// @return their number
    std::size_t members( char* membersPtr ) const;

private:
    static unsigned int bit( char c ) { return static_cast< unsigned char >( c ) % 64; }
    std::uint64_t word( char c ) const { return myWords[static_cast< unsigned char >( c ) / 64]; }

    std::array< std::uint64_t, 4 > myWords{};
};

/// A node program prepared for matching: the nodes decoded, sets as tables, and what can be known
/// beforehand: which characters a match from a node can begin with, which nodes never fail, where
/// a search can begin.
///
/// A node is named by its index; links lead to greater indexes only.
///
/// Threads: read-only once made.
/// Errors:  std::bad_alloc.
/// Cost:    linear in the program; about 90 bytes a node and 32 a set.
class RegExPlan
{
public:
    using Index = std::uint16_t;

    enum Op : std::uint8_t
    {
        opEnd,
        opBol,
        opEol,
        opLiteral, // myText
        opOpen,    // myGroup
        opClose,   // myGroup
        opLone,    // the only alternative
        opAny,     // the four nodes of one character
        opChar,    // myChar
        opButChar, // not myChar
        opSet,     // myTable, myMask
        opRunAny,  // repeats of those four, in their order
        opRunChar,
        opRunButChar,
        opRunSet,
        opRepeat, // a repeat of anything else
        opBranch  // one of several alternatives
    };

    struct Node
    {
        Op myOp = opEnd;
        bool myNeverFails = false; ///< this one with all that follows
        bool myIsGreedy = false;   ///< a run: fewer rounds never help what follows
        bool myExcludes = false;   ///< myText holds what the set lacks
        char myChar = 0;
        std::uint8_t myMask = 0;
        std::uint8_t myGroup = 0;
        std::uint8_t myMin = 0;
        std::uint8_t myMax = 0; ///< 0: none
        Index myNext = 0;       ///< what follows; of an alternative its first node
        Index myFast = 0;       ///< the same without opOpen, opClose and opLone
        Index myOther = 0;      ///< the following alternative; 0: none
        Index myOperand = 0;    ///< first node of what is repeated
        Index myFastOperand = 0;
        std::uint32_t myTable = 0; ///< where in myTables
        std::uint32_t myTextSize = 0;
        const char* myTextPtr = nullptr; ///< in myProgram
    };

    /// How the places are found where a match can begin.
    enum Start
    {
        startAnchored, ///< only at the subject's start
        startAnywhere,
        startChar,    ///< myStartChar
        startLiteral, ///< the text of myNodes[myFastFirst]
        startPair     ///< a bit that both the character and the next one have in myStartTables
    };

    RegExPlan( Buffer program, unsigned int nbrOfGroups );
    RegExPlan( const RegExPlan& ) = delete;
    RegExPlan& operator=( const RegExPlan& ) = delete;

    /// Whether the set of an opSet or opRunSet has the character.
    bool contains( const Node& node, char c ) const
    {
        return ( myTables[node.myTable + static_cast< unsigned char >( c )] & node.myMask ) != 0;
    }

    Buffer myProgram;
    unsigned int myNbrOfGroups;
    std::vector< Node > myNodes; ///< the program begins with the first
    /// For each node the characters at a place from which it, with what follows, can match; of an
    /// alternative the later ones are included.
    std::vector< RegExCharSet > myFirsts;
    std::vector< std::uint8_t > myTables; ///< of 256 bytes, a bit for each of eight sets
    Index myFastFirst = 0;                ///< where a match begins
    Start myStart = startAnywhere;
    char myStartChar = 0;
    /// For a character and the next one: a bit for each alternative that can begin with it, by
    /// turns.
    std::array< std::array< std::uint8_t, 256 >, 2 > myStartTables{};

private:
    void decode();
    void decodeNode( Index index, std::size_t pos, const std::vector< Index >& indexes );
    void decodeSet( Node* nodePtr, std::string_view members );
    void decodeBranch( Index index, std::size_t nextPos, const std::vector< Index >& indexes );
    void newSet( Node* nodePtr );
    void analyse();
    void makeRun( Node* nodePtr );
    Index fast( Index index ) const;
    RegExCharSet firstsOf( const Node& node ) const;
    RegExCharSet setOf( const Node& node ) const;
    bool neverFails( const Node& node ) const;
    RegExCharSet secondsOf( Index alternative ) const;
    void chooseStart();
    void makeStartTables();

    unsigned int myNbrOfSets = 0;
};

} // namespace Nuv::Utils
