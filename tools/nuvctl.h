#pragma once

#include "nuvIpcInventory.h"

#include <nlohmann/json.hpp>

#include <functional>
#include <initializer_list>
#include <optional>
#include <string>
#include <vector>

/// The parts of nuvctl: one function for each command, run after the command line has been read.
///
/// Commands that only look (paths, zones, log cat, log follow, fifo, threads, ipc list, ipc doctor,
/// check, health, global, decode) or compute (encode, decode, crc, regex, time, tz, sched, uri) run
/// without the process frame: they create no directory, no log and no interprocess object, count as
/// nobody's user and wait for no lock, so that they work while everything else hangs. "zones set",
/// "global set", "log emit", send, serve, get, post and cookies act through the library, inside the
/// frame, after refuseIfLocked() has seen that nothing they need is taken for good.
namespace Nuv::Ctl {

/// The tool's exit statuses.
enum Status
{
    good = 0,
    problem = 1,
    wrongUsage = 2
};

struct CommonOptions
{
    bool myJson = false;
};

using Json = nlohmann::ordered_json;

// --- output -------------------------------------------------------------------------------------

/// Columns of text, aligned.
class Table
{
public:
    explicit Table( std::vector< std::string > headings );

    void add( std::vector< std::string > cells );
    /// Prints headings and rows with two blanks between columns; nothing if there are no rows.
    void print() const;
    bool isEmpty() const { return myRows.size() == 1; }

private:
    std::vector< std::vector< std::string > > myRows; // the first holds the headings
};

/// Prints the document, indented; bytes that are no text appear as the replacement character.
void printJson( const Json& document );

/// Writes "nuvctl: " and the text to standard error.
/// @return problem
int complain( const std::string& text );

/// Shows something anew every intervalMs, on a terminal in place of what was there, until standard
/// output is gone. @return problem
int watch( const CommonOptions& common, unsigned int intervalMs,
           const std::function< void() >& show );

/// "12 s", "3 min", "5 h", "2 d": how long ago a time (seconds since 1970) was; "-" for 0.
std::string ageText( std::int64_t now, std::int64_t time );

/// The text with every byte that would disturb a terminal written as "\x1b".
std::string printable( const std::string& text );

// --- the installation ---------------------------------------------------------------------------

/// The special pathnames, found without creating anything.
struct Installation
{
    struct Entry
    {
        std::string myName;     ///< "rootDirectory" ...
        std::string myPathname; ///< "" if there is none
        std::string mySource;   ///< where it comes from
    };

    static Installation find();

    std::string myRoot;
    std::string myIpcDirectory;
    std::vector< Entry > myEntries;
};

/// Refuses (complains and returns false) when the master semaphore, the lock of the shared zone
/// table or one of those named stays taken for two seconds: what follows would wait for ever.
bool refuseIfLocked( std::initializer_list< const char* > alsoNeeded = {} );

/// Runs the command as Nuv::main() of a library process: as task "main", while this thread
/// dispatches signals. To be called once.
/// @return the command's status; problem if it threw
int runInFrame( std::function< int() > command );

// --- commands -----------------------------------------------------------------------------------

int runPaths( const CommonOptions& common );

int listZones( const CommonOptions& common );

struct ZonesSetOptions
{
    std::string myZone; ///< empty: all zones
    std::string mySeverity;
    std::string myFlags;
    bool myHasFlags = false;
    unsigned int mySeconds = 0; ///< 0: for good
};
int setZones( const CommonOptions& common, const ZonesSetOptions& options );

struct EmitOptions
{
    std::string myZone;
    std::string mySeverity;
    std::vector< std::string > myWords; ///< joined by blanks, the text
};
int emitLog( const CommonOptions& common, const EmitOptions& options );

struct ReadLogOptions
{
    std::string myFile; ///< empty: the log application's file, or "main.log" without one
    bool myFollow = false;
};
int readLog( const CommonOptions& common, const ReadLogOptions& options );

int showFifo( const CommonOptions& common, const std::string& name );

struct ThreadsOptions
{
    std::string myProcess; ///< name or id; empty: all
    bool myWatch = false;
    unsigned int myIntervalMs = 1000;
};
int showThreads( const CommonOptions& common, const ThreadsOptions& options );

int listIpc( const CommonOptions& common );
int doctorIpc( const CommonOptions& common );
int repairIpc( const CommonOptions& common, bool yes );

int checkConfiguration( const CommonOptions& common, const std::string& file );

struct HealthOptions
{
    bool myWatch = false;
    bool myPrometheus = false; ///< as metrics
    unsigned int myIntervalMs = 1000;
};
int showHealth( const CommonOptions& common, const HealthOptions& options );

int showGlobal( const CommonOptions& common );

struct GlobalSetOptions
{
    std::optional< std::string > myTimeZone;
    std::optional< int > myOffsetSeconds;
    std::optional< std::string > myProxy; ///< "ADDRESS:PORT"
    std::optional< bool > myProxyEnabled;
    std::optional< bool > myDnsEnabled;
    std::optional< unsigned int > myFtpTimeout; ///< seconds
};
int setGlobal( const CommonOptions& common, const GlobalSetOptions& options );

struct SendOptions
{
    std::string myPipe;
    std::string myMessage;          ///< "-": standard input
    unsigned int myTimeoutSec = 30; ///< for the connection, and again for the answer
};
int send( const CommonOptions& common, const SendOptions& options );

struct ServeOptions
{
    std::string myPipe;
    std::string myProgram;
    std::vector< std::string > myArguments;
    unsigned int myTimeoutSec = 30; ///< for the program
};
int serve( const CommonOptions& common, const ServeOptions& options );

struct CodecOptions
{
    std::string myFormat; ///< base64, bencode or archive; for decode also a record's file
    std::string myFile;   ///< empty or "-": standard input
    std::string myFields; ///< of an archive to decode: the types of its values

    // Of a shared record to decode.
    std::string mySegment; ///< empty: the file that myFormat names
    std::string mySaveAs;
    bool myAll = false; ///< also what is not in use
};
int encode( const CommonOptions& common, const CodecOptions& options );
int decode( const CommonOptions& common, const CodecOptions& options );
/// The fields of a shared record, from a file or a segment.
int decodeRecord( const CommonOptions& common, const CodecOptions& options );

struct CrcOptions
{
    int myWidth = 32; ///< or 16
    std::string myFile;
    std::uint32_t myInitial = 0;
    bool myHasInitial = false;
};
int showCrc( const CommonOptions& common, const CrcOptions& options );

struct RegexOptions
{
    std::string myPattern;
    std::string myText; ///< "-": the lines of standard input, each by itself
    bool myHasText = false;
    bool myShowsProgram = false;
    bool myIgnoresCase = false;
};
int searchRegex( const CommonOptions& common, const RegexOptions& options );

struct TimeOptions
{
    std::string myZone; ///< empty: the zone in force
    std::string myTime; ///< empty: now
};
int showTime( const CommonOptions& common, const TimeOptions& options );
int showZone( const CommonOptions& common, const TimeOptions& options );

struct ScheduleOptions
{
    std::string myDays;
    std::string myHours;
    std::string myStart;
    int myPeriodHours = 0;
    bool myIsPeriodic = false;
    std::string myMode = "aligned"; ///< or any
    std::string myZone;
    std::string myFrom; ///< empty: now
    unsigned int myCount = 5;
};
int showSchedule( const CommonOptions& common, const ScheduleOptions& options );

struct GetOptions
{
    std::string myUri;
    std::string myFile; ///< empty or "-": standard output
    bool myResumes = false;
    unsigned int myTimeoutSec = 30; ///< to connect, and without anything coming
};
int getUri( const CommonOptions& common, const GetOptions& options );

struct PostOptions
{
    std::string myUri;
    std::string myFile; ///< "-": standard input
    std::string myType = "application/octet-stream";
    unsigned int myTimeoutSec = 30;
};
int postUri( const CommonOptions& common, const PostOptions& options );

struct CookiesOptions
{
    std::string myHost = "127.0.0.1";
    std::string myPath = "/";
};
/// What becomes of the Set-Cookie values on standard input.
int showCookies( const CommonOptions& common, const CookiesOptions& options );

int showUri( const CommonOptions& common, const std::string& text );

} // namespace Nuv::Ctl
