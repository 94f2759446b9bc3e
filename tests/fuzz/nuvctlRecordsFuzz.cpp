// Bytes of any content as a shared record: every field lies within them, and what is shown of the
// parts in use is part of what is shown of all.

#include "nuvFuzz.h"
#include "nuvctlRecords.h"

using Nuv::Ctl::RecordField;
using Nuv::Ctl::RecordFields;

namespace {

// The sizes that stand for a record are too large to be found by chance.
void check( std::string bytes, std::size_t nbrOfBytes )
{
    bytes.resize( nbrOfBytes );
    const RecordFields used = RecordFields::of( bytes, false );
    const RecordFields all = RecordFields::of( bytes, true );
    NuvFuzz::require( used.myKind == all.myKind && used.myFields.size() <= all.myFields.size() );
    for ( const RecordField& field : all.myFields ) {
        // A ring's entry may go on at the ring's begin.
        NuvFuzz::require(
            field.myNbrOfBytes != 0 && field.myOffset < nbrOfBytes &&
            ( all.myKind == "ring" || field.myOffset + field.myNbrOfBytes <= nbrOfBytes ) );
    }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput( const std::uint8_t* dataPtr, std::size_t nbrOfBytes )
{
    const std::string bytes = NuvFuzz::text( dataPtr, nbrOfBytes );
    for ( const std::size_t size : { nbrOfBytes, std::size_t{ 6044 }, std::size_t{ 8804 } } )
        check( bytes, size );
    std::string data( 30156, '\0' ); // the health records, and the length of the key store
    data.replace( 152, 4, bytes, 0, 4 );
    data.resize( 156, '\0' );
    data.resize( 30156, 'k' );
    check( data + bytes, 100108 );
    return 0;
}
