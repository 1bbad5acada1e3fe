// A table of a report: the terminal's, for the page.
#ifndef LAB_REPORTTABLE_H
#define LAB_REPORTTABLE_H

#include <nlohmann/json.hpp>

#include <initializer_list>
#include <string>

namespace lab
{

class CReportTable
{
public:
    // A column whose name begins with '>' is set to the right.
    CReportTable(const std::string& strTitle, std::initializer_list<const char*> listColumns)
    {
        m_j["title"] = strTitle;
        m_j["columns"] = nlohmann::ordered_json::array();
        for (const char* psz : listColumns)
        {
            const bool bRight = *psz == '>';
            m_j["columns"].push_back({{"name", bRight ? psz + 1 : psz}, {"right", bRight}});
        }
        m_j["rows"] = nlohmann::ordered_json::array();
    }

    void Row(std::initializer_list<std::string> listCells)
    {
        nlohmann::ordered_json j = nlohmann::ordered_json::array();
        for (const std::string& str : listCells)
            j.push_back(str);
        m_j["rows"].push_back(std::move(j));
    }
    bool Empty() const { return m_j["rows"].empty(); }
    // Into a report's tables, unless it is empty.
    void AddTo(nlohmann::ordered_json& jTables)
    {
        if (!Empty())
            jTables.push_back(std::move(m_j));
    }

private:
    nlohmann::ordered_json m_j;
};

} // namespace lab

#endif
