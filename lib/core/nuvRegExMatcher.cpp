#include "nuvRegExMatcher.h"

#include <algorithm>
#include <cstring>
#include <utility>

namespace Nuv::Utils {
namespace {

constexpr std::size_t minNbrOfEntries = 64;

// Characters that a run steps through count as so much of a node.
constexpr std::uint32_t nbrOfCharsPerStep = 8;

} // namespace

// --- outcomes -----------------------------------------------------------------------------------

std::size_t RegExOutcomes::slotOf( RegExPlan::Index node, std::uint32_t pos ) const
{
    const std::size_t mask = myEntries.size() - 1;
    std::size_t slot = ( ( pos + node * 0x85EBCA6Bu ) * 0x9E3779B1u >> 7 ) & mask;
    while ( myEntries[slot].mySearch == mySearch &&
            ( myEntries[slot].myPos != pos || myEntries[slot].myNode != node ) )
        slot = ( slot + 1 ) & mask;
    return slot;
}

const RegExOutcomes::Entry* RegExOutcomes::find( RegExPlan::Index node, std::uint32_t pos ) const
{
    if ( myNbrOfUsed == 0 )
        return nullptr;
    const Entry& entry = myEntries[slotOf( node, pos )];
    return entry.mySearch == mySearch ? &entry : nullptr;
}

void RegExOutcomes::keep( RegExPlan::Index node, std::uint32_t pos, std::uint32_t end,
                          std::uint32_t decision )
{
    if ( 2 * myNbrOfUsed >= myEntries.size() )
        grow();
    Entry& entry = myEntries[slotOf( node, pos )];
    myNbrOfUsed += entry.mySearch != mySearch;
    entry = { pos, node, mySearch, end, decision };
}

void RegExOutcomes::clear()
{
    myNbrOfUsed = 0;
    if ( ++mySearch != 0 )
        return;
    for ( Entry& entry : myEntries )
        entry.mySearch = 0;
    mySearch = 1;
}

void RegExOutcomes::grow()
{
    std::vector< Entry > entries( std::max( 2 * myEntries.size(), minNbrOfEntries ) );
    entries.swap( myEntries );
    const std::uint16_t search = std::exchange( mySearch, std::uint16_t( 1 ) );
    for ( const Entry& entry : entries ) {
        if ( entry.mySearch == search ) {
            Entry& moved = myEntries[slotOf( entry.myNode, entry.myPos )];
            moved = entry;
            moved.mySearch = mySearch;
        }
    }
}

void RegExScratch::trim()
{
    const std::size_t nbrOfBytes =
        myFrames.capacity() * sizeof( Frame ) + myRounds.capacity() * sizeof( myRounds[0] ) +
        myRuns.capacity() * sizeof( Run ) + myOutcomes.nbrOfBytes() + myFolded.capacity();
    if ( nbrOfBytes > maxNbrOfBytesKept )
        *this = RegExScratch();
}

// --- the search ---------------------------------------------------------------------------------

RegExMatcher::RegExMatcher( const RegExPlan& plan, const char* subjectPtr, std::size_t size,
                            RegExScratch* scratchPtr, std::uint64_t nbrOfFreeSteps )
    : myPlan( plan )
    , mySubjectPtr( subjectPtr )
    , mySize( static_cast< Pos >( size ) )
    , myScratchPtr( scratchPtr )
    , myNbrOfFreeSteps( nbrOfFreeSteps )
{
    scratchPtr->myFrames.clear();
    scratchPtr->myRounds.clear();
    scratchPtr->myRuns.clear();
    scratchPtr->myOutcomes.clear();
}

bool RegExMatcher::search( RegExGroup* groupsPtr )
{
    myKeepsRoads = groupsPtr != nullptr && myPlan.myNbrOfGroups != 0;
    if ( myPlan.myStart == RegExPlan::startAnchored )
        return tryAt( 0, groupsPtr );
    for ( Pos start = findStart( 0 ); start < mySize; start = findStart( start + 1 ) ) {
        if ( tryAt( start, groupsPtr ) )
            return true;
    }
    return false;
}

bool RegExMatcher::tryAt( Pos start, RegExGroup* groupsPtr )
{
    Pos end = noMatch;
    if ( !run( myPlan.myFastFirst, start, &end ) )
        return false;
    if ( groupsPtr != nullptr ) {
        if ( myKeepsRoads ) {
            const bool matchSucceded = trace( 0, start, groupsPtr ) == end;
            nuvAssert( matchSucceded );
        }
        groupsPtr[0] = { start, end };
    }
    return true;
}

// The first place from pos on where a match can begin; mySize if there is none.
RegExMatcher::Pos RegExMatcher::findStart( Pos pos ) const
{
    const char* const fromPtr = mySubjectPtr + pos;
    const void* foundPtr = nullptr;
    switch ( myPlan.myStart ) {
    case RegExPlan::startChar:
        foundPtr = std::memchr( fromPtr, myPlan.myStartChar, mySize - pos );
        break;
    case RegExPlan::startLiteral: {
        const Node& node = myPlan.myNodes[myPlan.myFastFirst];
        foundPtr = ::memmem( fromPtr, mySize - pos, node.myTextPtr, node.myTextSize );
        break;
    }
    case RegExPlan::startPair:
        return findPair( pos );
    default:
        return pos;
    }
    return foundPtr == nullptr
               ? mySize
               : static_cast< Pos >( static_cast< const char* >( foundPtr ) - mySubjectPtr );
}

// A place where an alternative can begin with the character and the next one, which for the last
// one is the terminating NUL.
RegExMatcher::Pos RegExMatcher::findPair( Pos pos ) const
{
    const std::uint8_t* const firstPtr = myPlan.myStartTables[0].data();
    const std::uint8_t* const secondPtr = myPlan.myStartTables[1].data();
    const auto* charPtr = reinterpret_cast< const unsigned char* >( mySubjectPtr + pos );
    const auto* const endPtr = reinterpret_cast< const unsigned char* >( mySubjectPtr + mySize );
    while ( charPtr != endPtr && ( firstPtr[charPtr[0]] & secondPtr[charPtr[1]] ) == 0 )
        ++charPtr;
    return mySize - static_cast< Pos >( endPtr - charPtr );
}

// --- the first pass -----------------------------------------------------------------------------

// From a node to the end of the program or of the operand that the node lies in.
bool RegExMatcher::run( Index first, Pos pos, Pos* endPtr )
{
    const std::size_t nbrOfFramesBelow = myScratchPtr->myFrames.size();
    State state{ first, pos, false };
    do
        forward( &state );
    while ( goBack( nbrOfFramesBelow, &state ) );
    if ( state.myMatched )
        *endPtr = state.myPos;
    return state.myMatched;
}

// Goes on until something fails or an end is reached.
void RegExMatcher::forward( State* statePtr )
{
    const Node* const nodesPtr = myPlan.myNodes.data();
    for ( ;; ) {
        ++myNbrOfSteps;
        const Node& node = nodesPtr[statePtr->myNode];
        if ( node.myOp == RegExPlan::opEnd ) {
            statePtr->myMatched = true;
            return;
        }
        if ( node.myOp >= RegExPlan::opRunAny ) {
            if ( enter( statePtr ) == nextDone )
                return;
            continue;
        }
        statePtr->myPos = stepEnd( node, statePtr->myPos );
        if ( statePtr->myPos == noMatch ) {
            statePtr->myMatched = false;
            return;
        }
        statePtr->myNode = node.myFast;
    }
}

// Behind a node that has no choice, or noMatch.
RegExMatcher::Pos RegExMatcher::stepEnd( const Node& node, Pos pos ) const
{
    const char c = mySubjectPtr[pos];
    switch ( node.myOp ) {
    case RegExPlan::opBol:
        return pos == 0 ? 0 : noMatch;
    case RegExPlan::opEol:
        return pos == mySize ? pos : noMatch;
    case RegExPlan::opLiteral:
        return mySize - pos >= node.myTextSize &&
                       std::memcmp( mySubjectPtr + pos, node.myTextPtr, node.myTextSize ) == 0
                   ? pos + node.myTextSize
                   : noMatch;
    case RegExPlan::opAny:
        return c != '\0' ? pos + 1 : noMatch;
    case RegExPlan::opChar:
        return c == node.myChar ? pos + 1 : noMatch;
    case RegExPlan::opButChar:
        return c != node.myChar && c != '\0' ? pos + 1 : noMatch;
    case RegExPlan::opSet:
        return myPlan.contains( node, c ) ? pos + 1 : noMatch;
    default: // opOpen, opClose, opLone
        return pos;
    }
}

RegExMatcher::Next RegExMatcher::enter( State* statePtr )
{
    if ( keepsAll() ) {
        const RegExOutcomes::Entry* const entryPtr =
            myScratchPtr->myOutcomes.find( statePtr->myNode, statePtr->myPos );
        if ( entryPtr != nullptr ) {
            statePtr->myMatched = entryPtr->myEnd != noMatch;
            statePtr->myPos = entryPtr->myEnd;
            return nextDone;
        }
    }
    switch ( myPlan.myNodes[statePtr->myNode].myOp ) {
    case RegExPlan::opBranch:
        return enterBranch( statePtr );
    case RegExPlan::opRepeat:
        return enterRepeat( statePtr );
    default:
        return enterRun( statePtr );
    }
}

RegExMatcher::Next RegExMatcher::fail( State* statePtr )
{
    if ( keepsAll() )
        myScratchPtr->myOutcomes.keep( statePtr->myNode, statePtr->myPos, noMatch, 0 );
    statePtr->myMatched = false;
    return nextDone;
}

RegExMatcher::Next RegExMatcher::enterRun( State* statePtr )
{
    const Node& node = myPlan.myNodes[statePtr->myNode];
    const Pos pos = statePtr->myPos;
    const Pos end = keepsAll() ? keptRunEnd( statePtr->myNode, pos )
                               : runEnd( node, pos, runLimit( node, pos ) );
    if ( end - pos < node.myMin )
        return fail( statePtr );
    if ( node.myIsGreedy && !keepsAll() ) {
        statePtr->myNode = node.myFast;
        statePtr->myPos = end;
        return nextNode;
    }
    Frame frame{ statePtr->myNode, 0, 0, pos, end + 1, end, 0 };
    if ( !retryRun( &frame, statePtr ) ) {
        keepFailure( frame );
        return fail( statePtr );
    }
    myScratchPtr->myFrames.push_back( frame );
    return nextNode;
}

// Null until all outcomes are kept.
RegExScratch::Run* RegExMatcher::runPtr( Index run )
{
    if ( !keepsAll() )
        return nullptr;
    std::vector< RegExScratch::Run >& runs = myScratchPtr->myRuns;
    if ( runs.empty() )
        runs.resize( myPlan.myNodes.size() );
    return &runs[run];
}

// As runEnd(); what has been measured once is not stepped through again.
RegExMatcher::Pos RegExMatcher::keptRunEnd( Index run, Pos pos )
{
    const Node& node = myPlan.myNodes[run];
    RegExScratch::Run* const ptr = runPtr( run );
    if ( node.myMax != 0 )
        return runEnd( node, pos, runLimit( node, pos ) );
    const bool isBefore = pos < ptr->myFrom && ptr->myFrom <= ptr->myEnd;
    if ( isBefore && runEnd( node, pos, ptr->myFrom ) == ptr->myFrom ) {
        ptr->myFrom = pos;
    } else if ( pos < ptr->myFrom || pos > ptr->myEnd ) {
        ptr->myFrom = pos;
        ptr->myEnd = runEnd( node, pos, mySize );
    }
    return ptr->myEnd;
}

// Nothing follows behind any of the run's counts: joins them with what is known already.
void RegExMatcher::keepFailure( const Frame& frame )
{
    RegExScratch::Run* const ptr = runPtr( frame.myNode );
    if ( ptr == nullptr )
        return;
    const Pos from = frame.myPos + myPlan.myNodes[frame.myNode].myMin;
    const Pos to = frame.myBestEnd;
    const bool touches = from <= ptr->myFailTo + 1 && to + 1 >= ptr->myFailFrom;
    ptr->myFailFrom = touches ? std::min( from, ptr->myFailFrom ) : from;
    ptr->myFailTo = touches ? std::max( to, ptr->myFailTo ) : to;
}

// How far a run can reach at most.
RegExMatcher::Pos RegExMatcher::runLimit( const Node& node, Pos pos ) const
{
    const Pos room = mySize - pos;
    return pos + ( node.myMax == 0 ? room : std::min< Pos >( room, node.myMax ) );
}

// How far the characters of a run reach.
RegExMatcher::Pos RegExMatcher::runEnd( const Node& node, Pos pos, Pos limit )
{
    if ( node.myOp == RegExPlan::opRunAny )
        return limit;
    const char* const fromPtr = mySubjectPtr + pos;
    const char* const limitPtr = mySubjectPtr + limit;
    const char* charPtr = fromPtr;
    if ( node.myOp == RegExPlan::opRunButChar ) {
        const void* const foundPtr = std::memchr( fromPtr, node.myChar, limit - pos );
        charPtr = foundPtr == nullptr ? limitPtr : static_cast< const char* >( foundPtr );
    } else if ( node.myOp == RegExPlan::opRunChar ) {
        while ( charPtr != limitPtr && *charPtr == node.myChar )
            ++charPtr;
    } else {
        const std::uint8_t* const tablePtr = &myPlan.myTables[node.myTable];
        while ( charPtr != limitPtr &&
                ( tablePtr[static_cast< unsigned char >( *charPtr )] & node.myMask ) != 0 )
            ++charPtr;
    }
    const Pos nbrOfChars = static_cast< Pos >( charPtr - fromPtr );
    myNbrOfSteps += nbrOfChars / nbrOfCharsPerStep;
    return pos + nbrOfChars;
}

RegExMatcher::Next RegExMatcher::enterRepeat( State* statePtr )
{
    const Index index = statePtr->myNode;
    std::vector< Pos >& rounds = myScratchPtr->myRounds;
    const std::size_t offset = rounds.size();
    Frame frame{ index, 0, 0, statePtr->myPos, 0, noMatch, static_cast< Pos >( offset ) };
    rounds.push_back( statePtr->myPos );
    const RegExOutcomes::Entry* const knownPtr = doRounds( &frame );
    if ( knownPtr != nullptr && knownPtr->myEnd != noMatch ) {
        frame.myCount += knownPtr->myDecision;
        *statePtr = { index, knownPtr->myEnd, true };
        leave( frame, *statePtr );
        rounds.resize( offset );
        return nextDone;
    }
    const bool hadNone = frame.myCount == 0;
    // What is known to fail is not tried.
    frame.myCount += knownPtr == nullptr;
    if ( !retryRepeat( &frame, statePtr ) ) {
        keepRounds( frame, { index, noMatch, false } );
        rounds.resize( offset );
        return fail( statePtr );
    }
    if ( hadNone && !keepsAll() )
        rounds.resize( offset );
    else
        myScratchPtr->myFrames.push_back( frame );
    return nextNode;
}

// As many rounds as there can be. Without a maximum, what comes of one more round does not depend
// on how many there were.
// @return what is known of the place where they stop
const RegExOutcomes::Entry* RegExMatcher::doRounds( Frame* framePtr )
{
    const Node& node = myPlan.myNodes[framePtr->myNode];
    std::vector< Pos >& rounds = myScratchPtr->myRounds;
    for ( Pos pos = framePtr->myPos;; ++framePtr->myCount ) {
        if ( node.myMax == 0 && framePtr->myCount >= node.myMin && keepsAll() ) {
            const RegExOutcomes::Entry* const knownPtr =
                myScratchPtr->myOutcomes.find( node.myOperand, pos );
            if ( knownPtr != nullptr )
                return knownPtr;
        }
        if ( ( node.myMax != 0 && framePtr->myCount == node.myMax ) ||
             !isOpenTo( node.myOperand, pos ) || !run( node.myFastOperand, pos, &pos ) )
            return nullptr;
        rounds.push_back( pos );
    }
}

// The same for all rounds: to go on from any of them as from the first.
void RegExMatcher::keepRounds( const Frame& frame, const State& state )
{
    const Node& node = myPlan.myNodes[frame.myNode];
    if ( node.myMax != 0 || !keepsAll() )
        return;
    const std::vector< Pos >& rounds = myScratchPtr->myRounds;
    const std::size_t nbrOfEnds = rounds.size() - frame.myRoundsOffset;
    for ( std::size_t i = node.myMin; i < nbrOfEnds; ++i ) {
        const bool matches = state.myMatched && i <= frame.myCount;
        myScratchPtr->myOutcomes.keep( node.myOperand, rounds[frame.myRoundsOffset + i],
                                       matches ? state.myPos : noMatch,
                                       matches ? frame.myCount - static_cast< Pos >( i ) : 0 );
    }
}

// Of alternatives all but one of which cannot match there is nothing to try.
RegExMatcher::Next RegExMatcher::enterBranch( State* statePtr )
{
    const Index first = candidate( statePtr->myNode, statePtr->myPos );
    if ( first == noNode ) {
        statePtr->myMatched = false;
        return nextDone;
    }
    const Index other = myPlan.myNodes[first].myOther;
    if ( other != 0 && candidate( other, statePtr->myPos ) != noNode )
        myScratchPtr->myFrames.push_back(
            { statePtr->myNode, first, 0, statePtr->myPos, 0, noMatch, 0 } );
    statePtr->myNode = myPlan.myNodes[first].myFast;
    return nextNode;
}

// The first of a branch and the alternatives behind it that can match there, or noNode.
RegExMatcher::Index RegExMatcher::candidate( Index branch, Pos pos ) const
{
    do {
        if ( isOpenTo( myPlan.myNodes[branch].myNext, pos ) )
            return branch;
        branch = myPlan.myNodes[branch].myOther;
    } while ( branch != 0 );
    return noNode;
}

// Takes the frames above so many until one of them gives another place to go on from.
// @return false if there is none: the state then says how the level has ended
bool RegExMatcher::goBack( std::size_t nbrOfFramesBelow, State* statePtr )
{
    std::vector< Frame >& frames = myScratchPtr->myFrames;
    for ( ; frames.size() > nbrOfFramesBelow; frames.pop_back() ) {
        Frame* const framePtr = &frames.back();
        const RegExPlan::Op op = myPlan.myNodes[framePtr->myNode].myOp;
        if ( op == RegExPlan::opBranch   ? retryBranch( framePtr, statePtr )
             : statePtr->myMatched       ? false
             : op == RegExPlan::opRepeat ? retryRepeat( framePtr, statePtr )
                                         : retryRun( framePtr, statePtr ) )
            return true;
        leave( *framePtr, *statePtr );
        if ( op == RegExPlan::opRepeat )
            myScratchPtr->myRounds.resize( framePtr->myRoundsOffset );
    }
    return false;
}

// Keeps how a frame's node has ended.
void RegExMatcher::leave( const Frame& frame, const State& state )
{
    const RegExPlan::Op op = myPlan.myNodes[frame.myNode].myOp;
    if ( op == RegExPlan::opRepeat )
        keepRounds( frame, state );
    else if ( op != RegExPlan::opBranch && !state.myMatched )
        keepFailure( frame );
    if ( keepsAll() || ( state.myMatched && myKeepsRoads ) )
        myScratchPtr->myOutcomes.keep( frame.myNode, frame.myPos,
                                       state.myMatched ? state.myPos : noMatch,
                                       op == RegExPlan::opBranch ? frame.myBest : frame.myCount );
}

// Fewer characters, as long as what follows could match behind them.
bool RegExMatcher::retryRun( Frame* framePtr, State* statePtr )
{
    const Node& node = myPlan.myNodes[framePtr->myNode];
    const RegExCharSet& firsts = myPlan.myFirsts[node.myNext];
    const RegExScratch::Run* const knownPtr = runPtr( framePtr->myNode );
    const Pos least = framePtr->myPos + node.myMin;
    Pos nbrOfChars = 0;
    for ( Pos pos = framePtr->myCount; pos > least; ++nbrOfChars ) {
        --pos;
        if ( knownPtr != nullptr && pos >= knownPtr->myFailFrom && pos <= knownPtr->myFailTo ) {
            pos = std::max( least, knownPtr->myFailFrom );
        } else if ( firsts.test( mySubjectPtr[pos] ) ) {
            myNbrOfSteps += nbrOfChars / nbrOfCharsPerStep;
            framePtr->myCount = pos;
            *statePtr = { node.myFast, pos, false };
            return true;
        }
    }
    myNbrOfSteps += nbrOfChars / nbrOfCharsPerStep;
    return false;
}

// Fewer rounds.
bool RegExMatcher::retryRepeat( Frame* framePtr, State* statePtr ) const
{
    const Node& node = myPlan.myNodes[framePtr->myNode];
    while ( framePtr->myCount > node.myMin ) {
        const Pos pos = myScratchPtr->myRounds[framePtr->myRoundsOffset + --framePtr->myCount];
        if ( isOpenTo( node.myNext, pos ) ) {
            statePtr->myNode = node.myFast;
            statePtr->myPos = pos;
            return true;
        }
    }
    return false;
}

// The next alternative, unless the last one has reached the subject's end: none gets farther.
bool RegExMatcher::retryBranch( Frame* framePtr, State* statePtr ) const
{
    if ( statePtr->myMatched &&
         ( framePtr->myBestEnd == noMatch || statePtr->myPos > framePtr->myBestEnd ) ) {
        framePtr->myBestEnd = statePtr->myPos;
        framePtr->myBest = framePtr->myTried;
    }
    const Index other = myPlan.myNodes[framePtr->myTried].myOther;
    const Index next =
        framePtr->myBestEnd == mySize || other == 0 ? noNode : candidate( other, framePtr->myPos );
    if ( next != noNode ) {
        framePtr->myTried = next;
        statePtr->myNode = myPlan.myNodes[next].myFast;
        statePtr->myPos = framePtr->myPos;
        return true;
    }
    statePtr->myMatched = framePtr->myBestEnd != noMatch;
    statePtr->myPos = framePtr->myBestEnd;
    return false;
}

// --- the second pass ----------------------------------------------------------------------------

// Follows the decisions from a node and sets the groups.
// @return the end of the program's or operand's match; noMatch if a decision is missing
RegExMatcher::Pos RegExMatcher::trace( Index index, Pos pos, RegExGroup* groupsPtr )
{
    while ( pos != noMatch ) {
        const Node& node = myPlan.myNodes[index];
        switch ( node.myOp ) {
        case RegExPlan::opEnd:
            return pos;
        case RegExPlan::opOpen:
            groupsPtr[node.myGroup].myStart = pos;
            break;
        case RegExPlan::opClose:
            groupsPtr[node.myGroup].myEnd = pos;
            break;
        case RegExPlan::opBranch:
            index = tracedBranch( index, pos );
            nuvAssertText( myPlan.myNodes[index].myOp == RegExPlan::opBranch,
                           "nodeType( regExPos ) == branch" );
            break;
        case RegExPlan::opRepeat:
            pos = traceRepeat( index, pos, groupsPtr );
            break;
        default:
            pos = node.myOp >= RegExPlan::opRunAny ? tracedRun( index, pos ) : stepEnd( node, pos );
        }
        index = myPlan.myNodes[index].myNext;
    }
    return noMatch;
}

// A run of which nothing is kept went as far as it could.
RegExMatcher::Pos RegExMatcher::tracedRun( Index run, Pos pos )
{
    const Node& node = myPlan.myNodes[run];
    const RegExOutcomes::Entry* const entryPtr = myScratchPtr->myOutcomes.find( run, pos );
    return entryPtr != nullptr ? entryPtr->myDecision : runEnd( node, pos, runLimit( node, pos ) );
}

// A repeat of which nothing is kept had no round.
RegExMatcher::Pos RegExMatcher::traceRepeat( Index repeat, Pos pos, RegExGroup* groupsPtr )
{
    const RegExOutcomes::Entry* const entryPtr = myScratchPtr->myOutcomes.find( repeat, pos );
    const std::uint32_t nbrOfRounds = entryPtr != nullptr ? entryPtr->myDecision : 0;
    for ( std::uint32_t i = 0; i < nbrOfRounds; ++i )
        pos = trace( myPlan.myNodes[repeat].myOperand, pos, groupsPtr );
    return pos;
}

// Alternatives of which nothing is kept had one candidate.
RegExMatcher::Index RegExMatcher::tracedBranch( Index branch, Pos pos ) const
{
    const RegExOutcomes::Entry* const entryPtr = myScratchPtr->myOutcomes.find( branch, pos );
    const Index alternative = entryPtr != nullptr ? static_cast< Index >( entryPtr->myDecision )
                                                  : candidate( branch, pos );
    return alternative != noNode ? alternative : Index( 0 );
}

} // namespace Nuv::Utils
