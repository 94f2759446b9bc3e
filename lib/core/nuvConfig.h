#pragma once

#include "nuv.h"
#include "nuvUtils.h"

#include <cstdint>
#include <functional>
#include <istream>
#include <iterator>
#include <map>
#include <string>
#include <string_view>
#include <vector>

namespace Nuv::Utils {

/// A configuration: a tree of named sections, each with typed key/value pairs.
///
///     # a comment, as with ';'; only whole lines are comments
///     port = 8080                      an integer: decimal, 0x hexadecimal, leading 0 octal
///     [drain/main]                     a section, from the root; sections of one name merge
///     fileName = "main\tlog"           a string, with \n \r \t and any other escaped character
///     title = any text # to the end    a string
///
/// The reader forgives everything: a missing file is empty, a line that cannot be understood is
/// skipped or read as text, the last of two assignments wins. Whoever wants to know what it
/// swallowed loads with loadChecked(). A look-up never fails, it returns the caller's default.
///
/// A section path is names separated by '/'; the empty path is the root, and an empty name within a
/// path names no section. Names and keys are case-sensitive and ordered by their bytes.
///
/// Threads: loaded by one; readers may then run concurrently.
/// Errors:  std::bad_alloc alone.
/// Owns:    all Nodes; Nodes, Values and iterators stay valid until the Config is destroyed, but
///          loading on may change them.
/// Cost:    a look-up walks one ordered map for each name of the path; it copies no name.
/// Example: Config config( "etc/mainApp.conf" ); int ms = config.intValue( "pipe", "timeout", 5 );
class NUV_API Config
{
public:
    class Node;

    struct Value
    {
        enum Type : std::int32_t
        {
            integer = 0,
            string = 1
        };

        Type type = string;
        std::int32_t number = 0; ///< 0 for a string
        std::string text;        ///< of an integer: its signed decimal form
    };

    using Values = std::map< std::string, Value, std::less<> >;
    using Children = std::map< std::string, Node*, std::less<> >;

    /// A position among the sections of one parent, or behind the last one: to address a section
    /// once and query it often, and to go through all. It dereferences to (name, pointer to Node).
    ///
    /// Given to the Config's operations, one behind the last section acts as a missing path does.
    class NUV_API KeyIterator
    {
    public:
        using iterator_category = std::bidirectional_iterator_tag;
        using value_type = Children::value_type;
        using difference_type = std::ptrdiff_t;
        using pointer = const value_type*;
        using reference = const value_type&;

        KeyIterator() = default;

        /// Whether it names a section. (A default-constructed one may only be assigned to.)
        bool isValid() const { return myPos != myEnd; }

        reference operator*() const { return *myPos; }
        pointer operator->() const { return &*myPos; }
        KeyIterator& operator++() { return ++myPos, *this; }
        KeyIterator& operator--() { return --myPos, *this; }
        KeyIterator operator++( int ) { return KeyIterator( myPos++, myEnd ); }
        KeyIterator operator--( int ) { return KeyIterator( myPos--, myEnd ); }
        friend bool operator==( const KeyIterator& a, const KeyIterator& b )
        {
            return a.myPos == b.myPos;
        }

    private:
        friend class Config;
        KeyIterator( Children::const_iterator pos, Children::const_iterator end )
            : myPos( pos )
            , myEnd( end )
        {
        }

        Children::const_iterator myPos;
        Children::const_iterator myEnd;
    };

    /// Something that the reader swallowed, for loadChecked().
    struct NUV_API Remark
    {
        enum Reason : std::int32_t
        {
            noKey = 0,         ///< only '=', space and TAB: the line is ignored
            noEquals,          ///< the key got the empty string
            wordsBeforeEquals, ///< between key and '=': ignored
            unclosedQuote,     ///< the key got the empty string
            textAfterQuote,    ///< behind the closing quote: ignored
            numberAsText,      ///< begins as a number but is none: intValue() gives its default
            keyOverwritten,    ///< an earlier assignment in the section was lost
            unclosedHeader,    ///< a section header without ']'
            textAfterHeader    ///< behind the last ']': read as a further section name
        };

        unsigned int lineNbr = 0; ///< from 1
        Reason reason = noKey;
        std::string section; ///< path of the section that the line belongs to
        std::string key;     ///< empty where the line has none
        std::string line;    ///< the line, trimmed

        /// @return the reason in words, for a report
        const char* reasonStr() const;
    };
    using Remarks = std::vector< Remark >;

    /// The name that stands for the master configuration file.
    static constexpr const char* masterConfFileNameCStr = "nuvs.conf";

    /// "T" "TRUE" "Y" "YES" "t" "true" "y" "yes" and the eight that mean false.
    static const StaticMap< const char*, bool > ourCstrToBoolMap;

    Config();
    explicit Config( std::istream& stream );
    /// Loads a file as loadFrom() does. masterConfFileNameCStr stands for two files of that name:
    /// first the one in "/etc", then the one in the home directory, whose settings win.
    explicit Config( const std::string& fileName );
    Config( const Config& ) = delete;
    Config& operator=( const Config& ) = delete;
    ~Config();

    /// Adds what the stream holds up to its end or failure, merging sections and overwriting keys.
    void loadFrom( std::istream& stream );
    /// @return whether the file could be read; one that cannot adds nothing
    bool loadFrom( const std::string& fileName );

    // The same, and appends what was swallowed, in the order of the lines. Overwriting a key of an
    // earlier load is no remark.
    void loadChecked( std::istream& stream, Remarks* remarksPtr );
    bool loadChecked( const std::string& fileName, Remarks* remarksPtr );

    /// @return the section, null if a name along the path is missing
    Node* findKey( std::string_view path );
    const Node* findKey( std::string_view path ) const;
    const Node& root() const;

    /// @return the section; if a name is missing, the end of the sections where the walk stopped
    KeyIterator keyIterator( std::string_view path ) const;

    /// The sub-sections of a section; an empty range if it is missing.
    KeyIterator begin( std::string_view path ) const;
    KeyIterator end( std::string_view path ) const;
    KeyIterator begin( const KeyIterator& section ) const;
    KeyIterator end( const KeyIterator& section ) const;

    /// The key/value pairs of a section; an empty range if it is missing.
    Values::const_iterator tspBegin( std::string_view path ) const;
    Values::const_iterator tspEnd( std::string_view path ) const;
    Values::const_iterator tspBegin( const KeyIterator& section ) const;
    Values::const_iterator tspEnd( const KeyIterator& section ) const;

    // Typed look-ups, with the rules of Node's; a missing section yields the default.

    int intValue( std::string_view path, std::string_view key, int defaultValue ) const;
    unsigned int uIntValue( std::string_view path, std::string_view key,
                            unsigned int defaultValue ) const;
    std::string stringValue( std::string_view path, std::string_view key,
                             std::string_view defaultValue ) const;
    bool boolValue( std::string_view path, std::string_view key, bool defaultValue ) const;

    int intValue( const KeyIterator& section, std::string_view key, int defaultValue ) const;
    unsigned int uIntValue( const KeyIterator& section, std::string_view key,
                            unsigned int defaultValue ) const;
    std::string stringValue( const KeyIterator& section, std::string_view key,
                             std::string_view defaultValue ) const;
    bool boolValue( const KeyIterator& section, std::string_view key, bool defaultValue ) const;

private:
    Children mySections; // one entry: the root, under the empty name
};

/// One section of a Config.
class NUV_API Config::Node
{
public:
    explicit Node( std::string name, Node* parentPtr = nullptr );
    Node( const Node& ) = delete;
    Node& operator=( const Node& ) = delete;
    /// Releases the whole tree below, however deep, without recursion.
    ~Node();

    /// @return the section of that name, which is made if there is none
    Node* addChild( std::string_view name );
    // Store a value, in place of one that the key has.
    void addTokenValuePair( std::string_view key, std::int32_t number );
    void addTokenValuePair( std::string_view key, std::string text );

    const std::string& name() const { return myName; }
    const Values& values() const { return myValues; }
    const Children& children() const { return myChildren; }
    /// @return the names from the root down, separated by '/'; empty for the root
    std::string path() const;

    /// @return the sub-section or null
    Node* findChild( std::string_view name );
    const Node* findChild( std::string_view name ) const;
    /// @param posPtr receives its position, the end if there is none
    const Node* findChild( std::string_view name, Children::const_iterator* posPtr ) const;

    /// @return the value or null
    const Value* findValue( std::string_view key ) const;

    /// @return the number of an integer; the default also for a string that looks like one
    int intValue( std::string_view key, int defaultValue ) const;
    /// The same, the integer reinterpreted as unsigned.
    unsigned int uIntValue( std::string_view key, unsigned int defaultValue ) const;
    /// @return the text, of an integer its decimal form: "0x10" reads back as "16"
    std::string stringValue( std::string_view key, std::string_view defaultValue ) const;
    /// @return whether an integer is not 0; for a string what ourCstrToBoolMap says, else
    ///         the default
    bool boolValue( std::string_view key, bool defaultValue ) const;

private:
    Value* addValue( std::string_view key );

    std::string myName;
    Values myValues;
    Children myChildren; // owned
    Node* myParentPtr;   // null for the root
};

} // namespace Nuv::Utils
