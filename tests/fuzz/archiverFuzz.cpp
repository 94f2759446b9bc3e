// Reads the bytes as an archive of nodes that hold every kind of value and further objects. What
// reads is written again, and its reading must give the same bytes.

#include "nuvArchiver.h"
#include "nuvFuzz.h"
#include "nuvUtils.h"

#include <iostream>
#include <sstream>
#include <tuple>

namespace {

using namespace Nuv::Utils;
using NuvFuzz::require;

struct Node : Archiveable
{
    const char* className() const override { return "N"; }
    void writeTo( OutputArchiver& out ) const override
    {
        std::apply( [&]( const auto&... value ) { ( out.put( value ), ... ); }, myNumbers );
        out << myText << myWideText;
        out.putString( myRawText );
        out.writeObject( myChildPtr.get() );
        out.writeObject( myOtherPtr.get() );
    }
    void readFrom( InputArchiver& in ) override
    {
        std::apply( [&]( auto&... value ) { ( in.get( &value ), ... ); }, myNumbers );
        in >> myText >> myWideText;
        in.getString( &myRawText );
        myChildPtr = in.readObject();
        myOtherPtr = in.readObject();
    }

    std::tuple< char, bool, short, long, double > myNumbers;
    std::string myText, myRawText;
    std::wstring myWideText;
    Ptr< Archiveable > myChildPtr, myOtherPtr;
};

const bool isRegistered = [] {
    classTableBuilderFuncPtr()->add( "N", []() -> Archiveable* { return new Node(); } );
    std::cerr.setstate( std::ios_base::badbit ); // no line for each wrong version
    return true;
}();

// The bytes of the object that reads from these.
std::string copied( const std::string& bytes )
{
    std::stringbuf inBuf( bytes ), outBuf;
    InputArchiver in( &inBuf );
    const Ptr< Archiveable > objectPtr( in.readObject() );
    OutputArchiver out( &outBuf );
    out.writeObject( objectPtr.get() );
    return outBuf.str();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    try {
        const std::string first = copied( NuvFuzz::text( dataPtr, nbrOfBytes ) );
        require( copied( first ) == first );
    } catch ( const Archiver::Exception& ) {
    }
    return 0;
}
