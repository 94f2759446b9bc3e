#pragma once

// Definitions of the functions that a test intercepts (its .wrap file lists them), a line each:
//
//     NUV_WRAP( uid_t, geteuid, (), ourEuid )
//     NUV_FAIL_CALLS( ourFault, -1, int, chmod, ( const char* p, mode_t m ), ( p, m ) )
//
// NUV_OFF64, NUV_TIME64 and NUV_CTL64 give the name that a 32-bit build with 64-bit offsets and
// times calls; NUV_SIZED( _Znw ) is operator new, NUV_SIZED( _Zna ) operator new[].

#ifdef __i386__
#define NUV_OFF64( name ) name##64
#define NUV_TIME64( name ) __##name##64_time64
#define NUV_CTL64( name ) __##name##64
#define NUV_SIZED( name ) name##j
#else
#define NUV_OFF64( name ) name
#define NUV_TIME64( name ) name
#define NUV_CTL64( name ) name
#define NUV_SIZED( name ) name##m
#endif
#define NUV_PASTE( a, b ) a##b
#define NUV_JOIN( a, b ) NUV_PASTE( a, b )
#define NUV_REAL( name ) NUV_JOIN( __real_, name )

/// Every call gives this value.
#define NUV_WRAP( result, name, parameters, ... )                                                  \
    extern "C" result NUV_JOIN( __wrap_, name ) parameters                                         \
    {                                                                                              \
        return __VA_ARGS__;                                                                        \
    }
/// The same; the value may come from NUV_REAL( name ).
#define NUV_WRAP_REAL( result, name, parameters, ... )                                             \
    extern "C" result NUV_REAL( name ) parameters;                                                 \
    NUV_WRAP( result, name, parameters, __VA_ARGS__ )
/// Calls that the fault strikes give the failure; the others are the system's.
#define NUV_FAIL_CALLS( fault, failure, result, name, parameters, arguments )                      \
    NUV_WRAP_REAL( result, name, parameters,                                                       \
                   ( fault ).strikes() ? ( failure ) : NUV_REAL( name ) arguments )
