#pragma once

#include "nuvRegExPlan.h"

#include <cstddef>
#include <cstdint>
#include <vector>

namespace Nuv::Utils {

/// What a node gives at a position of the subject, with all that follows it up to the end of the
/// program or of the operand that it lies in: where the match ends, or that there is none. That
/// depends on nothing else, so it holds for a whole search and is found once.
///
/// An open hash table that is emptied in no time, for the next search.
///
/// Errors:  std::bad_alloc.
/// Cost:    16 bytes an entry, half of them free.
class RegExOutcomes
{
public:
    /// The end of a match that there is not.
    static constexpr std::uint32_t noMatch = 0xFFFFFFFF;

    struct Entry
    {
        std::uint32_t myPos;
        RegExPlan::Index myNode;
        std::uint16_t mySearch;   // the entry is free if this is of an earlier one
        std::uint32_t myEnd;      // or noMatch
        std::uint32_t myDecision; // branch: the alternative; run: its end; repeat: the rounds
    };

    /// @return null if it is not known
    const Entry* find( RegExPlan::Index node, std::uint32_t pos ) const;
    void keep( RegExPlan::Index node, std::uint32_t pos, std::uint32_t end,
               std::uint32_t decision );
    void clear();
    /// Bytes of storage.
    std::size_t nbrOfBytes() const { return myEntries.capacity() * sizeof( Entry ); }

private:
    std::size_t slotOf( RegExPlan::Index node, std::uint32_t pos ) const;
    void grow();

    std::vector< Entry > myEntries; // a power of two of them, or none
    std::size_t myNbrOfUsed = 0;
    std::uint16_t mySearch = 0;
};

/// The storage of a search, kept for the next one.
struct RegExScratch
{
    // A place to which a search comes back when what follows has failed, or, for alternatives, to
    // try the other ones.
    struct Frame
    {
        RegExPlan::Index myNode;
        RegExPlan::Index myTried;     // the alternative
        RegExPlan::Index myBest;      // the alternative that reached farthest
        std::uint32_t myPos;          // where the node was met
        std::uint32_t myCount;        // run: its end; repeat: the rounds
        std::uint32_t myBestEnd;      // alternatives: how far, or noMatch; run: its greatest end
        std::uint32_t myRoundsOffset; // repeat: its part of myRounds
    };

    // Of a run: positions behind which nothing can follow it, and where a run has been measured.
    struct Run
    {
        std::uint32_t myFailFrom = 1;
        std::uint32_t myFailTo = 0; // included
        std::uint32_t myFrom = 1;
        std::uint32_t myEnd = 0; // included: a run from there has no character
    };

    static constexpr std::size_t maxNbrOfBytesKept = 1 << 20;

    /// Gives back what is more than that.
    void trim();

    std::vector< Frame > myFrames;
    std::vector< std::uint32_t > myRounds; // of each repeat, where its rounds began and ended
    std::vector< Run > myRuns;             // by node; empty until all outcomes are kept
    RegExOutcomes myOutcomes;
    std::vector< char > myFolded; // the subject in lower case
};

/// The start and end of a group, as offsets; both noMatch if it took no part.
struct RegExGroup
{
    std::uint32_t myStart;
    std::uint32_t myEnd;
};

/// One search of a subject, by the rule that of several alternatives the one whose match reaches
/// farthest is taken (of equals the earlier one), and that a repeat takes as many rounds as it can
/// and gives them back one by one. A round ends where its operand's own match ends: it is not tried
/// again to end elsewhere.
///
/// A first pass finds where the match ends. It keeps the decisions on its roads, and once it has
/// made more steps than a well-behaved pattern needs it keeps all outcomes, which bounds them:
/// every node is then tried once at each position. A second pass follows the decisions and sets
/// the groups, so that nothing of a road that was given up is left.
///
/// Threads: one at a time.
/// Errors:  std::bad_alloc; the scratch may then be used again.
/// Owns:    nothing.
/// Cost:    never more than quadratic in the subject, and mostly linear: what cannot follow a run
///          is kept as an interval, and what comes of one more round once for each place. The call
///          stack is as deep as repeats lie in one another: at most 100 levels of 400 bytes.
class RegExMatcher
{
public:
    static constexpr std::uint32_t noMatch = RegExOutcomes::noMatch;
    /// The longest subject.
    static constexpr std::size_t maxSubjectSize = noMatch - 1;

    /// The subject is size bytes and a NUL; no other byte is NUL.
    /// @param nbrOfFreeSteps after so many all outcomes are kept
    RegExMatcher( const RegExPlan& plan, const char* subjectPtr, std::size_t size,
                  RegExScratch* scratchPtr, std::uint64_t nbrOfFreeSteps );
    RegExMatcher( const RegExPlan& plan, const char* subjectPtr, std::size_t size,
                  RegExScratch* scratchPtr )
        : RegExMatcher( plan, subjectPtr, size, scratchPtr, 1000 + 4 * std::uint64_t( size ) )
    {
    }

    /// Looks for the first place where the pattern matches.
    /// @param groupsPtr the whole match and the plan's groups, all noMatch before; may be null
    bool search( RegExGroup* groupsPtr );

    /// Nodes visited so far; one more for 8 characters that a run steps through.
    std::uint64_t nbrOfSteps() const { return myNbrOfSteps; }

private:
    using Index = RegExPlan::Index;
    using Node = RegExPlan::Node;
    using Frame = RegExScratch::Frame;
    using Pos = std::uint32_t;

    // Where to go on, or how it ended.
    struct State
    {
        Index myNode;
        Pos myPos;
        bool myMatched;
    };
    enum Next
    {
        nextNode, // go on at the state's node
        nextDone  // the state says whether it matched
    };

    bool tryAt( Pos start, RegExGroup* groupsPtr );
    Pos findStart( Pos pos ) const;
    Pos findPair( Pos pos ) const;

    bool run( Index first, Pos pos, Pos* endPtr );
    void forward( State* statePtr );
    Next enter( State* statePtr );
    Next enterRun( State* statePtr );
    Next enterRepeat( State* statePtr );
    Next enterBranch( State* statePtr );
    Next fail( State* statePtr );
    const RegExOutcomes::Entry* doRounds( Frame* framePtr );

    bool goBack( std::size_t nbrOfFramesBelow, State* statePtr );
    bool retryRun( Frame* framePtr, State* statePtr );
    bool retryRepeat( Frame* framePtr, State* statePtr ) const;
    bool retryBranch( Frame* framePtr, State* statePtr ) const;
    void leave( const Frame& frame, const State& state );
    void keepFailure( const Frame& frame );
    void keepRounds( const Frame& frame, const State& state );

    RegExScratch::Run* runPtr( Index run );
    Pos keptRunEnd( Index run, Pos pos );
    Pos runLimit( const Node& node, Pos pos ) const;
    Pos runEnd( const Node& node, Pos pos, Pos limit );
    Pos stepEnd( const Node& node, Pos pos ) const;
    Index candidate( Index branch, Pos pos ) const;
    bool isOpenTo( Index index, Pos pos ) const
    {
        return myPlan.myFirsts[index].test( mySubjectPtr[pos] );
    }
    bool keepsAll() const { return myNbrOfSteps > myNbrOfFreeSteps; }

    Pos trace( Index index, Pos pos, RegExGroup* groupsPtr );
    Pos traceRepeat( Index repeat, Pos pos, RegExGroup* groupsPtr );
    Pos tracedRun( Index run, Pos pos );
    Index tracedBranch( Index branch, Pos pos ) const;

    static constexpr Index noNode = 0xFFFF;

    const RegExPlan& myPlan;
    const char* mySubjectPtr;
    Pos mySize;
    RegExScratch* myScratchPtr;
    bool myKeepsRoads = false; // for the second pass
    std::uint64_t myNbrOfSteps = 0;
    std::uint64_t myNbrOfFreeSteps;
};

} // namespace Nuv::Utils
