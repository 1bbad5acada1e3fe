// The figures of a simulated call, for people and for programs.
#ifndef LAB_SIMREPORT_H
#define LAB_SIMREPORT_H

#include "RunSeries.h"
#include "Simulate.h"

#include <nlohmann/json.hpp>

#include <string>

namespace lab
{

// bStreams false: per user only, for large rooms.
std::string SimTable(const tagSimResult& stResult, bool bStreams, bool bColours);

// All figures under stable names; docs/simulate.md explains them. The same scenario and seed give the same bytes.
nlohmann::ordered_json SimJson(const tagSimResult& stResult);

// The run over time as a report, with the tables above; vecOptions: what was set, for its head. The series are named and
// closed by it.
nlohmann::ordered_json SimRunReport(const tagSimResult& stResult, CRunSeries& series,
                                    const std::vector<std::pair<std::string, std::string>>& vecOptions);

// What depends on the machine and not on the seed: speed and memory, one line.
std::string SimSpeedLine(const tagSimResult& stResult);
nlohmann::ordered_json SimSpeedJson(const tagSimResult& stResult);

} // namespace lab

#endif
