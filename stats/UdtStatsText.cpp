/**
 * The two texts. One table per record says how each field is named, measured and explained; both texts, and the
 * lists of fields, are written from it.
 */

#include "UdtStats.h"

#include "IUDT.h"

#include <nlohmann/json.hpp>

#include <type_traits>
#include <variant>

namespace
{

typedef nlohmann::ordered_json Json;

template <class R>
using Member = std::variant<std::optional<uint64> R::*, std::optional<int64_t> R::*,
                            std::optional<double> R::*, std::optional<bool> R::*>;

template <class R>
struct tagEntry
{
    tagUdtStatsField stField;
    Member<R> pMember;
    double dScale = 1; // from the record to the OpenMetrics sample
};

constexpr const char* c_pszCounter = "counter";
constexpr const char* c_pszGauge = "gauge";
constexpr double c_dMs = 0.001;

typedef tagUdtStreamStats S;
const tagEntry<S> c_aStream[] = {
    {{"packetsReceived", "udt_packets_received", c_pszCounter, "",
      "Packets that came, late and repeated ones too."},
     &S::packetsReceived},
    {{"packetsLost", "udt_packets_lost", c_pszGauge, "", "Packets expected minus packets received."},
     &S::packetsLost},
    {{"jitter", "udt_jitter_seconds", c_pszGauge, "seconds", "Interarrival jitter."}, &S::jitter},
    {{"packetsDiscarded", "udt_packets_discarded", c_pszCounter, "",
      "Packets that came and were never released."},
     &S::packetsDiscarded},
    {{"bytesReceived", "udt_received_payload_bytes", c_pszCounter, "bytes", "Payload received."},
     &S::bytesReceived},
    {{"nackCount", "udt_nacks", c_pszCounter, "", "Loss-request messages that name the stream."},
     &S::nackCount},
    {{"retransmittedPacketsReceived", "udt_retransmitted_packets_received", c_pszCounter, "",
      "Retransmitted packets that came."},
     &S::retransmittedPacketsReceived},
    {{"fecPacketsReceived", "udt_fec_packets_received", c_pszCounter, "",
      "Forward-error-correction packets."},
     &S::fecPacketsReceived},
    {{"framesReceived", "udt_frames_received", c_pszCounter, "", "Frames of which every data packet came."},
     &S::framesReceived},
    {{"jitterBufferDelay", "udt_jitter_buffer_delay_seconds", c_pszCounter, "seconds",
      "Time in the buffer, summed over emitted frames."},
     &S::jitterBufferDelay},
    {{"jitterBufferTargetDelay", "udt_jitter_buffer_target_delay_seconds", c_pszCounter, "seconds",
      "Target delay, summed over emitted frames."},
     &S::jitterBufferTargetDelay},
    {{"jitterBufferMinimumDelay", "udt_jitter_buffer_minimum_delay_seconds", c_pszCounter, "seconds",
      "Delay that the network alone asks for, summed over emitted frames."},
     &S::jitterBufferMinimumDelay},
    {{"jitterBufferEmittedCount", "udt_jitter_buffer_emitted", c_pszCounter, "", "Frames emitted."},
     &S::jitterBufferEmittedCount},
    {{"lastPacketReceivedTimestamp", "udt_last_packet_received_timestamp_seconds", c_pszGauge, "seconds",
      "When the last packet came, since 1970."},
     &S::lastPacketReceivedTimestamp,
     c_dMs},
    {{"lastPacketReceivedTick", "udt_last_packet_received_tick_seconds", c_pszGauge, "seconds",
      "When the last packet came, on the tick clock."},
     &S::lastPacketReceivedTick,
     c_dMs},
    {{"packetsDuplicated", "udt_packets_duplicated", c_pszCounter, "",
      "Packets whose sequence had come before."},
     &S::packetsDuplicated},
    {{"packetBytesReceived", "udt_received_packet_bytes", c_pszCounter, "bytes", "Packet lengths received."},
     &S::packetBytesReceived},
    {{"packetsReleased", "udt_packets_released", c_pszCounter, "", "Packets given to the owner."},
     &S::packetsReleased},
    {{"packetsReleasedLate", "udt_packets_released_late", c_pszCounter, "",
      "Packets given to the owner behind a higher sequence."},
     &S::packetsReleasedLate},
    {{"packetBufferDelay", "udt_packet_buffer_delay_seconds", c_pszCounter, "seconds",
      "Time in the buffer, summed over released packets."},
     &S::packetBufferDelay},
    {{"packetTargetDelay", "udt_packet_target_delay_seconds", c_pszCounter, "seconds",
      "Target delay, summed over released packets."},
     &S::packetTargetDelay},
    {{"packetMinimumDelay", "udt_packet_minimum_delay_seconds", c_pszCounter, "seconds",
      "Delay that the network alone asks for, summed over released packets."},
     &S::packetMinimumDelay},
    {{"framesReleased", "udt_frames_released", c_pszCounter, "", "Frames begun to be released."},
     &S::framesReleased},
    {{"framesReleasedComplete", "udt_frames_released_complete", c_pszCounter, "",
      "Frames of which every data packet was released."},
     &S::framesReleasedComplete},
    {{"keyFramesReleased", "udt_key_frames_released", c_pszCounter, "", "I frames begun to be released."},
     &S::keyFramesReleased},
    {{"keyFramesReleasedComplete", "udt_key_frames_released_complete", c_pszCounter, "",
      "I frames of which every data packet was released."},
     &S::keyFramesReleasedComplete},
    {{"packetsRequested", "udt_packets_requested", c_pszCounter, "", "Sequences asked for, each time."},
     &S::packetsRequested},
    {{"packetsRequestedUnique", "udt_packets_requested_unique", c_pszCounter, "",
      "Distinct sequences asked for."},
     &S::packetsRequestedUnique},
    {{"requestedPacketsReceived", "udt_requested_packets_received", c_pszCounter, "",
      "Distinct sequences that came after they were asked for."},
     &S::requestedPacketsReceived},
    {{"audioPlayDelay", "udt_audio_play_delay_seconds", c_pszGauge, "seconds",
      "Play delay that the owner reported."},
     &S::audioPlayDelay},
    {{"packetsHandled", "udt_packets_handled", c_pszCounter, "", "Packets taken from the intake."},
     &S::packetsHandled},
    {{"packetsMissingAtRelease", "udt_packets_missing_at_release", c_pszCounter, "",
      "Packets missing before released ones."},
     &S::packetsMissingAtRelease},
    {{"requestedPacketsFailed", "udt_requested_packets_failed", c_pszCounter, "",
      "Packets asked for that never came."},
     &S::requestedPacketsFailed},
    {{"packetsFarBehindPlayout", "udt_packets_far_behind_playout", c_pszCounter, "",
      "Packets 2 s or more behind playout on arrival."},
     &S::packetsFarBehindPlayout},
    {{"timestampErrors", "udt_timestamp_errors", c_pszCounter, "", "Timestamp errors."}, &S::timestampErrors},
    {{"firstKeyFrameReceiveTime", "udt_first_key_frame_receive_time_seconds", c_pszGauge, "seconds",
      "From the first packet to the first packet of an I frame."},
     &S::firstKeyFrameReceiveTime},
    {{"framesBeforeFirstKeyFrame", "udt_frames_before_first_key_frame", c_pszGauge, "",
      "Frames before the first I frame."},
     &S::framesBeforeFirstKeyFrame},
    {{"firstKeyFrameDecodable", "udt_first_key_frame_decodable", c_pszGauge, "",
      "1: the first I frame could be decoded, 0: it could not."},
     &S::firstKeyFrameDecodable},
    {{"firstDecodableKeyFrameTime", "udt_first_decodable_key_frame_time_seconds", c_pszGauge, "seconds",
      "From the first packet to the release of the first decodable I frame."},
     &S::firstDecodableKeyFrameTime},
    {{"configuredMinimumDelay", "udt_configured_minimum_delay_seconds", c_pszGauge, "seconds",
      "Configured lower bound of playout buffering."},
     &S::configuredMinimumDelay},
    {{"configuredMaximumDelay", "udt_configured_maximum_delay_seconds", c_pszGauge, "seconds",
      "Configured upper bound of playout buffering."},
     &S::configuredMaximumDelay},
    {{"measuredMinimumDelay", "udt_measured_minimum_delay_seconds", c_pszGauge, "seconds",
      "Least delay measured."},
     &S::measuredMinimumDelay},
    {{"measuredMaximumDelay", "udt_measured_maximum_delay_seconds", c_pszGauge, "seconds",
      "Most delay measured."},
     &S::measuredMaximumDelay},
    {{"measuredAverageDelay", "udt_measured_average_delay_seconds", c_pszGauge, "seconds",
      "Mean delay measured."},
     &S::measuredAverageDelay},
    {{"timelineDelta", "udt_timeline_delta_seconds", c_pszGauge, "seconds",
      "The buffer's own timeline delta."},
     &S::timelineDelta},
    {{"playoutTargetDelay", "udt_playout_target_delay_seconds", c_pszGauge, "seconds",
      "Media that the user's clock aims to keep ahead."},
     &S::playoutTargetDelay},
    {{"playoutBufferedTime", "udt_playout_buffered_time_seconds", c_pszGauge, "seconds",
      "Media received ahead of the user's clock."},
     &S::playoutBufferedTime},
    {{"transitBandWidth", "udt_transit_band_width_seconds", c_pszGauge, "seconds",
      "Highest minus lowest recent transit of the user."},
     &S::transitBandWidth},
    {{"lossExtraWait", "udt_loss_extra_wait_seconds", c_pszGauge, "seconds",
      "Added to the target since a loss."},
     &S::lossExtraWait},
    {{"playoutClock", "udt_playout_clock_seconds", c_pszGauge, "seconds",
      "The user's playout clock, media time."},
     &S::playoutClock},
};

typedef tagUdtReceiverStats V;
const tagEntry<V> c_aReceiver[] = {
    {{"streams", "udt_receiver_streams", c_pszGauge, "", "Live streams."}, &V::streams},
    {{"streamsExpired", "udt_receiver_streams_expired", c_pszCounter, "", "Streams that fell silent."},
     &V::streamsExpired},
    {{"packetsParsed", "udt_receiver_packets_parsed", c_pszCounter, "", "Media heads parsed."},
     &V::packetsParsed},
    {{"packetsReleased", "udt_receiver_packets_released", c_pszCounter, "", "Packets given to the owner."},
     &V::packetsReleased},
    {{"requestMessages", "udt_receiver_request_messages", c_pszCounter, "", "Loss-request messages."},
     &V::requestMessages},
    {{"packetsRequested", "udt_receiver_packets_requested", c_pszCounter, "",
      "Sequences asked for, each time."},
     &V::packetsRequested},
    {{"downlinkLossRatio", "udt_receiver_downlink_loss_ratio", c_pszGauge, "ratio",
      "Downlink loss of the last polled interval."},
     &V::downlinkLossRatio},
    {{"downlinkLossRatioMin", "udt_receiver_downlink_loss_min_ratio", c_pszGauge, "ratio",
      "Least downlink loss of a lossy interval."},
     &V::downlinkLossRatioMin},
    {{"downlinkLossRatioMax", "udt_receiver_downlink_loss_max_ratio", c_pszGauge, "ratio",
      "Most downlink loss of an interval."},
     &V::downlinkLossRatioMax},
    {{"downlinkPacketsExpected", "udt_receiver_downlink_packets_expected", c_pszCounter, "",
      "Downlink packets expected, of all polled intervals."},
     &V::downlinkPacketsExpected},
    {{"downlinkPacketsReceived", "udt_receiver_downlink_packets_received", c_pszCounter, "",
      "Downlink packets received, of all polled intervals."},
     &V::downlinkPacketsReceived},
    {{"downlinkBytesReceived", "udt_receiver_downlink_received_bytes", c_pszCounter, "bytes",
      "Downlink bytes received, of all polled intervals."},
     &V::downlinkBytesReceived},
    {{"firstKeyFrameReleaseTime", "udt_receiver_first_key_frame_release_time_seconds", c_pszGauge, "seconds",
      "From a stream's first packet to its first I frame's release, of the last such stream."},
     &V::firstKeyFrameReleaseTime},
    {{"firstKeyFrameFecPackets", "udt_receiver_first_key_frame_fec_packets", c_pszGauge, "",
      "FEC packets of that I frame."},
     &V::firstKeyFrameFecPackets},
    {{"firstKeyFramePacketsLost", "udt_receiver_first_key_frame_packets_lost", c_pszGauge, "",
      "Packets lost of that I frame."},
     &V::firstKeyFramePacketsLost},
    {{"streamLossRatio", "udt_receiver_stream_loss_ratio", c_pszGauge, "ratio",
      "Loss of the last stream-loss calculation."},
     &V::streamLossRatio},
    {{"streamPacketsExpected", "udt_receiver_stream_packets_expected", c_pszGauge, "",
      "Packets expected in the last stream-loss calculation."},
     &V::streamPacketsExpected},
    {{"streamPacketsReceived", "udt_receiver_stream_packets_received", c_pszGauge, "",
      "Packets received in the last stream-loss calculation."},
     &V::streamPacketsReceived},
    {{"streamLossBurst", "udt_receiver_stream_loss_burst", c_pszGauge, "", "Packets lost per loss event."},
     &V::streamLossBurst},
};

template <class R, size_t N>
void FieldsJson(Json& j, const R& st, const tagEntry<R> (&aEntries)[N])
{
    for (const tagEntry<R>& stEntry : aEntries)
    {
        std::visit(
            [&](auto pMember)
            {
                if (st.*pMember)
                    j[stEntry.stField.pszName] = *(st.*pMember);
            },
            stEntry.pMember);
    }
}

Json StreamJson(const tagUdtStreamStats& st)
{
    Json j = Json::object();
    j["type"] = "inbound-rtp";
    j["id"] = std::to_string(st.llAccount) + "-" + std::to_string(st.dwSubType);
    if (const char* pszKind = UdtStatsKind(st.dwSubType))
        j["kind"] = pszKind;
    j["account"] = std::to_string(st.llAccount);
    j["subType"] = st.dwSubType;
    j["media"] = UdtStatsMedia(st.dwSubType);
    if (!st.strUser.empty())
        j["user"] = st.strUser;
    j["live"] = st.bLive;
    FieldsJson(j, st, c_aStream);
    return j;
}

Json ReceiverJson(const tagUdtReceiverStats& st)
{
    Json j = Json::object();
    FieldsJson(j, st, c_aReceiver);
    return j;
}

std::string Dump(const Json& j, int nIndent)
{
    return j.dump(nIndent, ' ', false, Json::error_handler_t::replace);
}

// ---- OpenMetrics -----------------------------------------------------------------------------------------------

std::string LabelValue(const std::string& strText)
{
    // Through the JSON writer and back: what is not UTF-8 comes out replaced.
    const std::string strUtf8 = Json::parse(Dump(Json(strText), -1)).get<std::string>();
    std::string str;
    for (const char c : strUtf8)
    {
        if (c == '\\' || c == '"')
            str += '\\';
        if (c == '\n')
            str += "\\n";
        else
            str += c;
    }
    return str;
}

std::string Labels(const tagUdtStreamStats& st)
{
    std::string str = "{account=\"" + std::to_string(st.llAccount) + "\",sub_type=\"" +
                      std::to_string(st.dwSubType) + "\",media=\"" + UdtStatsMedia(st.dwSubType) + "\"";
    if (!st.strUser.empty())
        str += ",user=\"" + LabelValue(st.strUser) + "\"";
    return str + "}";
}

template <class T>
std::string Number(T value, double dScale)
{
    if constexpr (std::is_same_v<T, bool>)
        return value ? "1" : "0";
    else if (dScale != 1)
        return Json((double)value * dScale).dump();
    else
        return Json(value).dump();
}

// One family: its metadata once, then a sample of every record that knows the field; nothing when none does.
template <class R>
void Family(std::string& strOut, const tagEntry<R>& stEntry,
            const std::vector<std::pair<const R*, std::string>>& vec)
{
    const tagUdtStatsField& stField = stEntry.stField;
    bool bBegun = false;
    for (const std::pair<const R*, std::string>& stRecord : vec)
    {
        std::visit(
            [&](auto pMember)
            {
                const auto& value = stRecord.first->*pMember;
                if (!value)
                    return;
                const std::string strName = stField.pszMetric;
                if (!bBegun)
                {
                    bBegun = true;
                    strOut += "# TYPE " + strName + " " + stField.pszType + "\n";
                    if (*stField.pszUnit != 0)
                        strOut += "# UNIT " + strName + " " + stField.pszUnit + "\n";
                    strOut += "# HELP " + strName + " " + stField.pszHelp + "\n";
                }
                strOut += strName + (stField.pszType == c_pszCounter ? "_total" : "") + stRecord.second +
                          " " + Number(*value, stEntry.dScale) + "\n";
            },
            stEntry.pMember);
    }
}

template <class R, size_t N>
std::vector<tagUdtStatsField> Fields(const tagEntry<R> (&aEntries)[N])
{
    std::vector<tagUdtStatsField> vec;
    for (const tagEntry<R>& stEntry : aEntries)
        vec.push_back(stEntry.stField);
    return vec;
}

} // namespace

const char* UdtStatsKind(uint32 dwSubType)
{
    switch (dwSubType)
    {
    case MEAVAudio: return "audio";
    case MEAVMaxVideo:
    case MEAVMinVideo:
    case MEAVPPTShare:
    case MEAVSubVideo: return "video";
    default: return nullptr;
    }
}

const char* UdtStatsMedia(uint32 dwSubType)
{
    switch (dwSubType)
    {
    case MEAVAudio: return "audio";
    case MEAVMaxVideo: return "big-video";
    case MEAVMinVideo: return "small-video";
    case MEAVPPTShare: return "share";
    case MEAVSubVideo: return "sub-video";
    default: return "other";
    }
}

std::string UdtStatsJson(const tagUdtStats& st, int nIndent)
{
    Json j;
    j["tick"] = st.ullTick;
    if (st.timestamp)
        j["timestamp"] = *st.timestamp;
    j["receiver"] = ReceiverJson(st.stReceiver);
    j["streams"] = Json::array();
    for (const tagUdtStreamStats& stStream : st.vecStreams)
        j["streams"].push_back(StreamJson(stStream));
    return Dump(j, nIndent);
}

std::string UdtStreamStatsJson(const tagUdtStreamStats& st, int nIndent)
{
    return Dump(StreamJson(st), nIndent);
}

std::string UdtReceiverStatsJson(const tagUdtReceiverStats& st, int nIndent)
{
    return Dump(ReceiverJson(st), nIndent);
}

std::string UdtStatsOpenMetrics(const tagUdtStats& st)
{
    std::string strOut;
    const std::vector<std::pair<const V*, std::string>> vecReceiver = {{&st.stReceiver, ""}};
    for (const tagEntry<V>& stEntry : c_aReceiver)
        Family(strOut, stEntry, vecReceiver);
    std::vector<std::pair<const S*, std::string>> vecStreams;
    for (const tagUdtStreamStats& stStream : st.vecStreams)
        vecStreams.emplace_back(&stStream, Labels(stStream));
    for (const tagEntry<S>& stEntry : c_aStream)
        Family(strOut, stEntry, vecStreams);
    return strOut + "# EOF\n";
}

std::vector<tagUdtStatsField> UdtStreamStatsFields() { return Fields(c_aStream); }
std::vector<tagUdtStatsField> UdtReceiverStatsFields() { return Fields(c_aReceiver); }
