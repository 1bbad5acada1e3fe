#include "ReportFiles.h"

#include "Files.h"
#include "ReportPage.h"

#include <fmt/format.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace lab
{

namespace
{

typedef nlohmann::ordered_json Json;

bool ReadText(const std::string& strPath, std::string& strText, std::string& strError)
{
    FILE* pFile = fopen(strPath.c_str(), "rb");
    bool bOk = pFile != nullptr;
    char aBuf[65536];
    for (size_t n = 1; bOk && n != 0;)
    {
        n = fread(aBuf, 1, sizeof(aBuf), pFile);
        strText.append(aBuf, n);
        bOk = ferror(pFile) == 0;
    }
    if (!bOk)
        strError = fmt::format("{}: offset {}: cannot be read: {}", strPath, strText.size(), strerror(errno));
    if (pFile)
        fclose(pFile);
    return bOk;
}

// What a report has to be for anybody to draw it. Empty: it is.
std::string Complaint(const Json& j)
{
    if (!j.is_object() || !j.contains("format") || j["format"] != "udtlab-report")
        return "expected a report (\"format\": \"udtlab-report\"), as `udtlab replay --report` writes it";
    if (!j.contains("version") || j["version"] != 1)
        return "expected \"version\": 1";
    if (!j.contains("bins") || !j["bins"].is_object() || !j["bins"].contains("ms") ||
        !j["bins"]["ms"].is_number_unsigned() || j["bins"]["ms"] == 0 || !j["bins"].contains("count") ||
        !j["bins"]["count"].is_number_unsigned())
        return "expected \"bins\" with \"ms\" (above 0) and \"count\"";
    if (!j.contains("run") || !j["run"].is_object())
        return "expected an object \"run\"";
    const uint64_t ullBins = j["bins"]["count"].get<uint64_t>();
    for (const char* psz : {"users", "streams", "series", "events", "verdict", "tables"})
        if (j.contains(psz) && !j[psz].is_array())
            return fmt::format("expected \"{}\" to be an array", psz);
    if (!j.contains("series"))
        return "expected an array \"series\"";
    size_t nSeries = 0;
    for (const Json& jSeries : j["series"])
    {
        if (!jSeries.is_object() || !jSeries.contains("of") || !jSeries["of"].is_string() ||
            !jSeries.contains("name") || !jSeries["name"].is_string() || !jSeries.contains("v"))
            return fmt::format("expected \"of\", \"name\" and \"v\" in series {}", nSeries);
        for (const char* psz : {"v", "lo", "hi"})
        {
            if (!jSeries.contains(psz))
                continue;
            if (!jSeries[psz].is_array() || jSeries[psz].size() != ullBins)
                return fmt::format("expected {} values in \"{}\" of series {}", ullBins, psz, nSeries);
            for (const Json& jV : jSeries[psz])
                if (!jV.is_number() && !jV.is_null())
                    return fmt::format("expected numbers and null in \"{}\" of series {}", psz, nSeries);
        }
        nSeries++;
    }
    return "";
}

} // namespace

bool WriteReport(const tagReportFiles& stFiles, const Json& jReport, std::string& strError)
{
    // A user's name is whatever bytes the peer sent: what is not UTF-8 is replaced.
    if (!stFiles.strReport.empty() &&
        !WriteText(stFiles.strReport, jReport.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n",
                   strError))
        return false;
    return stFiles.strHtml.empty() || WriteText(stFiles.strHtml, RenderReport(jReport), strError);
}

bool ReadReport(const std::string& strPath, Json& jReport, std::string& strError)
{
    std::string strText;
    if (!ReadText(strPath, strText, strError))
        return false;
    try
    {
        jReport = Json::parse(strText);
    }
    catch (const nlohmann::json::parse_error& e)
    {
        strError = fmt::format(
            "{}: offset {}: expected JSON, got {}", strPath, std::min(e.byte, strText.size()),
            e.byte > strText.size() || strText.empty() ? "the end of the file" : "something else");
        return false;
    }
    const std::string strWrong = Complaint(jReport);
    if (!strWrong.empty())
        strError = fmt::format("{}: offset 0: {}", strPath, strWrong);
    return strWrong.empty();
}

} // namespace lab
