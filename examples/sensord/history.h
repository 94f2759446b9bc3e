#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace Sensor {

/// Counters that only grow, looked at now and then: how far they came in the last minute, hour,
/// day.
///
/// A look a second is kept for a minute, and one a minute for a day: 1500 looks at most.
class History
{
public:
    static constexpr std::size_t nbrOfCounters = 7;
    using Counters = std::array< std::uint64_t, nbrOfCounters >;

    static constexpr std::uint64_t minute = 60;
    static constexpr std::uint64_t day = 24 * 60 * minute;

    /// @param seconds of any clock that does not go back; a look at an earlier time is ignored
    void add( std::uint64_t seconds, const Counters& counters );

    /// @param span in seconds, up to a day
    /// @return the increase over the span, or over what is known of it; 0 for a counter that was
    ///         reset
    Counters increase( std::uint64_t span ) const;

private:
    struct Look
    {
        std::uint64_t mySeconds = 0;
        Counters myCounters{};
    };

    static void keep( const Look& look, std::uint64_t distance, std::uint64_t span,
                      std::deque< Look >* looksPtr );

    Look myLast;
    std::deque< Look > mySeconds;
    std::deque< Look > myMinutes;
};

} // namespace Sensor
