// A C++ program without the library, to compare with.
#include "memoryReport.h"

#include <iostream>

int main()
{
    printMemoryReport();
}
