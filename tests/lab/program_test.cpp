// The program itself: exit codes, one-line errors, the same bytes every run.

#include "LabBytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

using namespace labtest;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

struct tagRun
{
    int nExit = -1;
    std::string strOut, strErr;
};

tagRun Udtlab(const std::string& strArgs)
{
    CTempDir dir;
    const std::string strCommand = "'" UDT_LAB_PROGRAM "' " + strArgs + " >'" + dir.Path("out") + "' 2>'" +
                                   dir.Path("err") + "' </dev/null";
    const int nStatus = system(strCommand.c_str());
    tagRun st;
    st.nExit = WIFEXITED(nStatus) ? WEXITSTATUS(nStatus) : -1;
    const Bytes out = ReadFile(dir.Path("out")), err = ReadFile(dir.Path("err"));
    st.strOut.assign(out.begin(), out.end());
    st.strErr.assign(err.begin(), err.end());
    return st;
}

std::string Quoted(const std::string& str) { return "'" + str + "'"; }
const std::string& TwoWay()
{
    static const std::string str = Quoted(Bundled("pcmu-twoway-12s.pcap"));
    return str;
}

// Exit code 2, nothing on stdout, one line on stderr with this in it.
void ExpectComplaint(const std::string& strArgs, const std::string& strPart)
{
    SCOPED_TRACE(strArgs);
    const tagRun st = Udtlab(strArgs);
    EXPECT_EQ(st.nExit, 2);
    EXPECT_EQ(st.strOut, "");
    EXPECT_THAT(st.strErr, StartsWith("udtlab: "));
    EXPECT_THAT(st.strErr, HasSubstr(strPart));
    EXPECT_EQ(std::count(st.strErr.begin(), st.strErr.end(), '\n'), 1) << st.strErr;
}

} // namespace

TEST(Program, BadUsageIsOneLineAndExitCode2)
{
    ExpectComplaint("", "subcommand");
    ExpectComplaint("repaly x", "repaly");
    ExpectComplaint("replay", "captures");
    ExpectComplaint("replay " + TwoWay() + " --nonsense", "nonsense");
    ExpectComplaint("replay " + TwoWay() + " --mode fast", "--mode");
    ExpectComplaint("replay " + TwoWay() + " --speed 0", "--speed");
    ExpectComplaint("replay " + TwoWay() + " --play-delay -1", "--play-delay");
    ExpectComplaint("replay " + TwoWay() + " --log-level 9", "--log-level");
    ExpectComplaint("replay " + TwoWay() + " --map 96=", "--map 96=");
    ExpectComplaint("replay " + TwoWay() + " --map 300=opus/48000", "--map 300=opus/48000");
}

TEST(Program, BadInputIsOneLineThatNamesFileAndOffsetAndExitCode2)
{
    CTempDir dir;
    ExpectComplaint("replay " + Quoted(dir.Path("none.pcap")), "none.pcap: offset 0: cannot be opened");
    ExpectComplaint("replay " + TwoWay() + " " + Quoted(dir.Path("none.pcap")), "none.pcap: offset 0: ");
    ExpectComplaint("replay " + Quoted(dir.Write("x.pcap", CPcapBytes(105).m_bytes)),
                    "x.pcap: offset 20: link type");
    ExpectComplaint("replay " + Quoted(dir.Write("none-in-it.pcap", CPcapBytes(1).m_bytes)),
                    "none-in-it.pcap: offset 24: no RTP found");
}

TEST(Program, ACutCaptureIsPlayedToTheCutAndExitCodeIs2)
{
    CTempDir dir;
    Bytes bytes = ReadFile(Bundled("pcmu-twoway-12s.pcap"));
    bytes.resize(100000);
    const tagRun st =
        Udtlab("replay " + Quoted(dir.Write("cut.pcap", bytes)) + " --json " + Quoted(dir.Path("j")));
    EXPECT_EQ(st.nExit, 2);
    EXPECT_THAT(st.strErr, HasSubstr("cut.pcap: offset "));
    EXPECT_EQ(std::count(st.strErr.begin(), st.strErr.end(), '\n'), 1);
    EXPECT_THAT(st.strOut, HasSubstr("checks: all held"));
    const Bytes json = ReadFile(dir.Path("j"));
    const auto j = nlohmann::json::parse(json.begin(), json.end());
    EXPECT_GT(j["streams"][0]["playout"]["played"], 200);
    EXPECT_THAT(j["input"]["error"].get<std::string>(), HasSubstr("cut.pcap: offset "));
}

TEST(Program, UnwritableOutputsAreOneLineAndExitCode2)
{
    CTempDir dir;
    ExpectComplaint("replay " + TwoWay() + " --out " + Quoted(dir.Path("no/played.pcap")),
                    "no/played.pcap: cannot be written");
    const tagRun st = Udtlab("replay " + TwoWay() + " --json " + Quoted(dir.Path("no/j.json")));
    EXPECT_EQ(st.nExit, 2);
    EXPECT_THAT(st.strErr, HasSubstr("no/j.json: cannot be written"));
    const tagRun stFull = Udtlab("replay " + TwoWay() + " --out /dev/full");
    EXPECT_EQ(stFull.nExit, 2);
    EXPECT_THAT(stFull.strErr, HasSubstr("/dev/full: cannot be written"));
}

TEST(Program, AnInputIsNeverOverwritten)
{
    CTempDir dir;
    const Bytes bytes = ReadFile(Bundled("pcmu-twoway-12s.pcap"));
    const std::string strCopy = dir.Write("in.pcap", bytes);
    ExpectComplaint("replay " + Quoted(strCopy) + " --out " + Quoted(strCopy), "not overwritten");
    ExpectComplaint("replay " + Quoted(strCopy) + " --json " + Quoted(strCopy), "not overwritten");
    EXPECT_EQ(ReadFile(strCopy), bytes);
}

TEST(Program, TheSameInputGivesTheSameBytes)
{
    CTempDir dir;
    auto Run = [&dir](const std::string& strName)
    {
        return Udtlab("replay " + Quoted(Bundled("h264-opus-rtx-lab-31s.pcapng")) + " --log-level 5 --json " +
                      Quoted(dir.Path(strName + ".json")) + " --out " + Quoted(dir.Path(strName + ".pcap")));
    };
    const tagRun st1 = Run("1"), st2 = Run("2");
    EXPECT_EQ(st1.nExit, 0);
    EXPECT_EQ(st1.strOut, st2.strOut);
    EXPECT_EQ(st1.strErr, st2.strErr);
    EXPECT_GT(st1.strErr.size(), 100000u) << "a line for every packet";
    EXPECT_EQ(ReadFile(dir.Path("1.json")), ReadFile(dir.Path("2.json")));
    EXPECT_EQ(ReadFile(dir.Path("1.pcap")), ReadFile(dir.Path("2.pcap")));
    EXPECT_GT(ReadFile(dir.Path("1.pcap")).size(), 300000u);
}

TEST(Program, OutputIsPlainTextOfAtMost120ColumnsWhenItIsNoTerminal)
{
    const tagRun st = Udtlab("replay " + Quoted(Bundled("h264-opus-rtx-lab-31s.pcapng")) +
                             " --map 111=opus/48000 --map 96=H264/90000");
    EXPECT_EQ(st.nExit, 0);
    EXPECT_EQ(st.strErr, "") << "no progress bar";
    EXPECT_EQ(st.strOut.find('\033'), std::string::npos);
    size_t nAt = 0;
    while (nAt < st.strOut.size())
    {
        const size_t nEnd = st.strOut.find('\n', nAt);
        const std::string strLine = st.strOut.substr(nAt, nEnd - nAt);
        const bool bFree =
            strLine.find(".pcapng") != std::string::npos || strLine.compare(0, 5, "note:") == 0;
        EXPECT_TRUE(bFree || strLine.size() <= 120) << strLine;
        nAt = nEnd + 1;
    }
}

TEST(Program, JsonOnStdoutStandsAlone)
{
    const tagRun st = Udtlab("replay " + TwoWay() + " --json -");
    EXPECT_EQ(st.nExit, 0);
    const auto j = nlohmann::json::parse(st.strOut);
    EXPECT_EQ(j["format"], "udtlab-replay");
    EXPECT_EQ(j["streams"].size(), 2u);
    EXPECT_EQ(j["checks"]["ok"], true);
}

TEST(Program, HelpIsNoError)
{
    const tagRun st = Udtlab("replay --help");
    EXPECT_EQ(st.nExit, 0);
    for (const char* psz : {"--json", "--out", "--mode", "--log-level", "--play-delay", "--speed", "--map"})
        EXPECT_THAT(st.strOut, HasSubstr(psz));
}

TEST(Program, AReportBecomesAPageAndTwoOfThemAComparison)
{
    CTempDir dir;
    const std::string strA = Quoted(dir.Path("a.json")), strB = Quoted(dir.Path("b.json"));
    ASSERT_EQ(
        Udtlab("replay " + TwoWay() + " --report " + strA + " --html " + Quoted(dir.Path("a.html"))).nExit,
        0);
    ASSERT_EQ(Udtlab("simulate --seconds 5 --loss 3% --rtt 60 --report " + strB).nExit, 0);
    const Bytes report = ReadFile(dir.Path("b.json"));
    const auto j = nlohmann::json::parse(report.begin(), report.end());
    EXPECT_EQ(j["run"]["kind"], "simulate");
    EXPECT_THAT(j["run"]["options"].dump(), HasSubstr(R"(["loss","3%"])"));

    const tagRun stVerdict = Udtlab("report " + strA + " " + strB);
    EXPECT_EQ(stVerdict.nExit, 0);
    EXPECT_THAT(stVerdict.strOut, HasSubstr("a.json\n  nothing wrong"));
    EXPECT_EQ(Udtlab("report " + strA + " --html " + Quoted(dir.Path("one.html"))).nExit, 0);
    EXPECT_EQ(ReadFile(dir.Path("one.html")), ReadFile(dir.Path("a.html")));
    EXPECT_EQ(Udtlab("report " + strA + " " + strB + " --html " + Quoted(dir.Path("two.html"))).nExit, 0);
    const Bytes page = ReadFile(dir.Path("two.html"));
    EXPECT_THAT(std::string(page.begin(), page.end()), HasSubstr("udtlab-comparison"));

    ExpectComplaint("report", "reports");
    ExpectComplaint("report " + strA + " " + strA + " " + strA, "");
    ExpectComplaint("report " + Quoted(dir.Path("none.json")), "none.json: offset 0: cannot be read");
    ExpectComplaint("report " + strA + " --html " + strA, "not overwritten");
    ExpectComplaint("report " + strA + " --html " + Quoted(dir.Path("no/x.html")),
                    "no/x.html: cannot be written");
    const std::string strCut =
        Quoted(dir.Write("cut.json", Bytes(report.begin(), report.begin() + (ptrdiff_t)report.size() / 2)));
    ExpectComplaint("report " + strCut, "expected JSON, got the end of the file");
    EXPECT_EQ(Udtlab("replay " + TwoWay() + " --html " + Quoted(dir.Path("no/x.html"))).nExit, 2);
}
