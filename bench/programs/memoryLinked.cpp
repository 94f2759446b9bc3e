// A program that links the library and never calls it.
#include "memoryReport.h"

int main()
{
    printMemoryReport();
}
