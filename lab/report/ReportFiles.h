// A run's report on its way into files, and back.
#ifndef LAB_REPORTFILES_H
#define LAB_REPORTFILES_H

#include <nlohmann/json.hpp>

#include <string>

namespace lab
{

// What the command line asks for; empty: not wanted.
struct tagReportFiles
{
    std::string strReport; // the data
    std::string strHtml;   // the page

    bool Wanted() const { return !strReport.empty() || !strHtml.empty(); }
    bool ToStdout() const { return strReport == "-" || strHtml == "-"; }
};
constexpr const char* c_pszReportHelp = "write the run over time as JSON, for `udtlab report`";
constexpr const char* c_pszHtmlHelp = "write the run over time as one page to look at in a browser";

bool WriteReport(const tagReportFiles& stFiles, const nlohmann::ordered_json& jReport, std::string& strError);

// Reads what --report wrote. False with one line: the file, where in it, and what was expected.
bool ReadReport(const std::string& strPath, nlohmann::ordered_json& jReport, std::string& strError);

} // namespace lab

#endif
