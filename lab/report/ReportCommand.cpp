#include "ReportCommand.h"

#include "Files.h"
#include "ReportFiles.h"
#include "ReportPage.h"
#include "Verdict.h"

#include <CLI/CLI.hpp>
#include <fmt/format.h>

#include <string>
#include <vector>

namespace lab
{

struct CReportCommand::tagArgs
{
    std::vector<std::string> vecReports;
    std::string strHtml;
};

CReportCommand::CReportCommand(CLI::App& app) : m_pArgs(std::make_unique<tagArgs>())
{
    CLI::App* p =
        app.add_subcommand("report", "A page from a report, or from two of them laid over each other");
    p->add_option("reports", m_pArgs->vecReports,
                  "what --report of replay or simulate wrote; two are compared")
        ->required()
        ->expected(1, 2)
        ->type_name("FILE.json");
    p->add_option("--html", m_pArgs->strHtml, "the page; without it the verdicts are printed")
        ->type_name("FILE");
}

CReportCommand::~CReportCommand() = default;

int CReportCommand::Run()
{
    std::vector<nlohmann::ordered_json> vec;
    std::string strError;
    for (const std::string& strPath : m_pArgs->vecReports)
    {
        vec.emplace_back();
        if (!ReadReport(strPath, vec.back(), strError))
            return Complain(strError);
        if (!m_pArgs->strHtml.empty() && SameFile(strPath, m_pArgs->strHtml))
            return Complain(
                fmt::format("{}: is a report to be read, it is not overwritten", m_pArgs->strHtml));
    }
    if (!m_pArgs->strHtml.empty())
    {
        const std::string strPage = vec.size() == 1 ? RenderReport(vec[0]) : RenderComparison(vec[0], vec[1]);
        return WriteText(m_pArgs->strHtml, strPage, strError) ? 0 : Complain(strError);
    }
    for (size_t i = 0; i < vec.size(); i++)
    {
        fmt::print("{}{}\n", i != 0 ? "\n" : "", m_pArgs->vecReports[i]);
        fmt::print("{}", VerdictText(vec[i]));
    }
    return 0;
}

} // namespace lab
