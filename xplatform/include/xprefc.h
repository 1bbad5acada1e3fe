/** @file
 * Intrusive reference counting.
 */
#ifndef XPREFC_H
#define XPREFC_H

#include "xpatomic.h"
#include "xptypes.h"

/// Base of every reference-counted object. A fresh object holds no reference: the first CScopePtr (or AddRef) owns it,
/// and giving the last reference back deletes it. So such an object lives on the heap; one on the stack must never be
/// given to a CScopePtr without a reference of its own that is never released.
typedef struct tag_st_obj
{
    /// A fresh object holds no reference.
    tag_st_obj() : pInternal(nullptr), iRefs(0) {}

    /// Nobody refers to a copy yet, whatever is copied; and assigning contents moves no references.
    tag_st_obj(const tag_st_obj&) : pInternal(nullptr), iRefs(0) {}
    /// Assigning contents moves no references.
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): it assigns nothing
    tag_st_obj& operator=(const tag_st_obj&) { return *this; }

    virtual ~tag_st_obj();

    /// Takes one reference. Returns the new count. Any thread that already has the object in hand.
    int32 AddRef() { return xpatomic_inc(&iRefs); }

    /// Gives one reference back, and deletes the object with the last one. Returns TRUE when it did so: from then on
    /// the object must not be touched. Any thread.
    boolean Release()
    {
        if (xpatomic_dec(&iRefs) != 0)
            return FALSE;
        delete this;
        return TRUE;
    }

    void* pInternal;    ///< for whoever made the object; never read, freed or copied here
    xpatomic32_t iRefs; ///< references held at this moment
} st_obj;

/// A pointer that holds one reference to what it points to. `T` is any class with AddRef and Release; it needs to be
/// complete only where the pointer is given something or gives it up. One CScopePtr belongs to one thread at a time;
/// different ones may hold the same object on different threads.
template <class T>
class CScopePtr
{
public:
    CScopePtr() noexcept : p(nullptr) {}

    /// Takes a reference; null holds nothing.
    CScopePtr(T* pObj) : p(pObj)
    {
        if (p != nullptr)
            p->AddRef();
    }

    /// Takes a reference of its own.
    CScopePtr(const CScopePtr& other) : CScopePtr(other.p) {}
    /// Takes over the reference.
    CScopePtr(CScopePtr&& other) noexcept : p(other.p) { other.p = nullptr; }

    ~CScopePtr()
    {
        T* pOld = p;
        p = nullptr;
        if (pOld != nullptr)
            pOld->Release();
    }

    /// The new object's reference is taken before the old one's is given back, so assigning what is already held, or
    /// what only the old object keeps alive, is safe. The old object is released last of all: its destructor may look
    /// at this pointer and finds the new state.
    CScopePtr& operator=(T* pObj)
    {
        if (pObj != nullptr)
            pObj->AddRef();
        T* pOld = p;
        p = pObj;
        if (pOld != nullptr)
            pOld->Release();
        return *this;
    }

    /// Takes a reference of its own, then gives the old one back.
    // NOLINTNEXTLINE(bugprone-unhandled-self-assignment): the new reference is taken before the old one is given back
    CScopePtr& operator=(const CScopePtr& other) { return *this = other.p; }

    /// Takes over the reference, then gives the old one back.
    CScopePtr& operator=(CScopePtr&& other) noexcept
    {
        if (this == &other)
            return *this;
        T* pOld = p;
        p = other.p;
        other.p = nullptr;
        if (pOld != nullptr)
            pOld->Release();
        return *this;
    }

    /// What is held; not null.
    T* operator->() const { return p; }
    /// What is held; not null.
    T& operator*() const { return *p; }
    /// What is held, or null.
    operator T*() const { return p; }

    T* p; ///< what is held, or null; change it only through the operators above
};

static_assert(sizeof(CScopePtr<st_obj>) == sizeof(void*), "a scope pointer is one pointer");

#endif
