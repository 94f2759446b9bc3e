// What an application outside this repository sees: the installed headers and library.

#include <iostream>
#include <nuv.h>
#include <string_view>

int main()
{
    std::string_view caught;
    try {
        nuvAssert( 1 + 1 == 3, "arithmetic" );
    } catch ( const Nuv::LogicException& exception ) {
        caught = exception.what();
        std::cout << caught.substr( 0, caught.find( '\n' ) ) << '\n';
    }
    try {
        throw Nuv::RuntimeException( "no such unit", 0, 0 );
    } catch ( const Nuv::RuntimeException& exception ) {
        std::cout << exception.what() << '\n';
    }
    return caught.find( "consumer.cpp" ) != std::string_view::npos ? 0 : 1;
}
