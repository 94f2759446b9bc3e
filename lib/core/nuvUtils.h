#pragma once

#include "nuv.h"
#include "nuvMutex.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace Nuv::Utils {

/// Order of the keys of a StaticMap: by value; texts by their bytes.
template < class Key >
struct Less
{
    constexpr bool operator()( const Key& a, const Key& b ) const { return a < b; }
};

template <>
struct Less< const char* >
{
    constexpr bool operator()( const char* aPtr, const char* bPtr ) const
    {
        if ( std::is_constant_evaluated() )
            return std::string_view( aPtr ) < std::string_view( bPtr );
        return std::strcmp( aPtr, bPtr ) < 0;
    }
    constexpr bool operator()( std::string_view a, std::string_view b ) const { return a < b; }
};

/// Read-only view of a constant array of (key, value) pairs that is sorted ascending by key.
///
/// Every table of the library from names to enumerations and from codes to texts is one. A table of
/// texts is searched by a character string or, without a copy, by a std::string_view.
///
/// Threads: any.
/// Cost:    binary search; no allocation.
/// Example: constexpr StaticMap< const char*, int >::Pair pairs[] = { { "a", 1 }, { "b", 2 } };
///          constexpr StaticMap map( pairs ); static_assert( map.isSorted() );
///          const auto i = map.find( "b" ); if ( i != map.end() ) use( i->value );
template < class Key, class Value, class KeyLess = Less< Key > >
class StaticMap
{
public:
    struct Pair
    {
        Key key;
        Value value;
    };
    using const_iterator = const Pair*;

    /// The pairs are borrowed and outlive the map.
    constexpr StaticMap( const Pair* firstPtr, const Pair* endPtr, const KeyLess& less = KeyLess() )
        : myFirstPtr( firstPtr )
        , myEndPtr( endPtr )
        , myLess( less )
    {
    }
    template < std::size_t N >
    explicit constexpr StaticMap( const Pair ( &pairs )[N], const KeyLess& less = KeyLess() )
        : StaticMap( pairs, pairs + N, less )
    {
    }

    /// @return the pair of an equal key, or end()
    template < class Sought = Key >
    constexpr const Pair* find( const Sought& key ) const
    {
        const Pair* const foundPtr = std::lower_bound(
            myFirstPtr, myEndPtr, key, [this]( const Pair& pair, const Sought& sought ) {
                return myLess( pair.key, sought );
            } );
        return foundPtr != myEndPtr && !myLess( key, foundPtr->key ) ? foundPtr : myEndPtr;
    }

    constexpr const Pair* begin() const { return myFirstPtr; }
    constexpr const Pair* end() const { return myEndPtr; }
    constexpr std::size_t size() const
    {
        return static_cast< std::size_t >( myEndPtr - myFirstPtr );
    }

    /// Whether keys ascend without a double one, as find() needs it: for a static_assert by the
    /// table.
    constexpr bool isSorted() const
    {
        return std::adjacent_find( myFirstPtr, myEndPtr, [this]( const Pair& a, const Pair& b ) {
                   return !myLess( a.key, b.key );
               } ) == myEndPtr;
    }

private:
    const Pair* myFirstPtr;
    const Pair* myEndPtr;
    [[no_unique_address]] KeyLess myLess;
};

/// Shared ownership of one object through a counter of its own.
///
/// Threads: copies of one CountedPtr may be made and dropped on several threads, each CountedPtr
///          itself being used by one at a time; the object is not protected.
/// Errors:  std::bad_alloc while the counter is made, the object then being deleted;
///          dereferencing null fails nuvAssert "myPtr != NULL".
/// Owns:    the object, together with its copies; the last one deletes it.
template < class T >
class CountedPtr
{
public:
    using element_type = T;

    CountedPtr() = default;
    explicit CountedPtr( T* ptr )
        : myPtr( ptr )
    {
        if ( ptr == nullptr )
            return;
        try {
            myCounterPtr = new std::atomic< std::int32_t >( 1 );
        } catch ( ... ) {
            delete ptr;
            throw;
        }
    }
    CountedPtr( const CountedPtr& other ) noexcept
        : myPtr( other.myPtr )
        , myCounterPtr( other.myCounterPtr )
    {
        reference();
    }
    CountedPtr( CountedPtr&& other ) noexcept
        : myPtr( std::exchange( other.myPtr, nullptr ) )
        , myCounterPtr( std::exchange( other.myCounterPtr, nullptr ) )
    {
    }
    /// From a pointer to a derived or a non-const object. A base then needs a virtual destructor.
    template < class U >
    requires std::convertible_to< U*, T* > CountedPtr( const CountedPtr< U >& other )
    noexcept
        : myPtr( other.myPtr )
        , myCounterPtr( other.myCounterPtr )
    {
        reference();
    }
    ~CountedPtr() { dispose(); }

    CountedPtr& operator=( const CountedPtr& other ) noexcept
    {
        // The copy comes first: other may lie within the object that is released.
        if ( myPtr != other.myPtr )
            CountedPtr( other ).swap( *this );
        return *this;
    }
    CountedPtr& operator=( CountedPtr&& other ) noexcept
    {
        CountedPtr( std::move( other ) ).swap( *this );
        return *this;
    }
    /// Takes ownership; does nothing if it is the object held.
    CountedPtr& operator=( T* ptr )
    {
        if ( myPtr != ptr )
            CountedPtr( ptr ).swap( *this );
        return *this;
    }

    /// Drops the share and becomes null.
    void dispose() noexcept
    {
        T* const ptr = std::exchange( myPtr, nullptr );
        std::atomic< std::int32_t >* const counterPtr = std::exchange( myCounterPtr, nullptr );
        // Release: what this owner did happens before the deletion; acquire: the deleter sees it
        // all.
        if ( counterPtr != nullptr && counterPtr->fetch_sub( 1, std::memory_order_acq_rel ) == 1 ) {
            delete counterPtr;
            delete ptr;
        }
    }
    void swap( CountedPtr& other ) noexcept
    {
        std::swap( myPtr, other.myPtr );
        std::swap( myCounterPtr, other.myCounterPtr );
    }

    T* get() const { return myPtr; }
    T* operator->() const
    {
        nuvAssert( myPtr != NULL );
        return myPtr;
    }
    T& operator*() const
    {
        nuvAssert( myPtr != NULL );
        return *myPtr;
    }
    explicit operator bool() const { return myPtr != nullptr; }
    /// A snapshot, exact only while no other thread copies or drops.
    int nbrOfOwners() const
    {
        return myCounterPtr == nullptr ? 0 : myCounterPtr->load( std::memory_order_relaxed );
    }

    friend bool operator==( const CountedPtr& a, const CountedPtr& b )
    {
        return a.myPtr == b.myPtr;
    }
    friend bool operator==( const CountedPtr& a, std::nullptr_t ) { return a.myPtr == nullptr; }

private:
    template < class U >
    friend class CountedPtr;

    void reference() noexcept
    {
        if ( myCounterPtr != nullptr )
            myCounterPtr->fetch_add( 1, std::memory_order_relaxed ); // the source keeps it alive
    }

    T* myPtr = nullptr;
    std::atomic< std::int32_t >* myCounterPtr = nullptr;
};

/// Owns a single object; storing a new one deletes the one held.
///
/// Threads: one at a time.
/// Errors:  dereferencing null fails nuvAssert "myPtr != NULL".
/// Owns:    the object.
/// Example: Ptr< TcpSocket > socketPtr; server.accept( &socketPtr ); socketPtr->close();
template < class T >
class Ptr
{
public:
    Ptr() = default;
    explicit Ptr( T* ptr )
        : myPtr( ptr )
    {
    }
    Ptr( Ptr&& other ) noexcept
        : myPtr( other.release() )
    {
    }
    ~Ptr() { delete myPtr; }

    Ptr& operator=( Ptr&& other ) noexcept
    {
        reset( other.release() );
        return *this;
    }
    Ptr& operator=( T* ptr )
    {
        reset( ptr );
        return *this;
    }

    /// Stores the new object and deletes the one held; does nothing if they are the same.
    void reset( T* ptr = nullptr )
    {
        if ( myPtr != ptr )
            delete std::exchange( myPtr, ptr );
    }
    /// Gives ownership to the caller.
    T* release() noexcept { return std::exchange( myPtr, nullptr ); }

    T* get() const { return myPtr; }
    T* operator->() const
    {
        nuvAssert( myPtr != NULL );
        return myPtr;
    }
    T& operator*() const
    {
        nuvAssert( myPtr != NULL );
        return *myPtr;
    }
    explicit operator bool() const { return myPtr != nullptr; }

private:
    T* myPtr = nullptr;
};

/// Owns a file descriptor and closes it.
///
/// It stands for its descriptor in system calls: ::lseek( myFileHandle, ... ).
///
/// Threads: one at a time.
/// Errors:  none; a failing close is not repeated (the descriptor is gone), and errno stays as it
///          was.
/// Owns:    the descriptor; moved, never copied.
class NUV_API Handle
{
public:
    static constexpr int invalid = -1;

    Handle() = default;
    explicit Handle( int fd )
        : myFd( fd )
    {
    }
    Handle( Handle&& other ) noexcept
        : myFd( other.release() )
    {
    }
    ~Handle() { reset(); }

    Handle& operator=( Handle&& other ) noexcept
    {
        reset( other.release() );
        return *this;
    }

    /// Closes the descriptor held, unless it is the same, and takes this one.
    void reset( int fd = invalid ) noexcept;
    int release() noexcept { return std::exchange( myFd, invalid ); }

    bool isValid() const { return myFd >= 0; }
    int fd() const { return myFd; }
    operator int() const { return myFd; }

private:
    int myFd = invalid;
};

/// Repeats a system call that a signal interrupted: until its result is not -1 or errno not EINTR.
///
/// Not for close(), whose descriptor is gone after the first call. errno is that of the last call.
/// Example: const ssize_t n = retryOnEintr( [&] { return ::read( fd, ptr, length ); } );
template < class Call >
auto retryOnEintr( Call&& call )
{
    auto result = call();
    while ( result == -1 && errno == EINTR ) {
        result = call();
    }
    return result;
}

/// Splits a text (standard string, String or Buffer), of which it holds a copy, into tokens.
///
/// Threads: one at a time.
/// Example: TokenScanner< std::string > scanner( "a b" ); while ( scanner.next( &token, " " ) ) ...
template < class Text >
class TokenScanner
{
public:
    explicit TokenScanner( const Text& text )
        : myText( text )
        , myPos( 0 )
        , myEnd( view().size() )
    {
    }

    /// Skips delimiters and takes the characters up to the next one; delimiters may change per
    /// call.
    /// @param tokenPtr may be null; cleared when there is no further token
    /// @param delimitersPtr null fails nuvAssert "delimitersPtr != NULL"
    /// @return whether there was one
    bool next( std::string* tokenPtr, const char* delimitersPtr )
    {
        nuvAssert( delimitersPtr != NULL );
        const std::size_t start =
            std::min( view().find_first_not_of( delimitersPtr, myPos ), myEnd );
        myPos = std::min( view().find_first_of( delimitersPtr, start ), myEnd );
        if ( tokenPtr != nullptr )
            tokenPtr->assign( view().substr( start, myPos - start ) );
        return start < myEnd;
    }

private:
    std::string_view view() const { return myText; }

    Text myText;
    std::size_t myPos;
    std::size_t myEnd;
};

/// Who wants to be told of a T's news.
template < class T >
class Observer
{
public:
    Observer() = default;
    Observer( const Observer& ) = delete;
    Observer& operator=( const Observer& ) = delete;
    virtual ~Observer() = default;

    /// Runs on the notifying thread with the subject's mutex held.
    virtual void update( T& subject ) = 0;
};

/// Base of a T that tells its observers, in the order of their pointers, what is new.
///
/// Threads: any. An observer is detached before it is destroyed; once detach() has returned, no
///          update() of it runs on another thread.
/// Errors:  attach() or detach() from within update() fails nuvAssert "!myNotifying".
/// Owns:    nothing; observers are borrowed.
template < class T >
class Subject
{
public:
    using ObserverSet = std::set< Observer< T >*, std::less<> >;

    Subject() = default;
    Subject( const Subject& ) = delete;
    Subject& operator=( const Subject& ) = delete;
    virtual ~Subject() = default;

    /// Attaching twice is once.
    void attach( Observer< T >* observerPtr )
    {
        nuvAssert( observerPtr != NULL );
        const Mt::MutexLock lock( myMutex );
        nuvAssert( !myNotifying );
        myObservers.insert( observerPtr );
    }
    void detach( Observer< T >* observerPtr )
    {
        const Mt::MutexLock lock( myMutex );
        nuvAssert( !myNotifying );
        myObservers.erase( observerPtr );
    }

    bool hasObservers() const
    {
        const Mt::MutexLock lock( myMutex );
        return !myObservers.empty();
    }

protected:
    /// Calls update( subject ) on every observer with the mutex held; what one throws ends the
    /// round.
    void notifyObservers( T& subject )
    {
        const Mt::MutexLock lock( myMutex );
        const NotifyingScope scope( &myNotifying );
        for ( Observer< T >* observerPtr : myObservers ) {
            observerPtr->update( subject );
        }
    }

    /// Recursive; guards the observers and what a derived class puts under it. A leaf of the lock
    /// order but for what observers take in update().
    mutable Mt::Mutex myMutex;

private:
    class NotifyingScope
    {
    public:
        explicit NotifyingScope( bool* flagPtr )
            : myFlagPtr( flagPtr )
            , mySaved( std::exchange( *flagPtr, true ) )
        {
        }
        NotifyingScope( const NotifyingScope& ) = delete;
        NotifyingScope& operator=( const NotifyingScope& ) = delete;
        ~NotifyingScope() { *myFlagPtr = mySaved; }

    private:
        bool* myFlagPtr;
        bool mySaved;
    };

    ObserverSet myObservers NUV_GUARDED_BY( myMutex );
    bool myNotifying NUV_GUARDED_BY( myMutex ) = false;
};

/// A callback bound to a function, an object's member function or any callable, called with one
/// argument.
///
/// Errors:  calling one that is bound to nothing fails nuvAssert "isBound()".
/// Owns:    a copy of the callable; an object is borrowed.
/// Example: CallbackFunctor< int, Scheduler* > callback( this, &Backup::run );
template < class R, class A >
class CallbackFunctor
{
public:
    CallbackFunctor() = default;
    template < class Callable >
    requires( std::is_invocable_r_v< R, Callable&, A > &&
              !std::same_as< std::decay_t< Callable >, CallbackFunctor > )
        CallbackFunctor( Callable&& callable )
        : myFunction( std::forward< Callable >( callable ) )
    {
    }
    template < class Object, class Base >
    requires std::derived_from< Object, Base > CallbackFunctor( Object* objectPtr,
                                                                R ( Base::*memberPtr )( A ) )
        : myFunction( [objectPtr, memberPtr]( A argument ) -> R {
            return ( objectPtr->*memberPtr )( std::forward< A >( argument ) );
        } )
    {
    }

    R operator()( A argument ) const
    {
        nuvAssert( isBound() );
        return myFunction( std::forward< A >( argument ) );
    }
    bool isBound() const { return static_cast< bool >( myFunction ); }

private:
    std::function< R( A ) > myFunction;
};

/// Reads a whole number as the C library's strtoull() does, in any locale's white space, but tells
/// overflow by a flag.
///
/// Overflow is recognised when a further digit does not make the value greater. A text whose value
/// wraps modulo 2^64 to a greater one goes on unnoticed; std::from_chars() tells all of them.
/// @param textPtr null fails nuvAssert
/// @param endPtrPtr may be null; receives where reading stopped: behind the digits, at the digit
/// that
///        overflowed, or at textPtr if base is not 0 or 2 to 36. Without a digit it is behind white
///        space and sign.
/// @param base 0 takes the base from the text: 16 after "0x", 8 after "0", else 10. No prefix is
///        recognised with another base.
/// @param overflowPtr may be null; receives whether the value does not fit
/// @return the value, negated modulo 2^64 after '-'; the wrapped value on overflow; 0 without a
/// digit
NUV_API std::uint64_t strtou64( const char* textPtr, char** endPtrPtr, int base,
                                bool* overflowPtr );

/// The same as a signed value; overflow also when the sign of the result is not that of the text.
NUV_API std::int64_t strtoi64( const char* textPtr, char** endPtrPtr, int base, bool* overflowPtr );

} // namespace Nuv::Utils

namespace Nuv::Io {

/// A file's descriptor, as the assertion texts name it.
using FileHandle = Utils::Handle;

} // namespace Nuv::Io
