// Bounds-checked reading and writing of big-endian (network order) bytes.
#ifndef XPSTREAM_H
#define XPSTREAM_H

#include "xptypes.h"
#include <cstddef>
#include <cstring>

// Reads from a span that it does not own. The first read past the end fails, and so does every read after it: a failed
// read returns 0 (or null) and moves nothing. So a parser reads all it wants and asks Ok() once.
class CXPReader
{
public:
    CXPReader(const void* pData, size_t nSize)
        : m_pData((const uint8*)pData), m_nSize(pData != nullptr ? nSize : 0)
    {
    }

    uint8 U8() { return (uint8)Big(1); }
    uint16 U16() { return (uint16)Big(2); }
    uint32 U24() { return (uint32)Big(3); }
    uint32 U32() { return (uint32)Big(4); }
    uint64 U64() { return Big(8); }

    // The next nCount bytes in place, or null when there are not so many.
    const uint8* Bytes(size_t nCount)
    {
        if (!m_bOk || nCount > Left())
        {
            m_bOk = false;
            return nullptr;
        }
        const uint8* pAt = m_pData + m_nPos;
        m_nPos += nCount;
        return pAt;
    }

    bool Skip(size_t nCount)
    {
        Bytes(nCount);
        return m_bOk;
    }

    bool Ok() const { return m_bOk; }                // no read has failed yet
    size_t Pos() const { return m_nPos; }            // bytes read
    size_t Left() const { return m_nSize - m_nPos; } // bytes not read yet

private:
    uint64 Big(size_t nCount)
    {
        const uint8* pAt = Bytes(nCount);
        uint64 ullValue = 0;
        for (size_t i = 0; pAt != nullptr && i < nCount; ++i)
            ullValue = ullValue << 8 | pAt[i];
        return ullValue;
    }

    const uint8* m_pData;
    size_t m_nSize;
    size_t m_nPos = 0;
    bool m_bOk = true;
};

// Writes into a span that it does not own, under the same rule: the first write that does not fit fails, writes
// nothing, and so does every one after it.
class CXPWriter
{
public:
    CXPWriter(void* pData, size_t nSize) : m_pData((uint8*)pData), m_nSize(pData != nullptr ? nSize : 0) {}

    CXPWriter& U8(uint8 cValue) { return Big(cValue, 1); }
    CXPWriter& U16(uint16 wValue) { return Big(wValue, 2); }
    CXPWriter& U24(uint32 dwValue) { return Big(dwValue, 3); } // the low 24 bits
    CXPWriter& U32(uint32 dwValue) { return Big(dwValue, 4); }
    CXPWriter& U64(uint64 ullValue) { return Big(ullValue, 8); }

    CXPWriter& Bytes(const void* pFrom, size_t nCount)
    {
        uint8* pAt = Room(nCount);
        if (pAt != nullptr && nCount != 0)
            memcpy(pAt, pFrom, nCount);
        return *this;
    }

    bool Ok() const { return m_bOk; }                // every write so far did fit
    size_t Pos() const { return m_nPos; }            // bytes written
    size_t Left() const { return m_nSize - m_nPos; } // bytes still free

private:
    uint8* Room(size_t nCount)
    {
        if (!m_bOk || nCount > Left())
        {
            m_bOk = false;
            return nullptr;
        }
        uint8* pAt = m_pData + m_nPos;
        m_nPos += nCount;
        return pAt;
    }

    CXPWriter& Big(uint64 ullValue, size_t nCount)
    {
        uint8* pAt = Room(nCount);
        for (size_t i = nCount; pAt != nullptr && i-- > 0; ullValue >>= 8)
            pAt[i] = (uint8)ullValue;
        return *this;
    }

    uint8* m_pData;
    size_t m_nSize;
    size_t m_nPos = 0;
    bool m_bOk = true;
};

#endif
