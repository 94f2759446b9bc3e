#pragma once

#include "nuvUtils.h"

#include <cstddef>
#include <streambuf>
#include <vector>

namespace Nuv::Io {

/// Stream buffer that writes to a plain descriptor.
///
/// What is put is collected and written when nbrOfBufferBytes have come together, at a flush, and
/// by the destructor; a longer text goes out without a copy.
///
/// Threads: one at a time.
/// Errors:  by the stream's state, errno telling why; what could not be written stays collected,
///          and the next flush tries again (the destructor's failure is silent). Interrupted calls
///          are repeated. A non-blocking descriptor that is full is a failure. Whether SIGPIPE
///          kills the process that writes to a pipe without a reader is for the caller to settle.
/// Owns:    a descriptor given as a Handle, which the destructor closes; one given as a number is
///          borrowed and outlives the object.
/// Example: SimpleOStreamBuf buf( fd ); std::ostream( &buf ) << "n " << n << std::flush;
class NUV_API SimpleOStreamBuf : public std::streambuf
{
public:
    static constexpr std::size_t nbrOfBufferBytes = 4096;

    explicit SimpleOStreamBuf( int fd );
    explicit SimpleOStreamBuf( Utils::Handle&& handle );
    SimpleOStreamBuf( const SimpleOStreamBuf& ) = delete;
    SimpleOStreamBuf& operator=( const SimpleOStreamBuf& ) = delete;
    ~SimpleOStreamBuf() override;

    int fd() const { return myFd; }

protected:
    int_type overflow( int_type c = traits_type::eof() ) override;
    std::streamsize xsputn( const char* ptr, std::streamsize count ) override;
    /// @return 0, or -1 if not all could be written
    int sync() override;

private:
    std::size_t nbrOfCollected() const { return static_cast< std::size_t >( pptr() - pbase() ); }

    Utils::Handle myHandle; // invalid while the descriptor is borrowed
    int myFd;
    std::vector< char > myBytes;
};

/// Stream buffer that reads from a plain descriptor, up to nbrOfBufferBytes ahead.
///
/// The last nbrOfPutbackBytes characters can be put back.
///
/// Threads: one at a time.
/// Errors:  a failed read is the end of the file, errno telling why; errno 0 is the real end.
///          Interrupted calls are repeated.
/// Owns:    a descriptor given as a Handle, which the destructor closes; one given as a number is
///          borrowed and outlives the object.
/// Example: SimpleIStreamBuf buf( fd ); std::istream stream( &buf ); std::getline( stream, line );
class NUV_API SimpleIStreamBuf : public std::streambuf
{
public:
    static constexpr std::size_t nbrOfBufferBytes = 4096;
    static constexpr std::size_t nbrOfPutbackBytes = 8;

    explicit SimpleIStreamBuf( int fd );
    explicit SimpleIStreamBuf( Utils::Handle&& handle );
    SimpleIStreamBuf( const SimpleIStreamBuf& ) = delete;
    SimpleIStreamBuf& operator=( const SimpleIStreamBuf& ) = delete;
    ~SimpleIStreamBuf() override;

    int fd() const { return myFd; }

protected:
    int_type underflow() override;

private:
    Utils::Handle myHandle; // invalid while the descriptor is borrowed
    int myFd;
    std::vector< char > myBytes;
};

} // namespace Nuv::Io
