// idleProbe: is linked with the library, calls nothing of it, prints "up" and ends with its input.

#include "nuvTime.h"

#include <unistd.h>

int main()
{
    // Keeps the library on the link line of linkers that drop what is not needed.
    [[maybe_unused]] static const volatile auto keptPtr = &Nuv::Utils::MsTimer::clockMs;
    char byte;
    return ::write( STDOUT_FILENO, "up\n", 3 ) == 3 && ::read( STDIN_FILENO, &byte, 1 ) == 0 ? 0
                                                                                             : 1;
}
