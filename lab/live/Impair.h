// A bad network inside the tool: loss, delay and reordering of what came in, before anybody else sees it.
#ifndef LAB_IMPAIR_H
#define LAB_IMPAIR_H

#include "RtpTypes.h"
#include "SimRandom.h"

#include <map>
#include <queue>
#include <string>
#include <vector>

namespace lab
{

struct tagImpairOptions
{
    double dDrop = 0;        // share of the RTP packets, answers to requests included
    uint32 dwDelayMs = 0;    // of every datagram, RTCP too
    uint32 dwSpreadMs = 0;   // the delay is uniform in +- this; the order stays
    double dReorder = 0;     // share of the RTP packets that the ones behind overtake
    uint32 dwReorderMs = 20; // by how much such a packet is late
    uint64 ullSeed = 1;

    bool Any() const { return dDrop > 0 || dwDelayMs != 0 || dwSpreadMs != 0 || dReorder > 0; }
};

// "5%", "0.5 %". False with what was expected.
bool ParseShare(const std::string& strText, double& dShare, std::string& strError);
// "40ms", "40±20ms", "40+-20ms"; the unit may be left out.
bool ParseDelay(const std::string& strText, uint32& dwMs, uint32& dwSpreadMs, std::string& strError);

// A datagram on its way, with bytes of its own.
struct tagHeldDatagram
{
    tagRtpDatagram st; // pData is set when it is taken
    std::vector<uint8> vecBytes;
    uint32 uDoor = 0; // the caller's: where it came in
};

// What was dropped of one SSRC.
struct tagDropped
{
    uint32 dwSsrc = 0;
    uint16 wSeq = 0;
};

// Takes datagrams and gives them back later, or never. Pure: the same input at the same times gives the same.
class CImpair
{
public:
    explicit CImpair(const tagImpairOptions& stOptions);

    // @return false: dropped, stDropped names it (the RTP header is there, or it would not have been dropped)
    bool Put(const tagRtpDatagram& stDatagram, uint32 uDoor, tagDropped& stDropped);
    // The next that is through by now; its arrival is when it got through.
    bool Take(uint64 ullNowUs, tagHeldDatagram& stHeld);
    // When the next one will be through.
    bool NextUs(uint64& ullWhenUs) const;

    uint64 Rtp() const { return m_ullRtp; } // RTP packets that were put in
    uint64 Dropped() const { return m_ullDropped; }
    uint64 Reordered() const { return m_ullReordered; }

private:
    struct tagOnWay
    {
        uint64 ullDueUs;
        uint64 ullOrder; // ties leave as they came
        tagHeldDatagram stHeld;
        bool operator<(const tagOnWay& stOther) const // the priority queue has the largest on top
        {
            return ullDueUs != stOther.ullDueUs ? ullDueUs > stOther.ullDueUs : ullOrder > stOther.ullOrder;
        }
    };

    const tagImpairOptions m_stOptions;
    CSimRandom m_randDrop;
    CSimRandom m_randDelay;
    CSimRandom m_randReorder;
    std::priority_queue<tagOnWay> m_queue;
    uint64 m_ullOrder = 0;
    uint64 m_ullLastDueUs = 0;
    uint64 m_ullRtp = 0;
    uint64 m_ullDropped = 0;
    uint64 m_ullReordered = 0;
};

// What became of the packets that the tool itself dropped. A packet is one entry however often it was dropped: an
// answer to a request, sent under the same number, may be dropped as well.
struct tagDropFate
{
    uint64 ullDropped = 0; // packets, each counted once
    uint64 ullBack = 0;    // came after all
    uint64 ullInTime = 0;  // of these, played in their place
    uint64 ullLate = 0;    // of these, played after their place had been played
    uint64 ullNever = 0;   // did not come
};

class CDropList
{
public:
    enum EState : uint8
    {
        Open,
        Back,
        InTime,
        Late
    };
    struct tagEntry
    {
        uint32 dwSsrc = 0;
        uint16 wSeq = 0;
        uint64 ullDroppedUs = 0; // the first time
        uint32 dwTimes = 1;      // how often
        EState eState = Open;
    };

    void Dropped(const tagDropped& st, uint64 ullNowUs);
    // The packet was handed to the receiver.
    void Came(uint32 dwSsrc, uint16 wSeq, uint64 ullNowUs);
    void Played(uint32 dwSsrc, uint16 wSeq, bool bLate, uint64 ullNowUs);

    // By SSRC, all of them.
    std::map<uint32, tagDropFate> Fates() const { return Fates(0, UINT64_MAX); }
    // Those dropped at ullSinceUs or later and before ullBeforeUs.
    std::map<uint32, tagDropFate> Fates(uint64 ullSinceUs, uint64 ullBeforeUs) const;
    // In the order they were dropped first; the last c_nKept of an endless call.
    std::vector<tagEntry> Entries() const;

    static constexpr size_t c_nKept = 100000;

private:
    tagEntry* Find(uint32 dwSsrc, uint16 wSeq, uint64 ullNowUs);
    void FoldOldest();

    std::vector<tagEntry> m_vecEntries; // ring once it is full
    uint64 m_ullEntries = 0;
    std::map<uint64, uint64> m_mapNewest; // SSRC and sequence to the entry's number
    std::map<uint32, tagDropFate> m_mapFolded;
};

} // namespace lab

#endif
