#include "UDTInsideParam.h"

#include "AVGSpeed.h"

CUDTInsideParam::CUDTInsideParam() : m_pSpeed() {}

CUDTInsideParam* CUDTInsideParam::GetInstance()
{
    // Never destroyed: a receiver that lives in a global object unregisters its meters after main has ended.
    union tagForever
    {
        tagForever() : param() {}
        ~tagForever() {}
        CUDTInsideParam param;
    };
    static tagForever s_forever;
    return &s_forever.param;
}

int CUDTInsideParam::Index(emSpeedType eType)
{
    const int nType = (int)eType;
    return nType >= 0 && nType < SPEED_TYPE_MAX ? nType : -1;
}

void CUDTInsideParam::SetSpeed(CAVGSpeed* pSpeed, emSpeedType eType)
{
    const int nIndex = Index(eType);
    if (nIndex < 0)
        return;
    CXPAutoLock guard(m_lock);
    m_pSpeed[nIndex] = pSpeed;
}

uint32 CUDTInsideParam::GetSpeed(emSpeedType eType)
{
    const int nIndex = Index(eType);
    if (nIndex < 0)
        return 0;
    // The rate is read under the lock: whoever unregistered the meter may delete it the moment SetSpeed returns.
    CXPAutoLock guard(m_lock);
    return m_pSpeed[nIndex] != nullptr ? m_pSpeed[nIndex]->CalculateSpeed() : 0;
}

boolean CUDTInsideParam::HasSpeed(emSpeedType eType)
{
    const int nIndex = Index(eType);
    if (nIndex < 0)
        return FALSE;
    CXPAutoLock guard(m_lock);
    return m_pSpeed[nIndex] != nullptr ? TRUE : FALSE;
}
