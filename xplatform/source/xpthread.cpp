#include "xpthread.h"

#include <cstring>
#include <new>
#if defined(__linux__)
#include <sys/syscall.h>
#include <unistd.h>
#endif

hxpthread xpthread_create(void* (*pfnEntry)(void*), void* pArg)
{
    hxpthread hThread = new (std::nothrow) pthread_t;
    if (hThread != nullptr && pthread_create(hThread, nullptr, pfnEntry, pArg) != 0)
    {
        delete hThread;
        hThread = nullptr;
    }
    return hThread;
}

void xpthread_join(hxpthread hThread)
{
    if (hThread == nullptr)
        return;
    pthread_join(*hThread, nullptr);
    delete hThread;
}

void xpthread_detach(hxpthread hThread)
{
    if (hThread == nullptr)
        return;
    pthread_detach(*hThread);
    delete hThread;
}

uint64 xpthread_selfid()
{
#if defined(__linux__)
    return (uint64)syscall(SYS_gettid);
#elif defined(__APPLE__)
    uint64_t ullId = 0;
    pthread_threadid_np(nullptr, &ullId);
    return (uint64)ullId;
#else
    return (uint64)pthread_self();
#endif
}

void xpthread_setname(const char* pszName)
{
    if (pszName == nullptr || *pszName == 0)
        return;
    char szName[16]; // the most that Linux takes, the end mark included
    size_t nLen = strnlen(pszName, sizeof(szName));
    if (nLen == sizeof(szName))
    {
        // Too long. A byte 10xxxxxx is the inside of a character: cut in front of the whole character.
        nLen = sizeof(szName) - 1;
        while (nLen > 0 && ((unsigned char)pszName[nLen] & 0xC0) == 0x80)
            --nLen;
    }
    memcpy(szName, pszName, nLen);
    szName[nLen] = 0;
#if defined(__APPLE__)
    pthread_setname_np(szName);
#elif defined(__linux__)
    pthread_setname_np(pthread_self(), szName);
#endif
}
