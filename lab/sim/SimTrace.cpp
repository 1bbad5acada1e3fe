// From the text of a recording to numbers over time. Nothing here knows a packet.

#include "SimTrace.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace lab
{

namespace
{

constexpr int64 c_llMs = 1000;

// Lines of a file, with the place for error messages.
class CLines
{
public:
    explicit CLines(const std::string& strPath) : m_strPath(strPath), m_file(strPath)
    {
        if (!m_file)
            m_strError = fmt::format("{}: cannot be read: {}", strPath, strerror(errno));
    }
    bool Next(std::string& strLine)
    {
        if (!m_strError.empty() || !std::getline(m_file, strLine))
            return false;
        if (!strLine.empty() && strLine.back() == '\r')
            strLine.pop_back();
        m_nLine++;
        return true;
    }
    bool Fail(const std::string& strWhat)
    {
        if (m_strError.empty())
            m_strError = fmt::format("{}:{}: {}", m_strPath, m_nLine, strWhat);
        return false;
    }
    bool FailWhole(const std::string& strWhat)
    {
        if (m_strError.empty())
            m_strError = fmt::format("{}: {}", m_strPath, strWhat);
        return false;
    }
    const std::string& Error() const { return m_strError; }
    bool Ok() const { return m_strError.empty(); }

private:
    std::string m_strPath;
    std::ifstream m_file;
    std::string m_strError;
    uint64 m_nLine = 0;
};

std::string Shown(const std::string& strText)
{
    std::string str;
    for (const char c : strText.substr(0, 40))
        str += (unsigned char)c < 0x20 || (unsigned char)c > 0x7E ? '?' : c;
    return strText.size() > 40 ? str + ".." : str;
}

bool WholeNumber(const std::string& strText, int64& ll)
{
    if (strText.empty() || strText.size() > 15 ||
        strText.find_first_not_of("0123456789") != std::string::npos)
        return false;
    ll = strtoll(strText.c_str(), nullptr, 10);
    return true;
}

bool Number(const std::string& strText, double& d)
{
    if (strText.empty())
        return false;
    char* pEnd = nullptr;
    d = strtod(strText.c_str(), &pEnd);
    return *pEnd == 0 && d >= 0 && d < 1e12;
}

// ---- mahimahi ------------------------------------------------------------------------------------------------

bool ReadMahimahi(CLines& lines, std::string strLine, tagRateTrace& stTrace)
{
    int64 llLast = 0;
    do
    {
        int64 llMs = 0;
        if (!WholeNumber(strLine, llMs))
            return lines.Fail(
                fmt::format("expected the milliseconds of a delivery opportunity (mahimahi), got \"{}\"",
                            Shown(strLine)));
        if (llMs < llLast)
            return lines.Fail(fmt::format("expected {} or more, times never fall, got {}", llLast, llMs));
        llLast = llMs;
        stTrace.vecOpportunityUs.push_back(llMs * c_llMs);
    } while (lines.Next(strLine));
    if (llLast == 0)
        return lines.FailWhole("expected delivery opportunities beyond 0 ms");
    // The last opportunity is the end of the recording, and the first of the next round comes after it.
    stTrace.llPeriodUs = llLast * c_llMs;
    stTrace.dMeanKbps = (double)stTrace.vecOpportunityUs.size() * 1500.0 * 8.0 / (double)llLast;
    return true;
}

// ---- ping ----------------------------------------------------------------------------------------------------

struct tagEcho
{
    int64 llSeq = 0;
    double dRttMs = -1; // -1: reported missing
};

// The number behind a name such as "icmp_seq=" or "time=", up to the next blank.
bool Field(const std::string& strLine, const char* pszName, std::string& strValue)
{
    const size_t nAt = strLine.find(pszName);
    if (nAt == std::string::npos)
        return false;
    const size_t nBegin = nAt + strlen(pszName);
    strValue = strLine.substr(nBegin, strLine.find_first_of(" :", nBegin) - nBegin);
    return true;
}

bool ReadPing(CLines& lines, std::string strLine, std::vector<tagEcho>& vecEchoes)
{
    bool bSummary = false;
    do
    {
        if (strLine.rfind("---", 0) == 0)
            bSummary = true;
        if (bSummary || strLine.empty() || strLine.rfind("PING ", 0) == 0)
            continue;
        std::string strSeq;
        std::string strTime;
        tagEcho stEcho;
        if (!(Field(strLine, "icmp_seq=", strSeq) || Field(strLine, "icmp_seq ", strSeq)) ||
            !WholeNumber(strSeq, stEcho.llSeq))
            return lines.Fail(
                fmt::format("expected an echo with icmp_seq=N (ping), got \"{}\"", Shown(strLine)));
        if (Field(strLine, "time=", strTime))
        {
            if (!Number(strTime, stEcho.dRttMs))
                return lines.Fail(
                    fmt::format("expected a round trip in ms after time=, got \"{}\"", Shown(strTime)));
            if (strLine.find("(DUP!)") != std::string::npos)
                continue;
        }
        else if (strLine.find("nreachable") == std::string::npos &&
                 strLine.find("timeout") == std::string::npos &&
                 strLine.find("no answer") == std::string::npos &&
                 strLine.find("xceeded") == std::string::npos)
            return lines.Fail(
                fmt::format("expected time=MS or a lost echo (ping), got \"{}\"", Shown(strLine)));
        vecEchoes.push_back(stEcho);
    } while (lines.Next(strLine));
    if (vecEchoes.empty())
        return lines.FailWhole("expected at least one echo (ping)");
    std::stable_sort(vecEchoes.begin(), vecEchoes.end(),
                     [](const tagEcho& a, const tagEcho& b) { return a.llSeq < b.llSeq; });
    return true;
}

// ---- 5G table ------------------------------------------------------------------------------------------------

std::vector<std::string> Cells(const std::string& strLine)
{
    std::vector<std::string> vec;
    size_t nBegin = 0;
    for (;;)
    {
        const size_t nEnd = strLine.find(',', nBegin);
        vec.push_back(strLine.substr(nBegin, nEnd - nBegin));
        if (nEnd == std::string::npos)
            return vec;
        nBegin = nEnd + 1;
    }
}

// Seconds on a plain calendar; only differences matter.
bool TableTime(const std::string& strText, int64& llSeconds)
{
    int nYear = 0, nMonth = 0, nDay = 0, nHour = 0, nMinute = 0, nSecond = 0;
    char cEnd = 0;
    if (sscanf(strText.c_str(), "%4d.%2d.%2d_%2d.%2d.%2d%c", &nYear, &nMonth, &nDay, &nHour, &nMinute,
               &nSecond, &cEnd) != 6 ||
        nMonth < 1 || nMonth > 12 || nDay < 1 || nDay > 31 || nHour > 23 || nMinute > 59 || nSecond > 60)
        return false;
    // Days of the civil calendar, March first.
    const int nShifted = nMonth <= 2 ? nYear - 1 : nYear;
    const int64 llDays = 365LL * nShifted + nShifted / 4 - nShifted / 100 + nShifted / 400 +
                         (153 * ((nMonth + 9) % 12) + 2) / 5 + nDay;
    llSeconds = ((llDays * 24 + nHour) * 60 + nMinute) * 60 + nSecond;
    return true;
}

bool IsTableHead(const std::string& strLine) { return strLine.rfind("Timestamp,", 0) == 0; }

// One column over time. Cells of "-" hold nothing; of rows with the same second the last counts.
bool ReadTable(CLines& lines, const std::string& strHead, const char* pszColumn, tagSimTrace& stTrace)
{
    const std::vector<std::string> vecHead = Cells(strHead);
    const auto it = std::find(vecHead.begin(), vecHead.end(), pszColumn);
    if (it == vecHead.end())
        return lines.Fail(fmt::format("expected a column {}", pszColumn));
    const size_t nColumn = (size_t)(it - vecHead.begin());
    int64 llStart = -1;
    int64 llLast = -1;
    std::string strLine;
    while (lines.Next(strLine))
    {
        if (strLine.empty())
            continue;
        const std::vector<std::string> vecCells = Cells(strLine);
        if (vecCells.size() != vecHead.size())
            return lines.Fail(fmt::format("expected {} columns, got {}", vecHead.size(), vecCells.size()));
        int64 llSeconds = 0;
        if (!TableTime(vecCells[0], llSeconds))
            return lines.Fail(
                fmt::format("expected a time YYYY.MM.DD_HH.MM.SS, got \"{}\"", Shown(vecCells[0])));
        if (llStart < 0)
            llStart = llSeconds;
        if (llSeconds < llLast)
            return lines.Fail(fmt::format("expected times that never fall, got {}", Shown(vecCells[0])));
        llLast = llSeconds;
        const std::string& strCell = vecCells[nColumn];
        if (strCell == "-")
            continue;
        tagTracePoint stPoint{(llSeconds - llStart) * c_llSecondUs, 0};
        if (!Number(strCell, stPoint.dValue))
            return lines.Fail(
                fmt::format("expected a number or - in column {}, got \"{}\"", pszColumn, Shown(strCell)));
        if (!stTrace.vecPoints.empty() && stTrace.vecPoints.back().llAtUs == stPoint.llAtUs)
            stTrace.vecPoints.back() = stPoint;
        else
            stTrace.vecPoints.push_back(stPoint);
    }
    if (stTrace.vecPoints.empty())
        return lines.FailWhole(fmt::format("expected a row with a value in column {}", pszColumn));
    stTrace.llPeriodUs = (llLast - llStart + 1) * c_llSecondUs;
    return true;
}

double MeanOverTime(const tagSimTrace& stTrace)
{
    double dSum = 0;
    for (size_t i = 0; i < stTrace.vecPoints.size(); i++)
    {
        const int64 llEnd =
            i + 1 < stTrace.vecPoints.size() ? stTrace.vecPoints[i + 1].llAtUs : stTrace.llPeriodUs;
        dSum += stTrace.vecPoints[i].dValue * (double)(llEnd - stTrace.vecPoints[i].llAtUs);
    }
    return dSum / (double)(stTrace.llPeriodUs - stTrace.vecPoints.front().llAtUs);
}

// ---- 0 and 1 -------------------------------------------------------------------------------------------------

bool ReadPattern(CLines& lines, std::string strLine, tagLossTrace& stTrace)
{
    do
    {
        if (strLine != "0" && strLine != "1")
            return lines.Fail(fmt::format(
                "expected 0 (kept) or 1 (lost), the text of ping or a table, got \"{}\"", Shown(strLine)));
        stTrace.vecPattern.push_back(strLine == "1");
    } while (lines.Next(strLine));
    return true;
}

// Opens, hands the first line to the reader, and puts the error where the caller wants it.
template <class F>
bool ReadFile(const std::string& strPath, std::string& strError, F fnRead)
{
    CLines lines(strPath);
    std::string strLine;
    bool bOk = false;
    if (lines.Next(strLine))
        bOk = fnRead(lines, strLine);
    else
        lines.FailWhole("expected a trace, the file is empty");
    strError = lines.Error();
    return bOk && lines.Ok();
}

bool IsPing(const std::string& strLine)
{
    return strLine.rfind("PING ", 0) == 0 || strLine.find("icmp_seq") != std::string::npos;
}

} // namespace

double tagSimTrace::At(int64 llTimeUs, size_t& nCursor) const
{
    const int64 llAt = llTimeUs % llPeriodUs;
    if (nCursor >= vecPoints.size() || vecPoints[nCursor].llAtUs > llAt)
        nCursor = 0;
    while (nCursor + 1 < vecPoints.size() && vecPoints[nCursor + 1].llAtUs <= llAt)
        nCursor++;
    return vecPoints[nCursor].dValue; // before the first point the first holds
}

bool ReadRateTrace(const std::string& strPath, emTraceWay eWay, tagRateTrace& stTrace, std::string& strError)
{
    return ReadFile(strPath, strError,
                    [&](CLines& lines, const std::string& strLine)
                    {
                        if (!IsTableHead(strLine))
                            return ReadMahimahi(lines, strLine, stTrace);
                        const char* pszColumn = eWay == TRACE_DOWNLINK ? "DL_bitrate" : "UL_bitrate";
                        if (!ReadTable(lines, strLine, pszColumn, stTrace.stRateKbps))
                            return false;
                        stTrace.llPeriodUs = stTrace.stRateKbps.llPeriodUs;
                        stTrace.dMeanKbps = MeanOverTime(stTrace.stRateKbps);
                        if (stTrace.dMeanKbps <= 0)
                            return lines.FailWhole(
                                fmt::format("expected a rate above 0 in column {}", pszColumn));
                        return true;
                    });
}

bool ReadDelayTrace(const std::string& strPath, tagSimTrace& stOneWayMs, std::string& strError)
{
    return ReadFile(strPath, strError,
                    [&](CLines& lines, const std::string& strLine)
                    {
                        if (IsTableHead(strLine))
                        {
                            if (!ReadTable(lines, strLine, "PINGAVG", stOneWayMs))
                                return false;
                            for (tagTracePoint& stPoint : stOneWayMs.vecPoints)
                                stPoint.dValue /= 2;
                            return true;
                        }
                        std::vector<tagEcho> vecEchoes;
                        if (!ReadPing(lines, strLine, vecEchoes))
                            return false;
                        const int64 llFirst = vecEchoes.front().llSeq;
                        for (const tagEcho& stEcho : vecEchoes)
                            if (stEcho.dRttMs >= 0)
                                stOneWayMs.vecPoints.push_back(
                                    {(stEcho.llSeq - llFirst) * c_llSecondUs, stEcho.dRttMs / 2});
                        if (stOneWayMs.vecPoints.empty())
                            return lines.FailWhole("expected at least one echo with time=MS (ping)");
                        stOneWayMs.llPeriodUs = (vecEchoes.back().llSeq - llFirst + 1) * c_llSecondUs;
                        return true;
                    });
}

bool ReadLossTrace(const std::string& strPath, tagLossTrace& stTrace, std::string& strError)
{
    return ReadFile(strPath, strError,
                    [&](CLines& lines, const std::string& strLine)
                    {
                        tagSimTrace& stShare = stTrace.stShare;
                        if (IsTableHead(strLine))
                        {
                            if (!ReadTable(lines, strLine, "PINGLOSS", stShare))
                                return false;
                            for (tagTracePoint& stPoint : stShare.vecPoints)
                                stPoint.dValue = std::min(1.0, stPoint.dValue / 100);
                            return true;
                        }
                        if (!IsPing(strLine))
                            return ReadPattern(lines, strLine, stTrace);
                        std::vector<tagEcho> vecEchoes;
                        if (!ReadPing(lines, strLine, vecEchoes))
                            return false;
                        const int64 llFirst = vecEchoes.front().llSeq;
                        int64 llNext = llFirst;
                        for (const tagEcho& stEcho : vecEchoes)
                        {
                            if (stEcho.llSeq < llNext)
                                continue; // told twice
                            if (stEcho.llSeq > llNext)
                                stShare.vecPoints.push_back({(llNext - llFirst) * c_llSecondUs, 1.0});
                            stShare.vecPoints.push_back(
                                {(stEcho.llSeq - llFirst) * c_llSecondUs, stEcho.dRttMs < 0 ? 1.0 : 0.0});
                            llNext = stEcho.llSeq + 1;
                        }
                        stShare.llPeriodUs = (llNext - llFirst) * c_llSecondUs;
                        return true;
                    });
}

} // namespace lab
