#pragma once

#include "nuvBuffer.h"

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

/// The node program of a regular expression: its bytes, and how they are read.
///
/// Nodes lie one behind the other. Each begins with a header of three bytes, and its data follow:
///
///     offset  bytes
///     0       1      NodeType, plus the number of the group for open and close
///     1       2      offset of the next node from this one's begin, big-endian; 0: no next one
///     3              the data, by type:
///
///     type      data                                matches
///     end                                           the end of the program or of an operand
///     bol                                           only at the start of the subject
///     eol                                           only at the end of the subject
///     any                                           one character
///     anyOf     members, NUL                        one character that is a member
///     anyBut    excluded characters, NUL            one character that is not excluded
///     branch    the alternative's nodes             an alternative
///     repeat    minimum, maximum (0: none), each    the operand so many times
///               a byte; the operand's nodes, end
///     exactly   characters, NUL                     the characters
///     open + n                                      the start of group n
///     close + n                                     the end of group n
///
/// The next node of a branch is the following alternative, that of the last one the node that
/// closes them all.
///
/// All links lead forward, and a program has at most maxProgramSize bytes, so that they fit.
namespace Nuv::Utils::RegExProgram {

enum NodeType : std::uint8_t
{
    end = 0,
    bol = 1,
    eol = 2,
    any = 3,
    anyOf = 4,
    anyBut = 5,
    branch = 6,
    repeat = 7,
    exactly = 8,
    open = 20,  // plus the group, 1 to maxNbrOfGroups
    close = 120 // plus the group
};

constexpr unsigned int maxNbrOfGroups = 99;
constexpr std::size_t maxProgramSize = 65535;
constexpr std::size_t headerSize = 3;
constexpr std::size_t repeatNodeSize = headerSize + 2;

/// Stands for "no node".
constexpr std::size_t noNode = SIZE_MAX;

// pos is the position of a node's first byte.

inline std::uint8_t byteAt( const Buffer& program, std::size_t pos )
{
    return static_cast< std::uint8_t >( program[pos] );
}

/// @return a NodeType; of open and close without the group
NodeType nodeType( const Buffer& program, std::size_t pos );
/// @return the group of an open or close, 0 for other nodes
unsigned int nodeGroup( const Buffer& program, std::size_t pos );
/// @return noNode if there is none
std::size_t nextNodePos( const Buffer& program, std::size_t pos );
/// @return the characters of anyOf, anyBut and exactly, borrowed from the program
std::string_view nodeText( const Buffer& program, std::size_t pos );
/// Header and data; of branch and repeat without the nodes that follow.
std::size_t nodeSize( const Buffer& program, std::size_t pos );

/// A line for each node: position, name, data, "-> " and the next node's position.
std::string listing( const Buffer& program );

} // namespace Nuv::Utils::RegExProgram
