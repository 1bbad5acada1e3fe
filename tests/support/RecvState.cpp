#include "RecvState.h"

#include "RecvFields.h"
#include "RecvRig.h"

#include <set>
#include <type_traits>

namespace
{

typedef std::function<UDTCodecBaseDecode_V2*(const tagDataPacket&)> FnPacket;

// One list of fields serves both ways: a saver reads what a loader sets.
class CSaver
{
public:
    explicit CSaver(std::vector<uint8>& vecBytes) : m_out(vecBytes) {}
    static constexpr bool c_bLoads = false;

    template <class T>
    void Word(T& value)
    {
        m_out.Put((uint64)value);
    }
    template <class T>
    void Word(CXPShared<T>& value)
    {
        m_out.Put((uint64)value.Get());
    }
    size_t Count(size_t n)
    {
        m_out.Put(n);
        return n;
    }
    template <class M, class F>
    void Map(M& map, F fn)
    {
        Count(map.size());
        for (auto& st : map)
        {
            auto key = st.first;
            fn(key, st.second);
        }
    }

private:
    CStateWriter m_out;
};

class CLoader
{
public:
    CLoader(CStateReader& in, const FnPacket& fnPacket) : m_in(in), m_fnPacket(fnPacket) {}
    static constexpr bool c_bLoads = true;

    template <class T>
    void Word(T& value)
    {
        value = (T)m_in.Get();
    }
    template <class T>
    void Word(CXPShared<T>& value)
    {
        value = (T)m_in.Get();
    }
    size_t Count(size_t) { return m_in.GetCount(); }
    template <class M, class F>
    void Map(M& map, F fn)
    {
        map.clear();
        const size_t n = m_in.GetCount();
        for (size_t i = 0; i < n && m_in.Good(); i++)
        {
            typename std::remove_const<typename M::value_type::first_type>::type key{};
            typename M::mapped_type value{};
            fn(key, value);
            if (m_in.Good())
                map.emplace(key, std::move(value));
        }
    }
    UDTCodecBaseDecode_V2* Packet(const tagDataPacket& st) const { return m_fnPacket(st); }

private:
    CStateReader& m_in;
    const FnPacket& m_fnPacket;
};

// ---- The records ----

#define VISIT_FIELD(name) Visit(ar, st.name);
#define VISIT_RECORD(type, FIELDS) \
    template <class Ar>            \
    void Visit(Ar& ar, type& st)   \
    {                              \
        FIELDS(VISIT_FIELD)        \
    }

template <class Ar, class T>
std::enable_if_t<std::is_integral<T>::value> Visit(Ar& ar, T& value)
{
    ar.Word(value);
}
template <class Ar, class T>
void Visit(Ar& ar, CXPShared<T>& value)
{
    ar.Word(value);
}
template <class Ar>
void Visit(Ar& ar, CUdtSeqMap<uint32>& map)
{
    ar.Map(map,
           [&ar](uint32& dwSeq, uint32& dwValue)
           {
               ar.Word(dwSeq);
               ar.Word(dwValue);
           });
}
// The object is the owner's; here stands whether there is one.
template <class Ar>
void Visit(Ar& ar, CScopePtr<UDTCodecBaseDecode_V2>& pData)
{
    bool bThere = pData.p != nullptr;
    ar.Word(bThere);
    if constexpr (Ar::c_bLoads)
        if (bThere)
            pData = new UDTCodecBaseDecode_V2; // until the record is whole
}
VISIT_RECORD(tagPktStat, FLOW_STAT_FIELDS)
VISIT_RECORD(tagCPktFlowStat, FLOW_FIELDS)
VISIT_RECORD(tagUinBufStatInfo, STAT_FIELDS)
VISIT_RECORD(tagDataPacket, PACKET_FIELDS)
template <class Ar>
void Visit(Ar& ar, MapUdtPacket& map)
{
    ar.Map(map,
           [&ar](uint32& dwSeq, tagDataPacket& st)
           {
               ar.Word(dwSeq);
               Visit(ar, st);
               if constexpr (Ar::c_bLoads)
                   if (st.pRawData.p != nullptr)
                       st.pRawData = ar.Packet(st);
           });
}
VISIT_RECORD(tagUinDataBuf, STREAM_FIELDS)
VISIT_RECORD(tagUinDataInfo, USER_FIELDS)
VISIT_RECORD(tagPkgRingParam, RING_FIELDS)
VISIT_RECORD(tagDownUpSeq, DOWNUP_FIELDS)
template <class Ar>
void Visit(Ar& ar, tagInPktKey& stKey)
{
    ar.Word(stKey.ullUserAccount);
    ar.Word(stKey.cSubType);
}

// Keys and values alike.
template <class Ar, class M>
void VisitMap(Ar& ar, M& map)
{
    ar.Map(map,
           [&ar](auto& key, auto& value)
           {
               Visit(ar, key);
               Visit(ar, value);
           });
}

} // namespace

#define VISIT_MEMBER(name) Visit(ar, recv.name);

void CRecvRig::SaveState(CAVGUdtRecv& recv, std::vector<uint8>& vecBytes)
{
    CSaver ar(vecBytes);
    MEMBER_WORDS(VISIT_MEMBER)
    VisitMap(ar, recv.m_mapUinInPkt);
    VisitMap(ar, recv.m_mapUinDataInfo);
    VisitMap(ar, recv.m_mapUinPkgRingParam);
    ar.Map(recv.m_mapUinSeqInfo,
           [&ar](uint64& ullUin, auto& map)
           {
               ar.Word(ullUin);
               VisitMap(ar, map);
           });
    // What was handed in since the last turn, and who is to be cleared.
    ar.Count(recv.m_listRawData.size());
    for (tagDataPacket& st : recv.m_listRawData)
        Visit(ar, st);
    ar.Count(recv.m_listClearUin.size());
    for (uint64 ullUin : recv.m_listClearUin)
        ar.Word(ullUin);
}

bool CRecvRig::LoadState(CAVGUdtRecv& recv, const uint8* pData, size_t nLen,
                         const std::function<UDTCodecBaseDecode_V2*(const tagDataPacket&)>& fnPacket)
{
    CStateReader in(pData, nLen);
    CLoader ar(in, fnPacket);
    MEMBER_WORDS(VISIT_MEMBER)
    VisitMap(ar, recv.m_mapUinInPkt);
    VisitMap(ar, recv.m_mapUinDataInfo);
    VisitMap(ar, recv.m_mapUinPkgRingParam);
    ar.Map(recv.m_mapUinSeqInfo,
           [&ar](uint64& ullUin, auto& map)
           {
               ar.Word(ullUin);
               VisitMap(ar, map);
           });
    recv.m_listRawData.clear();
    for (size_t n = ar.Count(0); n > 0 && in.Good(); n--)
    {
        recv.m_listRawData.emplace_back();
        tagDataPacket& st = recv.m_listRawData.back();
        Visit(ar, st);
        if (st.pRawData.p != nullptr)
            st.pRawData = fnPacket(st);
    }
    recv.m_listClearUin.clear();
    for (size_t n = ar.Count(0); n > 0 && in.Good(); n--)
    {
        uint64 ullUin = 0;
        ar.Word(ullUin);
        recv.m_listClearUin.push_back(ullUin);
    }
    std::set<uint64> setAccounts;
    for (const auto& st : recv.m_mapUinPkgRingParam)
        setAccounts.insert(st.first.ullUserAccount);
    recv.m_nRingAccounts = setAccounts.size();
    return in.Good() && in.AtEnd();
}
