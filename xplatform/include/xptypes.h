// Integer names of the platform layer. Every width is exact; `uint64` is `unsigned long long` on every
// platform, so "%llu" prints it without a cast.
#ifndef XPTYPES_H
#define XPTYPES_H

typedef signed char int8;
typedef short int16;
typedef int int32;
typedef long long int64;

typedef unsigned char uint8;
typedef unsigned short uint16;
typedef unsigned int uint32;
typedef unsigned long long uint64;

typedef uint16 WORD;

// An unsigned byte: FALSE is 0, TRUE is 1. Test it for "not 0", since callers may pass any other byte.
typedef unsigned char boolean;

// Macros, not constants: other headers of an owner's program often define the same two names as macros,
// and only the guarded form lives beside them in either order of inclusion.
#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif

static_assert(sizeof(uint8) == 1 && sizeof(int8) == 1, "8-bit bytes are assumed everywhere");
static_assert(sizeof(uint16) == 2 && sizeof(int16) == 2, "16-bit words");
static_assert(sizeof(uint32) == 4 && sizeof(int32) == 4, "32-bit words");
static_assert(sizeof(uint64) == 8 && sizeof(int64) == 8, "64-bit words");

#endif
