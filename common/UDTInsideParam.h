/** @file
 * Settings and meters that the whole process shares.
 */
#ifndef UDTINSIDEPARAM_H
#define UDTINSIDEPARAM_H

#include "IUDTInside.h"
#include "xplock.h"
#include "xptypes.h"

class CAVGSpeed;

/// What the parts of the transport need of the process-wide object.
class IUDTParam
{
public:
    /// Registers a meter under a type, in place of the one before; null unregisters. Types outside 0 to 11 are ignored.
    /// The meter stays its maker's: unregister it before deleting it.
    virtual void SetSpeed(CAVGSpeed* pSpeed, emSpeedType eType) = 0;

    /// The present rate of the meter under a type, in bytes per second; 0 where there is none. It closes the meter's
    /// measuring interval (CAVGSpeed::CalculateSpeed), so let one poller ask, at an even pace.
    virtual uint32 GetSpeed(emSpeedType eType) = 0;

protected:
    ~IUDTParam() = default;
};

/// Any thread may call any operation. SetSpeed returns only when no reader is using the meter it replaced, so the
/// caller may delete that meter at once.
class CUDTInsideParam : public IUDTParam
{
public:
    /// The one object of the process; never null, and alive until the very end of the process.
    static CUDTInsideParam* GetInstance();

    void SetSpeed(CAVGSpeed* pSpeed, emSpeedType eType) override;
    uint32 GetSpeed(emSpeedType eType) override;

    /// Is there a meter under this type?
    boolean HasSpeed(emSpeedType eType);

    CUDTInsideParam(const CUDTInsideParam&) = delete;
    CUDTInsideParam& operator=(const CUDTInsideParam&) = delete;

private:
    CUDTInsideParam();
    ~CUDTInsideParam() = default;

    /// A type from outside, as an index into m_pSpeed, or -1.
    static int Index(emSpeedType eType);

    CXPLock m_lock;                      ///< guards m_pSpeed and whatever is read through it
    CAVGSpeed* m_pSpeed[SPEED_TYPE_MAX]; ///< by emSpeedType; null: none
};

#endif
