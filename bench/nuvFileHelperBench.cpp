#include "nuvFileHelper.h"

#include "nuvBenchProcess.h"

#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fcntl.h>
#include <vector>

namespace {

using Nuv::Io::FileHelper;

const NuvBench::Root ourRoot;

constexpr std::size_t fileSize = 4 << 20;

const Nuv::Io::Pathname& file()
{
    static const Nuv::Io::Pathname ourFile = [] {
        FileHelper helper( 0 );
        helper.pathname = Nuv::Io::Pathname( Nuv::Utils::String( ::getenv( "HOME" ) ) + "/file" );
        helper.data = Nuv::Utils::Buffer( std::string( fileSize, 'x' ) );
        helper.store();
        return helper.pathname;
    }();
    return ourFile;
}

void BM_FileLoad( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    file();
    for ( auto _ : state ) {
        FileHelper helper( fileSize );
        helper.pathname = file();
        if ( !helper.load() || helper.data.size() != fileSize )
            state.SkipWithError( "the file did not come" );
    }
}
BENCHMARK( BM_FileLoad )->UseRealTime();

void BM_FileLoad_Read( benchmark::State& state )
{
    const NuvBench::PinScope pinned( 0 );
    std::vector< char > buffer( fileSize );
    const char* const pathname = file().cStr();
    for ( auto _ : state ) {
        const int fd = ::open( pathname, O_RDONLY | O_CLOEXEC );
        if ( ::read( fd, buffer.data(), fileSize ) != static_cast< ssize_t >( fileSize ) )
            state.SkipWithError( "the file did not come" );
        ::close( fd );
    }
}
BENCHMARK( BM_FileLoad_Read )->UseRealTime();

} // namespace
