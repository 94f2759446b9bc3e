// peers: boost_archive
#include "nuvArchiver.h"
#include "nuvBuffer.h"
#include "nuvUtils.h"

#include <benchmark/benchmark.h>

#include <memory>
#include <string>
#include <vector>

#if NUV_PEER_BOOST_ARCHIVE
#include <boost/archive/binary_iarchive.hpp>
#include <boost/archive/binary_oarchive.hpp>
#include <boost/serialization/export.hpp>
#include <boost/serialization/string.hpp>
#endif

namespace {

using namespace Nuv::Utils;

constexpr int nbrOfObjects = 10000;

class Route : public Archiveable
{
public:
    Route() = default;
    explicit Route( int number )
        : myAddress( static_cast< unsigned int >( number ) * 2654435761u )
        , myMetric( number % 100 )
        , myName( "route-" + std::to_string( number ) )
    {
    }

    const char* className() const override { return "Route"; }
    void writeTo( OutputArchiver& out ) const override
    {
        out.put( myAddress );
        out.put( myMetric );
        out << myName;
    }
    void readFrom( InputArchiver& in ) override
    {
        in.get( &myAddress );
        in.get( &myMetric );
        in >> myName;
    }

    unsigned int myAddress = 0;
    int myMetric = 0;
    std::string myName;
};

void BM_ArchiveRoundTrip( benchmark::State& state )
{
    classTableBuilderFuncPtr()->add( "Route", []() -> Archiveable* { return new Route(); } );
    std::vector< Route > routes;
    for ( int i = 0; i < nbrOfObjects; ++i )
        routes.emplace_back( i );
    std::vector< std::unique_ptr< Archiveable > > restored( nbrOfObjects );
    for ( auto _ : state ) {
        OBufferStream stream;
        OutputArchiver out( stream.rdbuf() );
        for ( const Route& route : routes )
            out.writeObject( &route );
        IBufferStream input( stream.bufferPtr() );
        InputArchiver in( input.rdbuf() );
        for ( auto& objectPtr : restored )
            objectPtr.reset( in.readObject() );
    }
    if ( dynamic_cast< Route& >( *restored.back() ).myName != routes.back().myName )
        state.SkipWithError( "not what was archived" );
}
BENCHMARK( BM_ArchiveRoundTrip )->Unit( benchmark::kMicrosecond );

} // namespace

#if NUV_PEER_BOOST_ARCHIVE
// The same object through a pointer to its base, which the peer too recreates by its class name.
namespace NuvBench {

class Base
{
public:
    virtual ~Base() = default;

    template < class Archive >
    void serialize( Archive&, unsigned int )
    {
    }
};

class Route : public Base
{
public:
    template < class Archive >
    void serialize( Archive& archive, unsigned int )
    {
        archive& boost::serialization::base_object< Base >( *this );
        archive& myAddress& myMetric& myName;
    }

    unsigned int myAddress = 0;
    int myMetric = 0;
    std::string myName;
};

} // namespace NuvBench

BOOST_CLASS_EXPORT( NuvBench::Route )

namespace {

void BM_ArchiveRoundTrip_Boost( benchmark::State& state )
{
    std::vector< std::unique_ptr< NuvBench::Base > > routes;
    for ( int i = 0; i < nbrOfObjects; ++i ) {
        const Route model( i );
        auto routePtr = std::make_unique< NuvBench::Route >();
        routePtr->myAddress = model.myAddress;
        routePtr->myMetric = model.myMetric;
        routePtr->myName = model.myName;
        routes.push_back( std::move( routePtr ) );
    }
    std::vector< std::unique_ptr< NuvBench::Base > > restored( nbrOfObjects );
    for ( auto _ : state ) {
        OBufferStream stream;
        {
            boost::archive::binary_oarchive out( *stream.rdbuf() );
            for ( const auto& routePtr : routes ) {
                const NuvBench::Base* const basePtr = routePtr.get();
                out << basePtr;
            }
        }
        IBufferStream input( stream.bufferPtr() );
        boost::archive::binary_iarchive in( *input.rdbuf() );
        for ( auto& objectPtr : restored ) {
            NuvBench::Base* basePtr = nullptr;
            in >> basePtr;
            objectPtr.reset( basePtr );
        }
    }
}
BENCHMARK( BM_ArchiveRoundTrip_Boost )->Unit( benchmark::kMicrosecond );

} // namespace
#endif
