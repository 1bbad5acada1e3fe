// Opening captures, and the merge of several by arrival time.

#include "CaptureReader.h"
#include "Readers.h"

#include <fmt/format.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace lab
{

void tagCaptureStats::Add(const tagCaptureStats& o)
{
    ullRecords += o.ullRecords;
    ullDatagrams += o.ullDatagrams;
    ullNotIp += o.ullNotIp;
    ullNotUdp += o.ullNotUdp;
    ullFragments += o.ullFragments;
    ullCutHeaders += o.ullCutHeaders;
    ullTimeBack += o.ullTimeBack;
}

EReadResult CReaderBase::Fail(uint64 ullOffset, const std::string& strWhat)
{
    m_bEnded = true;
    m_strError = fmt::format("{}: offset {}: {}", m_strPath, ullOffset, strWhat);
    return EReadResult::Error;
}

EReadResult CReaderBase::Deliver(tagDatagram& stOut)
{
    m_stStats.ullDatagrams++;
    if (stOut.ullArrivalUs < m_ullLastTimeUs)
    {
        m_stStats.ullTimeBack++;
        stOut.ullArrivalUs = m_ullLastTimeUs;
    }
    m_ullLastTimeUs = stOut.ullArrivalUs;
    stOut.uFile = 0;
    return EReadResult::Datagram;
}

std::unique_ptr<ICaptureReader> OpenCapture(const std::string& strPath, std::string& strError)
{
    FILE* pFile = fopen(strPath.c_str(), "rb");
    struct stat stFile = {};
    if (!pFile || fstat(fileno(pFile), &stFile) != 0)
    {
        strError = fmt::format("{}: offset 0: cannot be opened: {}", strPath, strerror(errno));
        if (pFile)
            fclose(pFile);
        return nullptr;
    }
    if (!S_ISREG(stFile.st_mode))
    {
        strError =
            fmt::format("{}: offset 0: not a file (a capture is read twice, so it must be one)", strPath);
        fclose(pFile);
        return nullptr;
    }
    const uint64 ullSize = (uint64)stFile.st_size;
    char aMagic[2] = {};
    const size_t nGot = fread(aMagic, 1, sizeof(aMagic), pFile);
    rewind(pFile);
    if (nGot == sizeof(aMagic) && memcmp(aMagic, "#!", 2) == 0)
        return CRtpdumpReader::Open(pFile, strPath, ullSize, strError);
    return CPcapReader::Open(pFile, strPath, ullSize, strError);
}

namespace
{

class CMergedReader : public ICaptureReader
{
public:
    explicit CMergedReader(std::vector<std::unique_ptr<ICaptureReader>> vecReaders)
        : m_vecReaders(std::move(vecReaders)), m_vecHeads(m_vecReaders.size())
    {
        for (size_t i = 0; i < m_vecReaders.size(); i++)
            Advance(i);
    }

    EReadResult Next(tagDatagram& stOut) override
    {
        // The datagram handed out last is lent from its reader until now.
        if (m_nLent != c_nNone)
            Advance(m_nLent);
        m_nLent = c_nNone;
        for (size_t i = 0; i < m_vecHeads.size(); i++)
            if (m_vecHeads[i].bThere &&
                (m_nLent == c_nNone || m_vecHeads[i].st.ullArrivalUs < m_vecHeads[m_nLent].st.ullArrivalUs))
                m_nLent = i;
        if (m_nLent != c_nNone)
        {
            stOut = m_vecHeads[m_nLent].st;
            return EReadResult::Datagram;
        }
        if (m_strError.empty() || m_bErrorTold)
            return EReadResult::End;
        m_bErrorTold = true;
        return EReadResult::Error;
    }

    const std::string& Error() const override { return m_strError; }
    const tagCaptureStats& Stats() const override
    {
        m_stStats = tagCaptureStats();
        for (const auto& p : m_vecReaders)
            m_stStats.Add(p->Stats());
        return m_stStats;
    }
    uint64 Position() const override
    {
        uint64 ull = 0;
        for (const auto& p : m_vecReaders)
            ull += p->Position();
        return ull;
    }
    uint64 Size() const override
    {
        uint64 ull = 0;
        for (const auto& p : m_vecReaders)
            ull += p->Size();
        return ull;
    }

private:
    static constexpr size_t c_nNone = SIZE_MAX;
    struct tagHead
    {
        bool bThere = false;
        tagDatagram st;
    };

    void Advance(size_t n)
    {
        const EReadResult eResult = m_vecReaders[n]->Next(m_vecHeads[n].st);
        m_vecHeads[n].bThere = eResult == EReadResult::Datagram;
        m_vecHeads[n].st.uFile = (uint32)n;
        if (eResult == EReadResult::Error && m_strError.empty())
            m_strError = m_vecReaders[n]->Error();
    }

    std::vector<std::unique_ptr<ICaptureReader>> m_vecReaders;
    std::vector<tagHead> m_vecHeads;
    mutable tagCaptureStats m_stStats;
    std::string m_strError;
    size_t m_nLent = c_nNone;
    bool m_bErrorTold = false;
};

} // namespace

std::unique_ptr<ICaptureReader> OpenCaptures(const std::vector<std::string>& vecPaths, std::string& strError)
{
    std::vector<std::unique_ptr<ICaptureReader>> vecReaders;
    for (const std::string& strPath : vecPaths)
    {
        vecReaders.push_back(OpenCapture(strPath, strError));
        if (!vecReaders.back())
            return nullptr;
    }
    if (vecReaders.size() == 1)
        return std::move(vecReaders.front());
    return std::make_unique<CMergedReader>(std::move(vecReaders));
}

} // namespace lab
