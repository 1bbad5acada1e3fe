// Numbers as the network writes them.
#ifndef LAB_BIGENDIAN_H
#define LAB_BIGENDIAN_H

#include "xptypes.h"

namespace lab
{

inline uint16 Be16(const uint8* p) { return (uint16)(p[0] << 8 | p[1]); }
inline uint32 Be32(const uint8* p)
{
    return (uint32)p[0] << 24 | (uint32)p[1] << 16 | (uint32)p[2] << 8 | p[3];
}

} // namespace lab

#endif
