// The one rule for the order of 32-bit sequence numbers.
#ifndef PLAINSEQ_H
#define PLAINSEQ_H

#include "xptypes.h"

namespace plain
{

// The furthest that a sequence may be ahead of another and still be newer.
const uint32 c_dwSeqNewWindow = 0x7FFF;

// Is `seq_number` newer than `prev_seq_number`? TRUE when it is 1 to 0x7FFF ahead, modulo 2^32. Equal is not new; and
// of two sequences that are 0x8000 or more apart both ways, neither is new to the other.
inline boolean IsNewSeqNum(uint32 seq_number, uint32 prev_seq_number)
{
    const uint32 dwAhead = seq_number - prev_seq_number;
    return dwAhead - 1 < c_dwSeqNewWindow ? TRUE : FALSE; // 0 wraps to the far end
}

} // namespace plain

#endif
