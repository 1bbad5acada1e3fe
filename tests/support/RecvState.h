#ifndef RECVSTATE_H
#define RECVSTATE_H

#include "xptypes.h"

#include <cstddef>
#include <vector>

/**
 * The state of a receiver between two turns as bytes: `CRecvRig::SaveState` and `LoadState`. A receiver that it is
 * loaded into goes on as the other would: the same packets and turns at the same ticks give the same requests and
 * releases. Not in it: what is no decision (rate meters, scratch, books that are made anew on need) and guards,
 * which have to be off.
 */

/// Appends numbers; small ones are short.
class CStateWriter
{
public:
    explicit CStateWriter(std::vector<uint8>& vecBytes) : m_vecBytes(vecBytes) {}
    void Put(uint64 ull)
    {
        while (ull >= 0x80)
        {
            m_vecBytes.push_back((uint8)(ull | 0x80));
            ull >>= 7;
        }
        m_vecBytes.push_back((uint8)ull);
    }

private:
    std::vector<uint8>& m_vecBytes;
};

/// Reads them back. Behind the end, or where a number is too long, everything is 0 and `Good` no more.
class CStateReader
{
public:
    CStateReader(const uint8* pData, size_t nLen) : m_p(pData), m_pBegin(pData), m_pEnd(pData + nLen) {}
    uint64 Get()
    {
        uint64 ull = 0;
        for (int nShift = 0; nShift < 64 && m_p < m_pEnd; nShift += 7)
        {
            const uint8 c = *m_p++;
            ull |= (uint64)(c & 0x7F) << nShift;
            if (c < 0x80)
                return ull;
        }
        m_bGood = false;
        m_p = m_pEnd;
        return 0;
    }
    /// A count of things that are at least one byte each.
    size_t GetCount()
    {
        const uint64 ull = Get();
        if (ull > (uint64)(m_pEnd - m_p))
            m_bGood = false;
        return m_bGood ? (size_t)ull : 0;
    }
    /// So many bytes; null when there are fewer.
    const uint8* Skip(size_t n)
    {
        if ((size_t)(m_pEnd - m_p) < n)
        {
            m_bGood = false;
            return nullptr;
        }
        m_p += n;
        return m_p - n;
    }
    bool Good() const { return m_bGood; }
    bool AtEnd() const { return m_p == m_pEnd; }
    size_t Position() const { return (size_t)(m_p - m_pBegin); }

private:
    const uint8* m_p;
    const uint8* const m_pBegin;
    const uint8* const m_pEnd;
    bool m_bGood = true;
};

#endif // RECVSTATE_H
