#include "nuvTestSupport.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <poll.h>
#include <sstream>
#include <sys/mount.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace NuvTest {

using Clock = std::chrono::steady_clock;

namespace {

void closeDescriptor( int* fdPtr )
{
    if ( *fdPtr >= 0 )
        ::close( *fdPtr );
    *fdPtr = -1;
}

// Takes what is there without waiting; closes the descriptor at the end of file.
void drain( int* fdPtr, std::string* textPtr )
{
    char bytes[4096];
    for ( ;; ) {
        const ssize_t nbrOfBytes = ::read( *fdPtr, bytes, sizeof( bytes ) );
        if ( nbrOfBytes > 0 )
            textPtr->append( bytes, static_cast< std::size_t >( nbrOfBytes ) );
        else if ( nbrOfBytes == 0 )
            return closeDescriptor( fdPtr );
        else if ( errno != EINTR )
            return;
    }
}

[[noreturn]] void runBody( const std::function< void() >& body )
{
    int status = 2;
    try {
        body();
        status = ::testing::Test::HasFailure() ? 1 : 0;
    } catch ( const std::exception& exception ) {
        std::cerr << "exception: " << exception.what() << std::endl;
    } catch ( ... ) { // else the child would go on with the parent's tests
        std::cerr << "exception of another type" << std::endl;
    }
    std::cout.flush();
    std::fflush( nullptr );
    ::_exit( status );
}

[[noreturn]] void execute( const std::string& programPath, const Start& start )
{
    std::vector< char* > arguments{ const_cast< char* >( programPath.c_str() ) };
    for ( const std::string& argument : start.arguments )
        arguments.push_back( const_cast< char* >( argument.c_str() ) );
    arguments.push_back( nullptr );
    for ( const std::string& setting : start.environment )
        ::putenv( const_cast< char* >( setting.c_str() ) );
    ::execv( programPath.c_str(), arguments.data() );
    std::cerr << programPath << ": " << std::strerror( errno ) << std::endl;
    ::_exit( 127 );
}

// tests/NAME lies in the build folder's "tests"; "bin" and "tests/programs" are found from there.
std::filesystem::path buildFolder()
{
    return std::filesystem::read_symlink( "/proc/self/exe" ).parent_path().parent_path();
}

} // namespace

bool waitFor( const std::function< bool() >& condition, std::chrono::milliseconds timeout )
{
    const Clock::time_point end = Clock::now() + timeout;
    while ( !condition() ) {
        if ( Clock::now() >= end )
            return false;
        std::this_thread::sleep_for( std::chrono::milliseconds( 1 ) );
    }
    return true;
}

std::string readFile( const std::string& pathname )
{
    std::ifstream file( pathname, std::ios::binary );
    EXPECT_TRUE( file ) << "cannot read " << pathname;
    std::ostringstream bytes;
    bytes << file.rdbuf();
    return bytes.str();
}

void writeFile( const std::string& pathname, const std::string& bytes )
{
    std::filesystem::create_directories( std::filesystem::path( pathname ).parent_path() );
    std::ofstream file( pathname, std::ios::binary | std::ios::trunc );
    file << bytes;
    file.close();
    EXPECT_TRUE( file ) << "cannot write " << pathname;
}

unsigned int modeOf( const std::string& pathname )
{
    return static_cast< unsigned int >( std::filesystem::status( pathname ).permissions() );
}

TemporaryFolder::TemporaryFolder()
    : myPath( RootFixture::root( "folder-XXXXXX" ) )
{
    if ( ::mkdtemp( myPath.data() ) == nullptr )
        throw std::system_error( errno, std::generic_category(), myPath );
}

TemporaryFolder::~TemporaryFolder()
{
    std::error_code error;
    std::filesystem::remove_all( myPath, error );
    EXPECT_FALSE( error ) << myPath << ": " << error.message();
}

TmpfsMount::TmpfsMount( std::size_t nbrOfBytes )
    : myIsMounted( ::mount( "tmpfs", path().c_str(), "tmpfs", 0,
                            ( "size=" + std::to_string( nbrOfBytes ) ).c_str() ) == 0 )
{
}

TmpfsMount::~TmpfsMount()
{
    if ( myIsMounted )
        ::umount2( path().c_str(), MNT_DETACH );
}

std::string RootFixture::root()
{
    const char* homePtr = std::getenv( "HOME" );
    return homePtr != nullptr ? homePtr : "";
}

void removeInterprocessObjects()
{
    std::system( "[ \"$NUV_ISOLATED\" = 1 ] && ipcrm --all=shm && ipcrm --all=sem" );
}

int Outcome::exitStatus() const
{
    return !isTimedOut && WIFEXITED( status ) ? WEXITSTATUS( status ) : -1;
}

int Outcome::signal() const
{
    return WIFSIGNALED( status ) ? WTERMSIG( status ) : 0;
}

ChildProcess::ChildProcess( const std::function< void() >& body )
{
    start( [&body] { runBody( body ); } );
}

ChildProcess::ChildProcess( const std::string& programPath, const Start& start )
{
    this->start( [&] { execute( programPath, start ); } );
}

ChildProcess::~ChildProcess()
{
    if ( myPid > 0 && myOutcome.status == -1 ) {
        kill( SIGKILL );
        wait();
    }
    closeInput();
    closeDescriptor( &myOutput );
    closeDescriptor( &myErrors );
}

void ChildProcess::start( const std::function< void() >& body )
{
    int pipes[3][2];
    std::cout.flush();
    std::fflush( nullptr );
    for ( auto& ends : pipes ) {
        if ( ::pipe2( ends, O_CLOEXEC ) != 0 )
            throw std::system_error( errno, std::generic_category(), "pipe2" );
    }
    myPid = ::fork();
    if ( myPid < 0 )
        throw std::system_error( errno, std::generic_category(), "fork" );
    for ( int i = 0; i < 3; ++i ) {
        int* const childsPtr = &pipes[i][i == STDIN_FILENO ? 0 : 1];
        if ( myPid == 0 )
            ::dup2( *childsPtr, i );
        ::close( *childsPtr );
    }
    if ( myPid == 0 ) {
        for ( const int fd : { pipes[0][1], pipes[1][0], pipes[2][0] } )
            ::close( fd );
        body();
    }
    myInput = pipes[0][1];
    myOutput = pipes[1][0];
    myErrors = pipes[2][0];
    ::fcntl( myOutput, F_SETFL, O_NONBLOCK );
    ::fcntl( myErrors, F_SETFL, O_NONBLOCK );
}

void ChildProcess::writeInput( const std::string& bytes )
{
    EXPECT_EQ( ::write( myInput, bytes.data(), bytes.size() ),
               static_cast< ssize_t >( bytes.size() ) );
}

void ChildProcess::closeInput()
{
    closeDescriptor( &myInput );
}

void ChildProcess::kill( int signalNbr )
{
    if ( myOutcome.status == -1 )
        ::kill( myPid, signalNbr );
}

void ChildProcess::collect( int timeoutMs )
{
    pollfd streams[] = { { myOutput, POLLIN, 0 }, { myErrors, POLLIN, 0 } };
    ::poll( streams, 2, timeoutMs );
    if ( streams[0].revents != 0 )
        drain( &myOutput, &myOutcome.output );
    if ( streams[1].revents != 0 )
        drain( &myErrors, &myOutcome.errors );
}

std::string ChildProcess::readLine( std::chrono::milliseconds timeout )
{
    const Clock::time_point end = Clock::now() + timeout;
    for ( ;; ) {
        const std::size_t lineFeed = myOutcome.output.find( '\n', myNbrOfBytesRead );
        if ( lineFeed != std::string::npos ) {
            const std::string line =
                myOutcome.output.substr( myNbrOfBytesRead, lineFeed - myNbrOfBytesRead );
            myNbrOfBytesRead = lineFeed + 1;
            return line;
        }
        if ( myOutput < 0 || Clock::now() >= end ) {
            ADD_FAILURE() << "no further line of process " << myPid << "; so far:\n"
                          << myOutcome.output << myOutcome.errors;
            return "";
        }
        collect( 10 );
    }
}

// The streams may stay open in a grandchild after the child's end, and be closed long before it:
// both are watched, the child every few milliseconds.
Outcome ChildProcess::wait( std::chrono::milliseconds timeout )
{
    const Clock::time_point end = Clock::now() + timeout;
    while ( myOutcome.status == -1 ) {
        collect( 2 );
        const pid_t ended = ::waitpid( myPid, &myOutcome.status, WNOHANG );
        if ( ended == 0 && Clock::now() >= end ) {
            myOutcome.isTimedOut = true;
            ::kill( myPid, SIGKILL );
            ::waitpid( myPid, &myOutcome.status, 0 );
        } else if ( ended == 0 ) {
            myOutcome.status = -1;
        }
    }
    collect( 0 );
    return myOutcome;
}

Outcome runInChild( const std::function< void() >& body, std::chrono::milliseconds timeout )
{
    return ChildProcess( body ).wait( timeout );
}

void passInChild( const std::function< void() >& body )
{
    const Outcome outcome = runInChild( body );
    EXPECT_EQ( outcome.exitStatus(), 0 ) << outcome.output << outcome.errors;
}

Outcome runProgram( const std::string& programPath, const Start& start,
                    std::chrono::milliseconds timeout )
{
    ChildProcess child( programPath, start );
    child.closeInput();
    return child.wait( timeout );
}

std::string program( const std::string& name )
{
    return ( buildFolder() / "tests/programs" / name ).string();
}

std::string program( const std::string& name, int width )
{
    if ( width == static_cast< int >( 8 * sizeof( void* ) ) )
        return program( name );
    // The other width's build lies beside this one, or where ctest says.
    const char* const folderPtr = std::getenv( "NUV_OTHER_WIDTH_PROGRAMS" );
    std::filesystem::path folder = folderPtr != nullptr ? folderPtr : "";
    if ( folderPtr == nullptr )
        folder = buildFolder().parent_path() / ( width == 32 ? "i386" : "dev" ) / "tests/programs";
    return std::filesystem::exists( folder / name ) ? ( folder / name ).string() : "";
}

std::string tool( const std::string& name )
{
    return ( buildFolder() / "bin" / name ).string();
}

namespace {

thread_local int ourMark = 0;

// A function of its own, since a function may keep the address of its thread's storage.
__attribute__( ( noipa ) ) int markOfThisThread()
{
    return ourMark;
}

void handleSignalBesideAThread()
{
    std::atomic< bool > mayEnd = false;
    std::thread other( [&] {
        while ( !mayEnd ) {
        }
    } );
    ourMark = 1;
    std::signal( SIGWINCH, []( int ) {} ); // one that the library leaves alone
    std::raise( SIGWINCH );
    ::_exit( markOfThisThread() == 1 ? 0 : 3 );
}

} // namespace

bool doThreadsSurviveSignals()
{
    static const bool isYes = runInChild( &handleSignalBesideAThread ).exitStatus() == 0;
    return isYes;
}

void Fault::arm( int n, int errorNbr, Kind kind )
{
    myNbrOfStrikes = 0;
    myErrorNbr = errorNbr;
    myIsForGood = kind == forGood;
    myCallsToGo = n;
    myIsArmed = true;
}

void Fault::disarm()
{
    myIsArmed = false;
}

bool Fault::strikes() noexcept
{
    if ( !myIsArmed )
        return false;
    const int callsToGo = --myCallsToGo;
    if ( callsToGo > 0 || ( callsToGo < 0 && !myIsForGood ) )
        return false;
    ++myNbrOfStrikes;
    errno = myErrorNbr;
    return true;
}

} // namespace NuvTest
