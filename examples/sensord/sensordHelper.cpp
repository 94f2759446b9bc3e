// sensordHelper, started by sensord: reads lines "NAME VALUE" and keeps the average of each name;
// a line "?" is answered by a line "NAME AVERAGE of NUMBER" for each and a line ".". Ends with its
// input.

#include <cstdint>
#include <iostream>
#include <map>
#include <sstream>
#include <string>

int main()
{
    struct Sum
    {
        double mySum = 0;
        std::uint64_t myNbr = 0;
    };
    std::map< std::string, Sum > sums;
    std::string line;
    while ( std::getline( std::cin, line ) ) {
        if ( line == "?" ) {
            for ( const auto& [name, sum] : sums )
                std::cout << name << ' ' << sum.mySum / static_cast< double >( sum.myNbr ) << " of "
                          << sum.myNbr << '\n';
            std::cout << '.' << std::endl;
            continue;
        }
        std::istringstream words( line );
        std::string name;
        double value = 0;
        if ( words >> name >> value ) {
            Sum& sum = sums[name];
            sum.mySum += value;
            ++sum.myNbr;
        }
    }
    return 0;
}
