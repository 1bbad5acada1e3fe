// Every file that a fuzzer found worth keeping, and every one that once broke something, goes through its door again:
// fuzz/corpus/DOOR and tests/data/crashes/DOOR.

#include "FuzzDoors.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace
{

namespace fs = std::filesystem;

std::vector<fs::path> FilesFor(const char* pszDoor)
{
    std::vector<fs::path> vecFiles;
    for (const char* pszFolder : {UDT_SOURCE_DIR "/fuzz/corpus", UDT_SOURCE_DIR "/tests/data/crashes"})
    {
        const fs::path folder = fs::path(pszFolder) / pszDoor;
        if (!fs::exists(folder))
            continue;
        for (const auto& entry : fs::directory_iterator(folder))
            vecFiles.push_back(entry.path());
    }
    std::sort(vecFiles.begin(), vecFiles.end());
    return vecFiles;
}

class FuzzFiles : public testing::TestWithParam<tagFuzzDoor>
{
};

std::string DoorName(const testing::TestParamInfo<tagFuzzDoor>& info) { return info.param.pszName; }

TEST_P(FuzzFiles, AreTakenWithoutABrokenInvariant)
{
    const std::vector<fs::path> vecFiles = FilesFor(GetParam().pszName);
    EXPECT_GE(vecFiles.size(), 5u) << "a door without files";
    for (const fs::path& path : vecFiles)
    {
        std::ifstream file(path, std::ios::binary);
        const std::vector<char> vec((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
        try
        {
            GetParam().fnEnter((const uint8*)vec.data(), vec.size());
        }
        catch (const std::exception& e)
        {
            ADD_FAILURE() << path << ": " << e.what();
        }
    }
}

INSTANTIATE_TEST_SUITE_P(Door, FuzzFiles, testing::ValuesIn(c_aFuzzDoors), DoorName);

// The doors themselves notice what they are there for.
TEST(FuzzDoors, ABrokenInvariantIsThrown)
{
    EXPECT_THROW(FuzzExpect(false, "no"), CFuzzBroken);
    EXPECT_NO_THROW(FuzzExpect(true, "yes"));
}

} // namespace
