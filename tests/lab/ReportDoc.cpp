#include "ReportDoc.h"

#include <gtest/gtest.h>

#include <set>

namespace labtest
{

const Doc& SeriesOf(const Doc& j, const std::string& strOf, const std::string& strName)
{
    static const Doc c_jNone;
    for (const Doc& jSeries : j["series"])
        if (jSeries["of"] == strOf && jSeries["name"] == strName)
            return jSeries;
    return c_jNone;
}

int64 Sum(const Doc& j, const std::string& strOf, const char* pszName)
{
    int64 ll = 0;
    const Doc& jSeries = SeriesOf(j, strOf, pszName);
    if (jSeries.is_object())
        for (const Doc& jV : jSeries["v"])
            ll += jV.is_number() ? jV.get<int64>() : 0;
    return ll;
}

const Doc& TotalsOf(const Doc& j, const std::string& strOf)
{
    static const Doc c_jNone;
    for (const Doc& jTotals : j["totals"])
        if (jTotals["of"] == strOf)
            return jTotals;
    return c_jNone;
}

void ExpectWellFormed(const Doc& j)
{
    EXPECT_EQ(j["format"], "udtlab-report");
    EXPECT_EQ(j["version"], 1);
    const size_t nBins = j["bins"]["count"];
    std::set<std::string> setIds{"run"};
    for (const char* psz : {"users", "streams"})
        for (const Doc& jWho : j[psz])
            EXPECT_TRUE(setIds.insert(jWho["id"]).second);
    std::set<std::pair<std::string, std::string>> setSeries;
    for (const Doc& jSeries : j["series"])
    {
        const std::string strOf = jSeries["of"], strName = jSeries["name"];
        SCOPED_TRACE(strOf + " " + strName);
        EXPECT_EQ(setIds.count(strOf), 1u);
        EXPECT_TRUE(setSeries.insert({strOf, strName}).second);
        bool bAny = false;
        for (const char* psz : {"v", "lo", "hi"})
        {
            if (!jSeries.contains(psz))
                continue;
            ASSERT_EQ(jSeries[psz].size(), nBins);
            for (const Doc& jV : jSeries[psz])
                bAny = bAny || !jV.is_null();
        }
        EXPECT_TRUE(bAny);
        for (size_t i = 0; jSeries.contains("lo") && i < nBins; i++)
        {
            if (jSeries["v"][i].is_null())
                continue;
            EXPECT_LE(jSeries["lo"][i], jSeries["v"][i]);
            EXPECT_LE(jSeries["v"][i], jSeries["hi"][i]);
        }
    }
    uint64 ullLast = 0;
    for (const Doc& jEvent : j["events"])
    {
        EXPECT_EQ(setIds.count(jEvent["of"]), 1u) << jEvent;
        EXPECT_GE(jEvent["t"], ullLast);
        ullLast = jEvent["t"];
    }
    // Sums of the bins are the totals, whatever became of the bins.
    const std::pair<const char*, const char*> aSums[] = {
        {"packetsIn", "packetsIn"}, {"packetsOut", "packetsOut"},
        {"bytesIn", "bytesIn"},     {"bytesOut", "bytesOut"},
        {"lost", "lost"},           {"unrepaired", "unrepaired"},
        {"requested", "requested"}, {"answered", "answered"},
        {"gaps", "gaps"},           {"requestsFailed", "requestsFailed"}};
    for (const Doc& jTotals : j["totals"])
        for (const auto& stSum : aSums)
            EXPECT_EQ(Sum(j, jTotals["of"], stSum.first), jTotals[stSum.second].get<int64>())
                << jTotals["of"] << " " << stSum.first;
}

} // namespace labtest
