#include "AVGUDTRecvData.h"

#include <new>

void tagUinTrack::NoteGapChange(tagPktNode* pNode)
try
{
    if (pNode->Pkt().cPrePkgLost != 0)
        mapGaps.emplace(pNode->Seq(), &pNode->Pkt());
    else
        mapGaps.erase(pNode->Seq());
}
catch (const std::bad_alloc&)
{
    bGapsKnown = false;
    mapGaps.clear();
}

void tagUinTrack::NoteLate(tagPktNode* pNode)
try
{
    vecLate.push_back(pNode);
}
catch (const std::bad_alloc&)
{
    ForgetWalk();
}
