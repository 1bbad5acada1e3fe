#ifndef FUZZFILE_H
#define FUZZFILE_H

/// Bytes as a file that readers open by its name; it lives in memory.
#include "FuzzDoors.h"

#include <sys/mman.h>
#include <unistd.h>

class CFuzzFile
{
public:
    CFuzzFile(const void* pData, size_t nLen) : m_nFd(memfd_create("fuzz", 0))
    {
        FuzzExpect(m_nFd >= 0 && write(m_nFd, pData, nLen) == (ssize_t)nLen, "no file in memory");
        m_strPath = "/proc/self/fd/" + std::to_string(m_nFd);
    }
    ~CFuzzFile() { close(m_nFd); }
    CFuzzFile(const CFuzzFile&) = delete;
    CFuzzFile& operator=(const CFuzzFile&) = delete;

    const std::string& Path() const { return m_strPath; }

private:
    int m_nFd;
    std::string m_strPath;
};

#endif // FUZZFILE_H
