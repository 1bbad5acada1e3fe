/** @file
 * Integer names of the platform layer. Every width is exact; `uint64` is `unsigned long long` on every
 * platform, so "%llu" prints it without a cast.
 */
#ifndef XPTYPES_H
#define XPTYPES_H

typedef signed char int8; ///< 8 bits, signed
typedef short int16;      ///< 16 bits, signed
typedef int int32;        ///< 32 bits, signed
typedef long long int64;  ///< 64 bits, signed

typedef unsigned char uint8;       ///< 8 bits
typedef unsigned short uint16;     ///< 16 bits
typedef unsigned int uint32;       ///< 32 bits
typedef unsigned long long uint64; ///< 64 bits, `unsigned long long` everywhere

typedef uint16 WORD; ///< 16 bits

/// An unsigned byte: FALSE is 0, TRUE is 1. Test it for "not 0", since callers may pass any other byte.
typedef unsigned char boolean;

// Macros, not constants: other headers of an owner's program often define the same two names as macros,
// and only the guarded form lives beside them in either order of inclusion.
#ifndef TRUE
#define TRUE 1 ///< a `boolean` that holds
#endif
#ifndef FALSE
#define FALSE 0 ///< a `boolean` that does not
#endif

static_assert(sizeof(uint8) == 1 && sizeof(int8) == 1, "8-bit bytes are assumed everywhere");
static_assert(sizeof(uint16) == 2 && sizeof(int16) == 2, "16-bit words");
static_assert(sizeof(uint32) == 4 && sizeof(int32) == 4, "32-bit words");
static_assert(sizeof(uint64) == 8 && sizeof(int64) == 8, "64-bit words");

#endif
