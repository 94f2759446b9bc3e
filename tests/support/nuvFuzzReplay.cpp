// main() of a fuzz target outside the fuzz build: feeds it each file of the corpus folder, whole,
// cut at every length (of the first 512 bytes) and with single bytes changed.

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes );

namespace {

using Bytes = std::vector< std::uint8_t >;

constexpr std::size_t nbrOfBytesVaried = 512;

// A copy of exactly the input's size, so that the sanitizers see any step beyond it.
void feed( const Bytes& bytes )
{
    const Bytes exact( bytes );
    LLVMFuzzerTestOneInput( exact.data(), exact.size() );
}

void feedVariations( const Bytes& bytes )
{
    feed( bytes );
    for ( std::size_t i = 0; i < bytes.size() && i < nbrOfBytesVaried; ++i ) {
        feed( Bytes( bytes.begin(), bytes.begin() + static_cast< std::ptrdiff_t >( i ) ) );
        Bytes changed = bytes;
        for ( const std::uint8_t mask : { 0x01, 0x20, 0x80, 0xFF } ) {
            changed[i] = static_cast< std::uint8_t >( bytes[i] ^ mask );
            feed( changed );
        }
    }
}

} // namespace

int main( int argc, char** argv )
{
    int nbrOfFiles = 0;
    for ( int i = 1; i < argc; ++i ) {
        for ( const auto& entry : std::filesystem::directory_iterator( argv[i] ) ) {
            std::ifstream file( entry.path(), std::ios::binary );
            feedVariations( Bytes( std::istreambuf_iterator< char >( file ), {} ) );
            ++nbrOfFiles;
        }
    }
    std::printf( "%d corpus files\n", nbrOfFiles );
    return nbrOfFiles > 0 ? 0 : 1; // a target without a corpus would test nothing
}
