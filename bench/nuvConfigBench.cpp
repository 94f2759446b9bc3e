// peers: inih boost
// A file of 1000 lines (50 sections of 19 keys, texts and numbers alternating) and 1000 look-ups by
// section and key.

#include "nuvConfig.h"

#include <array>
#include <benchmark/benchmark.h>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <unistd.h>
#include <vector>

#ifdef NUV_PEER_INIH
#include <INIReader.h>
#endif
#ifdef NUV_PEER_BOOST
#include <boost/property_tree/ini_parser.hpp>
#include <boost/property_tree/ptree.hpp>
#endif

namespace {

using Nuv::Utils::Config;

constexpr int nbrOfSections = 50;
constexpr int nbrOfKeys = 19;

std::string sectionName( int i )
{
    return "zone" + std::to_string( i );
}
std::string keyName( int i )
{
    return "settingNumber" + std::to_string( i );
}

std::string makeText()
{
    std::string text;
    for ( int i = 0; i < nbrOfSections; ++i ) {
        text += "[" + sectionName( i ) + "]\n";
        for ( int k = 0; k < nbrOfKeys; ++k ) {
            text += keyName( k ) + " = " +
                    ( k % 2 == 0 ? std::to_string( i * k ) : "currenttime,elapsedtime,appname" ) +
                    "\n";
        }
    }
    return text;
}

// The file that all readers open, removed at exit.
struct File
{
    File()
    {
        const int fd = ::mkstemp( myPath.data() );
        if ( fd == -1 )
            std::abort();
        ::close( fd );
        std::ofstream( myPath ) << makeText();
    }
    ~File() { ::unlink( myPath.c_str() ); }
    std::string myPath = "/tmp/nuvConfigBench.XXXXXX";
};

const std::string& filePath()
{
    static const File file;
    return file.myPath;
}

struct LookUp
{
    std::string mySection;
    std::string myKey;
    bool myIsNumber;
};

std::vector< LookUp > makeLookUps()
{
    std::vector< LookUp > lookUps;
    for ( int i = 0; i < 1000; ++i ) {
        const int k = ( i * 7 ) % nbrOfKeys;
        lookUps.push_back(
            { sectionName( ( i * 13 ) % nbrOfSections ), keyName( k ), k % 2 == 0 } );
    }
    return lookUps;
}

void check( bool condition )
{
    if ( !condition )
        std::abort();
}

void BM_ConfigParse( benchmark::State& state )
{
    for ( auto _ : state ) {
        const Config config( filePath() );
        check( config.intValue( "zone7", "settingNumber2", -1 ) == 14 );
    }
}
BENCHMARK( BM_ConfigParse );

void BM_ConfigLookUp( benchmark::State& state )
{
    const Config config( filePath() );
    const std::vector< LookUp > lookUps = makeLookUps();
    for ( auto _ : state ) {
        std::size_t sum = 0;
        for ( const LookUp& lookUp : lookUps ) {
            sum += lookUp.myIsNumber
                       ? static_cast< std::size_t >(
                             config.intValue( lookUp.mySection, lookUp.myKey, -1 ) )
                       : config.stringValue( lookUp.mySection, lookUp.myKey, "" ).size();
        }
        benchmark::DoNotOptimize( sum );
    }
}
BENCHMARK( BM_ConfigLookUp );

#ifdef NUV_PEER_INIH
void BM_ConfigParse_Inih( benchmark::State& state )
{
    for ( auto _ : state ) {
        const INIReader reader( filePath() );
        check( reader.GetInteger( "zone7", "settingNumber2", -1 ) == 14 );
    }
}
BENCHMARK( BM_ConfigParse_Inih );

void BM_ConfigLookUp_Inih( benchmark::State& state )
{
    const INIReader reader( filePath() );
    const std::vector< LookUp > lookUps = makeLookUps();
    for ( auto _ : state ) {
        std::size_t sum = 0;
        for ( const LookUp& lookUp : lookUps ) {
            sum += lookUp.myIsNumber ? static_cast< std::size_t >(
                                           reader.GetInteger( lookUp.mySection, lookUp.myKey, -1 ) )
                                     : reader.Get( lookUp.mySection, lookUp.myKey, "" ).size();
        }
        benchmark::DoNotOptimize( sum );
    }
}
BENCHMARK( BM_ConfigLookUp_Inih );
#endif

#ifdef NUV_PEER_BOOST
namespace pt = boost::property_tree;

void BM_ConfigParse_PropertyTree( benchmark::State& state )
{
    for ( auto _ : state ) {
        pt::ptree tree;
        pt::read_ini( filePath(), tree );
        check( tree.get< int >( "zone7.settingNumber2" ) == 14 );
    }
}
BENCHMARK( BM_ConfigParse_PropertyTree );

void BM_ConfigLookUp_PropertyTree( benchmark::State& state )
{
    pt::ptree tree;
    pt::read_ini( filePath(), tree );
    std::vector< LookUp > lookUps = makeLookUps();
    for ( LookUp& lookUp : lookUps ) {
        lookUp.mySection += "." + lookUp.myKey; // the path is made beforehand
    }
    for ( auto _ : state ) {
        std::size_t sum = 0;
        for ( const LookUp& lookUp : lookUps ) {
            sum += lookUp.myIsNumber
                       ? static_cast< std::size_t >( tree.get< int >( lookUp.mySection, -1 ) )
                       : tree.get< std::string >( lookUp.mySection, "" ).size();
        }
        benchmark::DoNotOptimize( sum );
    }
}
BENCHMARK( BM_ConfigLookUp_PropertyTree );
#endif

} // namespace
