#pragma once

#include "nuvBuffer.h"
#include "nuvUtils.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace Nuv::Utils {

class RegExPlan;

/// Regular expression: a pattern compiled into a node program, for searches in character strings.
///
///     a|b        one of the alternatives: the one with which the whole match reaches farthest,
///                of equals the first
///     x* x+ x?   x any number of times, at least once, at most once: as often as possible
///     x{n}       x n times; x{n,} at least n times; x{n,m} n to m times; n, m <= 255, m not 0
///     (x)        x, as a group; there may be 99
///     .          any character
///     ^ $        the start, the end of the subject
///     [abc]      a member; [^abc] any character but these; a-z is a range. Members are also ']' at
///                the front, '-' at either edge or behind a range, and whatever is escaped
///     \n \x4F    a control character (a b f n r t v), the character of this code (1 or 2 digits)
///     \c         any other character but 0: itself, also within a set
///
/// What is repeated must not be able to match nothing, but for '?' and {0,1}. A group in a round
/// of a repeat is matched as if the pattern ended behind it: what follows may take fewer rounds,
/// but not another end of a round. Of several rounds, a group keeps what the last one gave it that
/// reached it; alternatives and rounds that were given up leave nothing.
///
/// A pattern that begins with '^' (and is no alternation) is tried at the start of the subject,
/// any other at each of its characters: that one matches neither at the very end nor an empty
/// subject.
///
/// Threads: any number may search with one object; changes and destruction are the owner's to
///          order.
/// Errors:  Exception with reason 0 and error number 0; std::bad_alloc; null for a text fails
///          nuvAssert.
/// Owns:    the program, shared by copies. Each thread keeps up to 1 MiB of storage for searches.
/// Cost:    compiling is linear in the program, of at most 65535 bytes. A search never takes more
///          than quadratic time in the subject, whatever the pattern. Neither takes more than 64
///          KiB of stack. A search allocates only when it needs more storage than the thread has
///          kept, and copies the subject only to fold its case.
/// Example: RegEx regEx( "(b+)" ); RegEx::SearchResults results;
///          if ( regEx.search( "abbc", &results ) ) regEx.format( &text, "<\\1>", results );
class NUV_API RegEx
{
public:
    enum Flags : unsigned int
    {
        /// Unescaped letters of the pattern and those of the subject are compared in lower case, by
        /// the C library's tolower(). An escaped capital letter then matches nothing.
        caseInsensitive = 1,
        /// A pattern that is refused makes an invalid object instead of an exception.
        silentCompile = 2
    };

    /// Reason 0, error number 0; the text is that of the fault, for instance "Expected ')'".
    class NUV_API Exception : public RuntimeException
    {
    public:
        using RuntimeException::RuntimeException;
    };

    /// A group's, or the whole match's, part of the subject.
    struct Subexpr
    {
        /// Whether it took part; false for a group that matched no character. (The whole match may
        /// be empty.)
        bool isPartOfMatch() const { return myMatched; }
        /// The text, borrowed from the subject; empty if it took no part.
        std::string_view text() const
        {
            return std::string_view( myStartPtr,
                                     static_cast< std::size_t >( myEndPtr - myStartPtr ) );
        }

        const char* myStartPtr = nullptr; ///< both are null for a group that was not reached
        const char* myEndPtr = nullptr;
        bool myMatched = false;
    };

    /// Entry 0 is the whole match, entry n group n, counted by their '('.
    using SearchResults = std::vector< Subexpr >;

    /// @param flags of Flags
    explicit RegEx( const char* patternPtr, unsigned int flags = 0 );
    RegEx( const RegEx& other );
    RegEx( RegEx&& other ) noexcept;
    RegEx& operator=( const RegEx& other );
    RegEx& operator=( RegEx&& other ) noexcept;
    ~RegEx();

    /// Whether the pattern matches somewhere in the subject: at the first place where it does.
    /// @param resultsPtr may be null; gets an entry for the match and each group, which point into
    /// the
    ///        subject; none of them takes part if the result is false
    /// @return false also for an invalid object
    /// @throws Exception "Subject too long" for 4 GiB and more
    bool search( const char* subjectPtr, SearchResults* resultsPtr = nullptr ) const;

    /// Appends the template with '&' replaced by the whole match, and a backslash with decimal
    /// digits by that group's text (0: the whole match; nothing for a group that the results do not
    /// have). Two backslashes give one, a backslash and '&' give '&'; before anything else a
    /// backslash stays.
    /// @param outputPtr must not be the subject of the results
    /// @throws Exception "Attempting replace on invalid search." if entry 0 takes no part
    static void format( std::string* outputPtr, const char* templatePtr,
                        const SearchResults& results );

    bool isValid() const { return myPlanPtr.get() != nullptr; }
    unsigned int flags() const { return myFlags; }
    /// 0 for an invalid object, as is the program empty.
    unsigned int nbrOfGroups() const;
    /// The compiled program; its bytes are described with its reader.
    const Buffer& program() const;
    /// A line for each node of the program: position, name, data, position of the next node.
    std::string programText() const;

    /// A measure of the work of the calling thread's last search: the nodes that it has visited,
    /// and one more for 8 characters that a repeat has stepped through.
    static std::uint64_t lastNbrOfSteps();

private:
    unsigned int myFlags;
    CountedPtr< const RegExPlan > myPlanPtr; // null: invalid
};

} // namespace Nuv::Utils
