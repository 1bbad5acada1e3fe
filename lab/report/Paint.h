// Colours of a table in a terminal, and the cells that its tables share with the page.
#ifndef LAB_PAINT_H
#define LAB_PAINT_H

#include <fmt/format.h>

#include <cstdint>
#include <string>

namespace lab
{

struct tagPaint
{
    bool bColours;
    std::string Wrap(const char* pszCode, const std::string& str) const
    {
        if (!bColours)
            return str;
        const bool bLine = !str.empty() && str.back() == '\n'; // a colour ends with its line
        return fmt::format("\033[{}m{}\033[0m{}", pszCode, bLine ? str.substr(0, str.size() - 1) : str,
                           bLine ? "\n" : "");
    }
    std::string Head(const std::string& str) const { return Wrap("1", str); }
    std::string Bad(const std::string& str) const { return Wrap("31;1", str); }
    std::string Good(const std::string& str) const { return Wrap("32", str); }
    // A count that is worth a look when it is not 0, right-aligned.
    std::string Count(unsigned long long ull, int nWidth) const
    {
        const std::string str = fmt::format("{:>{}}", ull, nWidth);
        return ull ? Wrap("33", str) : str;
    }
};

inline std::string Cell(unsigned long long ull) { return std::to_string(ull); }

} // namespace lab

#endif
