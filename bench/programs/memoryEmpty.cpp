// A program without the library, to compare with.
#include "memoryReport.h"

int main()
{
    printMemoryReport();
}
