// A user who sends: sound and pictures on a clock of his own.
#ifndef LAB_SIMSENDER_H
#define LAB_SIMSENDER_H

#include "SimNet.h"
#include "SimScenario.h"
#include "SimStream.h"

#include <array>

namespace lab
{

// Makes the books of a stream when a sender begins it.
class ISimStreamMaker
{
public:
    virtual CSimStream& NewStream(uint32 uUser, int nKind, uint32 uEpoch, const tagSimFirst& stFirst,
                                  double dPacketsPerSecond) = 0;

protected:
    ~ISimStreamMaker() = default;
};

// Gives each packet when it is sent, and writes it into its stream's books. Joins, leaves and mutes by schedule; a
// picture begins with an I frame after each of them.
class CSimSender : public ISimSource
{
public:
    // uUser counts all senders, uInGroup those of the group. Nothing is sent from llEndUs on but what is asked for.
    CSimSender(const tagSimUsers& stUsers, uint32 uUser, uint32 uInGroup, int64 llEndUs, uint64 ullSeed,
               ISimStreamMaker& maker);

    int64 NextUs() const override { return m_llNextUs; }
    bool Take(tagSimPacket& stPacket) override;

    // Sends a packet once more.
    void Resend(int64 llNowUs, const tagSimPacket& stPacket);

    double SkewPpm() const { return (double)m_llSkewPpb / 1000.0; }
    uint32 User() const { return m_uUser; }

private:
    struct tagTrack
    {
        CSimStream* pStream = nullptr; // null until it was begun
        bool bMuted = false;
        bool bFresh = true;         // the next frame begins a GOP
        int64 llNextUs = c_llNever; // of the next packet
        int64 llStepUs = 0;         // of the sender's clock, from frame to frame
        int64 llPhaseUs = 0;        // of its frames in that clock
        int64 llFrame = 0;          // number of the next frame on that grid
        // The frame that is being sent
        uint32 uLeft = 0; // packets still to go
        uint32 uBytesLeft = 0;
        uint32 uFrameInGop = 0;
        uint8 cGop = 0;
        tagSimRecord stFrame; // what its packets have in common
        double dPacketsPerSecond = 0;
    };

    int64 ClockUs(int64 llRealUs) const { return llRealUs + MulDiv(llRealUs, m_llSkewPpb, 1000000000); }
    int64 RealUs(int64 llClockUs) const;
    // a * b / c without an overflow in between.
    static int64 MulDiv(int64 a, int64 b, int64 c) { return a / c * b + a % c * b / c; }

    void Do(const tagSimDeed& stDeed);
    void Begin(tagTrack& stTrack, int nKind, int64 llNowUs);
    void Halt(tagTrack& stTrack);
    void StartFrame(tagTrack& stTrack, int nKind);
    void Send(tagTrack& stTrack, int nKind, int64 llNowUs, tagSimPacket& stPacket);
    void Schedule(tagTrack& stTrack, int64 llNotBeforeUs);
    bool Has(int nKind) const;
    void Refresh();

    const tagSimUsers& m_stUsers;
    const uint32 m_uUser;
    const int64 m_llEndUs;
    int64 m_llSkewPpb;
    CSimRandom m_random;
    ISimStreamMaker& m_maker;
    std::vector<tagSimDeed> m_vecDeeds;
    size_t m_nDeed = 0;
    bool m_bIn = false;
    uint32 m_uEpoch = 0;
    std::array<tagTrack, SIM_STREAMS> m_aTracks;
    CSimHeap m_resends;
    int64 m_llNextUs = c_llNever;
};

} // namespace lab

#endif
