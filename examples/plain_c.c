/*
 * The receiver from C, stepped at ticks of our own choice: five seconds of a call with losses, replayed in no time.
 * Every 20th audio packet is lost. What the receiver asks for comes 60 ms later.
 */
#include "udtrecv.h"

#include <inttypes.h>
#include <stdio.h>

#define ACCOUNT   4711
#define PACKETS   250
#define PACKET_MS 20
#define ANSWER_MS 60

struct call
{
    udt_recv* recv;
    uint32_t down_seq;
    uint64_t answer_at[PACKETS]; /* by sequence; 0: no answer is on its way */
    uint32_t played, late, asked, longest_wait_ms;
    uint32_t last_seq;
};

static void play(void* context, const udt_output* packet, int32_t* play_delay_ms)
{
    struct call* call = context;
    const uint32_t wait_ms = packet->release_tick - packet->arrival_tick;
    ++call->played;
    if (packet->sender_seq < call->last_seq)
        ++call->late;
    call->last_seq = packet->sender_seq;
    if (wait_ms > call->longest_wait_ms)
        call->longest_wait_ms = wait_ms;
    *play_delay_ms = 20; /* what our sound device takes */
}

/* Worker: send this to the sender. Here the network is an array. */
static void send_request(void* context, const udt_request* requests, uint32_t count)
{
    struct call* call = context;
    uint32_t i;
    for (i = 0; i < count; ++i)
    {
        const uint32_t seq = requests[i].user_seq;
        if (seq < PACKETS && call->answer_at[seq] == 0)
        {
            call->answer_at[seq] = udt_clock_now() + ANSWER_MS;
            ++call->asked;
        }
    }
}

static void packet_arrives(struct call* call, uint32_t seq)
{
    const char sound[] = "twenty milliseconds of sound";
    udt_packet packet = {0};
    packet.size = sizeof packet;
    packet.sub_type = UDT_AUDIO;
    packet.account = ACCOUNT;
    packet.sender_seq = seq;
    packet.down_seq = ++call->down_seq;
    packet.media_ms = 1000 + seq * PACKET_MS;
    packet.transport_ms = (uint16_t)packet.media_ms;
    packet.data = sound;
    packet.bytes = sizeof sound;
    if (udt_recv_feed(call->recv, &packet) != UDT_OK)
        fprintf(stderr, "packet %" PRIu32 " was refused\n", seq);
}

int main(void)
{
    struct call call = {0};
    udt_callbacks calls = {0};
    udt_stream stream = {0};
    uint32_t streams = 0;
    uint64_t tick;

    calls.size = sizeof calls;
    calls.output = play;
    calls.request = send_request;
    udt_clock_set(1000000); /* from here on this thread's time stands still, and moves as we say */
    call.recv = udt_recv_create(&calls, &call, UDT_OWNER_DRIVEN);
    if (call.recv == NULL)
        return 1;
    udt_recv_set_room_state(call.recv, UDT_ROOM_PLAYS);
    udt_recv_start(call.recv);

    for (tick = 0; tick < PACKETS * PACKET_MS + 3000; tick += 10)
    {
        const uint32_t seq = (uint32_t)(tick / PACKET_MS);
        uint32_t i;
        udt_clock_set(1000000 + tick);
        if (tick % PACKET_MS == 0 && seq < PACKETS && seq % 20 != 19)
            packet_arrives(&call, seq);
        for (i = 0; i < PACKETS; ++i)
            if (call.answer_at[i] == 1000000 + tick)
                packet_arrives(&call, i);
        udt_recv_run_turn(call.recv);
    }

    stream.size = sizeof stream;
    udt_recv_get_streams(call.recv, &stream, 1, &streams);
    printf("udtrecv %s: %" PRIu32 " packets played, %" PRIu32
           " out of order, none waited longer than %" PRIu32 " ms\n",
           udt_version(), call.played, call.late, call.longest_wait_ms);
    printf("%" PRIu32 " were lost and asked for, %" PRIu32 " never came\n", call.asked, stream.lost);
    udt_recv_destroy(call.recv);
    return call.played == PACKETS && call.late == 0 ? 0 : 1;
}
