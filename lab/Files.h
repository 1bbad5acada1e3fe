// What the commands share: complaints, and texts written to files.
#ifndef LAB_FILES_H
#define LAB_FILES_H

#include <string>

namespace lab
{

constexpr int c_nExitBad = 2; // bad options, input or output

// One line on stderr. @return c_nExitBad
int Complain(const std::string& strLine);

// "-" is stdout. False with a one-line reason that names the file.
bool WriteText(const std::string& strPath, const std::string& strText, std::string& strError);

// The folder of a path, without the last slash; empty where there is none.
std::string FolderOf(const std::string& strPath);

} // namespace lab

#endif
