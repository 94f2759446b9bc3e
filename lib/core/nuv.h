#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

/// Marks what the shared library exports; everything else is hidden.
#define NUV_API __attribute__( ( visibility( "default" ) ) )
/// For what runs while the library is loaded: stands side by side in memory, so that a program that
/// only links the library maps few pages of its code.
#define NUV_STARTUP __attribute__( ( section( ".text.startup" ) ) )

namespace Nuv {

/// A failure that a caller can handle: a text, a reason code and an error number.
///
/// Thrown in one of two ways: with an empty text and a reason, when the class derives its text from
/// the reason (it overrides getReasonStr()), or with a literal text, reason 0 and error number 0.
/// what() composes "<text> [<reason>,<error number>]" once; the suffix is left out when both are 0.
///
/// Threads: an object belongs to one thread at a time; what() caches its text unsynchronised.
/// Errors:  getReasonStr() of a class with a reason table fails nuvAssert for an unlisted reason,
///          so what() may throw LogicException.
/// Example: throw Io::PipeReadTimeoutException( "read timed out", 0, 0 );
class NUV_API RuntimeException
{
public:
    /// @param textPtr copied; may be empty, not null
    /// @param errorNbr errno of the failed call or another detail number; 0 for none
    RuntimeException( const char* textPtr, int reason, int errorNbr );
    RuntimeException( const RuntimeException& ) = default;
    RuntimeException& operator=( const RuntimeException& ) = default;
    virtual ~RuntimeException();

    /// @return the composed text, owned by the exception, valid until it is assigned or destroyed
    virtual const char* what() const;

    /// Fills the text with the description of the reason; "<unknown reason>" here.
    virtual void getReasonStr() const;

    int reason() const { return myReason; }
    int errorNbr() const { return myErrorNbr; }

protected:
    std::int32_t myReason;
    std::int32_t myErrorNbr;
    mutable bool myBuilt = false;
    mutable std::string myText;
};

/// Text of a fixed 200 bytes that needs no allocation: the object's address is its text's address.
/// Not polymorphic; the base of LogicException and ResourceException alone.
struct NUV_API FixedTextException
{
    static constexpr std::size_t nbrOfTextBytes = 200;

    /// Keeps the first 199 characters, pads with NUL.
    explicit FixedTextException( const char* textPtr );

    const char* what() const { return myText; }

    char myText[nbrOfTextBytes];
};

/// A broken invariant or argument: the programmer must act. Thrown by nuvAssert and nuvIf.
class NUV_API LogicException : public FixedTextException
{
public:
    using FixedTextException::FixedTextException;
};

/// An operating-system resource that could not be had. Thrown by nuvCheckResource.
class NUV_API ResourceException : public FixedTextException
{
public:
    using FixedTextException::FixedTextException;
};

static_assert( sizeof( LogicException ) == FixedTextException::nbrOfTextBytes );
static_assert( sizeof( ResourceException ) == FixedTextException::nbrOfTextBytes );

/// What the assertion forms call once their condition is false. Each writes the message
///
///     nuvAssert: Condition failed: <condition>,  <extra> (FILE: <file>  LINE: <line>)
///        <a line for each stack frame>
///
/// through the standard log source of severity fatal (once the process logs) and throws; the thrown
/// text is the message's first 199 characters. Reentrant: all state lives on the caller's stack.
/// A failed assertion inside the reporting of another one throws without a log line.
namespace AssertHelpers {

/// @param messagePtr null writes no ",  " part; an empty text writes it
[[noreturn]] NUV_API void doNuvAssert( const char* filePtr, unsigned int line,
                                       const char* conditionPtr, const char* messagePtr );
[[noreturn]] NUV_API void doNuvIf( const char* filePtr, unsigned int line,
                                   const char* conditionPtr );
/// The extra text is strerror() of errno as it was on entry.
[[noreturn]] NUV_API void doCheckResource( const char* filePtr, unsigned int line,
                                           const char* conditionPtr );

/// Link seam, defined in nuvLog.cpp: emits the text as one fatal message of the standard source if
/// the process already logs, else does nothing. Throws nothing.
void emitFatalLine( const char* textPtr, std::size_t length ) noexcept;

constexpr const char* message()
{
    return nullptr;
}
constexpr const char* message( const char* textPtr )
{
    return textPtr;
}

} // namespace AssertHelpers
} // namespace Nuv

/// Last resort: flushes the file systems (sync) and aborts the process.
extern "C" [[noreturn]] NUV_API void nuvAbort();

// The condition's own source text is part of the message, so it is stringised here, unexpanded.

/// nuvAssert( condition ) or nuvAssert( condition, "message" ): LogicException unless it holds.
#define nuvAssert( condition, ... ) nuvAssertText( condition, #condition, __VA_ARGS__ )

/// The same with the condition's text given, where it cannot be had by writing the condition so.
#define nuvAssertText( condition, text, ... )                                                      \
    ( ( condition )                                                                                \
          ? static_cast< void >( 0 )                                                               \
          : ::Nuv::AssertHelpers::doNuvAssert( __FILE__, __LINE__, text,                           \
                                               ::Nuv::AssertHelpers::message( __VA_ARGS__ ) ) )

/// Check of a position in a container: LogicException unless it holds.
#define nuvIf( condition )                                                                         \
    ( ( condition ) ? static_cast< void >( 0 )                                                     \
                    : ::Nuv::AssertHelpers::doNuvIf( __FILE__, __LINE__, #condition ) )

/// Straight after a system call that acquires or uses a resource: ResourceException, with the text
/// of errno, unless it holds.
#define nuvCheckResource( condition ) nuvCheckResourceText( condition, #condition )

#define nuvCheckResourceText( condition, text )                                                    \
    ( ( condition ) ? static_cast< void >( 0 )                                                     \
                    : ::Nuv::AssertHelpers::doCheckResource( __FILE__, __LINE__, text ) )
