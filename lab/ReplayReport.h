// The figures of a replay, for people and for programs. docs/replay.md describes both.
#ifndef LAB_REPLAYREPORT_H
#define LAB_REPLAYREPORT_H

#include "Replay.h"
#include "RunSeries.h"

#include <nlohmann/json.hpp>

#include <string>

namespace lab
{

// Tables of at most 120 columns. Colours mark headings and what is worth a look.
std::string ReplayTable(const tagReplayResult& stResult, bool bColours);

// The same and more under stable names, in a stable order.
nlohmann::ordered_json ReplayJson(const tagReplayResult& stResult);

// The run over time as a report, with the tables above. The series are named and closed by it.
nlohmann::ordered_json ReplayRunReport(const tagReplayResult& stResult, CRunSeries& series);

} // namespace lab

#endif
