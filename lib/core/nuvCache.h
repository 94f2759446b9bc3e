#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <map>
#include <utility>

namespace Nuv::Utils {

/// A sorted map of limited size that, when full, gives up the entry that was used least recently.
///
/// Storing an entry and touch() make it the most recently used one; walking does not.
///
/// Threads: one at a time.
/// Cost:    logarithmic in the number of entries; nothing is copied after it was stored.
/// Example: Cache< int, std::string > cache( 100 ); cache.insert( 1, "one" ); cache.find( 1 );
template < class Key, class Value, class KeyLess = std::less< Key > >
class Cache
{
    struct Slot;
    using Map = std::map< Key, Slot, KeyLess >;
    using RecencyList = std::list< typename Map::iterator >; // the most recent first
    struct Slot
    {
        Value value;
        typename RecencyList::iterator recency;
    };

public:
    /// Of an entry: iterator->first is the key, value( iterator ) the value.
    using iterator = typename Map::iterator;

    /// @param capacity at least 1
    explicit Cache( std::size_t capacity )
        : myCapacity( capacity )
    {
    }
    Cache( const Cache& ) = delete;
    Cache& operator=( const Cache& ) = delete;

    /// Stores the entry, or replaces the value of an equal key.
    void insert( const Key& key, Value value )
    {
        const auto [i, isNew] = myMap.try_emplace( key );
        if ( isNew )
            i->second.recency = myRecencyList.insert( myRecencyList.begin(), i );
        i->second.value = std::move( value );
        touch( i );
        if ( myMap.size() > myCapacity )
            erase( myRecencyList.back() );
    }

    /// @return the value of an equal key, now the most recently used one; null without one
    template < class Sought >
    Value* find( const Sought& key )
    {
        const iterator i = myMap.find( key );
        if ( i == myMap.end() )
            return nullptr;
        touch( i );
        return &i->second.value;
    }

    void touch( iterator i )
    {
        myRecencyList.splice( myRecencyList.begin(), myRecencyList, i->second.recency );
    }
    /// @return the entry behind it
    iterator erase( iterator i )
    {
        myRecencyList.erase( i->second.recency );
        return myMap.erase( i );
    }
    /// @return whether there was such an entry
    template < class Sought >
    bool eraseKey( const Sought& key )
    {
        const iterator i = myMap.find( key );
        if ( i == myMap.end() )
            return false;
        erase( i );
        return true;
    }
    void clear()
    {
        myRecencyList.clear();
        myMap.clear();
    }

    // In the order of the keys.
    iterator begin() { return myMap.begin(); }
    iterator end() { return myMap.end(); }
    /// The first entry that is not below the key.
    template < class Sought >
    iterator lowerBound( const Sought& key )
    {
        return myMap.lower_bound( key );
    }

    static const Value& value( iterator i ) { return i->second.value; }
    std::size_t size() const { return myMap.size(); }
    std::size_t capacity() const { return myCapacity; }

private:
    std::size_t myCapacity;
    Map myMap;
    RecencyList myRecencyList;
};

} // namespace Nuv::Utils
