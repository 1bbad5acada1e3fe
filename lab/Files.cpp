#include "Files.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace lab
{

int Complain(const std::string& strLine)
{
    fmt::print(stderr, "udtlab: {}\n", strLine);
    return c_nExitBad;
}

bool WriteText(const std::string& strPath, const std::string& strText, std::string& strError)
{
    FILE* pFile = strPath == "-" ? stdout : fopen(strPath.c_str(), "wb");
    bool bOk = pFile != nullptr;
    if (bOk)
        bOk = fwrite(strText.data(), 1, strText.size(), pFile) == strText.size() && fflush(pFile) == 0;
    const int nError = errno;
    if (pFile && pFile != stdout)
        fclose(pFile);
    if (!bOk)
        strError = fmt::format("{}: cannot be written: {}", strPath, strerror(nError));
    return bOk;
}

std::string StatsText(const std::string& strPath, const tagUdtStats& stStats)
{
    const size_t nDot = strPath.rfind('.');
    const std::string strKind = nDot == std::string::npos ? "" : strPath.substr(nDot);
    return strKind == ".prom" || strKind == ".om" ? UdtStatsOpenMetrics(stStats)
                                                  : UdtStatsJson(stStats) + "\n";
}

bool SameFile(const std::string& strA, const std::string& strB)
{
    char* pszA = realpath(strA.c_str(), nullptr);
    char* pszB = realpath(strB.c_str(), nullptr);
    const bool bSame = pszA && pszB && strcmp(pszA, pszB) == 0;
    free(pszA);
    free(pszB);
    return bSame;
}

std::string Printable(const std::string& strText, size_t nMax)
{
    std::string str;
    for (const char c : strText)
        str += (unsigned char)c < 0x20 || (unsigned char)c > 0x7E ? '?' : c;
    if (str.size() > nMax)
    {
        str.resize(nMax - 2);
        str += "..";
    }
    return str;
}

std::string FolderOf(const std::string& strPath)
{
    const size_t nSlash = strPath.rfind('/');
    return nSlash == std::string::npos ? "" : strPath.substr(0, nSlash);
}

} // namespace lab
