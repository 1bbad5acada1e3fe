/// What one SSRC's packets looked like on arrival: counts, loss, reordering, jitter, delay. Fixed memory.
#ifndef RTP_STAT_H
#define RTP_STAT_H

#include <array>
#include <vector>

#include "RtpTypes.h"
#include "RtpUnwrap.h"

/// Which of the last 32768 sequences were there; a sequence that slides out is final.
class CRtpSeqWindow
{
public:
    static const int64_t c_llSpan = 32768;

    /// Marks an unwrapped sequence. Sequences that slide out and were never marked go into the loss runs.
    /// @return true when it was not marked before
    bool Mark(int64_t llSeq);

    int64_t Lowest() const { return m_llLowest; }
    int64_t Highest() const { return m_llHighest; }
    uint64 Expected() const { return m_bStarted ? (uint64)(m_llHighest - m_llLowest + 1) : 0; }

    /// Runs of missing sequences between the lowest and the highest.
    void LossRuns(uint64& ullRuns, uint64& ullLongest) const;

private:
    bool Test(int64_t llSeq) const { return (m_aBits[Word(llSeq)] >> (llSeq & 63) & 1) != 0; }
    static size_t Word(int64_t llSeq) { return (size_t)(llSeq & (c_llSpan - 1)) >> 6; }
    static void Run(bool bHere, uint64& ullOpen, uint64& ullRuns, uint64& ullLongest);

    bool m_bStarted = false;
    int64_t m_llLowest = 0;
    int64_t m_llHighest = 0;
    int64_t m_llFinal = 0;   // sequences below it have slid out
    uint64 m_ullOpenRun = 0; // missing in a row up to m_llFinal
    uint64 m_ullRuns = 0;
    uint64 m_ullLongest = 0;
    std::array<uint64_t, c_llSpan / 64> m_aBits{};
};

class CRtpStat
{
public:
    /// @param dwClock Hz; 0: no jitter and no delays
    void OnPacket(uint64 ullArrivalUs, uint16 wSeq, uint32 dwTs, uint32 dwBytes, uint32 dwClock);
    tagRtpStat Get() const;
    uint64 LastUs() const { return m_st.ullLastUs; } ///< arrival of the last packet

private:
    void CountFrame(uint32 dwTs);
    void Delay(uint64 ullArrivalUs, uint32 dwTs, uint32 dwClock);
    uint32 Quantile(uint64 ullPermille) const;

    tagRtpStat m_st;
    CRtpSeqUnwrap m_seq;
    CRtpSeqWindow m_window;
    CRtpTsUnwrap m_ts;
    std::array<uint32, 256> m_aRecentTs{}; // for counting distinct timestamps under reordering
    uint32 m_dwRecentTs = 0;
    int64_t m_llLastTransitUs = 0;
    double m_dJitterUs = 0;
    double m_dJitterMaxUs = 0;
    // Delay relative to the first packet's, a bin per quarter of a ms from m_llFirstBin on; outliers count in the end bins.
    std::vector<uint32> m_vecBins;
    int64_t m_llFirstBin = 0;
    uint64 m_ullDelays = 0;
    uint64 m_ullFirstArrivalUs = 0;
};

#endif // RTP_STAT_H
