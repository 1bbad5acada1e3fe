// Bytes become changes to a bundled capture: what a network, a sender or an attacker may do to real media on its way
// through udtrtp to the receiver, under the checks of every run.

#include "CaptureReader.h"
#include "FuzzDoors.h"
#include "LabRun.h"
#include "RtpIntake.h"
#include "RtpSource.h"

#include <cstdio>

namespace
{

constexpr size_t c_nMostOfCapture = 250;

struct tagKept : lab::tagDatagram
{
    std::vector<uint8> vecBytes;
};

std::vector<tagKept> Load(const char* pszName)
{
    std::vector<tagKept> vecKept;
    std::string strError;
    const auto pReader = lab::OpenCapture(std::string(UDT_SOURCE_DIR "/data/rtp/") + pszName, strError);
    lab::tagDatagram st;
    while (pReader && pReader->Next(st) == lab::EReadResult::Datagram)
    {
        tagKept stKept;
        static_cast<lab::tagDatagram&>(stKept) = st;
        stKept.vecBytes.assign(st.pData, st.pData + st.dwCaptured);
        vecKept.push_back(std::move(stKept));
    }
    FuzzExpect(!vecKept.empty(), "a bundled capture is missing");
    return vecKept;
}

const std::vector<tagKept>& Capture(uint32 dwWhich)
{
    static const std::vector<tagKept> s_aCaptures[] = {
        Load("h264-opus-rtx-lab-31s.pcapng"), Load("pcmu-stereo-reorder-41s.rtpdump"),
        Load("amr-lte-duplicates.pcap"), Load("pcmu-twoway-12s.pcap")};
    return s_aCaptures[dwWhich % 4];
}

void Change(CFuzzInput& in, uint8 cHow, tagKept& st)
{
    std::vector<uint8>& vec = st.vecBytes;
    const auto add = [&vec](size_t nAt, size_t nLen, uint64 ullBy) // to a number in network order
    {
        for (size_t i = nAt + nLen; i-- > nAt && i < vec.size();)
        {
            ullBy += vec[i];
            vec[i] = (uint8)ullBy;
            ullBy >>= 8;
        }
    };
    switch (cHow)
    {
    case 0: add(2, 2, (uint64)(int64)(int16)in.Word16()); break;
    case 1: add(4, 4, (uint64)(int64)(int32)in.Word32()); break;
    case 2: add(4, 4, (uint64)((int64)(int16)in.Word16() * 90)); break;
    case 3: add(8, 4, in.Byte()); break;
    case 4: add(1, 1, in.Byte()); break;
    case 5:
    {
        const size_t nAt = in.Byte();
        if (nAt < vec.size())
            vec[nAt] = in.Byte();
        break;
    }
    case 6:
        vec.resize(std::min<size_t>(vec.size(), in.Byte()));
        st.dwWire = in.Below(2) ? st.dwWire : (uint32)vec.size();
        break;
    case 7:
    {
        size_t nNew = in.Below(64);
        const uint8* const p = in.Take(nNew);
        const size_t nAt = std::min<size_t>(in.Byte(), vec.size());
        vec.insert(vec.begin() + (long)nAt, p, p + nNew);
        st.dwWire = std::max(st.dwWire, (uint32)vec.size());
        break;
    }
    case 8: std::swap(st.stSrc, st.stDst); break;
    default: st.stSrc.wPort = (uint16)(st.stSrc.wPort + in.Byte()); break;
    }
}

// The changed capture, as a reader gives it.
class CChanged : public lab::ICaptureReader
{
public:
    CChanged(CFuzzInput in, const std::vector<tagKept>& vecCapture)
    {
        size_t nAt = in.Word16() % vecCapture.size();
        uint64 ullLaterUs = 0;
        uint32 dwLeaps = 0;
        int16 nSeq = 0; // every further packet's sequence is moved by this
        const auto put = [&](tagKept st)
        {
            st.ullArrivalUs += ullLaterUs;
            if (nSeq != 0 && st.vecBytes.size() > 3)
            {
                const uint16 wSeq = (uint16)(st.vecBytes[2] << 8 | st.vecBytes[3]);
                st.vecBytes[2] = (uint8)((uint16)(wSeq + nSeq) >> 8);
                st.vecBytes[3] = (uint8)(wSeq + nSeq);
            }
            m_vec.push_back(std::move(st));
        };
        while (m_vec.size() < c_nMostOfCapture && nAt < vecCapture.size() && !in.Empty())
        {
            const uint8 cHow = in.Byte();
            if (cHow < 0x80) // on as it was
            {
                for (uint32 n = 0; n <= cHow && nAt < vecCapture.size() && m_vec.size() < c_nMostOfCapture;
                     ++n)
                    put(vecCapture[nAt++]);
                continue;
            }
            switch (cHow & 0x0F)
            {
            case 10: nAt += in.Byte(); break;     // lost
            case 11: put(vecCapture[nAt]); break; // comes again
            case 12:                              // overtaken
            {
                const size_t nLate = std::min<size_t>(nAt + in.Below(16), vecCapture.size() - 1);
                put(vecCapture[nLate]);
                break;
            }
            case 13: // everything behind comes later
                if (dwLeaps++ < 4)
                    ullLaterUs += in.Word16() * (uint64)(cHow & 0x10 ? 100 : 1000);
                break;
            case 14: nAt = in.Word16() % vecCapture.size(); break; // goes on elsewhere
            case 15: nSeq = (int16)in.Word16(); break;
            default:
            {
                tagKept st = vecCapture[nAt];
                Change(in, cHow & 0x0F, st);
                put(std::move(st));
                nAt += (cHow & 0x10) == 0;
                break;
            }
            }
        }
        uint64 ullLast = 0;
        for (tagKept& st : m_vec) // as the readers see to it
        {
            st.ullArrivalUs = ullLast = std::max(ullLast, st.ullArrivalUs);
            if (ullLast - m_vec.front().ullArrivalUs > 200000000)
                st.ullArrivalUs = ullLast = m_vec.front().ullArrivalUs + 200000000;
        }
    }

    lab::EReadResult Next(lab::tagDatagram& stOut) override
    {
        if (m_nNext == m_vec.size())
            return lab::EReadResult::End;
        const tagKept& st = m_vec[m_nNext++];
        stOut = st;
        stOut.pData = st.vecBytes.data();
        stOut.dwCaptured = (uint32)st.vecBytes.size();
        stOut.dwWire = std::max(stOut.dwWire, stOut.dwCaptured);
        return lab::EReadResult::Datagram;
    }
    const std::string& Error() const override { return m_strError; }
    const lab::tagCaptureStats& Stats() const override { return m_stStats; }
    uint64 Position() const override { return m_nNext; }
    uint64 Size() const override { return m_vec.size(); }
    void Rewind() { m_nNext = 0; }

private:
    std::vector<tagKept> m_vec;
    size_t m_nNext = 0;
    std::string m_strError;
    lab::tagCaptureStats m_stStats;
};

class CIdleOwner : public lab::IRunObserver
{
public:
    int OnReleased(lab::CMediaPacket& packet, uint32 dwTick) override
    {
        if (FuzzShows())
            fprintf(stderr, "%u out #%u: seq %u\n", dwTick, packet.m_uStream, packet.dwSenderSeq);
        return 0;
    }
    void OnLogLine(UDT_LOG_LEVEL, const char* pszFunc, const char* pszText, uint32) override
    {
        if (FuzzShows())
            fprintf(stderr, "       %s: %s\n", pszFunc, pszText);
    }
    void OnLossRequest(const tagReplyData*, uint32, uint32) override {}
};

} // namespace

void FuzzCapture(const uint8* pData, size_t nLen)
{
    CFuzzInput in(pData, nLen);
    const uint8 cSetup = in.Byte();
    tagRtpOptions stOptions;
    stOptions.bLive = (cSetup & 4) != 0;
    if (cSetup & 8)
        stOptions.dwLookAheadPackets = 16;
    CRtpIntake intake(stOptions);
    CChanged reader(in, Capture(cSetup));
    lab::tagDatagram st;
    if (!stOptions.bLive || (cSetup & 16))
    {
        while (reader.Next(st) == lab::EReadResult::Datagram)
            intake.Scan(st);
        intake.EndScan();
        reader.Rewind();
    }
    lab::CRtpSource source(reader, intake, false);
    CIdleOwner owner;
    lab::tagRunOptions stRun;
    stRun.ullStartTick = cSetup & 32 ? 0xFFFFF800 : 1000000;
    stRun.bLowLatency = (cSetup & 64) != 0;
    stRun.nLogLevel = FuzzShows() ? LOG_LEVEL_DEBUG : LOG_LEVEL_ERROR;
    lab::CLabRun run(stRun, owner);
    source.OnFeed(
        [](const tagRtpMedia& stMedia, const lab::CMediaPacket& packet, int64 llTimeUs)
        {
            if (FuzzShows())
                fprintf(stderr, "%lld feed %llu/%d #%u: seq %u media %u\n", llTimeUs / 1000, packet.u64Uin,
                        packet.m_cSubType, packet.m_uStream, packet.dwSenderSeq, stMedia.stHead.uTimeStamp);
        });
    lab::RunLoop(run, source, lab::tagLoopOptions());
    if (!run.Checks().Ok())
        throw CFuzzBroken(run.Checks().Violations().front());
    FuzzExpect(intake.Totals().ullDatagrams == reader.Size(), "a datagram was not counted");
    for (uint32 i = 0; i < intake.StreamCount(); ++i)
    {
        const tagRtpStreamInfo stInfo = intake.Stream(i);
        FuzzExpect(stInfo.stStat.ullUnique <= stInfo.stStat.ullPackets, "more packets than came");
        FuzzExpect(stInfo.stStat.ullExpected >= stInfo.stStat.ullUnique, "fewer packets expected than came");
    }
}
