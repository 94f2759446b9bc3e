#pragma once

#include "nuvBuffer.h"
#include "nuvTransformAlgorithm.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace Nuv::Utils {

/// Base64 text with the alphabet and padding of RFC 4648 and a line feed after every 60
/// characters.
///
/// One object encodes (forward) or decodes (reverse) one text, in any portions, appending to the
/// output. The place in the line is taken from the output's size, so an output that is taken away
/// between two portions, or begins with something else, shifts the line feeds and nothing else.
///
/// Decoding skips space, TAB, CR and LF. A NUL ends the portion (the text goes on with the next
/// one); '=' after two or three characters of a quartet ends the text, and the rest of the
/// portion is ignored, as is a second '=' at the front of the next one.
///
/// Threads: one at a time. The tables are made by the compiler.
/// Errors:  Exception, see its reasons. A call that throws leaves output and pending bytes as
///          they were, but for a grown capacity and reverseFinal(), which drops them.
/// Owns:    up to three pending bytes.
/// Cost:    no allocation but the growth of the output, once a call and to exactly what the call
///          needs at most: for many small portions, reserve the output yourself.
/// Example: Base64 base64( Base64::growOutput ); base64.forwardUpdate( bytes, &text );
///          base64.forwardFinal( &text );
class NUV_API Base64 : public TransformAlgorithm
{
public:
    /// Bit 0 is reserved and changes nothing.
    enum Flags : unsigned int
    {
        growOutput = 2 // enlarge an output Buffer that is too small, instead of throwing
    };

    enum Reason
    {
        reasonNoCapacity = 0, // "Output buffer has insufficient capacity"
        reasonInvalidText = 1 // "Invalid Base64 encoded text"
    };

    /// Error number 0; the text comes from the reason.
    class NUV_API Exception : public RuntimeException
    {
    public:
        using RuntimeException::RuntimeException;
        /// A reason without a text of its own reads "<Unknown Reason>".
        void getReasonStr() const override;
    };

    static constexpr char ourBase64Alphabet[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

    /// The 6-bit value of each character, 0xFF for those outside the alphabet.
    static const std::array< std::uint8_t, 256 > ourReverseBase64Alphabet;

    /// @param flags of Flags
    explicit Base64( unsigned int flags = 0 );
    ~Base64() override;

    /// Encodes the complete groups of 3 bytes of pending bytes and input; 0 to 2 bytes stay
    /// pending. The output needs free capacity for suggestedForwardOutputReserve( input size ) if
    /// there is a complete group.
    void forwardUpdate( const Buffer& input, Buffer* outputPtr ) override;

    /// Decodes the complete quartets of pending characters and input; up to 3 characters stay
    /// pending. The output needs free capacity for suggestedReverseOutputReserve( input size ).
    /// @throws Exception reasonInvalidText for a character of no meaning, '=' among them when
    ///         fewer than two characters of its quartet have come
    void reverseUpdate( const Buffer& input, Buffer* outputPtr ) override;

    /// Encodes pending bytes with padding, without a line feed; needs free capacity for 4 bytes
    /// then.
    void forwardFinal( Buffer* outputPtr ) override;

    /// Ends a text: pending characters, which it drops, are an error.
    /// @throws Exception reasonInvalidText
    void reverseFinal( Buffer* outputPtr ) override;

    /// @return the most that forwardUpdate() of so many bytes appends, and a margin
    virtual std::size_t suggestedForwardOutputReserve( std::size_t inputSize ) const;
    /// @return the most that reverseUpdate() of so many characters appends, and a margin
    virtual std::size_t suggestedReverseOutputReserve( std::size_t inputSize ) const;

    /// Ensures free capacity for so many bytes: by reserving size + needed with growOutput, else
    /// throws Exception reasonNoCapacity.
    void handleOutputBufferCapacity( std::size_t needed, Buffer* outputPtr ) const;

private:
    Buffer myPending;
};

} // namespace Nuv::Utils
