// A report as its JSON document: what tests look up in it, and what every report must be.
#ifndef TESTS_LAB_REPORTDOC_H
#define TESTS_LAB_REPORTDOC_H

#include "xptypes.h"

#include <nlohmann/json.hpp>

#include <string>

namespace labtest
{

using Doc = nlohmann::ordered_json;

// The series NAME of who has the id OF; null where there is none.
const Doc& SeriesOf(const Doc& j, const std::string& strOf, const std::string& strName);
// All values of that series; 0 where there is none.
int64 Sum(const Doc& j, const std::string& strOf, const char* pszName);
const Doc& TotalsOf(const Doc& j, const std::string& strOf);

void ExpectWellFormed(const Doc& j);

} // namespace labtest

#endif
