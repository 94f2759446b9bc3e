#pragma once

#include "nuvctl.h"

#include <string>
#include <string_view>

/// What the commands encode, decode and crc share.
namespace Nuv::Ctl {

/// @param file "" or "-" for standard input
/// @return false after a complaint
bool readInput( const std::string& file, std::string* bytesPtr );

/// Bytes as they are, to standard output.
int writeOutput( std::string_view bytes );

/// The bytes as a text, or, if they are none, in the form {"$base64": "..."}.
Json bytesJson( std::string_view bytes );

/// Lines "TYPE VALUE" to an archive, which goes to standard output.
int encodeArchive( const std::string& lines );

/// An archive to such lines.
/// @param fields the types of the values in their order, separated by commas; the last ones repeat
///        when the first ones are used up. An archive does not tell the types of its values:
///        without fields the classes that seem to occur are shown.
int decodeArchive( const CommonOptions& common, const std::string& bytes,
                   const std::string& fields );

} // namespace Nuv::Ctl
