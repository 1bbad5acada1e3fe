// Reports as one self-contained page: script, style and data in one file, nothing fetched from anywhere.
#ifndef LAB_REPORTPAGE_H
#define LAB_REPORTPAGE_H

#include <nlohmann/json.hpp>

#include <string>

namespace lab
{

// One run.
std::string RenderReport(const nlohmann::ordered_json& jReport);
// Two runs, laid over each other.
std::string RenderComparison(const nlohmann::ordered_json& jA, const nlohmann::ordered_json& jB);
// A run that still goes on: the page listens to /events for reports.
std::string RenderLivePage();

// As it stands in the page's script element: no text can end that element.
std::string ScriptJson(const nlohmann::ordered_json& j);

} // namespace lab

#endif
