// The replay engine. In: options. Out: figures. It prints nothing; log lines go to the caller's function.

#include "Replay.h"

#include "AvOffset.h"
#include "PlayedWriter.h"
#include "Progress.h"
#include "RtpSource.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstdlib>

namespace lab
{

namespace
{

// When a sequence was first asked for, over the last few thousand that were.
class CFirstAsked
{
public:
    void Put(uint32 dwSeq, int64 llMs)
    {
        if (m_vecPlaces.empty())
            m_vecPlaces.resize(c_uPlaces);
        m_vecPlaces[dwSeq % c_uPlaces] = {dwSeq, llMs, true};
    }
    bool Find(uint32 dwSeq, int64& llMs) const
    {
        if (m_vecPlaces.empty())
            return false;
        const tagPlace& stPlace = m_vecPlaces[dwSeq % c_uPlaces];
        llMs = stPlace.llMs;
        return stPlace.bSet && stPlace.dwSeq == dwSeq;
    }

private:
    static constexpr uint32 c_uPlaces = 4096;
    struct tagPlace
    {
        uint32 dwSeq = 0;
        int64 llMs = 0;
        bool bSet = false;
    };
    std::vector<tagPlace> m_vecPlaces;
};

// Counts what a run tells, per stream and user.
class CReplayCounts : public IRunObserver
{
public:
    CReplayCounts(const tagReplayOptions& stOptions, CPlayedWriter* pWriter)
        : m_stOptions(stOptions), m_pWriter(pWriter), m_offsets(stOptions.uPlayDelayMs)
    {
    }

    void Begin(const CLabRun& run) { m_pRun = &run; }
    void SetStartUs(uint64 ullStartUs) { m_ullStartUs = ullStartUs; }

    void OnFed(const CMediaPacket& packet, int64 llTimeUs)
    {
        tagStream& stStream = Stream(packet.m_uStream);
        if (!stStream.st.bFed)
        {
            stStream.st.bFed = true;
            stStream.st.dwFirstArrivalMs = (uint32)(llTimeUs / 1000);
            m_mapKeys[{packet.u64Uin, packet.m_cSubType}] = packet.m_uStream;
        }
    }

    int OnReleased(CMediaPacket& packet, uint32 dwTick) override
    {
        tagStream& stStream = Stream(packet.m_uStream);
        const uint32 dwNowMs = m_pRun->MsSinceStart(dwTick);
        if (!stStream.st.bPlayed)
            stStream.st.dwFirstOutMs = dwNowMs;
        stStream.st.bPlayed = true;
        stStream.st.dwLastOutMs = dwNowMs;
        stStream.st.delay.Add(dwTick - packet.m_dwFedTick);
        m_offsets.Released(packet, dwTick);
        if (m_pWriter)
            m_pWriter->Write(packet, m_ullStartUs + dwNowMs * 1000ull);
        return (int)m_stOptions.uPlayDelayMs;
    }

    // The capture's own receiver asked for packets, too.
    void OnNack(const tagRtpEvent& stEvent)
    {
        if (stEvent.nStream < 0)
            return;
        tagStream& stStream = Stream((uint32)stEvent.nStream);
        const int64 llNowMs = ((int64)stEvent.ullArrivalUs - (int64)m_ullStartUs) / 1000;
        for (const uint32 dwSeq : stEvent.vecSendSeq)
        {
            if (stStream.nacked.Insert(dwSeq) == CSeqWindow::ESeen::Again)
                continue;
            stStream.st.ullNackedPackets++;
            stStream.nackedFirst.Put(dwSeq, llNowMs);
            NoteBoth(stStream, dwSeq);
        }
    }

    void OnLossRequest(const tagReplyData* pReply, uint32 uCount, uint32 dwTick) override
    {
        for (uint32 i = 0; i < uCount; i++)
        {
            const auto it = m_mapKeys.find({pReply[i].ullUserAccount, pReply[i].cSubType});
            if (it == m_mapKeys.end())
                continue;
            tagStream& stStream = Stream(it->second);
            if (stStream.asked.Insert(pReply[i].dwUserSeq) == CSeqWindow::ESeen::Again)
                continue;
            stStream.askedFirst.Put(pReply[i].dwUserSeq, m_pRun->MsSinceStart(dwTick));
            NoteBoth(stStream, pReply[i].dwUserSeq);
        }
    }

    void OnLogLine(UDT_LOG_LEVEL eLevel, const char* pszFunc, const char* pszText, uint32 dwMs) override
    {
        if (m_stOptions.fnLog && (int)eLevel <= m_stOptions.nLogLevel)
            m_stOptions.fnLog(
                fmt::format("{:10.3f} {} {}: {}", dwMs / 1000.0, (int)eLevel, pszFunc, pszText));
    }

    const tagStreamResult& Result(uint32 uStream) { return Stream(uStream).st; }
    void PutAvOffset(tagUserResult& stUser)
    {
        const tagAvOffset& st = m_offsets.Of(stUser.llAccount);
        stUser.avOffset = st.absolute;
        stUser.llAvSumMs = st.llSumMs;
    }

private:
    struct tagStream
    {
        tagStreamResult st;
        CSeqWindow asked;
        CSeqWindow nacked;
        CFirstAsked askedFirst;
        CFirstAsked nackedFirst;
    };

    tagStream& Stream(uint32 uStream)
    {
        if (uStream >= m_vecStreams.size())
            m_vecStreams.resize(uStream + 1);
        return m_vecStreams[uStream];
    }

    // Called at either side's first request for a sequence: the second of the two finds the other.
    static void NoteBoth(tagStream& stStream, uint32 dwSeq)
    {
        int64 llOurs = 0;
        int64 llTheirs = 0;
        if (!stStream.askedFirst.Find(dwSeq, llOurs) || !stStream.nackedFirst.Find(dwSeq, llTheirs))
            return;
        stStream.st.ullAskedByBoth++;
        stStream.st.llLeadSumMs += llTheirs - llOurs;
    }

    const tagReplayOptions& m_stOptions;
    CPlayedWriter* m_pWriter;
    const CLabRun* m_pRun = nullptr;
    uint64 m_ullStartUs = 0;
    std::vector<tagStream> m_vecStreams;
    CAvOffsets m_offsets;
    std::map<std::pair<uint64, uint8>, uint32> m_mapKeys;
};

// First reading: what is in the captures. False: nothing to play; the result says why.
bool ScanCaptures(CRtpIntake& intake, tagReplayResult& stResult, CProgress& progress)
{
    std::string strError;
    const auto pReader = OpenCaptures(stResult.stOptions.vecCaptures, strError);
    if (!pReader)
    {
        stResult.strInputError = strError;
        return false;
    }
    tagDatagram stDatagram;
    uint64 ullSeen = 0;
    while (pReader->Next(stDatagram) == EReadResult::Datagram)
    {
        intake.Scan(stDatagram);
        if (++ullSeen % 1024 == 0)
            progress.Show(0.5 * (double)pReader->Position() / (double)std::max<uint64>(1, pReader->Size()),
                          "scan");
    }
    intake.EndScan();
    return true;
}

std::string UserName(const tagRtpStreamInfo& stInfo)
{
    return stInfo.strCname.empty() ? fmt::format("SSRC {:08x}", stInfo.dwSsrc) : stInfo.strCname;
}

void GatherStreams(CRtpIntake& intake, CLabRun& run, CReplayCounts& counts, tagReplayResult& stResult)
{
    for (uint32 i = 0; i < intake.StreamCount(); i++)
    {
        tagStreamResult st = counts.Result(i);
        st.stInfo = intake.Stream(i);
        st.stPackets = run.Checks().Account(i);
        for (tagUdtStreamStats& stStats : stResult.stStats.vecStreams)
        {
            if (!st.bFed || stStats.llAccount != st.stInfo.llAccount ||
                stStats.dwSubType != st.stInfo.cSubType)
                continue;
            stStats.strUser = UserName(st.stInfo);
            st.stStats = stStats;
        }
        stResult.vecStreams.push_back(st);
        if (!st.bFed)
            continue;

        const uint64 llAccount = st.stInfo.llAccount;
        auto it =
            std::find_if(stResult.vecUsers.begin(), stResult.vecUsers.end(),
                         [llAccount](const tagUserResult& stUser) { return stUser.llAccount == llAccount; });
        if (it == stResult.vecUsers.end())
        {
            tagUserResult stUser;
            stUser.llAccount = llAccount;
            stUser.strName = UserName(st.stInfo);
            counts.PutAvOffset(stUser);
            it = stResult.vecUsers.insert(stResult.vecUsers.end(), stUser);
        }
        it->vecStreams.push_back(i);
    }
}

// Every distinct packet that the capture holds must have been handed to the receiver, and nothing else.
void CheckNothingGotLostBefore(tagReplayResult& stResult)
{
    for (size_t i = 0; i < stResult.vecStreams.size(); i++)
    {
        const tagStreamResult& st = stResult.vecStreams[i];
        if (!st.bFed)
            continue;
        const uint64 ullUnique = st.stInfo.stStat.ullUnique;
        const uint64 ullFirst = st.stPackets.ullFirst;
        if (ullFirst >= ullUnique && ullFirst <= ullUnique + st.stInfo.ullRtxRepaired)
            continue;
        stResult.ullBroken++;
        stResult.vecViolations.push_back(fmt::format(
            "stream {}: the capture holds {} distinct packets and {} repaired ones, {} were handed in", i,
            ullUnique, st.stInfo.ullRtxRepaired, ullFirst));
    }
}

std::string NothingToPlay(const tagReplayResult& stResult, uint64 ullPosition)
{
    std::string strSkipped;
    for (int i = 0; i < RTP_DROP_COUNT; i++)
        if (stResult.stTotals.aDrops[(size_t)i] != 0)
            strSkipped +=
                fmt::format(", {} {}", stResult.stTotals.aDrops[(size_t)i], RtpDropText((emRtpDrop)i));
    return fmt::format("{}: offset {}: no RTP found up to here (expected RTP over UDP; {} records, {} UDP "
                       "datagrams{})",
                       fmt::join(stResult.stOptions.vecCaptures, ", "), ullPosition,
                       stResult.stCapture.ullRecords, stResult.stCapture.ullDatagrams, strSkipped);
}

} // namespace

int tagReplayResult::ExitCode() const
{
    if (ullBroken != 0)
        return 3;
    return strInputError.empty() && strOutputError.empty() ? 0 : 2;
}

tagReplayResult RunReplay(const tagReplayOptions& stOptions)
{
    tagReplayResult stResult;
    stResult.stOptions = stOptions;
    CProgress progress(stOptions.bProgress);

    tagRtpOptions stRtp;
    stRtp.mapFormats = stOptions.mapFormats;
    CRtpIntake intake(stRtp);
    if (!ScanCaptures(intake, stResult, progress))
        return stResult;

    std::string strError;
    const auto pReader = OpenCaptures(stOptions.vecCaptures, strError);
    if (!pReader)
    {
        stResult.strInputError = strError;
        return stResult;
    }
    CRtpSource source(*pReader, intake, !stOptions.strOut.empty());
    int64 llFirst = 0;
    stResult.bPlayed = source.Peek(llFirst);

    std::unique_ptr<CPlayedWriter> pWriter;
    if (stResult.bPlayed && !stOptions.strOut.empty())
    {
        pWriter = CPlayedWriter::Open(stOptions.strOut, stResult.strOutputError);
        if (!pWriter)
        {
            stResult.bPlayed = false;
            return stResult;
        }
    }
    if (stResult.bPlayed)
    {
        CReplayCounts counts(stOptions, pWriter.get());
        tagRunOptions stRun;
        stRun.bLowLatency = stOptions.bLowLatency;
        stRun.nLogLevel = stOptions.nLogLevel;
        stRun.pSeries = stOptions.pSeries;
        CLabRun run(stRun, counts);
        counts.Begin(run);
        counts.SetStartUs(source.StartUs());
        run.SetStartOfDay(source.StartUs());
        source.OnFeed([&counts](const tagRtpMedia&, const CMediaPacket& packet, int64 llTimeUs)
                      { counts.OnFed(packet, llTimeUs); });

        source.OnEvent(
            [&counts](const tagRtpEvent& stEvent)
            {
                if (stEvent.eType == RTP_EVENT_NACK)
                    counts.OnNack(stEvent);
            });

        tagLoopOptions stLoop;
        stLoop.dSpeed = stOptions.dSpeed;
        stLoop.fnBeat = [&]()
        {
            const double dSize = (double)std::max<uint64>(1, pReader->Size());
            progress.Show(0.5 + 0.5 * (double)pReader->Position() / dSize, "replay");
        };
        stResult.dwRunMs = (uint32)(RunLoop(run, source, stLoop) / 1000);

        stResult.ullStartUs = source.StartUs();
        stResult.dwDurationMs = (uint32)(source.LastUs() / 1000);
        stResult.ullPullBacks = run.Checks().PullBacks();
        run.Snapshot(stResult.stStats);
        GatherStreams(intake, run, counts, stResult);
        stResult.vecEndReport = run.EndReport();
        stResult.ullBroken = run.Checks().Broken();
        stResult.vecViolations = run.Checks().Violations();
        CheckNothingGotLostBefore(stResult);
    }
    stResult.stCapture = pReader->Stats();
    stResult.stTotals = intake.Totals();
    stResult.vecGuesses = intake.Guesses();
    stResult.strInputError = pReader->Error();
    if (!stResult.bPlayed && stResult.strInputError.empty())
        stResult.strInputError = NothingToPlay(stResult, pReader->Position());
    if (pWriter)
    {
        stResult.ullWritten = pWriter->Packets();
        pWriter->Close(stResult.strOutputError);
    }
    return stResult;
}

} // namespace lab
