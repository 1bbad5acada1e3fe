/**
 * GStreamer's rtpjitterbuffer (gstreamer1.0-plugins-good), as it is and with do-retransmission and do-lost. It knows
 * time: its latency is the pattern's depth at the rate of the stream, and its clock is the schedule's. It pushes what
 * is in order at once and leaves the waiting to the sink behind it, so it holds packets while one is missing and no
 * longer. Packets leave it on a thread of its own, so time is that of the process. Buffers come back and are used
 * again.
 */

#include "Peers.h"

#include "xpmess.h"

#include <chrono>
#include <gst/check/gsttestclock.h>
#include <gst/gst.h>
#include <mutex>
#include <thread>

namespace
{

constexpr size_t c_nHeadBytes = 12;

struct tagGstShell
{
    CBenchPacket* pPacket;
    uint8 aHead[c_nHeadBytes];
};

class CGstTaker : public IPathTaker
{
public:
    CGstTaker(CBenchOwner& owner, const tagPathConfig& stConfig, bool bRetransmission)
        : m_owner(owner), m_nEnough((size_t)(stConfig.dDepth * 1.2) + 50)
    {
        gst_init(nullptr, nullptr);
        m_pClock = gst_test_clock_new();
        m_pElement = gst_element_factory_make("rtpjitterbuffer", nullptr);
        if (m_pElement == nullptr)
            return; // nothing will come back, and the case says so
        g_object_set(m_pElement, "latency", (guint)stConfig.DepthMs(), "do-lost", (gboolean)bRetransmission,
                     "do-retransmission", (gboolean)bRetransmission, "max-misorder-time", 60000u,
                     "max-dropout-time", 60000u, nullptr);
        gst_element_set_clock(m_pElement, m_pClock);
        gst_element_set_base_time(m_pElement, 0);

        m_pFrom = gst_pad_new("from", GST_PAD_SRC);
        m_pTo = gst_pad_new("to", GST_PAD_SINK);
        gst_pad_set_element_private(m_pFrom, this);
        gst_pad_set_element_private(m_pTo, this);
        gst_pad_set_event_function(m_pFrom, OnRequest);
        gst_pad_set_event_function(m_pTo, OnEvent);
        gst_pad_set_chain_function(m_pTo, OnPacket);
        GstPad* pSink = gst_element_get_static_pad(m_pElement, "sink");
        GstPad* pSrc = gst_element_get_static_pad(m_pElement, "src");
        gst_pad_link(m_pFrom, pSink);
        gst_pad_link(pSrc, m_pTo);
        gst_object_unref(pSink);
        gst_object_unref(pSrc);
        gst_pad_set_active(m_pTo, TRUE);
        gst_pad_set_active(m_pFrom, TRUE);
        gst_element_set_state(m_pElement, GST_STATE_PLAYING);

        gst_pad_push_event(m_pFrom, gst_event_new_stream_start("bench"));
        GstCaps* pCaps = gst_caps_from_string(
            "application/x-rtp, media=(string)video, clock-rate=(int)90000, payload=(int)96, "
            "encoding-name=(string)H264");
        gst_pad_push_event(m_pFrom, gst_event_new_caps(pCaps));
        gst_caps_unref(pCaps);
        GstSegment stSegment;
        gst_segment_init(&stSegment, GST_FORMAT_TIME);
        gst_pad_push_event(m_pFrom, gst_event_new_segment(&stSegment));
    }
    ~CGstTaker() override
    {
        if (m_pElement != nullptr)
        {
            gst_pad_set_active(m_pFrom, FALSE);
            gst_element_set_state(m_pElement, GST_STATE_NULL);
            gst_pad_set_active(m_pTo, FALSE);
            gst_object_unref(m_pElement);
            gst_object_unref(m_pFrom);
            gst_object_unref(m_pTo);
        }
        gst_object_unref(m_pClock);
        for (GstBuffer* p : m_vecFree)
            gst_buffer_unref(p);
        for (GstBuffer* p : m_vecOut)
            gst_buffer_unref(p);
    }

    void Take(const tagArrivalStream&, uint32 dwSeq, uint32, CBenchPacket* pPacket) override
    {
        if (m_pElement == nullptr)
            return;
        GstBuffer* pBuffer = nullptr;
        if (m_vecFree.empty())
        {
            tagGstShell* pNew = g_new0(tagGstShell, 1);
            pBuffer = gst_buffer_new_wrapped_full(GST_MEMORY_FLAG_READONLY, pNew->aHead, c_nHeadBytes, 0,
                                                  c_nHeadBytes, pNew, g_free);
            GST_BUFFER_OFFSET(pBuffer) = (guint64)(size_t)pNew;
        }
        else
        {
            pBuffer = m_vecFree.back();
            m_vecFree.pop_back();
        }
        tagGstShell* pShell = (tagGstShell*)(size_t)GST_BUFFER_OFFSET(pBuffer);
        pShell->pPacket = pPacket;
        const uint32 dwStamp = pPacket->m_stHead.uTimeStamp * 90;
        uint8* pHead = pShell->aHead;
        pHead[0] = 0x80;
        pHead[1] = 96;
        pHead[2] = (uint8)(dwSeq >> 8);
        pHead[3] = (uint8)dwSeq;
        for (int i = 0; i < 4; ++i)
            pHead[4 + i] = (uint8)(dwStamp >> (24 - 8 * i));
        pHead[11] = 1;
        const guint64 ullNow = xp_gettickcount() * GST_MSECOND;
        gst_test_clock_set_time(GST_TEST_CLOCK(m_pClock), ullNow);
        GST_BUFFER_DTS(pBuffer) = ullNow;
        GST_BUFFER_PTS(pBuffer) = ullNow;
        ++m_nHeld;
        gst_pad_push(m_pFrom, pBuffer);
        Collect();
    }
    void Turn() override
    {
        if (m_pElement == nullptr)
            return;
        gst_test_clock_set_time(GST_TEST_CLOCK(m_pClock), xp_gettickcount() * GST_MSECOND);
        while (GstClockID pId = gst_test_clock_process_next_clock_id(GST_TEST_CLOCK(m_pClock)))
            gst_clock_id_unref(pId);
        Collect();
        // The schedule runs faster than its thread can; without waiting the queue would grow beyond its depth.
        for (int i = 0; m_nHeld > m_nEnough && i < 20; ++i)
        {
            std::this_thread::sleep_for(std::chrono::microseconds(50));
            Collect();
        }
    }
    // The other thread may have something in hand: looked at until nothing more comes.
    void Settle() override
    {
        for (int nQuiet = 0; nQuiet < 20;)
        {
            const uint64 ullBefore = m_owner.m_ullReleased;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
            Collect();
            nQuiet = m_owner.m_ullReleased == ullBefore ? nQuiet + 1 : 0;
        }
    }
    size_t Held() const override { return m_nHeld - Late(); }
    bool CountsLost() const override { return true; }
    uint64 Lost() const override { return Stat("num-lost"); }
    uint64 Late() const override { return Stat("num-late"); }

private:
    uint64 Stat(const char* pszName) const
    {
        guint64 ullValue = 0;
        GstStructure* pStats = nullptr;
        if (m_pElement != nullptr)
            g_object_get(m_pElement, "stats", &pStats, nullptr);
        if (pStats != nullptr)
        {
            gst_structure_get_uint64(pStats, pszName, &ullValue);
            gst_structure_free(pStats);
        }
        return ullValue;
    }
    void Collect()
    {
        m_vecCollected.clear();
        size_t nAsked = 0;
        {
            std::lock_guard<std::mutex> lock(m_lock);
            m_vecCollected.swap(m_vecOut);
            nAsked = m_nAsked;
            m_nAsked = 0;
        }
        for (GstBuffer* p : m_vecCollected)
        {
            tagGstShell* pShell = (tagGstShell*)(size_t)GST_BUFFER_OFFSET(p);
            int nDelay = 0;
            m_owner.OnUDTRecvOutData(pShell->pPacket, &nDelay);
            m_vecFree.push_back(p);
            --m_nHeld;
        }
        if (nAsked != 0)
            m_owner.UdtRecvHandleEvent(0, nullptr, (uint32)nAsked, 1, 1);
    }
    static GstFlowReturn OnPacket(GstPad* pPad, GstObject*, GstBuffer* pBuffer)
    {
        CGstTaker& self = *(CGstTaker*)gst_pad_get_element_private(pPad);
        std::lock_guard<std::mutex> lock(self.m_lock);
        self.m_vecOut.push_back(pBuffer);
        return GST_FLOW_OK;
    }
    static gboolean OnEvent(GstPad*, GstObject*, GstEvent* pEvent)
    {
        gst_event_unref(pEvent);
        return TRUE;
    }
    static gboolean OnRequest(GstPad* pPad, GstObject*, GstEvent* pEvent)
    {
        CGstTaker& self = *(CGstTaker*)gst_pad_get_element_private(pPad);
        if (GST_EVENT_TYPE(pEvent) == GST_EVENT_CUSTOM_UPSTREAM &&
            gst_event_has_name(pEvent, "GstRTPRetransmissionRequest"))
        {
            std::lock_guard<std::mutex> lock(self.m_lock);
            ++self.m_nAsked;
        }
        gst_event_unref(pEvent);
        return TRUE;
    }

    CBenchOwner& m_owner;
    GstClock* m_pClock = nullptr;
    GstElement* m_pElement = nullptr;
    GstPad* m_pFrom = nullptr;
    GstPad* m_pTo = nullptr;
    std::vector<GstBuffer*> m_vecFree;
    std::vector<GstBuffer*> m_vecCollected;
    std::mutex m_lock;
    std::vector<GstBuffer*> m_vecOut; // under m_lock
    size_t m_nAsked = 0;              // under m_lock
    size_t m_nEnough;                 // held without being behind
    size_t m_nHeld = 0;               // given in and not yet come out
};

} // namespace

void AddGst(std::vector<tagPeer>& vecPeers)
{
    vecPeers.push_back({"gst-jitterbuffer", "abcdef",
                        [](CBenchOwner& owner, const tagPathConfig& stConfig) -> std::unique_ptr<IPathTaker>
                        { return std::make_unique<CGstTaker>(owner, stConfig, false); },
                        true, 0});
    vecPeers.push_back({"gst-retransmission", "abcdef",
                        [](CBenchOwner& owner, const tagPathConfig& stConfig) -> std::unique_ptr<IPathTaker>
                        { return std::make_unique<CGstTaker>(owner, stConfig, true); },
                        true, 0});
}
