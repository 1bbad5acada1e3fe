// What of the lab several threads may use at once.

#include "ReportDoc.h"

#include "Matrix.h"
#include "RunSeries.h"
#include "SimReport.h"
#include "SimScenario.h"
#include "Simulate.h"

#include <gtest/gtest.h>

#include <thread>

using namespace lab;
using labtest::Doc;
using labtest::ExpectWellFormed;
using labtest::Sum;

namespace
{

Doc LossyTenSeconds()
{
    Doc j = DefaultScenario();
    std::string strError;
    EXPECT_TRUE(SetScenarioOption(j, "seconds", "10", strError)) << strError;
    EXPECT_TRUE(SetScenarioOption(j, "down.loss_percent", "10", strError)) << strError;
    return j;
}

} // namespace

// Each thread has its own clock and log tap; nothing else is shared.
TEST(ThreadedLab, RunsSideBySideAreTheSameAsOneAfterTheOther)
{
    std::vector<std::string> vecAlone, vecBeside(4);
    std::vector<tagScenario> vecScenarios;
    for (int i = 0; i < 4; i++)
    {
        std::string strError;
        vecScenarios.emplace_back();
        ASSERT_TRUE(ParseScenario(LossyTenSeconds(), "", vecScenarios.back(), strError)) << strError;
        vecScenarios.back().ullSeed = (uint64)i;
        vecAlone.push_back(SimJson(RunSimulation(vecScenarios.back())).dump());
    }
    std::vector<std::thread> vecThreads;
    for (size_t i = 0; i < 4; i++)
        vecThreads.emplace_back([&, i] { vecBeside[i] = SimJson(RunSimulation(vecScenarios[i])).dump(); });
    for (std::thread& thread : vecThreads)
        thread.join();
    EXPECT_EQ(vecAlone, vecBeside);
}

TEST(ThreadedLab, AGridOnFourThreadsHasTheRowsOfTheGridOnOne)
{
    tagMatrix st;
    st.jScenario = LossyTenSeconds();
    st.aAxes[MATRIX_LOSS] = {1, 5, 20};
    st.aAxes[MATRIX_RTT] = {40, 200};
    st.aAxes[MATRIX_JITTER] = {5};
    st.aAxes[MATRIX_REORDER] = {0};
    const std::string strOne = MatrixCsv(st, RunMatrix(st, 1, 1, 1, nullptr));
    double dTold = 0; // told on this thread, and never falls
    const auto fnTold = [&dTold](double d)
    {
        EXPECT_GE(d, dTold);
        EXPECT_LE(d, 1.0);
        dTold = d;
    };
    EXPECT_EQ(MatrixCsv(st, RunMatrix(st, 1, 1, 4, fnTold)), strOne);
}

TEST(ThreadedLab, ManyThreadsMayFeedASeriesWhileReportsAreMade)
{
    tagSeriesOptions stOptions;
    stOptions.ullWindowMs = 2000;
    CRunSeries series(stOptions);
    series.Begin(0);
    std::vector<std::thread> vec;
    for (uint64 ullUser = 1; ullUser <= 3; ullUser++)
        vec.emplace_back(
            [&series, ullUser]()
            {
                tagSeriesPacket st;
                st.ullAccount = ullUser;
                st.cSubType = MEAVAudio;
                for (uint32 dw = 0; dw < 5000; dw++)
                {
                    st.dwSeq = dw;
                    st.dwMediaMs = dw * 20;
                    series.PacketIn(st, dw * 20);
                    tagReplyData stReply;
                    stReply.ullUserAccount = ullUser;
                    stReply.cSubType = MEAVAudio;
                    stReply.dwUserSeq = dw;
                    series.Requested(&stReply, 1, dw * 20);
                }
            });
    for (int i = 0; i < 20; i++)
        series.Json(2000);
    for (std::thread& thread : vec)
        thread.join();
    const Doc j = series.Json();
    ExpectWellFormed(j);
    for (const char* psz : {"s0", "s1", "s2"})
        EXPECT_EQ(Sum(j, psz, "packetsIn"), 5000);
}
