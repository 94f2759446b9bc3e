#include "nuvRegExPlan.h"

#include <bit>
#include <cstring>

namespace Nuv::Utils {

using namespace RegExProgram;

namespace {

constexpr std::size_t tableSize = 256;
constexpr unsigned int nbrOfSetsPerTable = 8;

} // namespace

void RegExCharSet::add( const RegExCharSet& other )
{
    for ( std::size_t i = 0; i < myWords.size(); ++i )
        myWords[i] |= other.myWords[i];
}

bool RegExCharSet::intersects( const RegExCharSet& other ) const
{
    std::uint64_t common = 0;
    for ( std::size_t i = 0; i < myWords.size(); ++i )
        common |= myWords[i] & other.myWords[i];
    return common != 0;
}

std::size_t RegExCharSet::members( char* membersPtr ) const
{
    std::size_t count = 0;
    for ( std::size_t i = 0; i < myWords.size(); ++i ) {
        for ( std::uint64_t word = myWords[i]; word != 0; word &= word - 1 )
            membersPtr[count++] =
                static_cast< char >( i * 64 + static_cast< unsigned >( std::countr_zero( word ) ) );
    }
    return count;
}

RegExPlan::RegExPlan( Buffer program, unsigned int nbrOfGroups )
    : myProgram( std::move( program ) )
    , myNbrOfGroups( nbrOfGroups )
{
    decode();
    analyse();
    chooseStart();
}

// --- nodes --------------------------------------------------------------------------------------

void RegExPlan::decode()
{
    std::size_t nbrOfNodes = 0;
    std::vector< Index > indexes( myProgram.size() );
    for ( std::size_t pos = 0; pos < myProgram.size(); pos += nodeSize( myProgram, pos ) )
        indexes[pos] = static_cast< Index >( nbrOfNodes++ );
    myNodes.resize( nbrOfNodes );
    Index index = 0;
    for ( std::size_t pos = 0; pos < myProgram.size(); pos += nodeSize( myProgram, pos ) )
        decodeNode( index++, pos, indexes );
}

void RegExPlan::decodeNode( Index index, std::size_t pos, const std::vector< Index >& indexes )
{
    static constexpr Op ops[] = { opEnd, opBol,  opEol,    opAny,    opSet,
                                  opSet, opLone, opRepeat, opLiteral };
    Node* const nodePtr = &myNodes[index];
    const NodeType type = nodeType( myProgram, pos );
    const std::size_t nextPos = nextNodePos( myProgram, pos );
    if ( type == branch )
        return decodeBranch( index, nextPos, indexes );
    nodePtr->myOp = type == open ? opOpen : type == close ? opClose : ops[type];
    nodePtr->myNext = nextPos == noNode ? Index( 0 ) : indexes[nextPos];
    nodePtr->myGroup = static_cast< std::uint8_t >( nodeGroup( myProgram, pos ) );
    if ( type == repeat ) {
        nodePtr->myMin = byteAt( myProgram, pos + headerSize );
        nodePtr->myMax = byteAt( myProgram, pos + headerSize + 1 );
        nodePtr->myOperand = static_cast< Index >( index + 1 );
    } else if ( type == anyOf || type == anyBut || type == exactly ) {
        const std::string_view text = nodeText( myProgram, pos );
        nodePtr->myTextPtr = text.data();
        nodePtr->myTextSize = static_cast< std::uint32_t >( text.size() );
        nodePtr->myExcludes = type == anyBut;
        if ( type != exactly )
            decodeSet( nodePtr, text );
    }
}

// One of several has a branch as its next node, or is the next node of such a one.
void RegExPlan::decodeBranch( Index index, std::size_t nextPos,
                              const std::vector< Index >& indexes )
{
    Node* const nodePtr = &myNodes[index];
    nodePtr->myNext = static_cast< Index >( index + 1 );
    if ( nodeType( myProgram, nextPos ) == branch ) {
        nodePtr->myOp = opBranch;
        nodePtr->myOther = indexes[nextPos];
        myNodes[nodePtr->myOther].myOp = opBranch;
    } else if ( nodePtr->myOp != opBranch ) {
        nodePtr->myOp = opLone;
    }
}

void RegExPlan::decodeSet( Node* nodePtr, std::string_view members )
{
    if ( members.size() == 1 ) {
        nodePtr->myOp = nodePtr->myExcludes ? opButChar : opChar;
        nodePtr->myChar = members[0];
        return;
    }
    newSet( nodePtr );
    std::uint8_t* const tablePtr = &myTables[nodePtr->myTable];
    const std::uint8_t mask = nodePtr->myMask;
    if ( nodePtr->myExcludes ) {
        for ( std::size_t c = 1; c < tableSize; ++c )
            tablePtr[c] |= mask;
    }
    for ( const char c : members )
        tablePtr[static_cast< unsigned char >( c )] ^= mask;
}

// Gives the node an empty set.
void RegExPlan::newSet( Node* nodePtr )
{
    const unsigned int number = myNbrOfSets++;
    if ( number % nbrOfSetsPerTable == 0 )
        myTables.resize( myTables.size() + tableSize );
    nodePtr->myTable = static_cast< std::uint32_t >( myTables.size() - tableSize );
    nodePtr->myMask = static_cast< std::uint8_t >( 1u << number % nbrOfSetsPerTable );
}

// --- what can be known beforehand ---------------------------------------------------------------

// From the last node to the first: links lead forward.
void RegExPlan::analyse()
{
    myFirsts.resize( myNodes.size() );
    for ( std::size_t i = myNodes.size(); i-- > 0; ) {
        Node& node = myNodes[i];
        node.myFast = fast( node.myNext );
        if ( node.myOp == opRepeat ) {
            node.myFastOperand = fast( node.myOperand );
            makeRun( &node );
        }
        myFirsts[i] = firstsOf( node );
        node.myNeverFails = neverFails( node );
    }
    myFastFirst = fast( 0 );
}

// A repeat of one character steps through the subject without its operand.
void RegExPlan::makeRun( Node* nodePtr )
{
    const Node& operand = myNodes[nodePtr->myOperand];
    if ( operand.myOp < opAny || operand.myOp > opSet )
        return;
    nodePtr->myOp = static_cast< Op >( operand.myOp - opAny + opRunAny );
    nodePtr->myChar = operand.myChar;
    nodePtr->myTable = operand.myTable;
    nodePtr->myMask = operand.myMask;
    nodePtr->myIsGreedy = myNodes[nodePtr->myNext].myNeverFails ||
                          !myFirsts[nodePtr->myOperand].intersects( myFirsts[nodePtr->myNext] );
}

RegExPlan::Index RegExPlan::fast( Index index ) const
{
    const Op op = myNodes[index].myOp;
    return op == opOpen || op == opClose || op == opLone ? myNodes[index].myFast : index;
}

RegExCharSet RegExPlan::firstsOf( const Node& node ) const
{
    RegExCharSet result;
    switch ( node.myOp ) {
    case opEnd:
        result.setAll();
        return result;
    case opEol:
        result.set( '\0' );
        return result;
    case opLiteral:
        result.set( node.myTextPtr[0] );
        return result;
    case opAny:
    case opChar:
    case opButChar:
    case opSet:
        return setOf( node );
    case opBol:
    case opOpen:
    case opClose:
    case opLone:
        return myFirsts[node.myNext];
    case opBranch:
        result = myFirsts[node.myNext];
        if ( node.myOther != 0 )
            result.add( myFirsts[node.myOther] );
        return result;
    default:
        result = myFirsts[node.myOperand];
        if ( node.myMin == 0 )
            result.add( myFirsts[node.myNext] );
        return result;
    }
}

RegExCharSet RegExPlan::setOf( const Node& node ) const
{
    RegExCharSet result;
    if ( node.myOp != opAny && !node.myExcludes ) {
        for ( std::uint32_t i = 0; i < node.myTextSize; ++i )
            result.set( node.myTextPtr[i] );
        return result;
    }
    result.setAll();
    result.reset( '\0' );
    for ( std::uint32_t i = 0; i < node.myTextSize; ++i )
        result.reset( node.myTextPtr[i] );
    return result;
}

bool RegExPlan::neverFails( const Node& node ) const
{
    switch ( node.myOp ) {
    case opEnd:
        return true;
    case opOpen:
    case opClose:
    case opLone:
        return myNodes[node.myNext].myNeverFails;
    case opBranch:
        return myNodes[node.myNext].myNeverFails ||
               ( node.myOther != 0 && myNodes[node.myOther].myNeverFails );
    default:
        return node.myOp >= opRunAny && node.myMin == 0 && myNodes[node.myNext].myNeverFails;
    }
}

// What can follow the character that an alternative begins with.
RegExCharSet RegExPlan::secondsOf( Index alternative ) const
{
    const Node& node = myNodes[myNodes[alternative].myFast];
    RegExCharSet result;
    if ( node.myOp == opLiteral ) {
        result.set( node.myTextPtr[1] );
    } else if ( node.myOp >= opAny && node.myOp <= opSet ) {
        result = myFirsts[node.myNext];
    } else if ( node.myOp >= opRunAny && node.myOp <= opRunSet && node.myMin > 0 ) {
        result = myFirsts[node.myOperand];
        if ( node.myMin == 1 )
            result.add( myFirsts[node.myNext] );
    } else {
        result.setAll();
    }
    return result;
}

void RegExPlan::chooseStart()
{
    RegExCharSet firsts = myFirsts[0];
    firsts.reset( '\0' ); // no search begins at the subject's end
    char members[tableSize];
    const std::size_t count = firsts.members( members );
    if ( myNodes[0].myOp == opLone && myNodes[1].myOp == opBol )
        myStart = startAnchored;
    else if ( myNodes[myFastFirst].myOp == opLiteral )
        myStart = startLiteral;
    else if ( count == tableSize - 1 )
        myStart = startAnywhere;
    else
        myStart = count == 1 ? startChar : startPair;
    if ( myStart == startChar )
        myStartChar = members[0];
    if ( myStart == startPair )
        makeStartTables();
}

void RegExPlan::makeStartTables()
{
    std::uint8_t bit = 1;
    Index alternative = 0;
    do {
        const RegExCharSet sets[] = { myFirsts[myNodes[alternative].myNext],
                                      secondsOf( alternative ) };
        for ( std::size_t i = 0; i < myStartTables.size(); ++i ) {
            char members[tableSize];
            const std::size_t count = sets[i].members( members );
            for ( std::size_t j = 0; j < count; ++j )
                myStartTables[i][static_cast< unsigned char >( members[j] )] |= bit;
        }
        bit = std::rotl( bit, 1 );
        alternative = myNodes[alternative].myOther;
    } while ( alternative != 0 );
}

} // namespace Nuv::Utils
