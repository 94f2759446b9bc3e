// Reads the bytes as an archive of nodes that hold every kind of value and further objects. What
// reads is written again, and its reading must give the same bytes.

#include "nuvArchiver.h"
#include "nuvUtils.h"

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <string>

namespace {

using namespace Nuv::Utils;

struct Node : Archiveable
{
    const char* className() const override { return "N"; }
    void writeTo( OutputArchiver& out ) const override
    {
        out.put( myChar );
        out.put( myBool );
        out.put( myShort );
        out.put( myLong );
        out.put( myDouble );
        out << myText << myWideText;
        out.putString( myRawText );
        out.writeObject( myChildPtr.get() );
        out.writeObject( myOtherPtr.get() );
    }
    void readFrom( InputArchiver& in ) override
    {
        in.get( &myChar );
        in.get( &myBool );
        in.get( &myShort );
        in.get( &myLong );
        in.get( &myDouble );
        in >> myText >> myWideText;
        in.getString( &myRawText );
        myChildPtr = in.readObject();
        myOtherPtr = in.readObject();
    }

    char myChar = 0;
    bool myBool = false;
    short myShort = 0;
    long myLong = 0;
    double myDouble = 0;
    std::string myText;
    std::wstring myWideText;
    std::string myRawText;
    Ptr< Archiveable > myChildPtr;
    Ptr< Archiveable > myOtherPtr;
};

const bool isRegistered = [] {
    classTableBuilderFuncPtr()->add( "N", []() -> Archiveable* { return new Node(); } );
    std::cerr.setstate( std::ios_base::badbit ); // no line for each wrong version
    return true;
}();

std::string written( const Archiveable* objectPtr )
{
    std::stringbuf buf;
    OutputArchiver out( &buf );
    out.writeObject( objectPtr );
    return buf.str();
}

Archiveable* read( const std::string& bytes )
{
    std::stringbuf buf( bytes );
    InputArchiver in( &buf );
    return in.readObject();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    try {
        const std::string bytes( reinterpret_cast< const char* >( dataPtr ), nbrOfBytes );
        const Ptr< Archiveable > objectPtr( read( bytes ) );
        const std::string first = written( objectPtr.get() );
        const Ptr< Archiveable > againPtr( read( first ) );
        if ( written( againPtr.get() ) != first )
            std::abort();
    } catch ( const Archiver::Exception& ) {
    }
    return 0;
}
