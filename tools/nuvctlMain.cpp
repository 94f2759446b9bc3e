#include "nuvctl.h"

#include "nuvMainThread.h"
#include "nuvSignalHandler.h"

#include <CLI/CLI.hpp>

#include <csignal>
#include <exception>
#include <iostream>

namespace {

using namespace Nuv::Ctl;

std::function< int() > ourFramedCommand;
sigset_t ourInheritedSignals; // as the library's start-up left them

/// The command line, as it was understood, and what it asks for.
struct CommandLine
{
    CommonOptions myCommon;
    ZonesSetOptions myZonesSet;
    bool myAllZones = false;
    EmitOptions myEmit;
    ReadLogOptions myReadLog;
    ThreadsOptions myThreads;
    std::string myFifo;
    std::string myCheckedFile;
    HealthOptions myHealth;
    GlobalSetOptions myGlobalSet;
    SendOptions mySend;
    ServeOptions myServe;
    CodecOptions myCodec;
    CrcOptions myCrc;
    RegexOptions myRegex;
    TimeOptions myTime;
    ScheduleOptions mySchedule;
    GetOptions myGet;
    PostOptions myPost;
    CookiesOptions myCookies;
    std::string myUri;
    bool myYes = false;
    std::function< int() > myCommand;
};

CLI::App* addCommand( CLI::App* parentPtr, const char* namePtr, const char* helpPtr,
                      CommandLine* linePtr, std::function< int() > command )
{
    CLI::App* const appPtr = parentPtr->add_subcommand( namePtr, helpPtr );
    appPtr->add_flag( "--json", linePtr->myCommon.myJson, "Print JSON, for scripts" );
    appPtr->callback( [=, command = std::move( command )] {
        if ( !linePtr->myCommand )
            linePtr->myCommand = command;
    } );
    return appPtr;
}

int setNamedOrAllZones( const CommandLine& line )
{
    if ( line.myZonesSet.myZone.empty() && !line.myAllZones )
        return complain( "zones set: give a zone's name or --all" ), wrongUsage;
    return setZones( line.myCommon, line.myZonesSet );
}

void addZones( CLI::App* appPtr, CommandLine* linePtr )
{
    CLI::App* const zonesPtr = addCommand(
        appPtr, "zones", "Show the log zones of all processes: threshold, fields of a line, drain",
        linePtr, [=] { return listZones( linePtr->myCommon ); } );
    CLI::App* const setPtr =
        addCommand( zonesPtr, "set", "Change a zone, or all, in all processes at once", linePtr,
                    [=] { return setNamedOrAllZones( *linePtr ); } );
    ZonesSetOptions* const optionsPtr = &linePtr->myZonesSet;
    auto* const namePtr = setPtr->add_option( "name", optionsPtr->myZone, "The zone" );
    auto* const allPtr = setPtr->add_flag( "--all", linePtr->myAllZones,
                                           "All zones, also those opened from now on" );
    namePtr->excludes( allPtr );
    setPtr->add_option( "--severity", optionsPtr->mySeverity,
                        "What passes, with what is graver: debug, timing, warning, error, fatal; "
                        "or none" );
    setPtr
        ->add_option( "--flags", optionsPtr->myFlags,
                      "Fields before the text, separated by commas: sequencenbr, currenttime, "
                      "elapsedtime, appname, threadid, zonename, severity" )
        ->each( [=]( const std::string& ) { optionsPtr->myHasFlags = true; } );
    setPtr
        ->add_option( "--for", optionsPtr->mySeconds,
                      "Wait so many seconds, then put the old values back (also on Ctrl-C)" )
        ->check( CLI::Range( 1u, 4000000u ) );
}

void addLog( CLI::App* appPtr, CommandLine* linePtr )
{
    CLI::App* const logPtr = appPtr->add_subcommand(
        "log",
        "Write a line to the log, or read a log file.\n"
        "\"log ZONE SEVERITY TEXT\" is short for \"log emit ZONE SEVERITY TEXT\"; a zone that "
        "is named emit, cat or follow needs the long form" );
    logPtr->require_subcommand( 1 );
    CLI::App* const emitPtr =
        addCommand( logPtr, "emit", "Write one line through the library", linePtr,
                    [=] { return emitLog( linePtr->myCommon, linePtr->myEmit ); } );
    emitPtr->add_option( "zone", linePtr->myEmit.myZone, "The zone" )->required();
    emitPtr
        ->add_option( "severity", linePtr->myEmit.mySeverity,
                      "debug, timing, warning, error or fatal" )
        ->required();
    emitPtr->add_option( "text", linePtr->myEmit.myWords, "The text; words are joined by blanks" )
        ->required();
    const auto addReader = [=]( const char* namePtr, const char* helpPtr, bool isFollowing ) {
        CLI::App* const readPtr = addCommand( logPtr, namePtr, helpPtr, linePtr, [=] {
            linePtr->myReadLog.myFollow = isFollowing;
            return readLog( linePtr->myCommon, linePtr->myReadLog );
        } );
        readPtr->add_option(
            "file", linePtr->myReadLog.myFile,
            "A name in the log directory, or a pathname with \"/\"; without it the "
            "log application's file, or main.log" );
    };
    addReader( "cat", "Print a wrap-around file in the order of time", false );
    addReader( "follow", "Print its last lines, then what is written, until interrupted", true );
}

void addIpc( CLI::App* appPtr, CommandLine* linePtr )
{
    CLI::App* const ipcPtr = addCommand( appPtr, "ipc",
                                         "Show the interprocess objects, find and repair what dead "
                                         "processes left; without a command: list",
                                         linePtr, [=] { return listIpc( linePtr->myCommon ); } );
    addCommand( ipcPtr, "list", "Every object: ids, value, users, waiting, last process, age",
                linePtr, [=] { return listIpc( linePtr->myCommon ); } );
    addCommand( ipcPtr, "doctor",
                "Find semaphores left taken, stale use counts, leftovers, records of the dead",
                linePtr, [=] { return doctorIpc( linePtr->myCommon ); } );
    CLI::App* const repairPtr =
        addCommand( ipcPtr, "repair", "Put right what the doctor finds; asks about each", linePtr,
                    [=] { return repairIpc( linePtr->myCommon, linePtr->myYes ); } );
    repairPtr->add_flag( "-y,--yes", linePtr->myYes, "Do not ask" );
}

void addWatch( CLI::App* commandPtr, bool* watchPtr, unsigned int* intervalMsPtr )
{
    commandPtr->add_flag( "--watch", *watchPtr, "Again and again, until interrupted" );
    commandPtr->add_option( "--interval-ms", *intervalMsPtr, "With --watch: pause" )
        ->check( CLI::Range( 50u, 3600000u ) );
}

void addPipes( CLI::App* appPtr, CommandLine* linePtr )
{
    constexpr unsigned int maxSeconds = 4000000;
    SendOptions* const sendPtr = &linePtr->mySend;
    CLI::App* const sendAppPtr =
        addCommand( appPtr, "send", "Send a message to a daemon's server pipe, print its answer",
                    linePtr, [=] { return send( linePtr->myCommon, *sendPtr ); } );
    sendAppPtr->add_option( "pipe", sendPtr->myPipe, "The pipe's name" )->required();
    sendAppPtr->add_option( "message", sendPtr->myMessage, "The message; \"-\" for standard input" )
        ->required();
    sendAppPtr
        ->add_option( "--timeout", sendPtr->myTimeoutSec,
                      "Seconds to wait for the server to be free, and again for its answer" )
        ->check( CLI::Range( 1u, maxSeconds ) );
    ServeOptions* const servePtr = &linePtr->myServe;
    CLI::App* const serveAppPtr = addCommand(
        appPtr, "serve",
        "Be the server of a pipe: answer the message of each client with the output of a program, "
        "which gets it as standard input; until interrupted",
        linePtr, [=] { return serve( linePtr->myCommon, *servePtr ); } );
    serveAppPtr->add_option( "pipe", servePtr->myPipe, "The pipe's name" )->required();
    serveAppPtr->add_option( "--exec", servePtr->myProgram, "Pathname of the program" )->required();
    serveAppPtr->add_option( "arguments", servePtr->myArguments, "Its arguments, behind \"--\"" );
    serveAppPtr
        ->add_option( "--timeout", servePtr->myTimeoutSec, "Seconds that the program may take" )
        ->check( CLI::Range( 1u, maxSeconds ) );
}

void addShared( CLI::App* appPtr, CommandLine* linePtr )
{
    HealthOptions* const healthPtr = &linePtr->myHealth;
    CLI::App* const healthAppPtr = addCommand(
        appPtr, "health", "Show the health that the main application and the sensor committed",
        linePtr, [=] { return showHealth( linePtr->myCommon, *healthPtr ); } );
    addWatch( healthAppPtr, &healthPtr->myWatch, &healthPtr->myIntervalMs );
    healthAppPtr->add_flag( "--prometheus", healthPtr->myPrometheus,
                            "As metrics, for a monitoring system" );
    CLI::App* const globalPtr = addCommand(
        appPtr, "global", "Show the settings that all processes share, and the platform's model",
        linePtr, [=] { return showGlobal( linePtr->myCommon ); } );
    GlobalSetOptions* const setPtr = &linePtr->myGlobalSet;
    CLI::App* const setAppPtr =
        addCommand( globalPtr, "set", "Change settings, for all processes at once", linePtr,
                    [=] { return setGlobal( linePtr->myCommon, *setPtr ); } );
    const auto addSwitch = [=]( const char* namePtr, std::optional< bool >* valuePtr,
                                const char* helpPtr ) {
        setAppPtr
            ->add_option_function< std::string >(
                namePtr, [=]( const std::string& word ) { *valuePtr = word == "on"; }, helpPtr )
            ->check( CLI::IsMember( { "on", "off" } ) );
    };
    setAppPtr->add_option( "--time-zone", setPtr->myTimeZone, "Name of the time zone" );
    setAppPtr
        ->add_option( "--offset", setPtr->myOffsetSeconds, "Seconds of local time east of UTC" )
        ->check( CLI::Range( -86400, 86400 ) );
    setAppPtr->add_option( "--proxy", setPtr->myProxy, "The HTTP proxy's ADDRESS:PORT" );
    addSwitch( "--proxy-enabled", &setPtr->myProxyEnabled, "Use the HTTP proxy: on or off" );
    addSwitch( "--dns", &setPtr->myDnsEnabled, "Use the name service: on or off" );
    setAppPtr->add_option( "--ftp-timeout", setPtr->myFtpTimeout, "Seconds" );
}

void addCodecs( CLI::App* appPtr, CommandLine* linePtr )
{
    const auto addFile = []( CLI::App* commandPtr, std::string* filePtr ) {
        commandPtr->add_option( "file", *filePtr,
                                "The input; without it, or with \"-\", standard input" );
    };
    const auto addFormat = [=]( CLI::App* commandPtr ) {
        commandPtr->add_option( "format", linePtr->myCodec.myFormat, "base64, bencode or archive" )
            ->required()
            ->check( CLI::IsMember( { "base64", "bencode", "archive" } ) );
        addFile( commandPtr, &linePtr->myCodec.myFile );
    };
    addFormat( addCommand(
        appPtr, "encode",
        "Encode bytes as Base64, JSON as b-encoding, lines \"TYPE VALUE\" as an archive", linePtr,
        [=] { return encode( linePtr->myCommon, linePtr->myCodec ); } ) );
    CLI::App* const decodePtr = addCommand(
        appPtr, "decode",
        "Show what Base64, b-encoding or an archive holds, or name the fields of a shared record "
        "(global-data, LogConfigManager, thread records, a ring) in a segment or a copy of one",
        linePtr, [=] { return decode( linePtr->myCommon, linePtr->myCodec ); } );
    decodePtr->add_option( "format", linePtr->myCodec.myFormat,
                           "base64, bencode or archive; or the file that holds a record (one that "
                           "is called as a format needs \"./\")" );
    addFile( decodePtr, &linePtr->myCodec.myFile );
    decodePtr->add_option( "--segment", linePtr->myCodec.mySegment,
                           "The segment, as \"ipc list\" names it" );
    decodePtr->add_option( "--save", linePtr->myCodec.mySaveAs,
                           "Of a record: copy its bytes there" );
    decodePtr->add_flag( "--all", linePtr->myCodec.myAll,
                         "Of a record: also the zones, threads and sensors that are not in use" );
    decodePtr->add_option(
        "--fields", linePtr->myCodec.myFields,
        "Types of an archive's values in their order, separated by commas, again and "
        "again: bool, char, short, int, long, longlong, the same with u before them, "
        "wchar, float, double, string, wstring, rawstring, object" );
    CLI::App* const crcPtr =
        addCommand( appPtr, "crc", "Show a file's CRC-32 or CRC-16", linePtr,
                    [=] { return showCrc( linePtr->myCommon, linePtr->myCrc ); } );
    crcPtr->add_option( "width", linePtr->myCrc.myWidth, "32 or 16" )
        ->required()
        ->check( CLI::IsMember( { 32, 16 } ) );
    addFile( crcPtr, &linePtr->myCrc.myFile );
    crcPtr
        ->add_option( "--initial", linePtr->myCrc.myInitial,
                      "Begin with this register and show the register as it is" )
        ->each( [=]( const std::string& ) { linePtr->myCrc.myHasInitial = true; } );
}

void addRegex( CLI::App* appPtr, CommandLine* linePtr )
{
    RegexOptions* const optionsPtr = &linePtr->myRegex;
    CLI::App* const regexPtr =
        addCommand( appPtr, "regex", "Try a regular expression: what matches, the groups, the work",
                    linePtr, [=] { return searchRegex( linePtr->myCommon, *optionsPtr ); } );
    regexPtr->add_option( "pattern", optionsPtr->myPattern, "The pattern" )->required();
    regexPtr
        ->add_option( "text", optionsPtr->myText,
                      "The subject; \"-\": the lines of standard input, each by itself; without it "
                      "the pattern is only compiled" )
        ->each( [=]( const std::string& ) { optionsPtr->myHasText = true; } );
    regexPtr->add_flag( "--program", optionsPtr->myShowsProgram, "Show the compiled program" );
    regexPtr->add_flag( "-i,--ignore-case", optionsPtr->myIgnoresCase, "Fold letters" );
}

int showScheduleByOptions( const CommandLine& line )
{
    const ScheduleOptions& options = line.mySchedule;
    if ( !options.myIsPeriodic && ( options.myDays.empty() || options.myHours.empty() ) )
        return complain( "sched: give --days and --hours, or --start and --period" ), wrongUsage;
    return showSchedule( line.myCommon, options );
}

void addTimes( CLI::App* appPtr, CommandLine* linePtr )
{
    CLI::App* const timePtr =
        addCommand( appPtr, "time", "Show a time in UTC and in a zone", linePtr,
                    [=] { return showTime( linePtr->myCommon, linePtr->myTime ); } );
    timePtr->add_option( "--zone", linePtr->myTime.myZone, "Instead of the zone in force" );
    timePtr->add_option( "time", linePtr->myTime.myTime,
                         "Seconds since 1970, or YYYY-MM-DD HH:MM[:SS] in local time, with Z "
                         "behind it in UTC; without it, now" );
    CLI::App* const zonePtr = addCommand(
        appPtr, "tz", "Show the time zone in force and why, its changes around now, and its faults",
        linePtr, [=] { return showZone( linePtr->myCommon, linePtr->myTime ); } );
    zonePtr->add_option( "name", linePtr->myTime.myZone, "Another zone" );
    CLI::App* const schedPtr = addCommand( appPtr, "sched", "Show when a schedule comes", linePtr,
                                           [=] { return showScheduleByOptions( *linePtr ); } );
    ScheduleOptions* const optionsPtr = &linePtr->mySchedule;
    auto* const daysPtr =
        schedPtr->add_option( "--days", optionsPtr->myDays, "As in \"Mon|friday\"" );
    auto* const hoursPtr =
        schedPtr->add_option( "--hours", optionsPtr->myHours, "As in \"8:00:00|20:30:00\"" );
    auto* const startPtr =
        schedPtr->add_option( "--start", optionsPtr->myStart, "Start time, h:m:s" );
    auto* const periodPtr =
        schedPtr->add_option( "--period", optionsPtr->myPeriodHours, "Hours from time to time" )
            ->each( [=]( const std::string& ) { optionsPtr->myIsPeriodic = true; } );
    daysPtr->needs( hoursPtr );
    hoursPtr->needs( daysPtr );
    startPtr->needs( periodPtr )->excludes( daysPtr );
    periodPtr->needs( startPtr );
    schedPtr
        ->add_option( "--mode", optionsPtr->myMode,
                      "aligned (the default: the period divides a day, or is 1 to 7 days), or any" )
        ->check( CLI::IsMember( { "aligned", "any" } ) );
    schedPtr->add_option( "--zone", optionsPtr->myZone, "Instead of the zone in force" );
    schedPtr->add_option( "--from", optionsPtr->myFrom, "The time of its start instead of now" );
    schedPtr->add_option( "--count", optionsPtr->myCount, "How many times (5)" )
        ->check( CLI::Range( 1u, 100000u ) );
}

void addNetwork( CLI::App* appPtr, CommandLine* linePtr )
{
    const CLI::Range seconds( 1u, 4000000u );
    constexpr const char* timeoutHelp = "Seconds to connect, and without anything coming";
    GetOptions* const getPtr = &linePtr->myGet;
    CLI::App* const getAppPtr = addCommand( appPtr, "get", "Fetch a URI over HTTP", linePtr,
                                            [=] { return getUri( linePtr->myCommon, *getPtr ); } );
    getAppPtr->add_option( "uri", getPtr->myUri, "http://HOST[:PORT]/PATH" )->required();
    getAppPtr->add_option( "-o,--output", getPtr->myFile,
                           "The file, written as FILE.part until it is whole" );
    getAppPtr->add_flag( "--resume", getPtr->myResumes,
                         "When the connection breaks, go on where it was, up to ten times" );
    getAppPtr->add_option( "--timeout", getPtr->myTimeoutSec, timeoutHelp )->check( seconds );
    PostOptions* const postPtr = &linePtr->myPost;
    CLI::App* const postAppPtr =
        addCommand( appPtr, "post", "Post a file over HTTP, print the answer", linePtr,
                    [=] { return postUri( linePtr->myCommon, *postPtr ); } );
    postAppPtr->add_option( "uri", postPtr->myUri, "http://HOST[:PORT]/PATH" )->required();
    postAppPtr->add_option( "file", postPtr->myFile, "The file; \"-\": standard input" )
        ->required();
    postAppPtr->add_option( "--type", postPtr->myType, "Its Content-Type" );
    postAppPtr->add_option( "--timeout", postPtr->myTimeoutSec, timeoutHelp )->check( seconds );
    CLI::App* const cookiesPtr = addCommand(
        appPtr, "cookies",
        "Read Set-Cookie values from standard input, a line each; show how they are understood, "
        "and what a request then sends",
        linePtr, [=] { return showCookies( linePtr->myCommon, linePtr->myCookies ); } );
    cookiesPtr->add_option( "path", linePtr->myCookies.myPath, "Of that request (/)" );
    cookiesPtr->add_option( "--host", linePtr->myCookies.myHost, "The server's address" );
    addCommand( appPtr, "uri", "Take a URI apart", linePtr,
                [=] { return showUri( linePtr->myCommon, linePtr->myUri ); } )
        ->add_option( "text", linePtr->myUri, "The URI" )
        ->required();
}

void addOthers( CLI::App* appPtr, CommandLine* linePtr )
{
    addCommand( appPtr, "paths", "Show the special pathnames and where each comes from", linePtr,
                [=] { return runPaths( linePtr->myCommon ); } );
    addZones( appPtr, linePtr );
    addLog( appPtr, linePtr );
    CLI::App* const fifoPtr =
        addCommand( appPtr, "fifo", "Show what an interprocess FIFO holds, without taking it out",
                    linePtr, [=] { return showFifo( linePtr->myCommon, linePtr->myFifo ); } );
    fifoPtr->add_option( "name", linePtr->myFifo, "The FIFO, for instance logAppFifo" )->required();
    CLI::App* const threadsPtr = addCommand(
        appPtr, "threads", "Show every library thread: state, what it waits for, status", linePtr,
        [=] { return showThreads( linePtr->myCommon, linePtr->myThreads ); } );
    threadsPtr->add_option( "process", linePtr->myThreads.myProcess,
                            "Only this process (name or id)" );
    addWatch( threadsPtr, &linePtr->myThreads.myWatch, &linePtr->myThreads.myIntervalMs );
    addIpc( appPtr, linePtr );
    CLI::App* const checkPtr = addCommand(
        appPtr, "check",
        "Find mistakes in nuvs.conf, log.conf, mainApp.conf and boot.info that the "
        "reader forgives",
        linePtr, [=] { return checkConfiguration( linePtr->myCommon, linePtr->myCheckedFile ); } );
    checkPtr->add_option( "file", linePtr->myCheckedFile,
                          "The file; without it all files of this installation" );
}

/// "log ZONE SEVERITY TEXT" is read as "log emit ZONE SEVERITY TEXT".
std::vector< std::string > expandedArguments( int argc, char** argv )
{
    std::vector< std::string > arguments( argv + 1, argv + argc );
    if ( arguments.size() < 2 || arguments[0] != "log" )
        return arguments;
    const std::string& next = arguments[1];
    if ( next != "emit" && next != "cat" && next != "follow" && next != "-h" && next != "--help" )
        arguments.insert( arguments.begin() + 1, "emit" );
    return arguments;
}

/// Interrupt signals end a command that only looks, as they end any other program: loading the
/// library has blocked them.
void unblockSignals()
{
    sigset_t none;
    sigemptyset( &none );
    ::sigprocmask( SIG_SETMASK, &none, &ourInheritedSignals );
}

int runGuarded( const std::function< int() >& command )
try {
    return command();
} catch ( const Nuv::RuntimeException& exception ) {
    return complain( exception.what() );
} catch ( const Nuv::FixedTextException& exception ) {
    return complain( exception.what() );
} catch ( const std::exception& exception ) {
    return complain( exception.what() );
}

} // namespace

int Nuv::Ctl::runInFrame( std::function< int() > command )
{
    char name[] = "nuvctl";
    char* arguments[] = { name, nullptr };
    ourFramedCommand = std::move( command );
    ::sigprocmask( SIG_SETMASK, &ourInheritedSignals, nullptr );
    Mt::SignalHandler::singletonPtr();
    const int status = Mt::startMainThread( 1, arguments );
    return status < 0 ? problem : status;
}

int Nuv::main( int, char** )
{
    return runGuarded( ourFramedCommand );
}

int main( int argc, char** argv )
{
    unblockSignals();
    CommandLine line;
    CLI::App app( "nuvctl: looks at and controls the daemons of this installation.\n"
                  "Exit status: 0 good, 1 a problem was found or something was not, 2 wrong usage.",
                  "nuvctl" );
    app.require_subcommand( 1 );
    app.add_flag( "--json", line.myCommon.myJson, "Print JSON, for scripts" );
    addOthers( &app, &line );
    addPipes( &app, &line );
    addShared( &app, &line );
    addCodecs( &app, &line );
    addRegex( &app, &line );
    addTimes( &app, &line );
    addNetwork( &app, &line );
    std::vector< std::string > arguments = expandedArguments( argc, argv );
    if ( !arguments.empty() && arguments[0].substr( 0, 1 ) != "-" &&
         app.get_subcommands(
                [&]( const CLI::App* appPtr ) { return appPtr->get_name() == arguments[0]; } )
             .empty() )
        return complain( "there is no command \"" + arguments[0] + "\"; see nuvctl --help" ),
               wrongUsage;
    std::reverse( arguments.begin(), arguments.end() ); // as the parser wants them
    try {
        app.parse( arguments );
    } catch ( const CLI::ParseError& error ) {
        return app.exit( error ) == 0 ? good : wrongUsage;
    }
    return runGuarded( line.myCommand );
}
