#pragma once

#include "nuv.h"

namespace Nuv::Utils {

class Buffer;

/// Interface of reversible transforms of bytes that work in portions, from one Buffer into
/// another.
///
/// forwardUpdate() takes any number of portions and appends what results to the output;
/// forwardFinal() appends what the last portion left over. reverseUpdate() and reverseFinal()
/// lead back. What a derived class does not offer stays a programming error.
///
/// Threads: one at a time.
/// Errors:  the operations of this class fail nuvAssert; those of a derived class say what they
///          throw.
/// Owns:    nothing; Buffers are borrowed for the call and must differ.
class NUV_API TransformAlgorithm
{
public:
    /// @param flags their meaning is the derived class's
    explicit TransformAlgorithm( unsigned int flags = 0 )
        : myFlags( flags )
    {
    }
    virtual ~TransformAlgorithm();

    virtual void forwardUpdate( const Buffer& input, Buffer* outputPtr );
    virtual void reverseUpdate( const Buffer& input, Buffer* outputPtr );
    virtual void forwardFinal( Buffer* outputPtr );
    virtual void reverseFinal( Buffer* outputPtr );

    unsigned int flags() const { return myFlags; }

protected:
    unsigned int myFlags;
};

} // namespace Nuv::Utils
