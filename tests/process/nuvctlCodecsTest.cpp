// nuvctl encode, decode, crc and regex, run as an operator runs them.

#include "nuvTestSupport.h"

#include <tuple>

namespace {

using namespace std::string_literals;

NuvTest::Outcome nuvctl( const std::string& words, const std::string& input )
{
    NuvTest::ChildProcess process(
        "/bin/sh", { { "-c", "exec \"$0\" " + words, NuvTest::tool( "nuvctl" ) }, {} } );
    process.writeInput( input );
    process.closeInput();
    return process.wait();
}

TEST( NuvctlCodecs, ShowAndEncode )
{
    const std::tuple< const char*, std::string, std::string > rows[] = {
        // words, input, output
        { "decode base64 -", "TWFu\nTQ==\n", "ManM" },
        { "crc 32 --initial 0xFFFFFFFF", "123456789", "340bc6d9\n" },
        { "decode bencode", "d1:ali-1e2:\n\\e1:bdee",
          "dictionary\n  a: list\n    - -1\n    - \"\\x0a\\\"\n  b: dictionary\n" },
        { "encode bencode", "{\"b\":[-2147483648,{}],\"a\":{\"$base64\":\"gP8=\"}}",
          "d1:a2:\x80\xFF"
          "1:bli-2147483648edeee" },
        { "encode archive",
          "object N\nint -2\nobject M\nobject N\nstring a\\x00\\\\\nwstring \\u20ac\nnull\n",
          "\xC5\xC0\0\0\0\1ca\0\0\0\1Nd\xFF\xFF\xFF\xFE"
          "ca\0\0\0\1MdC\0\0\0\0da\0\0\0\3a\0\\w\0\0\0\1\x20\xACN"s },
        { "decode archive --fields object,int,bool,wchar",
          "\xC5\xC0\0\0\0\1ca\0\0\0\1Nd\0\0\0\5T\x80\0C\0\0\0\0d\0\0\0\6F\0\1"s,
          "object N\nint 5\nbool true\nwchar -32768\nobject N\nint 6\nbool false\nwchar 1\n" },
        { "decode archive", "\xC5\xC0\0\0\0\1xca\0\0\0\1Nd"s,
          "archive of version 1, 15 bytes\nclass N at offset 7\n"
          "An archive does not tell the types of its values; give them by --fields.\n" },
        { "regex -i --program 'A(x)?' -", "c\n\xFF.a\n",
          "    0 branch -> 30\n    3 anyOf \"a\" -> 8\n    8 repeat {0,1} -> 30\n"
          "   13 open 1 -> 16\n   16 branch -> 24\n   19 anyOf \"x\" -> 24\n   24 close 1 -> 27\n"
          "   27 end\n   30 end\nline 2: \xFF.a\n"
          "PART     FROM  TO  TEXT\nmatch    2     3   a\ngroup 1  -     -\n3 steps\n" },
    };
    for ( const auto& [wordsPtr, input, output] : rows ) {
        const NuvTest::Outcome outcome = nuvctl( wordsPtr, input );
        EXPECT_EQ( output, outcome.output ) << wordsPtr;
        EXPECT_EQ( "0", std::to_string( outcome.exitStatus() ) + outcome.errors ) << wordsPtr;
    }
    const std::string item = "d4:filel3:a\"b2:\x80\xFEi-7eee";
    const std::string json = nuvctl( "decode bencode --json", item ).output;
    EXPECT_EQ( item, nuvctl( "encode bencode", json ).output );
}

TEST( NuvctlCodecs, RefusalsNameTheFault )
{
    const std::tuple< const char*, std::string, int, const char* > rows[] = {
        { "decode base64", "T*", 1, "nuvctl: Invalid Base64 encoded text [1,0]\n" },
        { "decode bencode", "e", 1, "nuvctl: an 'e' stands where" },
        { "decode bencode", "i1ei2e", 1, "nuvctl: 3 bytes follow the item\n" },
        { "decode bencode --json", "d1:\xFFi1ee", 1, "nuvctl: the key" },
        { "encode bencode", "[", 1, "nuvctl: the input is no JSON" },
        { "encode bencode", std::string( 257, '[' ) + std::string( 257, ']' ), 1,
          "nuvctl: nested too deeply" },
        { "encode archive", "int 1\nbool yes\n", 1,
          "nuvctl: line 2: \"yes\" is no value of type bool\n" },
        { "encode archive", "text x\n", 1,
          "nuvctl: there is no type \"text\"; there are bool, char," },
        { "decode archive", "x", 1,
          "Got Version: 0 was expecting: 1\nnuvctl: invalid signature or version" },
        { "decode archive --fields int,bogus", "\xC5\xC0\0\0\0\1"s, 2, "nuvctl: there is no type" },
        { "decode archive --fields int", "\xC5\xC0\0\0\0\1\0\0"s, 1,
          "nuvctl: the archive does not hold" },
        { "decode base64 /nowhere", "", 1,
          "nuvctl: /nowhere cannot be read: No such file or directory\n" },
        { "crc 32 /", "", 1, "nuvctl: / cannot be read: Is a directory\n" },
        { "crc 32 </", "", 1, "nuvctl: standard input cannot be read: Is a directory\n" },
        { "encode base64 >/dev/full", "x", 1,
          "nuvctl: standard output cannot be written: No space" },
        { "crc 16 --initial 0x10000", "", 2, "nuvctl: crc: --initial" },
        { "encode rot13", "", 2, "format: " },
        { "crc 8", "", 2, "width: " },
        { "regex '(a' x", "", 2, "nuvctl: Expected ')'\n" },
        { "regex x a", "", 1, "" },
        { "regex a -", "a\0"s, 1, "nuvctl: a subject ends at its first NUL" },
    };
    for ( const auto& [wordsPtr, input, status, errorPtr] : rows ) {
        SCOPED_TRACE( testing::Message() << wordsPtr << ": " << input.substr( 0, 40 ) );
        const NuvTest::Outcome outcome = nuvctl( wordsPtr, input );
        EXPECT_EQ( status, outcome.exitStatus() );
        EXPECT_EQ( 0u, outcome.errors.find( errorPtr ) ) << outcome.errors;
    }
}

} // namespace
