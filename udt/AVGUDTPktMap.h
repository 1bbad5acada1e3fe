// The reorder buffer: an ordered map from sequences to packets, made for a queue that packets leave at the front.
#ifndef AVGUDTPKTMAP_H
#define AVGUDTPKTMAP_H

#include "AVGUDTSeqMap.h"
#include "xptypes.h"

#include <cstddef>
#include <functional>
#include <initializer_list>
#include <iterator>
#include <new>
#include <stdexcept>
#include <type_traits>
#include <utility>

/**
 * Packets sit in nodes that never move, chained in ascending order of sequence; beside them an index of the nodes,
 * sorted as well, tells where a late packet belongs. Appending and taking the first packet cost the same however
 * many are buffered. Nodes of packets that have left are kept for the next ones, so a stream in steady state
 * allocates nothing.
 *
 * There are two ways in:
 * - as a std::map of its interface, for everybody. Iterators and references stay valid until their own entry goes.
 *   Whoever gets hold of an entry that way may change it, so every non-const call marks the map as touched.
 * - as a chain of nodes (`Head`, `Tail`, `Append`, ...), for the receiver. It leaves no mark: the receiver keeps book
 *   of what it changes itself, and believes that book until it finds the mark (`TakeTouched`).
 *
 * One thread at a time. Copies hold copies of the packets. Throws std::bad_alloc where it must grow, and is then
 * what it was before.
 */
template <class T>
class CUdtPktMap
{
public:
    typedef uint32 key_type;
    typedef T mapped_type;
    typedef std::pair<const uint32, T> value_type;
    typedef std::less<uint32> key_compare;
    typedef size_t size_type;
    typedef ptrdiff_t difference_type;
    typedef value_type& reference;
    typedef const value_type& const_reference;

    /// One entry and its neighbours. Read the chain, change it through the map alone.
    struct tagNode
    {
        tagNode* pPrev;
        tagNode* pNext;
        union // alive while the node is in the chain
        {
            value_type stValue;
        };

        tagNode() : pPrev(nullptr), pNext(nullptr) {}
        ~tagNode() {}

        uint32 Seq() const { return stValue.first; }
        T& Pkt() { return stValue.second; }
        const T& Pkt() const { return stValue.second; }
    };

    template <bool bConst>
    class CIter
    {
    public:
        typedef std::bidirectional_iterator_tag iterator_category;
        typedef typename CUdtPktMap::value_type value_type;
        typedef ptrdiff_t difference_type;
        typedef typename std::conditional<bConst, const value_type*, value_type*>::type pointer;
        typedef typename std::conditional<bConst, const value_type&, value_type&>::type reference;

        CIter() : m_pMap(nullptr), m_pNode(nullptr) {}
        CIter(const CUdtPktMap* pMap, tagNode* pNode) : m_pMap(pMap), m_pNode(pNode) {}
        template <bool bOther, class = typename std::enable_if<bConst && !bOther>::type>
        CIter(const CIter<bOther>& other) : m_pMap(other.m_pMap), m_pNode(other.m_pNode)
        {
        }

        reference operator*() const { return m_pNode->stValue; }
        pointer operator->() const { return &m_pNode->stValue; }
        CIter& operator++()
        {
            m_pNode = m_pNode->pNext;
            return *this;
        }
        CIter& operator--()
        {
            m_pNode = m_pNode != nullptr ? m_pNode->pPrev : m_pMap->m_pTail;
            return *this;
        }
        CIter operator++(int)
        {
            const CIter it = *this;
            ++*this;
            return it;
        }
        CIter operator--(int)
        {
            const CIter it = *this;
            --*this;
            return it;
        }
        friend bool operator==(const CIter& a, const CIter& b) { return a.m_pNode == b.m_pNode; }
        friend bool operator!=(const CIter& a, const CIter& b) { return a.m_pNode != b.m_pNode; }

    private:
        friend class CUdtPktMap;
        template <bool bOther>
        friend class CIter;

        const CUdtPktMap* m_pMap;
        tagNode* m_pNode; // null: behind the last entry
    };
    typedef CIter<false> iterator;
    typedef CIter<true> const_iterator;
    typedef std::reverse_iterator<iterator> reverse_iterator;
    typedef std::reverse_iterator<const_iterator> const_reverse_iterator;

    CUdtPktMap() : m_pHead(nullptr), m_pTail(nullptr), m_pSpare(nullptr), m_nSpare(0), m_bTouched(true) {}
    CUdtPktMap(const CUdtPktMap& other) : CUdtPktMap()
    {
        for (const value_type& stValue : other)
            Append(stValue.first, stValue.second);
    }
    CUdtPktMap(CUdtPktMap&& other) noexcept : CUdtPktMap() { swap(other); }
    CUdtPktMap(std::initializer_list<value_type> lstValues) : CUdtPktMap()
    {
        for (const value_type& stValue : lstValues)
            insert(stValue);
    }
    CUdtPktMap& operator=(CUdtPktMap other) noexcept
    {
        swap(other);
        return *this;
    }
    ~CUdtPktMap()
    {
        DropAll();
        while (m_pSpare != nullptr)
            delete std::exchange(m_pSpare, m_pSpare->pNext);
    }

    // ---- The receiver's way --------------------------------------------------------------------------------

    tagNode* Head() { return m_pHead; }
    const tagNode* Head() const { return m_pHead; }
    tagNode* Tail() { return m_pTail; }
    const tagNode* Tail() const { return m_pTail; }

    /// Has anybody come in the other way since the last call? A new map says yes once.
    bool TakeTouched() { return std::exchange(m_bTouched, false); }
    bool IsTouched() const { return m_bTouched; }
    void Touch() { m_bTouched = true; }

    /// The node of a sequence, or of the first one behind it; null when there is none.
    tagNode* FindFrom(uint32 dwSeq) const
    {
        if (m_pTail == nullptr || m_pTail->Seq() < dwSeq)
            return nullptr;
        if (m_pTail->Seq() == dwSeq)
            return m_pTail;
        return m_mapIndex.lower_bound(dwSeq)->second;
    }

    /// Puts a packet in before a node that FindFrom returned for its sequence, which must not be buffered yet.
    template <class P>
    tagNode* Insert(tagNode* pBefore, uint32 dwSeq, P&& pkt)
    {
        tagNode* const pNode = SpareNode();
        if (pBefore == nullptr)
            m_mapIndex.push_back(dwSeq, pNode);
        else
            m_mapIndex.emplace(dwSeq, pNode);
        // From here on nothing throws: a packet is words and a reference.
        m_pSpare = pNode->pNext;
        --m_nSpare;
        new (&pNode->stValue) value_type(dwSeq, std::forward<P>(pkt));
        pNode->pNext = pBefore;
        pNode->pPrev = pBefore != nullptr ? pBefore->pPrev : m_pTail;
        (pNode->pPrev != nullptr ? pNode->pPrev->pNext : m_pHead) = pNode;
        (pBefore != nullptr ? pBefore->pPrev : m_pTail) = pNode;
        return pNode;
    }

    /// The same for a sequence behind all others.
    template <class P>
    tagNode* Append(uint32 dwSeq, P&& pkt)
    {
        return Insert(nullptr, dwSeq, std::forward<P>(pkt));
    }

    /// Takes a node out and its packet's reference with it. @return the next node
    tagNode* Remove(tagNode* pNode)
    {
        tagNode* const pNext = pNode->pNext;
        if (pNode == m_pHead)
            m_mapIndex.pop_front();
        else
            m_mapIndex.erase(pNode->Seq());
        (pNode->pPrev != nullptr ? pNode->pPrev->pNext : m_pHead) = pNext;
        (pNext != nullptr ? pNext->pPrev : m_pTail) = pNode->pPrev;
        DropNode(pNode);
        return pNext;
    }

    // ---- A map's way ---------------------------------------------------------------------------------------

    iterator begin() { return Hand(m_pHead); }
    iterator end() { return Hand(nullptr); }
    const_iterator begin() const { return const_iterator(this, m_pHead); }
    const_iterator end() const { return const_iterator(this, nullptr); }
    const_iterator cbegin() const { return begin(); }
    const_iterator cend() const { return end(); }
    reverse_iterator rbegin() { return reverse_iterator(end()); }
    reverse_iterator rend() { return reverse_iterator(begin()); }
    const_reverse_iterator rbegin() const { return const_reverse_iterator(end()); }
    const_reverse_iterator rend() const { return const_reverse_iterator(begin()); }
    size_t size() const { return m_mapIndex.size(); }
    bool empty() const { return m_pHead == nullptr; }
    key_compare key_comp() const { return key_compare(); }

    iterator lower_bound(uint32 dwSeq) { return Hand(FindFrom(dwSeq)); }
    const_iterator lower_bound(uint32 dwSeq) const { return const_iterator(this, FindFrom(dwSeq)); }
    iterator upper_bound(uint32 dwSeq) { return Hand(FindBehind(dwSeq)); }
    const_iterator upper_bound(uint32 dwSeq) const { return const_iterator(this, FindBehind(dwSeq)); }
    std::pair<iterator, iterator> equal_range(uint32 dwSeq)
    {
        return std::make_pair(lower_bound(dwSeq), upper_bound(dwSeq));
    }
    iterator find(uint32 dwSeq) { return Hand(FindExactly(dwSeq)); }
    const_iterator find(uint32 dwSeq) const { return const_iterator(this, FindExactly(dwSeq)); }
    size_t count(uint32 dwSeq) const { return FindExactly(dwSeq) != nullptr ? 1 : 0; }

    T& operator[](uint32 dwSeq) { return try_emplace(dwSeq).first->second; }
    T& at(uint32 dwSeq)
    {
        m_bTouched = true;
        return FindOrThrow(dwSeq)->Pkt();
    }
    const T& at(uint32 dwSeq) const { return FindOrThrow(dwSeq)->Pkt(); }

    template <class... Args>
    std::pair<iterator, bool> try_emplace(uint32 dwSeq, Args&&... args)
    {
        tagNode* const pAt = FindFrom(dwSeq);
        if (pAt != nullptr && pAt->Seq() == dwSeq)
            return std::make_pair(Hand(pAt), false);
        return std::make_pair(Hand(Insert(pAt, dwSeq, T(std::forward<Args>(args)...))), true);
    }
    template <class P>
    std::pair<iterator, bool> emplace(uint32 dwSeq, P&& pkt)
    {
        return try_emplace(dwSeq, std::forward<P>(pkt));
    }
    template <class P>
    iterator emplace_hint(const_iterator, uint32 dwSeq, P&& pkt)
    {
        return try_emplace(dwSeq, std::forward<P>(pkt)).first;
    }
    template <class P>
    std::pair<iterator, bool> insert_or_assign(uint32 dwSeq, P&& pkt)
    {
        const std::pair<iterator, bool> stPlace = try_emplace(dwSeq);
        stPlace.first->second = std::forward<P>(pkt);
        return stPlace;
    }
    std::pair<iterator, bool> insert(const value_type& stValue)
    {
        return try_emplace(stValue.first, stValue.second);
    }
    iterator insert(const_iterator, const value_type& stValue) { return insert(stValue).first; }
    template <class It>
    void insert(It itFirst, It itLast)
    {
        for (; itFirst != itLast; ++itFirst)
            try_emplace(itFirst->first, itFirst->second);
    }

    iterator erase(const_iterator it) { return Hand(Remove(it.m_pNode)); }
    iterator erase(iterator it) { return Hand(Remove(it.m_pNode)); }
    iterator erase(const_iterator itFirst, const_iterator itLast)
    {
        while (itFirst != itLast)
            itFirst = erase(itFirst);
        return Hand(itLast.m_pNode);
    }
    size_t erase(uint32 dwSeq)
    {
        tagNode* const pNode = FindExactly(dwSeq);
        m_bTouched = true;
        if (pNode == nullptr)
            return 0;
        Remove(pNode);
        return 1;
    }
    void clear()
    {
        m_bTouched = true;
        DropAll();
    }
    void swap(CUdtPktMap& other) noexcept
    {
        std::swap(m_pHead, other.m_pHead);
        std::swap(m_pTail, other.m_pTail);
        std::swap(m_pSpare, other.m_pSpare);
        std::swap(m_nSpare, other.m_nSpare);
        m_mapIndex.swap(other.m_mapIndex);
        m_bTouched = other.m_bTouched = true;
    }

private:
    static constexpr size_t c_nSpareLeast = 64; // kept whatever is buffered

    iterator Hand(tagNode* pNode)
    {
        m_bTouched = true;
        return iterator(this, pNode);
    }

    tagNode* FindExactly(uint32 dwSeq) const
    {
        tagNode* const pNode = FindFrom(dwSeq);
        return pNode != nullptr && pNode->Seq() == dwSeq ? pNode : nullptr;
    }
    tagNode* FindOrThrow(uint32 dwSeq) const
    {
        if (tagNode* const pNode = FindExactly(dwSeq))
            return pNode;
        throw std::out_of_range("CUdtPktMap::at");
    }
    tagNode* FindBehind(uint32 dwSeq) const
    {
        tagNode* const pNode = FindFrom(dwSeq);
        return pNode != nullptr && pNode->Seq() == dwSeq ? pNode->pNext : pNode;
    }

    tagNode* SpareNode()
    {
        if (m_pSpare == nullptr)
        {
            m_pSpare = new tagNode;
            m_nSpare = 1;
        }
        return m_pSpare;
    }

    // More spare nodes than half of what is buffered are of no use to a stream in steady state.
    void DropNode(tagNode* pNode)
    {
        pNode->stValue.~value_type();
        if (m_nSpare >= c_nSpareLeast + m_mapIndex.size() / 2)
        {
            delete pNode;
            return;
        }
        pNode->pNext = m_pSpare;
        m_pSpare = pNode;
        ++m_nSpare;
    }

    void DropAll()
    {
        tagNode* pNode = std::exchange(m_pHead, nullptr);
        m_pTail = nullptr;
        m_mapIndex.clear();
        while (pNode != nullptr)
            DropNode(std::exchange(pNode, pNode->pNext));
    }

    tagNode* m_pHead;
    tagNode* m_pTail;
    tagNode* m_pSpare; // chained by pNext
    size_t m_nSpare;
    CUdtSeqMap<tagNode*> m_mapIndex;
    bool m_bTouched;
};

#endif
