#pragma once

#include "nuvBuffer.h"
#include "nuvRegExProgram.h"

#include <bitset>
#include <cstddef>
#include <string>

namespace Nuv::Utils {

/// What a pattern is refused for; the text is a literal.
struct RegExSyntaxError
{
    const char* myTextPtr;
};

/// Reader of a pattern, character by character, with escapes decoded and letters folded.
///
/// A character is its code, plus literalFlag if an escape made it: comparisons with the characters
/// that mean something in a pattern then fail. Copies continue where the original stands.
///
/// Threads: one at a time.
/// Errors:  RegExSyntaxError for an escape that is none.
/// Owns:    nothing; the pattern is borrowed for the reader's life.
class RegExPatternReader
{
public:
    static constexpr int literalFlag = 0x100;

    RegExPatternReader( const char* patternPtr, bool foldsCase )
        : myCursorPtr( patternPtr )
        , myFoldsCase( foldsCase )
    {
    }

    /// Takes the next character; 0 at the end, where it stays.
    int nextChar();
    /// The same without taking it.
    int peekChar();
    /// The character before the one that nextChar() gave last.
    int prevChar() const;

private:
    int processNextChar();
    int hexChar();

    const char* myCursorPtr; // the next unread character
    int myPrevChar = -1;
    int myCurChar = -1;
    int myPushedBackChar = -1;
    bool myFoldsCase;
};

/// Compiler of a pattern into a node program, by recursive descent. One object compiles once.
///
///     alternation: branch ( '|' branch )*      atom: '.' | '^' | '$' | '[' set ']'
///     branch:      piece piece*                      | '(' alternation ')' | literal run
///     piece:       atom repeat?
///
/// Threads: one at a time.
/// Errors:  RegExSyntaxError; std::bad_alloc.
/// Cost:    linear in the program, but for shifting an operand to insert its repeat node; the
///          recursion is as deep as groups lie in one another, of which there are at most 99.
class RegExCompiler
{
public:
    /// @param patternPtr borrowed for the compiler's life
    RegExCompiler( const char* patternPtr, bool foldsCase )
        : myReader( patternPtr, foldsCase )
    {
    }

    /// @return the program, with no storage beyond its size
    Buffer compileProgram();

    /// The number of '(' of the pattern.
    unsigned int nbrOfGroups() const { return myNbrOfGroups; }

private:
    struct Counts
    {
        unsigned int myMin;
        unsigned int myMax; // 0: no maximum
    };

    // Each of these appends what it has read, and returns whether that could match nothing.
    bool compile( bool isGroup );
    bool compileBranch();
    bool compilePiece();
    bool compileAtom();
    bool compileLiteral();
    void compileSet();

    Counts compileRepeat();
    Counts compileRepeatCounts();
    unsigned int compileRepeatCnt();
    std::string readSetMembers();

    std::size_t newNode( unsigned int type );
    void makeExactNode( const std::string& text );
    void makeSetNode( RegExProgram::NodeType type, const std::string& members );
    void insertRepeatNode( std::size_t operandPos, Counts counts );
    void appendBytes( const char* ptr, std::size_t count );
    void setTailNext( std::size_t pos, std::size_t targetPos );
    void setTailNextIfBranch( std::size_t pos, std::size_t targetPos );
    void setNextNodePos( std::size_t pos, std::size_t targetPos );

    RegExPatternReader myReader;
    unsigned int myNbrOfGroups = 0;
    Buffer myProgram;
};

} // namespace Nuv::Utils
