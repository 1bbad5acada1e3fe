// Bytes are a text file that a person or another program wrote. The first letter says which kind. A scenario that
// makes sense is run for a moment.

#include "FuzzFile.h"
#include "Matrix.h"
#include "RtpTypes.h"
#include "SimScenario.h"
#include "Simulate.h"

namespace
{

void OneLine(const std::string& strError)
{
    FuzzExpect(!strError.empty(), "refused without a word");
    FuzzExpect(strError.find('\n') == std::string::npos, "a complaint of more than one line");
}

// A moment of it, with what makes it dear cut down.
void Simulate(lab::tagScenario st)
{
    constexpr int64 c_llMoment = 400000;
    st.llDurationUs = std::min(st.llDurationUs, c_llMoment);
    st.vecUsers.resize(std::min<size_t>(st.vecUsers.size(), 2));
    for (lab::tagSimUsers& stUsers : st.vecUsers)
    {
        stUsers.uCount = std::min(stUsers.uCount, 2u);
        stUsers.stAudio.uKbps = std::min(stUsers.stAudio.uKbps, 100u);
        stUsers.stAudio.llPacketUs = std::max<int64>(stUsers.stAudio.llPacketUs, 5000);
        for (lab::tagSimVideo& stVideo : stUsers.aVideo)
        {
            stVideo.uKbps = std::min(stVideo.uKbps, 1000u);
            stVideo.dFps = std::min(stVideo.dFps, 60.0);
            stVideo.uMtu = std::max(stVideo.uMtu, 500u);
            stVideo.uFec = std::min(stVideo.uFec, 3u);
        }
    }
    st.stReceiver.llTurnUs = std::max<int64>(st.stReceiver.llTurnUs, 5000);
    const lab::tagSimResult stResult = lab::RunSimulation(st);
    if (stResult.ExitCode() != 0)
        throw CFuzzBroken(stResult.vecViolations.front());
}

void Scenario(const nlohmann::ordered_json& j)
{
    lab::tagScenario st;
    std::string strError;
    if (lab::ParseScenario(j, "/nowhere", st, strError))
        Simulate(st);
    else
        OneLine(strError);
}

} // namespace

void FuzzText(const uint8* pData, size_t nLen)
{
    if (nLen == 0)
        return;
    const std::string strText((const char*)pData + 1, nLen - 1);
    std::string strError;
    switch (pData[0])
    {
    case 's':
    {
        const CFuzzFile file(strText.data(), strText.size());
        nlohmann::ordered_json j;
        if (lab::ReadScenarioFile(file.Path(), j, strError))
            Scenario(j);
        else
            OneLine(strError);
        break;
    }
    case 'o':
    {
        // Lines of option=value upon the call with nothing special.
        nlohmann::ordered_json j = lab::DefaultScenario();
        size_t nFrom = 0;
        for (int i = 0; i < 8 && nFrom < strText.size(); ++i)
        {
            const size_t nEnd = std::min(strText.find('\n', nFrom), strText.size());
            const std::string strLine = strText.substr(nFrom, nEnd - nFrom);
            const size_t nAt = std::min(strLine.find('='), strLine.size());
            if (!lab::SetScenarioOption(j, strLine.substr(0, nAt),
                                        strLine.substr(std::min(nAt + 1, strLine.size())), strError))
                OneLine(strError);
            nFrom = nEnd + 1;
        }
        Scenario(j);
        break;
    }
    case 'r':
    case 'u':
    {
        const CFuzzFile file(strText.data(), strText.size());
        lab::tagRateTrace st;
        if (!lab::ReadRateTrace(file.Path(), pData[0] == 'r' ? lab::TRACE_DOWNLINK : lab::TRACE_UPLINK, st,
                                strError))
            OneLine(strError);
        else
        {
            FuzzExpect(st.llPeriodUs > 0, "a recording without a length");
            size_t nCursor = 0;
            for (int64 ll : {0ll, 1000ll, 999999ll, 100000000ll})
                if (st.vecOpportunityUs.empty())
                    FuzzExpect(st.stRateKbps.At(ll, nCursor) >= 0, "a rate below zero");
        }
        break;
    }
    case 'd':
    {
        const CFuzzFile file(strText.data(), strText.size());
        lab::tagSimTrace st;
        if (!lab::ReadDelayTrace(file.Path(), st, strError))
            OneLine(strError);
        else
        {
            size_t nCursor = 0;
            for (int64 ll : {0ll, 1000ll, 999999ll, 100000000ll})
                FuzzExpect(st.At(ll, nCursor) >= 0, "a delay below zero");
        }
        break;
    }
    case 'l':
    {
        const CFuzzFile file(strText.data(), strText.size());
        lab::tagLossTrace st;
        if (!lab::ReadLossTrace(file.Path(), st, strError))
            OneLine(strError);
        else
        {
            size_t nCursor = 0;
            for (int64 ll : {0ll, 1000ll, 999999ll, 100000000ll})
            {
                const double d = st.vecPattern.empty() ? st.stShare.At(ll, nCursor) : 0;
                FuzzExpect(d >= 0 && d <= 1, "a share that is none");
            }
        }
        break;
    }
    case 'm':
    {
        // Two shards, parted by a line of its own.
        const size_t nCut = std::min(strText.find("\n--\n"), strText.size());
        const std::string strSecond = strText.substr(std::min(nCut + 4, strText.size()));
        const CFuzzFile first(strText.data(), std::min(nCut + 1, strText.size()));
        const CFuzzFile second(strSecond.data(), strSecond.size());
        std::vector<std::string> vecFiles = {first.Path()};
        if (!strSecond.empty())
            vecFiles.push_back(second.Path());
        std::string strCsv;
        if (!lab::MergeMatrix(vecFiles, strCsv, strError))
            OneLine(strError);
        lab::MatrixTable(strText);
        lab::BrokenCells(strText);
        break;
    }
    case 'g':
    {
        std::vector<double> vec;
        uint32 uShard = 0, uShards = 0;
        if (!lab::ParseMatrixList(strText, vec, strError))
            FuzzExpect(!strError.empty(), "refused without a word");
        if (lab::ParseMatrixShard(strText, uShard, uShards, strError))
            FuzzExpect(uShard >= 1 && uShard <= uShards, "a shard of none");
        break;
    }
    default:
    {
        std::map<uint8, tagRtpFormat> mapFormats;
        if (!ParseRtpMap(strText, mapFormats, strError))
        {
            FuzzExpect(!strError.empty(), "refused without a word");
            FuzzExpect(mapFormats.empty(), "refused, yet changed");
        }
        break;
    }
    }
}
