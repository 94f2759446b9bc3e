#pragma once

#include "nuvTestSupport.h"

#include <string>
#include <vector>

namespace NuvTest {

// A root folder of its own for each test, and the probe run on it.
class ProcessFrame : public RootFixture
{
protected:
    void TearDown() override { removeInterprocessObjects(); }

    Start start( const std::vector< std::string >& arguments ) const
    {
        return { arguments, { "HOME=" + myHome.path() } };
    }
    Outcome run( const std::vector< std::string >& arguments ) const
    {
        return runProgram( program( "frameProbe" ), start( arguments ) );
    }
    std::string path( const std::string& relative ) const
    {
        return myHome.path( "ixoRoot/" + relative );
    }

private:
    TemporaryFolder myHome;
};

// An application that has reported "ready" and now waits for input.
class Listener
{
public:
    Listener( const std::string& programPath, const Start& start )
        : myChild( programPath, start )
    {
        EXPECT_EQ( line(), "ready" );
    }

    ChildProcess& child() { return myChild; }
    // @return whether Nuv::main still answers
    bool isAlive()
    {
        myChild.writeInput( "x" );
        return line() == "alive";
    }
    int exitStatus()
    {
        myChild.closeInput();
        return myChild.wait().exitStatus();
    }

private:
    // The news of a child's end come at any time.
    std::string line()
    {
        std::string text = myChild.readLine();
        return text == "signal 17" ? myChild.readLine() : text;
    }

    ChildProcess myChild;
};

} // namespace NuvTest
