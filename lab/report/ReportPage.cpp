#include "ReportPage.h"

#include <string_view>

namespace lab
{

// From lab/report/page, made by cmake/EmbedPage.cmake.
extern const unsigned char g_aReportHtml[];
extern const size_t g_nReportHtml;
extern const unsigned char g_aReportCss[];
extern const size_t g_nReportCss;
extern const unsigned char g_aReportJs[];
extern const size_t g_nReportJs;

namespace
{

std::string_view View(const unsigned char* p, size_t n) { return {reinterpret_cast<const char*>(p), n}; }

// The template with its three places filled. A place's text is never searched for places.
std::string Fill(const std::string& strData)
{
    const struct
    {
        std::string_view place, text;
    } aPlaces[] = {
        {"<!--UDT:CSS-->", View(g_aReportCss, g_nReportCss)},
        {"<!--UDT:DATA-->", strData},
        {"<!--UDT:JS-->", View(g_aReportJs, g_nReportJs)},
    };
    std::string str;
    std::string_view rest = View(g_aReportHtml, g_nReportHtml);
    for (const auto& st : aPlaces)
    {
        const size_t n = rest.find(st.place);
        if (n == std::string_view::npos)
            continue;
        str += rest.substr(0, n);
        str += st.text;
        rest.remove_prefix(n + st.place.size());
    }
    return str += rest;
}

} // namespace

std::string ScriptJson(const nlohmann::ordered_json& j)
{
    // A user's name is whatever bytes the peer sent.
    const std::string strPlain = j.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    std::string str;
    str.reserve(strPlain.size());
    for (const char c : strPlain)
        if (c == '<')
            str += "\\u003c"; // it occurs inside of strings only
        else
            str += c;
    return str;
}

std::string RenderReport(const nlohmann::ordered_json& jReport) { return Fill(ScriptJson(jReport)); }

std::string RenderComparison(const nlohmann::ordered_json& jA, const nlohmann::ordered_json& jB)
{
    nlohmann::ordered_json j;
    j["format"] = "udtlab-comparison";
    j["version"] = 1;
    j["runs"] = nlohmann::ordered_json::array({jA, jB});
    return Fill(ScriptJson(j));
}

std::string RenderLivePage() { return Fill(R"({"format":"udtlab-live","version":1})"); }

} // namespace lab
