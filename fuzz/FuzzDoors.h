#ifndef FUZZDOORS_H
#define FUZZDOORS_H

/**
 * The doors through which foreign bytes come in, one entry function each. A door takes any bytes and returns; what
 * must hold it checks itself and throws CFuzzBroken when it does not. The fuzzer calls a door millions of times, the
 * tests once for every file in fuzz/corpus and tests/data/crashes.
 */

#include "xptypes.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <string>
#include <vector>

struct tagFuzzDoor
{
    const char* pszName; ///< of its folder of files, too
    void (*fnEnter)(const uint8* pData, size_t nLen);
};

void FuzzLockstep(const uint8* pData, size_t nLen); ///< calls on the receiver and on the plain one
void FuzzReceiver(const uint8* pData, size_t nLen); ///< calls on the receiver under the checks of every run
void FuzzCapture(const uint8* pData,
                 size_t nLen);                 ///< changes to a bundled capture, on its way to the receiver
void FuzzRtp(const uint8* pData, size_t nLen); ///< datagrams for udtrtp
void FuzzReader(const uint8* pData, size_t nLen); ///< a capture file
void FuzzText(const uint8* pData, size_t nLen);   ///< scenarios, recordings, grids, options
void FuzzXpMap(const uint8* pData, size_t nLen);  ///< the platform's map beside std::map
void FuzzSeqMap(const uint8* pData, size_t nLen); ///< a stream's history beside std::map
void FuzzPktMap(const uint8* pData, size_t nLen); ///< the reorder buffer beside std::map

constexpr tagFuzzDoor c_aFuzzDoors[] = {
    {"lockstep", FuzzLockstep}, {"receiver", FuzzReceiver}, {"capture", FuzzCapture},
    {"rtp", FuzzRtp},           {"reader", FuzzReader},     {"text", FuzzText},
    {"xpmap", FuzzXpMap},       {"seqmap", FuzzSeqMap},     {"pktmap", FuzzPktMap},
};

class CFuzzBroken : public std::runtime_error
{
public:
    using std::runtime_error::runtime_error;
};

inline void FuzzExpect(bool bHolds, const char* pszWhat)
{
    if (!bHolds)
        throw CFuzzBroken(pszWhat);
}

/// With UDT_FUZZ_SHOW in the environment: what the bytes were taken for, for people.
inline bool FuzzShows()
{
    static const bool s_bShows = getenv("UDT_FUZZ_SHOW") != nullptr;
    return s_bShows;
}

/// Bytes taken from the front; zeros when they have run out.
class CFuzzInput
{
public:
    CFuzzInput(const uint8* pData, size_t nLen) : m_pAt(pData), m_nLeft(nLen) {}

    bool Empty() const { return m_nLeft == 0; }
    size_t Left() const { return m_nLeft; }
    uint8 Byte() { return Word<uint8>(); }
    uint16 Word16() { return Word<uint16>(); }
    uint32 Word32() { return Word<uint32>(); }
    uint64 Word64() { return Word<uint64>(); }
    uint32 Below(uint32 dwEnd) { return Byte() % dwEnd; } ///< dwEnd up to 256
    const uint8* Take(size_t& nLen)                       ///< shortens nLen to what is left
    {
        nLen = std::min(nLen, m_nLeft);
        const uint8* const p = m_pAt;
        m_pAt += nLen;
        m_nLeft -= nLen;
        return p;
    }

private:
    template <class T>
    T Word()
    {
        T value = 0;
        size_t nLen = sizeof(T);
        const uint8* const p = Take(nLen);
        if (nLen != 0)
            memcpy(&value, p, nLen);
        return value;
    }

    const uint8* m_pAt;
    size_t m_nLeft;
};

#endif // FUZZDOORS_H
