// The figures of a listened call, for people and for programs. docs/listen.md describes both.
#ifndef LAB_LISTENREPORT_H
#define LAB_LISTENREPORT_H

#include "Listen.h"

#include <nlohmann/json.hpp>

#include <string>

namespace lab
{

std::string ListenTable(const tagListenResult& stResult, bool bColours);
nlohmann::ordered_json ListenJson(const tagListenResult& stResult);

// The run over time, with the tables. The series are named and closed by it.
nlohmann::ordered_json ListenRunReport(const tagListenResult& stResult, CRunSeries& series);
// The same of the last two minutes while it runs.
nlohmann::ordered_json ListenLiveReport(const tagListenNow& stNow, CRunSeries& series);

// While it runs: one line for a log, a few for a terminal.
std::string ListenLine(const tagListenNow& stNow);
std::vector<std::string> ListenLiveTable(const tagListenNow& stNow);

} // namespace lab

#endif
