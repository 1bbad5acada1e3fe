// Random numbers that are the same on every machine.
#ifndef LAB_SIMRANDOM_H
#define LAB_SIMRANDOM_H

#include "xptypes.h"

#include <cstddef>

namespace lab
{

// xoshiro256** (Blackman and Vigna), seeded by splitmix64. The standard library's distributions differ from one
// library to the next, and sines and logarithms from one processor to the next; here everything is integer
// arithmetic and exact scaling, so a seed means the same run everywhere.
class CSimRandom
{
public:
    // Each user of randomness has a name of its own, so that one more of them does not change the others.
    CSimRandom(uint64 ullSeed, const char* pszName, uint64 ullNumber = 0)
    {
        uint64 x = ullSeed ^ 0x6A09E667F3BCC909ull;
        for (const char* p = pszName; *p != 0; p++)
            x = (x ^ (uint64)(unsigned char)*p) * 0x100000001B3ull;
        x += ullNumber * 0x9E3779B97F4A7C15ull;
        for (uint64& s : m_aState)
            s = SplitMix(x);
    }

    uint64 Next()
    {
        const uint64 ullResult = Rotate(m_aState[1] * 5, 7) * 9;
        const uint64 t = m_aState[1] << 17;
        m_aState[2] ^= m_aState[0];
        m_aState[3] ^= m_aState[1];
        m_aState[1] ^= m_aState[2];
        m_aState[0] ^= m_aState[3];
        m_aState[2] ^= t;
        m_aState[3] = Rotate(m_aState[3], 45);
        return ullResult;
    }

    // 0 inclusive to 1 exclusive.
    double Uniform() { return (double)(Next() >> 11) * (1.0 / 9007199254740992.0); }
    // 0 to ullBelow - 1; 0 for ullBelow 0.
    uint64 Below(uint64 ullBelow) { return (uint64)(Uniform() * (double)ullBelow); }
    bool Chance(double dShare) { return dShare > 0 && Uniform() < dShare; }

    // Mean 0, deviation 1: twelve 16-bit uniforms added up (Irwin-Hall). Never beyond 6.
    double Normal()
    {
        uint32 uSum = 0;
        for (int i = 0; i < 3; i++)
        {
            const uint64 x = Next();
            uSum += (uint32)(x & 0xFFFF) + (uint32)(x >> 16 & 0xFFFF) + (uint32)(x >> 32 & 0xFFFF) +
                    (uint32)(x >> 48);
        }
        return ((double)uSum + 6.0) * (1.0 / 65536.0) - 6.0;
    }

private:
    static uint64 Rotate(uint64 x, int n) { return x << n | x >> (64 - n); }
    static uint64 SplitMix(uint64& x)
    {
        uint64 z = (x += 0x9E3779B97F4A7C15ull);
        z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
        z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
        return z ^ (z >> 31);
    }

    uint64 m_aState[4];
};

} // namespace lab

#endif
