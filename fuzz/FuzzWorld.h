#ifndef FUZZWORLD_H
#define FUZZWORLD_H

/// Senders whose packets come from a fuzzer's bytes: by default a stream goes on as it should, and a few bytes make
/// it leap, turn back, lose, repeat or lie.
#include "FuzzDoors.h"
#include "RecvRig.h"

class CFuzzSenders
{
public:
    /// The next packet, by the next one to a few bytes.
    tagRigPacket Packet(CFuzzInput& in);
    /// A user that has streams, mostly.
    uint64 Uin(CFuzzInput& in) { return in.Below(8) == 7 ? in.Byte() : 1 + in.Below(2); }

private:
    static constexpr size_t c_nSenders = 6;
    struct tagSender
    {
        uint32 dwSeq = 0;
        uint32 dwMedia = 0;
        uint8 cGop = 0;
        uint8 cFrm = 0;
        uint8 cPkg = 0;
        bool bBegun = false;
    };
    tagSender m_aSenders[c_nSenders];
    uint32 m_dwDownSeq = 1;
    uint16 m_wStamp = 0;
};

#endif // FUZZWORLD_H
