// What an engineer would say about a report.
#ifndef LAB_VERDICT_H
#define LAB_VERDICT_H

#include <nlohmann/json.hpp>

#include <cstdint>
#include <string>
#include <vector>

namespace lab
{

// Findings about a report, in words: a JSON array of {"level": "good" | "note" | "bad", "text", "t", "user"}. Looks at users,
// streams, totals, events and the series latency and avOffset; whatever is missing is passed over. The same report
// gives the same words.
nlohmann::ordered_json MakeVerdict(const nlohmann::ordered_json& jReport);

// First of a report's findings: the receiver itself did what it must not.
void AddBrokenChecks(nlohmann::ordered_json& jReport, uint64_t ullBroken,
                     const std::vector<std::string>& vecViolations);

// The verdict of a report as lines for a terminal, "! " before what is bad and "~ " before a note.
std::string VerdictText(const nlohmann::ordered_json& jReport);

// "01:10" or "1:02:03", of ms.
std::string ClockText(uint64_t ullMs);
// "350 ms", "1.2 s", "35 s", "12 min".
std::string SpanText(uint64_t ullMs);

} // namespace lab

#endif
