// Words that several threads share without a lock.
#ifndef XPATOMIC_H
#define XPATOMIC_H

#include "xptypes.h"
#include <atomic>

// --- 32-bit counter ---------------------------------------------------------------------------------------------

typedef std::atomic<int32> xpatomic32_t;

// The orders are those of a reference count: taking a reference needs none, since the caller already holds one;
// giving one back must not be overtaken by what the caller did with the object before, and the one who gives back
// the last must see what all the others did.
inline int32 xpatomic_inc(xpatomic32_t* pValue)
{
    return pValue->fetch_add(1, std::memory_order_relaxed) + 1;
}
inline int32 xpatomic_dec(xpatomic32_t* pValue)
{
    return pValue->fetch_sub(1, std::memory_order_acq_rel) - 1;
}
inline int32 xpatomic_get(const xpatomic32_t* pValue) { return pValue->load(std::memory_order_acquire); }
inline void xpatomic_set(xpatomic32_t* pValue, int32 iNew) { pValue->store(iNew, std::memory_order_release); }

// Adds and returns the new value.
inline int32 xpatomic_add(xpatomic32_t* pValue, int32 iAdd)
{
    return pValue->fetch_add(iAdd, std::memory_order_acq_rel) + iAdd;
}

// Stores `iNew` if the value is `iOld`. TRUE when it did.
inline boolean xpatomic_cas(xpatomic32_t* pValue, int32 iOld, int32 iNew)
{
    return pValue->compare_exchange_strong(iOld, iNew, std::memory_order_acq_rel) ? TRUE : FALSE;
}

// --- shared word ------------------------------------------------------------------------------------------------

// One word (integer, boolean, enum or pointer) that one thread writes and others read without a lock. It has the
// size and alignment of `T`, reads as a `T` and is assigned like a `T`; every access is a relaxed atomic one, which
// costs what a plain access costs. It orders nothing else: what a flag announces needs a lock, or the
// GetAcquire/SetRelease pair.
//
//   one writer thread    =  +=  -=  ++  --          a load and a store: two writers at once lose a step
//   any number of them   =  |=  &=  Add  Exchange  CompareExchange      one atomic step each
//
// Where a template wants the very type (std::max, printf arguments, auto), use Get().
template <class T>
class CXPShared
{
public:
    CXPShared() noexcept : m_value(T()) {}
    explicit CXPShared(T value) noexcept : m_value(value) {}

    // Copies the value, so that records with shared words stay copyable; the copy as a whole is not one step.
    CXPShared(const CXPShared& other) noexcept : m_value(other.Get()) {}

    CXPShared& operator=(const CXPShared& other) noexcept
    {
        Set(other.Get());
        return *this;
    }

    CXPShared& operator=(T value) noexcept
    {
        Set(value);
        return *this;
    }

    T Get() const noexcept { return m_value.load(std::memory_order_relaxed); }
    void Set(T value) noexcept { m_value.store(value, std::memory_order_relaxed); }
    operator T() const noexcept { return Get(); }

    // What the setter did before SetRelease is seen by whoever gets that value by GetAcquire.
    T GetAcquire() const noexcept { return m_value.load(std::memory_order_acquire); }
    void SetRelease(T value) noexcept { m_value.store(value, std::memory_order_release); }

    // One writer thread. Narrow and unsigned words wrap as they would without the wrapper.
    template <class V>
    CXPShared& operator+=(V value) noexcept
    {
        Set((T)(Get() + value));
        return *this;
    }

    template <class V>
    CXPShared& operator-=(V value) noexcept
    {
        Set((T)(Get() - value));
        return *this;
    }

    CXPShared& operator++() noexcept { return *this += 1; }
    CXPShared& operator--() noexcept { return *this -= 1; }

    T operator++(int) noexcept
    {
        const T old = Get();
        Set((T)(old + 1));
        return old;
    }

    T operator--(int) noexcept
    {
        const T old = Get();
        Set((T)(old - 1));
        return old;
    }

    // Any number of writers: flags are raised by one thread and cleared by another.
    CXPShared& operator|=(T value) noexcept
    {
        m_value.fetch_or(value, std::memory_order_relaxed);
        return *this;
    }

    CXPShared& operator&=(T value) noexcept
    {
        m_value.fetch_and(value, std::memory_order_relaxed);
        return *this;
    }

    // Any number of writers. Returns the new value.
    T Add(T value) noexcept { return (T)(m_value.fetch_add(value, std::memory_order_relaxed) + value); }

    // Stores a value and returns the one it replaced; synchronises both ways.
    T Exchange(T value) noexcept { return m_value.exchange(value, std::memory_order_acq_rel); }

    // Stores `value` if the word is `expected`; true when it did.
    bool CompareExchange(T expected, T value) noexcept
    {
        return m_value.compare_exchange_strong(expected, value, std::memory_order_acq_rel);
    }

private:
    std::atomic<T> m_value;

    static_assert(sizeof(std::atomic<T>) == sizeof(T), "a shared word takes the place of a plain one");
    static_assert(std::atomic<T>::is_always_lock_free, "a shared word never hides a lock");
};

static_assert(sizeof(CXPShared<uint8>) == 1 && alignof(CXPShared<uint8>) == alignof(uint8),
              "layout of a byte");
static_assert(sizeof(CXPShared<uint32>) == 4 && alignof(CXPShared<uint32>) == alignof(uint32),
              "layout of a word");
static_assert(sizeof(CXPShared<void*>) == sizeof(void*), "layout of a pointer");

#endif
