#include "Files.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
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

std::string FolderOf(const std::string& strPath)
{
    const size_t nSlash = strPath.rfind('/');
    return nSlash == std::string::npos ? "" : strPath.substr(0, nSlash);
}

} // namespace lab
