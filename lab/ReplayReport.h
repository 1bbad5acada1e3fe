// The figures of a replay, for people and for programs. docs/replay.md describes both.
#ifndef LAB_REPLAYREPORT_H
#define LAB_REPLAYREPORT_H

#include "Replay.h"

#include <nlohmann/json.hpp>

#include <string>

namespace lab
{

// Tables of at most 120 columns. Colours mark headings and what is worth a look.
std::string ReplayTable(const tagReplayResult& stResult, bool bColours);

// The same and more under stable names, in a stable order.
nlohmann::ordered_json ReplayJson(const tagReplayResult& stResult);

// For a terminal: control characters replaced, cut to so many characters.
std::string Printable(const std::string& strText, size_t nMax);

} // namespace lab

#endif
