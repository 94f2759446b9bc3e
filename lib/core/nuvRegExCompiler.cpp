#include "nuvRegExCompiler.h"

#include <algorithm>
#include <cctype>
#include <cstring>

namespace Nuv::Utils {

using namespace RegExProgram;

namespace {

[[noreturn]] void refuse( const char* textPtr )
{
    throw RegExSyntaxError{ textPtr };
}

constexpr const char* badCountText = "'{' - repeat count not a valid decimal value";

bool isRepeatOperator( int c )
{
    return c == '*' || c == '+' || c == '?' || c == '{';
}

// Whether the character, unescaped, stands for itself outside a set.
bool isOrdinary( int c )
{
    switch ( c ) {
    case '\0':
    case '|':
    case '(':
    case ')':
    case '.':
    case '^':
    case '$':
    case '[':
        return false;
    default:
        return !isRepeatOperator( c );
    }
}

int hexDigit( char c )
{
    if ( c >= '0' && c <= '9' )
        return c - '0';
    const char lower = static_cast< char >( c | 0x20 );
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

// The character that a backslash and this one stand for, if it is a control character.
char controlChar( char c )
{
    switch ( c ) {
    case 'a':
        return '\a';
    case 'b':
        return '\b';
    case 'f':
        return '\f';
    case 'n':
        return '\n';
    case 'r':
        return '\r';
    case 't':
        return '\t';
    case 'v':
        return '\v';
    default:
        return c;
    }
}

// Collects the members of a set in their order, each once.
class Members
{
public:
    void add( int c )
    {
        const unsigned char byte = static_cast< unsigned char >( c );
        if ( !myIsMember.test( byte ) )
            myText += static_cast< char >( byte );
        myIsMember.set( byte );
    }
    // From the one that was added last.
    void addRange( int first, int last )
    {
        const int lastByte = last & 0xFF;
        int byte = first & 0xFF;
        if ( byte > lastByte )
            refuse( "Invalid [] range" );
        for ( ; byte <= lastByte; ++byte )
            add( byte );
    }
    const std::string& text() const { return myText; }

private:
    std::bitset< 256 > myIsMember;
    std::string myText;
};

} // namespace

// --- reading ------------------------------------------------------------------------------------

int RegExPatternReader::nextChar()
{
    myPrevChar = myCurChar;
    myCurChar = peekChar();
    myPushedBackChar = -1;
    return myCurChar;
}

int RegExPatternReader::peekChar()
{
    if ( myPushedBackChar == -1 )
        myPushedBackChar = processNextChar();
    return myPushedBackChar;
}

int RegExPatternReader::prevChar() const
{
    nuvAssert( myPrevChar != -1 );
    return myPrevChar;
}

int RegExPatternReader::processNextChar()
{
    const unsigned char c = static_cast< unsigned char >( *myCursorPtr );
    if ( c == '\0' )
        return 0;
    ++myCursorPtr;
    if ( c != '\\' )
        return myFoldsCase ? std::tolower( c ) : c;
    const char escaped = *myCursorPtr;
    if ( escaped == '\0' )
        refuse( "'\\' at end of string" );
    if ( escaped == '0' )
        refuse( "'0' follows '\\'" );
    ++myCursorPtr;
    if ( escaped == 'x' )
        return hexChar() | literalFlag;
    return static_cast< unsigned char >( controlChar( escaped ) ) | literalFlag;
}

int RegExPatternReader::hexChar()
{
    int value = 0;
    for ( int i = 0; i < 2; ++i ) {
        const int digit = hexDigit( *myCursorPtr );
        if ( digit < 0 )
            break;
        value = value * 16 + digit;
        ++myCursorPtr;
    }
    if ( value == 0 )
        refuse( "'\\x' not followed by a hexadecimal digit" );
    return value;
}

// --- the grammar --------------------------------------------------------------------------------

Buffer RegExCompiler::compileProgram()
{
    compile( false );
    // Exactly, and without the room for growth.
    Buffer program( static_cast< std::size_t >( myProgram.size() ) );
    program.append( myProgram.view() );
    return program;
}

bool RegExCompiler::compile( bool isGroup )
{
    const std::size_t start = myProgram.size();
    unsigned int group = 0;
    if ( isGroup ) {
        if ( ++myNbrOfGroups > maxNbrOfGroups )
            refuse( "Too many subexpressions" );
        group = myNbrOfGroups;
        newNode( open + group );
    }
    const std::size_t firstBranch = myProgram.size();
    bool couldBeEmpty = compileBranch();
    if ( isGroup )
        setTailNext( start, firstBranch );
    std::size_t lastBranch = firstBranch;
    while ( myReader.peekChar() == '|' ) {
        myReader.nextChar();
        const std::size_t nextBranch = myProgram.size();
        couldBeEmpty |= compileBranch();
        setNextNodePos( lastBranch, nextBranch );
        lastBranch = nextBranch;
    }
    const std::size_t closing = newNode( isGroup ? close + group : +end );
    setNextNodePos( lastBranch, closing );
    for ( std::size_t pos = firstBranch; pos != closing; pos = nextNodePos( myProgram, pos ) )
        setTailNextIfBranch( pos, closing );
    if ( !isGroup && myReader.peekChar() != '\0' )
        refuse( "Expected end of string" );
    if ( isGroup && myReader.nextChar() != ')' )
        refuse( "Expected ')'" );
    return couldBeEmpty;
}

bool RegExCompiler::compileBranch()
{
    newNode( branch );
    std::size_t pos = myProgram.size();
    bool couldBeEmpty = compilePiece();
    for ( ;; ) {
        const int c = myReader.peekChar();
        if ( c == '\0' || c == '|' || c == ')' )
            return couldBeEmpty;
        const std::size_t nextPos = myProgram.size();
        couldBeEmpty &= compilePiece();
        setTailNext( pos, nextPos );
        pos = nextPos;
    }
}

bool RegExCompiler::compilePiece()
{
    const std::size_t operandPos = myProgram.size();
    const bool couldBeEmpty = compileAtom();
    if ( !isRepeatOperator( myReader.peekChar() ) )
        return couldBeEmpty;
    const Counts counts = compileRepeat();
    if ( isRepeatOperator( myReader.peekChar() ) )
        refuse( "Two repeat operands in a row" );
    if ( couldBeEmpty && !( counts.myMin == 0 && counts.myMax == 1 ) )
        refuse( "Operand of '*' or '+' could be empty" );
    setTailNext( operandPos, newNode( end ) );
    insertRepeatNode( operandPos, counts );
    return couldBeEmpty || counts.myMin == 0;
}

bool RegExCompiler::compileAtom()
{
    const int c = myReader.peekChar();
    if ( isOrdinary( c ) )
        return compileLiteral();
    switch ( c ) {
    case '\0':
        refuse( "unexpected end of string" );
    case ')':
        refuse( "mismatched \"( )\"" );
    case '|':
        refuse( "missing atom before \"|\"" );
    default:
        if ( isRepeatOperator( c ) )
            refuse( "'*', '+', or '?' follows nothing" );
    }
    myReader.nextChar();
    if ( c == '(' )
        return compile( true );
    if ( c == '[' )
        compileSet();
    else
        newNode( c == '.' ? any : c == '^' ? bol : eol );
    return c == '^' || c == '$';
}

// A run of ordinary characters. The last of several belongs to a repeat operator that follows, and
// becomes an atom of its own: the run then ends before it.
bool RegExCompiler::compileLiteral()
{
    std::string text( 1, static_cast< char >( myReader.nextChar() ) );
    while ( isOrdinary( myReader.peekChar() ) && text.size() <= maxProgramSize ) {
        RegExPatternReader ahead = myReader;
        const char c = static_cast< char >( ahead.nextChar() );
        if ( isRepeatOperator( ahead.peekChar() ) )
            break;
        text += c;
        myReader = ahead;
    }
    nuvAssertText( text[0] != '\0', "myCurChar != 0" );
    makeExactNode( text );
    return false;
}

void RegExCompiler::compileSet()
{
    const bool excludes = myReader.peekChar() == '^';
    if ( excludes )
        myReader.nextChar();
    const std::string members = readSetMembers();
    makeSetNode( excludes ? anyBut : anyOf, members );
}

// Up to and with the closing bracket. A '-' makes a range only between two characters of which the
// first is not itself the end of a range.
std::string RegExCompiler::readSetMembers()
{
    Members members;
    bool canBeginRange = false;
    for ( bool isFirst = true;; isFirst = false ) {
        const int c = myReader.nextChar();
        if ( c == '\0' )
            refuse( "Expected ']'" );
        if ( c == ']' && !isFirst )
            return members.text();
        const int following = c == '-' && canBeginRange ? myReader.peekChar() : 0;
        if ( following != 0 && following != ']' ) {
            const int first = myReader.prevChar();
            members.addRange( first, myReader.nextChar() );
            canBeginRange = false;
        } else {
            members.add( c );
            canBeginRange = true;
        }
    }
}

// --- repeat operators ---------------------------------------------------------------------------

RegExCompiler::Counts RegExCompiler::compileRepeat()
{
    switch ( myReader.nextChar() ) {
    case '*':
        return { 0, 0 };
    case '+':
        return { 1, 0 };
    case '?':
        return { 0, 1 };
    default:
        return compileRepeatCounts();
    }
}

RegExCompiler::Counts RegExCompiler::compileRepeatCounts()
{
    const unsigned int min = compileRepeatCnt();
    const int separator = myReader.nextChar();
    unsigned int max = min;
    if ( separator == ',' ) {
        if ( myReader.peekChar() == '}' ) {
            myReader.nextChar();
            return { min, 0 };
        }
        max = compileRepeatCnt();
        if ( myReader.nextChar() != '}' )
            refuse( "'{n,m}' expected a '}'" );
    } else if ( separator != '}' ) {
        refuse( "'{n,m}' expected a ',' or '}'" );
    }
    if ( min > max )
        refuse( "'{n,m}' min count is greater than max count" );
    if ( max == 0 )
        refuse( "'{n,m}' max count is equal to zero" );
    return { min, max };
}

unsigned int RegExCompiler::compileRepeatCnt()
{
    constexpr unsigned int maxNbrOfDigits = 3;
    constexpr unsigned int maxCount = 255;
    unsigned int count = 0;
    unsigned int nbrOfDigits = 0;
    for ( ; myReader.peekChar() >= '0' && myReader.peekChar() <= '9'; ++nbrOfDigits ) {
        if ( nbrOfDigits == maxNbrOfDigits )
            refuse( badCountText );
        count = count * 10 + static_cast< unsigned int >( myReader.nextChar() - '0' );
    }
    if ( nbrOfDigits == 0 || count > maxCount )
        refuse( badCountText );
    return count;
}

// --- nodes --------------------------------------------------------------------------------------

std::size_t RegExCompiler::newNode( unsigned int type )
{
    const std::size_t pos = myProgram.size();
    const char header[headerSize] = { static_cast< char >( type ), 0, 0 };
    appendBytes( header, headerSize );
    return pos;
}

void RegExCompiler::makeExactNode( const std::string& text )
{
    if ( text.size() == 1 )
        return makeSetNode( anyOf, text );
    newNode( exactly );
    appendBytes( text.c_str(), text.size() + 1 );
}

void RegExCompiler::makeSetNode( NodeType type, const std::string& members )
{
    newNode( type );
    appendBytes( members.c_str(), members.size() + 1 );
}

// Links within the operand are relative, and nothing leads into it from outside yet.
void RegExCompiler::insertRepeatNode( std::size_t operandPos, Counts counts )
{
    const char node[repeatNodeSize] = { static_cast< char >( repeat ), 0, 0,
                                        static_cast< char >( counts.myMin ),
                                        static_cast< char >( counts.myMax ) };
    appendBytes( node, repeatNodeSize ); // makes the room
    char* const operandPtr = myProgram.data() + operandPos;
    std::memmove( operandPtr + repeatNodeSize, operandPtr,
                  myProgram.size() - operandPos - repeatNodeSize );
    std::memcpy( operandPtr, node, repeatNodeSize );
}

void RegExCompiler::appendBytes( const char* ptr, std::size_t count )
{
    const std::size_t needed = myProgram.size() + count;
    if ( needed > maxProgramSize )
        refuse( "Pattern too large" );
    if ( needed > myProgram.capacity() )
        myProgram.reserve( std::max< std::size_t >( 2 * needed, 256 ) );
    myProgram.append( ptr, count );
}

void RegExCompiler::setTailNext( std::size_t pos, std::size_t targetPos )
{
    for ( std::size_t next; ( next = nextNodePos( myProgram, pos ) ) != noNode; )
        pos = next;
    setNextNodePos( pos, targetPos );
}

void RegExCompiler::setTailNextIfBranch( std::size_t pos, std::size_t targetPos )
{
    if ( nodeType( myProgram, pos ) == branch )
        setTailNext( pos + headerSize, targetPos );
}

void RegExCompiler::setNextNodePos( std::size_t pos, std::size_t targetPos )
{
    const std::size_t offset = targetPos - pos;
    myProgram[pos + 1] = static_cast< char >( offset >> 8 );
    myProgram[pos + 2] = static_cast< char >( offset );
}

} // namespace Nuv::Utils
