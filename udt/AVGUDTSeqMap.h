// An ordered map from 32-bit sequences to small plain values, in one piece of memory.
#ifndef AVGUDTSEQMAP_H
#define AVGUDTSEQMAP_H

#include "xptypes.h"

#include <algorithm>
#include <cstddef>
#include <cstring>
#include <initializer_list>
#include <iterator>
#include <map>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

/**
 * What a stream remembers per sequence comes nearly in order and goes in order: entries are appended at the end
 * and fall out at the front. So they lie sorted in one array with room at both ends; such an append or removal
 * moves nothing, costs no allocation once the array has grown to the stream's habits, and an entry is two words.
 * One in the middle moves the shorter side. What a burst has made large is given back when the stream has shown for a
 * thousand entries that it does not need it.
 *
 * It reads like a std::map; entries are pairs. Unlike there, any insertion and any erasure
 * invalidates iterators and references, so erase by the iterator that the last erase returned. Memory is given
 * back when the map dies or is assigned to; `clear` keeps it. Throws std::bad_alloc where it must grow.
 */
template <class T>
class CUdtSeqMap
{
    static_assert(std::is_trivially_copyable<T>::value, "entries are moved as bytes");

public:
    typedef std::pair<const uint32, T> value_type;
    typedef uint32 key_type;
    typedef T mapped_type;
    typedef value_type* iterator;
    typedef const value_type* const_iterator;
    typedef std::reverse_iterator<iterator> reverse_iterator;
    typedef std::reverse_iterator<const_iterator> const_reverse_iterator;
    typedef size_t size_type;
    typedef value_type& reference;
    typedef const value_type& const_reference;

    CUdtSeqMap()
        : m_pArray(nullptr), m_pArrayEnd(nullptr), m_pLimit(nullptr), m_pBegin(nullptr), m_pEnd(nullptr),
          m_nMost(0), m_dwLooks(0)
    {
    }
    CUdtSeqMap(std::initializer_list<value_type> lstEntries) : CUdtSeqMap()
    {
        for (const value_type& stEntry : lstEntries)
            insert(stEntry);
    }
    CUdtSeqMap(const std::map<uint32, T>& mapEntries) : CUdtSeqMap()
    {
        for (const value_type& stEntry : mapEntries)
            insert(stEntry);
    }
    CUdtSeqMap(const CUdtSeqMap& other) : CUdtSeqMap()
    {
        if (other.empty())
            return;
        m_pArray = m_pBegin = Allocate(other.size());
        m_pArrayEnd = m_pLimit = m_pEnd = m_pArray + other.size();
        Move(m_pArray, other.m_pBegin, other.m_pEnd - other.m_pBegin);
    }
    CUdtSeqMap(CUdtSeqMap&& other) noexcept : CUdtSeqMap() { swap(other); }
    CUdtSeqMap& operator=(CUdtSeqMap other) noexcept
    {
        swap(other);
        return *this;
    }
    ~CUdtSeqMap() { operator delete(m_pArray); }

    void swap(CUdtSeqMap& other) noexcept
    {
        std::swap(m_pArray, other.m_pArray);
        std::swap(m_pArrayEnd, other.m_pArrayEnd);
        std::swap(m_pLimit, other.m_pLimit);
        std::swap(m_pBegin, other.m_pBegin);
        std::swap(m_pEnd, other.m_pEnd);
        std::swap(m_nMost, other.m_nMost);
        std::swap(m_dwLooks, other.m_dwLooks);
    }

    // ---- Looking -------------------------------------------------------------------------------------------

    iterator begin() { return m_pBegin; }
    iterator end() { return m_pEnd; }
    const_iterator begin() const { return m_pBegin; }
    const_iterator end() const { return m_pEnd; }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }
    reverse_iterator rbegin() { return reverse_iterator(end()); }
    reverse_iterator rend() { return reverse_iterator(begin()); }
    const_reverse_iterator rbegin() const { return const_reverse_iterator(end()); }
    const_reverse_iterator rend() const { return const_reverse_iterator(begin()); }
    size_t size() const { return (size_t)(m_pEnd - m_pBegin); }
    bool empty() const { return m_pEnd == m_pBegin; }
    /// Entries that the array has places for.
    size_t capacity() const { return (size_t)(m_pArrayEnd - m_pArray); }

    iterator lower_bound(uint32 dwSeq) { return LowerBound(dwSeq); }
    const_iterator lower_bound(uint32 dwSeq) const { return LowerBound(dwSeq); }
    iterator upper_bound(uint32 dwSeq)
    {
        const iterator it = lower_bound(dwSeq);
        return it != end() && it->first == dwSeq ? it + 1 : it;
    }
    const_iterator upper_bound(uint32 dwSeq) const
    {
        return const_cast<CUdtSeqMap*>(this)->upper_bound(dwSeq);
    }
    iterator find(uint32 dwSeq)
    {
        const iterator it = lower_bound(dwSeq);
        return it != end() && it->first == dwSeq ? it : end();
    }
    const_iterator find(uint32 dwSeq) const { return const_cast<CUdtSeqMap*>(this)->find(dwSeq); }
    size_t count(uint32 dwSeq) const { return !IsBehindAll(dwSeq) && find(dwSeq) != end() ? 1 : 0; }

    /// Is the sequence higher than every one in here?
    bool IsBehindAll(uint32 dwSeq) const { return m_pBegin == m_pEnd || m_pEnd[-1].first < dwSeq; }

    T& at(uint32 dwSeq)
    {
        const iterator it = find(dwSeq);
        if (it == end())
            throw std::out_of_range("CUdtSeqMap::at");
        return it->second;
    }
    const T& at(uint32 dwSeq) const { return const_cast<CUdtSeqMap*>(this)->at(dwSeq); }

    // ---- Changing ------------------------------------------------------------------------------------------

    T& operator[](uint32 dwSeq) { return emplace(dwSeq, T()).first->second; }
    void Set(uint32 dwSeq, T value)
    {
        if (IsBehindAll(dwSeq))
            push_back(dwSeq, value);
        else
            (*this)[dwSeq] = value;
    }
    /// Sets an entry that is expected close behind itNear.
    /// @return the entry
    iterator SetNear(iterator itNear, uint32 dwSeq, T value)
    {
        if (IsBehindAll(dwSeq))
        {
            push_back(dwSeq, value);
            return end() - 1;
        }
        iterator it = SearchFrom(itNear != m_pEnd ? itNear : m_pBegin, dwSeq);
        if (it->first != dwSeq)
            it = emplace(dwSeq, value).first;
        it->second = value;
        return it;
    }

    /// Puts an entry in unless the sequence has one. @return the entry, and whether it is new
    std::pair<iterator, bool> emplace(uint32 dwSeq, T value)
    {
        const iterator it = LowerBound(dwSeq);
        if (it != m_pEnd && it->first == dwSeq)
            return std::make_pair(it, false);
        return std::make_pair(new (OpenGap(it)) value_type(dwSeq, value), true);
    }
    std::pair<iterator, bool> insert(const value_type& stEntry)
    {
        return emplace(stEntry.first, stEntry.second);
    }

    /// Puts in an entry behind all others; that its sequence is the highest is for the caller to know.
    void push_back(uint32 dwSeq, T value)
    {
        if (m_pEnd == m_pLimit)
            MakeRoom();
        new (m_pEnd) value_type(dwSeq, value);
        ++m_pEnd;
    }
    /// Takes out the first of at least one entry.
    void pop_front() { ++m_pBegin; }

    iterator erase(const_iterator itEntry)
    {
        value_type* const pAt = m_pBegin + (itEntry - m_pBegin);
        if (pAt - m_pBegin < m_pEnd - pAt - 1)
        {
            Move(m_pBegin + 1, m_pBegin, pAt - m_pBegin);
            ++m_pBegin;
            return pAt + 1;
        }
        Move(pAt, pAt + 1, m_pEnd - pAt - 1);
        --m_pEnd;
        return pAt;
    }
    size_t erase(uint32 dwSeq)
    {
        const iterator it = find(dwSeq);
        if (it == end())
            return 0;
        erase(it);
        return 1;
    }
    void clear() { m_pBegin = m_pEnd = m_pArray; }

private:
    static constexpr ptrdiff_t c_nLookEvery = 32;   // entries that are appended
    static constexpr uint32 c_dwLooksToShrink = 32; // a thousand entries: longer than what a stream gulps
    static constexpr size_t c_nLeastToShrink = 64;  // entries; less is not worth it

    static void Move(value_type* pTo, const value_type* pFrom, ptrdiff_t nEntries)
    {
        if (nEntries != 0)
            memmove(static_cast<void*>(pTo), pFrom, sizeof(value_type) * (size_t)nEntries);
    }

    // Mostly the answer is one of the ends. Otherwise sequences without holes would lie as far from the last entry as
    // their numbers tell; holes bring them nearer, so the search begins there and looks towards the end.
    iterator LowerBound(uint32 dwSeq) const
    {
        if (IsBehindAll(dwSeq))
            return m_pEnd;
        if (m_pBegin->first >= dwSeq)
            return m_pBegin;
        const uint32 dwBack = m_pEnd[-1].first - dwSeq;
        return SearchFrom(dwBack < size() ? m_pEnd - 1 - dwBack : m_pBegin, dwSeq);
    }

    // The same by a search from an entry towards the end, in steps that double. Every entry before it is lower than
    // dwSeq, and the last entry is not.
    iterator SearchFrom(value_type* pLow, uint32 dwSeq) const
    {
        value_type* pHigh = pLow;
        for (ptrdiff_t nStep = 1; pHigh->first < dwSeq; nStep *= 2)
        {
            pLow = pHigh + 1;
            pHigh += std::min(nStep, m_pEnd - 1 - pHigh);
        }
        while (pLow < pHigh)
        {
            value_type* const pMiddle = pLow + (pHigh - pLow) / 2;
            if (pMiddle->first < dwSeq)
                pLow = pMiddle + 1;
            else
                pHigh = pMiddle;
        }
        return pHigh;
    }

    // Makes room for one entry before pAt. Returns where the room is.
    value_type* OpenGap(value_type* pAt)
    {
        const ptrdiff_t nBefore = pAt - m_pBegin;
        if (nBefore < m_pEnd - pAt && m_pBegin != m_pArray)
        {
            Move(m_pBegin - 1, m_pBegin, nBefore);
            --m_pBegin;
            return pAt - 1;
        }
        if (m_pEnd == m_pLimit)
        {
            MakeRoom();
            pAt = m_pBegin + nBefore;
        }
        Move(pAt + 1, pAt, m_pEnd - pAt);
        ++m_pEnd;
        return pAt;
    }

    // The limit is reached, which is the array's end or the next time to look at what is in use: looks, and goes on to the
    // next limit. At the array's end slides the entries to its front if a quarter of it is free there, else grows.
    void MakeRoom()
    {
        m_nMost = std::max(m_nMost, size());
        if (++m_dwLooks >= c_dwLooksToShrink)
            Shrink();
        if (m_pEnd == m_pArrayEnd)
        {
            if (m_pBegin != m_pArray && m_pBegin - m_pArray >= (m_pArrayEnd - m_pArray) / 4)
                Slide();
            else
                MoveTo(std::max<size_t>(8, 2 * size()));
        }
        m_pLimit = m_pEnd + std::min(c_nLookEvery, m_pArrayEnd - m_pEnd);
    }

    void Slide()
    {
        const size_t nEntries = size();
        Move(m_pArray, m_pBegin, (ptrdiff_t)nEntries);
        m_pBegin = m_pArray;
        m_pEnd = m_pArray + nEntries;
    }

    // An array of more than twice what was needed all the while is given back in part. How many entries there were at once
    // is seen at looks, so there may have been a few more. Kept out of line: in line it makes every append dearer.
    __attribute__((noinline)) void Shrink()
    {
        const size_t nEnough = 2 * m_nMost + (size_t)c_nLookEvery;
        const size_t nNew = nEnough - m_nMost / 4;
        m_nMost = 0;
        m_dwLooks = 0;
        if (capacity() <= nEnough || capacity() <= c_nLeastToShrink)
            return;
        try
        {
            MoveTo(nNew);
        }
        catch (const std::bad_alloc&)
        {
            // It goes on with what it has.
        }
    }

    static value_type* Allocate(size_t nCapacity)
    {
        return static_cast<value_type*>(operator new(sizeof(value_type) * nCapacity));
    }

    // The entries move to a new array.
    void MoveTo(size_t nCapacity)
    {
        value_type* const pArray = Allocate(nCapacity);
        const size_t nEntries = size();
        Move(pArray, m_pBegin, (ptrdiff_t)nEntries);
        operator delete(m_pArray);
        m_pArray = m_pBegin = pArray;
        m_pArrayEnd = pArray + nCapacity;
        m_pLimit = m_pEnd = pArray + nEntries;
    }

    value_type* m_pArray; // the entries are [m_pBegin, m_pEnd) of [m_pArray, m_pArrayEnd)
    value_type* m_pArrayEnd;
    value_type* m_pLimit; // who appends here has to make room; not behind the array's end
    value_type* m_pBegin;
    value_type* m_pEnd;
    size_t m_nMost;   // entries, of all looks since it was judged whether to shrink
    uint32 m_dwLooks; // since then
};

template <class T>
bool operator==(const CUdtSeqMap<T>& a, const CUdtSeqMap<T>& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin());
}

/// Equal to any std::map that holds the same.
template <class T>
bool operator==(const CUdtSeqMap<T>& a, const std::map<uint32, T>& b)
{
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(),
                                              [](const auto& x, const auto& y)
                                              { return x.first == y.first && x.second == y.second; });
}
template <class T>
bool operator==(const std::map<uint32, T>& a, const CUdtSeqMap<T>& b)
{
    return b == a;
}
template <class T, class M>
bool operator!=(const CUdtSeqMap<T>& a, const M& b)
{
    return !(a == b);
}
template <class T>
bool operator!=(const std::map<uint32, T>& a, const CUdtSeqMap<T>& b)
{
    return !(b == a);
}

#endif
