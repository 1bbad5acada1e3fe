// What the commands share: complaints, and texts written to files.
#ifndef LAB_FILES_H
#define LAB_FILES_H

#include "UdtStats.h"

#include <string>

namespace lab
{

constexpr int c_nExitBad = 2; // bad options, input or output

// One line on stderr. @return c_nExitBad
int Complain(const std::string& strLine);

// "-" is stdout. False with a one-line reason that names the file.
bool WriteText(const std::string& strPath, const std::string& strText, std::string& strError);

// Statistics as the name of their file asks for: OpenMetrics text for .prom and .om, else JSON.
std::string StatsText(const std::string& strPath, const tagUdtStats& stStats);
constexpr const char* c_pszStatsHelp =
    "write the receiver's statistics: OpenMetrics text for a FILE that ends in .prom or .om, else JSON";

// An output that would overwrite an input is a slip of the hand that costs the input.
bool SameFile(const std::string& strA, const std::string& strB);

// For a terminal: control characters replaced, cut to so many characters.
std::string Printable(const std::string& strText, size_t nMax);

// The folder of a path, without the last slash; empty where there is none.
std::string FolderOf(const std::string& strPath);

} // namespace lab

#endif
