// The two readers behind OpenCapture. Tests open them by name; everybody else by OpenCapture.
#ifndef LAB_CAPTURE_READERS_H
#define LAB_CAPTURE_READERS_H

#include "CaptureReader.h"

#include <cstdio>

struct pcap;

namespace lab
{

// The bookkeeping that both formats share.
class CReaderBase : public ICaptureReader
{
public:
    const std::string& Error() const override { return m_strError; }
    const tagCaptureStats& Stats() const override { return m_stStats; }
    uint64 Position() const override { return m_ullPosition; }
    uint64 Size() const override { return m_ullSize; }

protected:
    CReaderBase(std::string strPath, uint64 ullSize) : m_strPath(std::move(strPath)), m_ullSize(ullSize) {}

    // Notes the line "FILE: offset N: what" and ends the reader.
    EReadResult Fail(uint64 ullOffset, const std::string& strWhat);
    // Counts a datagram and sees to it that arrival times never run backwards: a capture host whose clock
    // is set back in the middle must not make the receiver's clock go back.
    EReadResult Deliver(tagDatagram& stOut);

    std::string m_strPath;
    std::string m_strError;
    tagCaptureStats m_stStats;
    uint64 m_ullPosition = 0;
    uint64 m_ullSize = 0;
    uint64 m_ullLastTimeUs = 0;
    bool m_bEnded = false;
};

// pcap and pcapng, through libpcap.
class CPcapReader : public CReaderBase
{
public:
    // pFile stands at its start and belongs to the reader from now on.
    static std::unique_ptr<CPcapReader> Open(FILE* pFile, const std::string& strPath, uint64 ullSize,
                                             std::string& strError);
    ~CPcapReader() override;
    EReadResult Next(tagDatagram& stOut) override;

private:
    CPcapReader(std::string strPath, uint64 ullSize) : CReaderBase(std::move(strPath), ullSize) {}

    pcap* m_pPcap = nullptr;
    FILE* m_pFile = nullptr; // libpcap's own, looked at only for the position
    int m_nDlt = 0;
};

// rtpdump, the format of rtptools: a text line, a 16-byte head, then 8 bytes and the packet per record.
class CRtpdumpReader : public CReaderBase
{
public:
    static std::unique_ptr<CRtpdumpReader> Open(FILE* pFile, const std::string& strPath, uint64 ullSize,
                                                std::string& strError);
    ~CRtpdumpReader() override;
    EReadResult Next(tagDatagram& stOut) override;

private:
    CRtpdumpReader(std::string strPath, uint64 ullSize) : CReaderBase(std::move(strPath), ullSize) {}

    FILE* m_pFile = nullptr;
    uint64 m_ullStartUs = 0;
    tagRtpAddr m_stSource;
    std::vector<uint8> m_vecBody;
};

} // namespace lab

#endif
