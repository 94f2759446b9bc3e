// Encodings and long numbers against software of others: Python (its zlib module and its integers),
// base64 of coreutils, a b-encoded file that mktorrent made.

#include "nuvBEncoder.h"
#include "nuvBase64.h"
#include "nuvCrc.h"
#include "nuvMpi.h"
#include "nuvTestSupport.h"

#include <random>
#include <sstream>
#include <string>

namespace Nuv::Utils {
namespace {

// A generator for each test, so that its input is the same when it runs alone.
using Engine = std::mt19937_64;

// The output of a shell command on the file "$1" that holds the input.
std::string outputOf( const std::string& command, const std::string& input )
{
    const NuvTest::TemporaryFolder folder;
    NuvTest::writeFile( folder.path( "input" ), input );
    const NuvTest::Outcome outcome =
        NuvTest::runProgram( "/bin/sh", { { "-c", command, "sh", folder.path( "input" ) }, {} } );
    EXPECT_EQ( 0, outcome.exitStatus() ) << outcome.output << outcome.errors;
    return outcome.output;
}

std::string randomBytes( Engine& engine, std::size_t size )
{
    std::string bytes;
    while ( bytes.size() < size )
        bytes += static_cast< char >( engine() );
    return bytes;
}

template < class Item >
const Item& as( const BEncoder::ItemPtr& itemPtr )
{
    return dynamic_cast< const Item& >( *itemPtr );
}

TEST( CrcPeer, ZlibGivesTheSameSums )
{
    Engine engine( 11 );
    const std::string bytes = randomBytes( engine, 5000 );
    std::ostringstream ours;
    for ( std::size_t n = 7; n < bytes.size(); n += 97 ) {
        // zlib takes and gives the finished sum: the register inverted.
        Crc32 continued( ~std::uint32_t( 12345 ) );
        Crc16 crc16( static_cast< std::uint16_t >( n ) );
        continued.update( bytes.data(), n / 3 ); // in two portions
        crc16.update( bytes.data(), n / 3 );
        ours << Crc32::checksum( bytes.data() + n % 7, n - n % 7 ) << ' '
             << ~continued.update( bytes.data() + n / 3, n - n / 3 ).value() << ' '
             << crc16.update( bytes.data() + n / 3, n - n / 3 ).value() << '\n';
    }
    EXPECT_EQ( ours.str(), outputOf( R"(python3 -c '
import sys, zlib, binascii
b = open(sys.argv[1], "rb").read()
for n in range(7, len(b), 97):
    print(zlib.crc32(b[n % 7:n]), zlib.crc32(b[:n], 12345), binascii.crc_hqx(b[:n], n))' "$1")",
                                     bytes ) );
}

TEST( Base64Peer, CoreutilsReadsAndWritesTheSameText )
{
    Engine engine( 12 );
    for ( const std::size_t size : { 0, 1, 44, 45, 46, 100, 4999, 100000 } ) {
        SCOPED_TRACE( size );
        const std::string bytes = randomBytes( engine, size );
        const std::string theirs = outputOf( "base64 -w 60 \"$1\"", bytes );
        Base64 base64( Base64::growOutput );
        Buffer ours, decoded;
        base64.forwardUpdate( bytes, &ours );
        base64.forwardFinal( &ours );
        // They end every line with a line feed, we only full ones.
        EXPECT_EQ( theirs, ours.str() + ( ours.size() % 61 != 0 ? "\n" : "" ) );
        EXPECT_EQ( bytes, outputOf( "base64 -d \"$1\"", ours.str() ) );
        base64.reverseUpdate( theirs, &decoded );
        base64.reverseFinal( &decoded );
        EXPECT_EQ( bytes, decoded.str() );
    }
}

TEST( MpiPeer, PythonReadsAndWritesTheSameDecimals )
{
    Engine engine( 14 );
    std::string input;
    std::ostringstream ours;
    for ( int i = 0; i < 200; ++i ) {
        std::string digits( engine() % 1200, "09"[i % 2] ); // such runs, and any digits behind
        digits.insert( 0, 1, static_cast< char >( '1' + engine() % 9 ) );
        for ( std::size_t n = engine() % 1200; n > 600; --n )
            digits += static_cast< char >( '0' + engine() % 10 );
        input += digits + "\n";
        Mpi number;
        number.setAsciiDecimal( digits.c_str() );
        Buffer back;
        number.getAsciiDecimal( &back );
        EXPECT_EQ( digits, back.str() );
        for ( const char byte : number.bytes() )
            ours << std::hex << ( byte >> 4 & 15 ) << ( byte & 15 );
        ours << ' ' << std::dec << number.sizeInBits() << '\n';
    }
    EXPECT_EQ( ours.str(), outputOf( R"(python3 -c '
import sys
for n in map(int, open(sys.argv[1])):
    print(n.to_bytes((n.bit_length() + 7) // 8, "big").hex(), n.bit_length())' "$1")",
                                     input ) );
}

TEST( BEncoderPeer, ReadsAndRewritesWhatMktorrentMade )
{
    if ( outputOf( "command -v mktorrent || :", "" ).empty() )
        GTEST_SKIP() << "mktorrent is not installed";
    const std::string made =
        outputOf( "mkdir \"$1.set\" && cd \"$1.set\" && split -b 200000 \"$1\" && "
                  "mktorrent -a http://127.0.0.1:8000/announce -c 'a remark' -l 15 -o ../made . "
                  ">&2 && cat ../made",
                  std::string( 300000, 'x' ) );
    IBufferStream stream( made );
    const BEncoder::ItemPtr topPtr = BEncoder::decode( stream );
    OBufferStream again;
    topPtr->encode( &again );
    EXPECT_EQ( made, again.view() );

    const auto& top = as< BEncoder::Dictionary >( topPtr );
    EXPECT_EQ( "a remark", as< BEncoder::StringItem >( top.find( "comment" ) ).bytes() );
    const auto& info = as< BEncoder::Dictionary >( top.find( "info" ) );
    EXPECT_EQ( 32768, as< BEncoder::IntegerItem >( info.find( "piece length" ) ).value() );
    EXPECT_EQ( 10 * 20u, as< BEncoder::StringItem >( info.find( "pieces" ) ).bytes().size() );
    EXPECT_EQ( 2u, as< BEncoder::List >( info.find( "files" ) ).items().size() );
}

} // namespace
} // namespace Nuv::Utils
