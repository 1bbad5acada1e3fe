// Other people's senders against the program itself, on loopback. The network is as bad as the program makes it.
#include "LivePeers.h"
#include "MachineWatch.h"

#include <fmt/format.h>
#include <map>

namespace
{
using namespace live;

constexpr const char* c_pszMaps = "--map 96=H264/90000 --map 97=opus/48000 --map 99=rtx:96 --map 100=rtx:97";

// Video to V, audio to A, RTCP one above; RTCP is listened to on RV and RA.
std::string Gstreamer(const char* pszVideoRtx, const char* pszAudioRtx, uint16_t wV, uint16_t wA,
                      uint16_t wRv, uint16_t wRa)
{
    return fmt::format(
        "gst-launch-1.0 -q rtpbin name=b rtp-profile=avpf "
        "videotestsrc is-live=true pattern=ball ! video/x-raw,width=320,height=240,framerate=30/1 ! "
        "x264enc tune=zerolatency bitrate=1000 key-int-max=60 speed-preset=ultrafast ! rtph264pay pt=96 ! "
        "{} ! b.send_rtp_sink_0 "
        "b.send_rtp_src_0 ! udpsink host=127.0.0.1 port={} sync=false async=false "
        "b.send_rtcp_src_0 ! udpsink host=127.0.0.1 port={} sync=false async=false "
        "udpsrc address=127.0.0.1 port={} ! b.recv_rtcp_sink_0 "
        "audiotestsrc is-live=true ! opusenc ! rtpopuspay pt=97 ! {} ! b.send_rtp_sink_1 "
        "b.send_rtp_src_1 ! udpsink host=127.0.0.1 port={} sync=false async=false "
        "b.send_rtcp_src_1 ! udpsink host=127.0.0.1 port={} sync=false async=false "
        "udpsrc address=127.0.0.1 port={} ! b.recv_rtcp_sink_1",
        pszVideoRtx, wV, wV + 1, wRv, pszAudioRtx, wA, wA + 1, wRa);
}

class LivePeers : public testing::Test
{
protected:
    // Listens for so long while the sender, told the ports, sends. The report.
    template <typename FnSender>
    nlohmann::json Call(int nSeconds, const std::string& strOptions, FnSender fnSender)
    {
        const std::string strJson = m_folder / "call.json";
        const std::string strSaid = m_folder / "said.txt";
        CChild listen(
            fmt::format("{} listen --bind 127.0.0.1 --audio 0 --video 0 {} --duration {} --json {} {}",
                        UDT_LAB_PROGRAM, c_pszMaps, nSeconds, strJson, strOptions),
            strSaid);
        uint16_t wAudio = 0;
        uint16_t wVideo = 0;
        EXPECT_TRUE(Eventually(
            [&]()
            {
                const std::string strText = ReadText(strSaid);
                wAudio = PortOf(strText, "audio");
                wVideo = PortOf(strText, "video");
                return wAudio != 0 && wVideo != 0;
            }))
            << ReadText(strSaid);
        CChild sender(fnSender(wVideo, wAudio), m_folder / "sender.txt");
        const int nExit = listen.Wait();
        sender.Signal(SIGINT);
        EXPECT_EQ(nExit, 0) << ReadText(strSaid);
        RecordProperty("said", ReadText(strSaid));
        const nlohmann::json j = nlohmann::json::parse(ReadText(strJson), nullptr, false);
        EXPECT_FALSE(j.is_discarded());
        EXPECT_GE(j["streams"].size(), 2u) << ReadText(strSaid) << ReadText(m_folder / "sender.txt");
        return j;
    }

    // The list, the counts made of it and what is missing on the wire tell the same.
    static void CountsAgree(const nlohmann::json& j)
    {
        const auto& jImpair = j["impairment"];
        std::map<std::string, std::map<std::string, uint64_t>> mapStates;
        uint64_t ullListed = 0;
        for (const auto& jEntry : jImpair["drop_list"])
        {
            mapStates[jEntry[0]][jEntry[3]]++;
            ullListed += jEntry[2].get<uint64_t>();
        }
        const double dShare = (double)ullListed / jImpair["rtp_packets"].get<double>();
        EXPECT_NEAR(dShare, 0.05, 0.03);
        for (const auto& jDrops : jImpair["streams"])
        {
            auto& mapOf = mapStates[jDrops["ssrc"]];
            const auto& jAll = jDrops["all"];
            EXPECT_EQ(jAll["played_in_time"], mapOf["in_time"]);
            EXPECT_EQ(jAll["played_late"], mapOf["late"]);
            EXPECT_EQ(jAll["never"], mapOf["never"]);
            EXPECT_EQ(jAll["came_back"], mapOf["in_time"] + mapOf["late"] + mapOf["back"]);
            EXPECT_EQ(jAll["dropped"], mapOf["in_time"] + mapOf["late"] + mapOf["back"] + mapOf["never"]);
            if (jDrops["answers"] == true || jDrops["stream"].is_null())
                continue;
            // Seen from the other side: what the intake misses is what was dropped, but for a packet or two at the
            // very ends of the stream, which nobody can miss.
            const auto& jCapture = j["streams"][jDrops["stream"].get<size_t>()]["capture"];
            const uint64_t ullMissing =
                jCapture["lost"].get<uint64_t>() +
                (jCapture["rtx_repaired"] == 0 ? jAll["came_back"].get<uint64_t>() : 0);
            EXPECT_LE(ullMissing, jAll["dropped"].get<uint64_t>());
            EXPECT_GE(ullMissing + 3, jAll["dropped"].get<uint64_t>());
        }
    }

    // Of what was dropped after the warm-up, and early enough to be played before the end.
    static void NearlyAllCameBackAndPlayedInTime(const nlohmann::json& j)
    {
        const auto& jCounted = j["impairment"]["counted"];
        EXPECT_GE(jCounted["dropped"].get<double>(), 20);
        EXPECT_GE(jCounted["played_in_time"].get<double>(), 0.99 * jCounted["dropped"].get<double>())
            << jCounted;
    }

    CFolder m_folder;
    CMachineWatch m_watch;
};

#define NEEDS(program, package) \
    if (!Have(program))         \
    GTEST_SKIP() << program << " is missing (package " package ")"

TEST_F(LivePeers, GstreamerAnswersWithRtxAndWhatWasDroppedPlaysInTime)
{
    NEEDS("gst-launch-1.0", "gstreamer1.0-tools");
    const uint16_t wRv = FreePort();
    const uint16_t wRa = FreePort();
    const nlohmann::json j = Call(
        17,
        fmt::format("--drop 5% --seed 7 --rtcp-to video=127.0.0.1:{} --rtcp-to audio=127.0.0.1:{}", wRv, wRa),
        [&](uint16_t wV, uint16_t wA)
        {
            return Gstreamer("rtprtxsend payload-type-map=\"application/x-rtp-pt-map,96=(uint)99\" "
                             "max-size-time=3000 max-size-packets=0",
                             "rtprtxsend payload-type-map=\"application/x-rtp-pt-map,97=(uint)100\" "
                             "max-size-time=3000 max-size-packets=0",
                             wV, wA, wRv, wRa);
        });
    SCOPED_TRACE(m_watch.Said());
    CountsAgree(j);
    NearlyAllCameBackAndPlayedInTime(j);
    EXPECT_EQ(j["users"].size(), 1u);
    uint64_t ullRepaired = 0;
    for (const auto& jStream : j["streams"])
        ullRepaired += jStream["capture"]["rtx_repaired"].get<uint64_t>();
    EXPECT_EQ(ullRepaired, j["impairment"]["all"]["came_back"]);
}

TEST_F(LivePeers, GstreamerAnswersUnderTheSameNumberAndWhatWasDroppedPlaysInTime)
{
    NEEDS("gst-launch-1.0", "gstreamer1.0-tools");
    const uint16_t wRv = FreePort();
    const uint16_t wRa = FreePort();
    const nlohmann::json j = Call(
        17,
        fmt::format("--drop 5% --seed 8 --rtcp-to video=127.0.0.1:{} --rtcp-to audio=127.0.0.1:{}", wRv, wRa),
        [&](uint16_t wV, uint16_t wA)
        {
            const char* pszQueue = "rtprtxqueue max-size-time=3000 max-size-packets=0";
            return Gstreamer(pszQueue, pszQueue, wV, wA, wRv, wRa);
        });
    SCOPED_TRACE(m_watch.Said());
    CountsAgree(j);
    NearlyAllCameBackAndPlayedInTime(j);
    for (const auto& jStream : j["streams"])
        EXPECT_NE(jStream["media"], "rtx");
}

TEST_F(LivePeers, FfmpegIgnoresRequestsAndTheCallPlaysOn)
{
    NEEDS("ffmpeg", "ffmpeg");
    const nlohmann::json j =
        Call(12, "--drop 5% --seed 9",
             [&](uint16_t wV, uint16_t wA)
             {
                 return fmt::format(
                     "ffmpeg -nostdin -loglevel error -re -f lavfi -i testsrc=size=320x240:rate=25 -re -f "
                     "lavfi -i sine=frequency=440 -map 0:v -c:v libx264 -preset ultrafast -tune zerolatency "
                     "-g 50 -b:v 500k -f rtp rtp://127.0.0.1:{} -map 1:a -c:a libopus -b:a 48k -f rtp "
                     "rtp://127.0.0.1:{}",
                     wV, wA);
             });
    CountsAgree(j);
    const auto& jAll = j["impairment"]["all"];
    EXPECT_GE(jAll["dropped"].get<int>(), 15);
    EXPECT_EQ(jAll["came_back"], 0);
    EXPECT_EQ(jAll["never"], jAll["dropped"]);
    EXPECT_GE(j["feedback"]["nack_messages"].get<int>(), 10) << "it was asked";
    for (const auto& jStream : j["streams"])
    {
        // All that came was played or was about to be.
        const auto& jPlayout = jStream["playout"];
        EXPECT_GE(jPlayout["played"].get<int>(), 100);
        EXPECT_EQ(jPlayout["played"].get<int>() + jPlayout["left_in_buffer"].get<int>() +
                      jPlayout["skipped_at_beginning"].get<int>(),
                  jPlayout["distinct"].get<int>());
    }
    EXPECT_TRUE(j["checks"]["ok"].get<bool>()) << j["checks"];
}

} // namespace
