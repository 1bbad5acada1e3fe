/**
 * @file udtrecv.h
 * The receiver as plain C, for owners that are not C++ and for bindings (Go, Rust, Python, C#, ...).
 *
 * It is the same receiver as `CAVGUdtRecv`, with three simplifications: the media head is parsed before the call
 * and handed in with the packet, so there is no parse callback; the bytes of a packet are copied, so nobody counts
 * references; and an owner-driven receiver can be stepped at ticks of the caller's choice.
 *
 *     udt_callbacks calls = {0};
 *     calls.size = sizeof calls;
 *     calls.output = play;
 *     calls.request = send_request;
 *     udt_recv* recv = udt_recv_create(&calls, my_context, 0);
 *     udt_recv_set_room_state(recv, UDT_ROOM_PLAYS);
 *     udt_recv_start(recv);
 *     ... udt_recv_feed(recv, &packet) for every datagram ...
 *     udt_recv_destroy(recv);
 *
 * **Records and growth.** Every record that may grow begins with `size`, which the caller sets to `sizeof` that
 * record as it was compiled. A later library that knows more fields fills or reads `size` bytes; an earlier library
 * fills what it knows, zeroes the rest, and ignores fields that it does not know. Fields are only ever added at the
 * end. Zero a record before it is filled in (`udt_packet packet = {0};` does).
 *
 * **Errors.** Functions return `UDT_OK` or a negative `udt_result`, and never let an exception out. A null handle is
 * `UDT_E_ARGUMENT`, or nothing where there is no result. A callback must not let an exception or a jump out.
 *
 * **Threads.** `udt_recv_feed` may be called by any number of threads at once, the getters, `udt_recv_set_guards` and
 * `udt_recv_clear` by any thread. `udt_recv_start`, `udt_recv_stop` and the setters belong to one control thread, or to a callback.
 * Callbacks come from the receiver's worker thread, one at a time; in an owner-driven receiver from the thread that
 * makes the turn. No lock is held while a callback runs, and it may call every function of its receiver but
 * `udt_recv_destroy`. Hand heavy work on: while a callback runs, nothing else is released or asked for.
 *
 * Times are milliseconds, loss rates 1/10000, sequences and ticks 32 bits that wrap, unless said otherwise.
 */
#ifndef UDTRECV_H
#define UDTRECV_H

#include <stdint.h>

#ifdef __cplusplus
extern "C"
{
#endif

/** The library's version, the one place where it stands. See `udt_version`. */
#define UDT_VERSION "0.1.0"

/** The version of this interface: raised when functions or fields are added. See `udt_api_version`. */
#define UDT_API_VERSION 1

    /** What functions return. */
    typedef enum udt_result
    {
        UDT_OK = 0,          /**< done */
        UDT_E_ARGUMENT = -1, /**< a null pointer or a value out of range */
        UDT_E_SIZE = -2,     /**< the `size` of a record is smaller than its first version */
        UDT_E_MEMORY = -3,   /**< no memory; the call did nothing */
        UDT_E_STATE = -4,    /**< not in this state: see the function */
        UDT_E_NOT_FOUND = -5 /**< there is no such user */
    } udt_result;

    /** Media sub-types: with the account, the key of a stream. 4, 5, 8 and 9 are buffered and played like `UDT_SHARE`. */
    typedef enum udt_sub_type
    {
        UDT_AUDIO = 1,       /**< loss detection; released ahead by the play delay */
        UDT_BIG_VIDEO = 2,   /**< loss detection, GOPs followed */
        UDT_SMALL_VIDEO = 3, /**< loss detection, GOPs followed */
        UDT_SHARE = 6,       /**< screen share: buffered and played, no loss detection */
        UDT_SUB_VIDEO = 7    /**< loss detection, GOPs followed */
    } udt_sub_type;

    /** Frame types. */
    typedef enum udt_frame_type
    {
        UDT_FRAME_I = 0,        /**< key frame */
        UDT_FRAME_P = 1,        /**< P frame */
        UDT_FRAME_P_WITHSP = 2, /**< P frame with SP */
        UDT_FRAME_SP = 3,       /**< SP frame */
        UDT_FRAME_GF = 4,       /**< golden frame */
        UDT_FRAME_P_WITHB = 5,  /**< P frame with B */
        UDT_FRAME_B = 6         /**< B frame */
    } udt_frame_type;

/** Flag of `udt_recv_create`: no thread; the owner makes the turns with `udt_recv_run_turn`. */
#define UDT_OWNER_DRIVEN 1u

/** The room state in which packets are released. */
#define UDT_ROOM_PLAYS 3u

/** Bit of `udt_params::mode`: short waits and small targets instead of smooth play. */
#define UDT_MODE_LOW_LATENCY 1u

/** For `udt_recv_clear`: every stream but audio, of every user. */
#define UDT_CLEAR_ALL_BUT_AUDIO 0xFFu

/** What a counter or an index holds while there is nothing to tell. */
#define UDT_NONE 0xFFFFFFFFu

    /** A receiver. */
    typedef struct udt_recv udt_recv;

    /** One packet from the network, its media head parsed. */
    typedef struct udt_packet
    {
        uint32_t size;         /**< `sizeof(udt_packet)` */
        uint32_t sub_type;     /**< `udt_sub_type`, 0 to 255 */
        uint64_t account;      /**< the sending user */
        uint32_t sender_seq;   /**< the sender's own sequence, per stream */
        uint32_t down_seq;     /**< sequence of this downlink, over all streams; for the downlink loss rate */
        uint32_t media_ms;     /**< media timestamp, on one timeline for all streams of the user */
        uint16_t transport_ms; /**< 16-bit timestamp of the transport header */
        uint8_t frame_type;    /**< `udt_frame_type` */
        uint8_t packet_index;  /**< index of this packet inside its frame, from 0 */
        uint8_t data_packets;  /**< data packets of the frame */
        uint8_t fec_packets;   /**< forward-error-correction packets of the frame */
        uint8_t frame_index;   /**< index of the frame inside its GOP */
        uint8_t gop_index;     /**< index of the GOP, wraps */
        uint32_t bytes;        /**< bytes at `data` */
        uint32_t wire_bytes;   /**< bytes on the wire, for byte counters; 0: `bytes` */
        uint32_t reserved;     /**< 0 */
        const void* data;      /**< copied during the call; may be null when `bytes` is 0 */
        uint64_t user;         /**< given back with the packet, for the owner's own use */
    } udt_packet;

    /** One packet that is due. Lent for the call. */
    typedef struct udt_output
    {
        uint32_t size;         /**< bytes of this record as the library knows it */
        uint32_t sub_type;     /**< as handed in */
        uint64_t account;      /**< as handed in */
        uint32_t sender_seq;   /**< as handed in */
        uint32_t down_seq;     /**< as handed in */
        uint32_t media_ms;     /**< as handed in */
        uint16_t transport_ms; /**< as handed in */
        uint8_t frame_type;    /**< as handed in */
        uint8_t packet_index;  /**< as handed in */
        uint8_t data_packets;  /**< as handed in */
        uint8_t fec_packets;   /**< as handed in */
        uint8_t frame_index;   /**< as handed in */
        uint8_t gop_index;     /**< as handed in */
        uint32_t bytes;        /**< as handed in */
        uint32_t
            lost_before; /**< packets of the stream missing just before this one, modulo 256: conceal them */
        uint32_t arrival_tick; /**< when it was handed in */
        const void* data;      /**< the receiver's copy, valid during the call */
        uint64_t user;         /**< as handed in */
        uint32_t release_tick; /**< now; `release_tick - arrival_tick` is what it waited */
        uint32_t reserved;     /**< 0 */
    } udt_output;

    /** One missing packet that is asked for. 16 bytes for good: these come as an array. */
    typedef struct udt_request
    {
        uint64_t account;   /**< the stream's user */
        uint32_t user_seq;  /**< the missing packet, in the sender's own numbering */
        uint8_t sub_type;   /**< the stream's sub-type */
        uint8_t padding[3]; /**< 0 */
    } udt_request;

    /** What the owner is told. Any of the functions may be null. `context` is what `udt_recv_create` was given. */
    typedef struct udt_callbacks
    {
        uint32_t size; /**< `sizeof(udt_callbacks)` */
        /**
     * A packet is due. For audio write the present delay of the sound device, ms, to `play_delay_ms` (it points at
     * 0): the stream's next packets are released that much earlier, so that they are heard in step with video.
     */
        void (*output)(void* context, const udt_output* packet, int32_t* play_delay_ms);
        /** Packets are missing: send this to the sender. `requests` is valid during the call. */
        void (*request)(void* context, const udt_request* requests, uint32_t count);
    } udt_callbacks;

    /** Tuning. A field that is 0 or out of its range leaves the setting alone, except where it says that 0 is taken. */
    typedef struct udt_params
    {
        uint32_t size;          /**< `sizeof(udt_params)` */
        uint16_t buffer_max_ms; /**< most playout buffering; taken when >= `buffer_min_ms` */
        uint16_t buffer_min_ms; /**< least playout buffering; at most the upper bound */
        uint16_t
            first_request_ms; /**< before a gap is asked for again after the first request; at least 200 */
        uint16_t next_request_ms; /**< between later requests for one gap; at least 100 */
        uint16_t loss_period_ms;  /**< period of the stream-loss calculation */
        uint16_t output_delay_ms; /**< at most the least buffering; 0 is taken */
        uint16_t server_delay_ms; /**< least delay that the server announced */
        uint16_t mode;            /**< `UDT_MODE_LOW_LATENCY` or 0; 0 is taken */
        uint16_t push_gops;       /**< GOPs that the server pushes when a stream starts; 0 is taken */
        uint16_t padding;         /**< 0 */
    } udt_params;

    /** Receiver-wide figures. Rates in 1/10000. */
    typedef struct udt_info
    {
        uint32_t size;     /**< `sizeof(udt_info)` */
        uint32_t streams;  /**< live streams */
        uint32_t max_loss; /**< largest non-zero downlink loss rate so far */
        uint32_t min_loss; /**< smallest non-zero downlink loss rate so far; `UDT_NONE` while there is none */
        uint32_t loss;     /**< downlink loss rate of the last interval that `udt_recv_get_downlink` closed */
        uint32_t streams_removed; /**< streams that fell silent and were removed */
    } udt_info;

    /** Figures of one stream. */
    typedef struct udt_stream
    {
        uint32_t size;            /**< `sizeof(udt_stream)` */
        uint32_t sub_type;        /**< `udt_sub_type` */
        uint64_t account;         /**< the user */
        uint32_t first_i_ms;      /**< from the first packet to the first packet of an I frame */
        uint32_t frames_before_i; /**< frames before the first I frame */
        uint32_t
            first_i_decodable; /**< 1 or 0: could the first counted I frame be decoded; `UDT_NONE`: none counted */
        uint32_t decodable_i_ms;  /**< from the first packet to the first decodable I frame; 0: none yet */
        uint32_t buffer_min_ms;   /**< as configured */
        uint32_t buffer_max_ms;   /**< as configured */
        uint32_t delay_min_ms;    /**< `UDT_NONE` while not measured */
        uint32_t delay_max_ms;    /**< largest delay measured */
        uint32_t delay_mean_ms;   /**< mean of the delay samples; 0 without samples */
        uint32_t buffer_ms;       /**< the stream's own least buffering */
        uint32_t skipped;         /**< packets that lay 2 s or more behind playout on arrival */
        uint32_t stamp_errors;    /**< timestamp errors */
        uint32_t received;        /**< packets handled, duplicates included */
        uint32_t lost;            /**< packets missing before released packets */
        uint32_t requests_failed; /**< packets that were asked for and never came */
        uint32_t reserved;        /**< 0 */
    } udt_stream;

    /** Where one user's playout stands. */
    typedef struct udt_playout
    {
        uint32_t size;        /**< `sizeof(udt_playout)` */
        uint32_t clock_ms;    /**< the playout clock, media time; 0: not started */
        uint32_t newest_ms;   /**< newest media time received */
        uint32_t buffered_ms; /**< media received ahead of the clock */
        uint32_t band_ms;     /**< width of the transit band: highest minus lowest recent transit */
        uint32_t extra_ms;    /**< added to the target since a loss; 0: no loss yet */
        uint32_t target_ms;   /**< media that the clock aims to keep ahead */
    } udt_playout;

    /** The downlink since the previous reading. */
    typedef struct udt_downlink
    {
        uint32_t size;     /**< `sizeof(udt_downlink)` */
        uint32_t expected; /**< packets expected */
        uint32_t received; /**< packets received */
        uint32_t bytes;    /**< bytes received */
        uint32_t
            first_i; /**< the last stream's first I frame: ms to its release << 16 | FEC packets << 8 | lost */
    } udt_downlink;

    /** The last stream-loss calculation. */
    typedef struct udt_loss
    {
        uint32_t size;           /**< `sizeof(udt_loss)` */
        uint32_t loss;           /**< lost, 1/10000 */
        uint32_t expected;       /**< packets expected */
        uint32_t received;       /**< packets received */
        uint32_t mean_burst_100; /**< mean packets lost in a row, hundredths */
    } udt_loss;

    /**
     * What the receiver takes at most. 0: no such guard. A guard turns away what comes too much; what was let in before
     * it was set stays. How to choose them: docs/guards.md.
     */
    typedef struct udt_guards
    {
        uint32_t size;           /**< `sizeof(udt_guards)` */
        uint32_t intake_packets; /**< packets that wait for the next turn */
        uint32_t intake_bytes;   /**< bytes on the wire of the packets that wait for the next turn */
        uint32_t streams;        /**< streams at a time; packets of a further one are turned away */
        uint32_t accounts;       /**< accounts remembered, with or without a stream at present */
        uint32_t stream_packets; /**< packets that one stream buffers */
        uint32_t
            stream_history; /**< sequences by which one stream knows duplicates: packets of the last 6 s */
        uint32_t requests_per_second; /**< packets asked for in any second, over all streams */
        uint32_t pull_backs; /**< times per second that early packets may pull one user's clock back */
        uint32_t latency_ms; /**< media ahead of a user's clock, before the clock leaps to the live edge */
    } udt_guards;

    /** What each guard did since the receiver was made. Counters wrap at 2^32. */
    typedef struct udt_guard_info
    {
        uint32_t size;            /**< `sizeof(udt_guard_info)` */
        uint32_t intake_packets;  /**< packets turned away by `udt_guards::intake_packets` */
        uint32_t intake_bytes;    /**< packets turned away by `udt_guards::intake_bytes` */
        uint32_t streams;         /**< packets turned away by `udt_guards::streams` */
        uint32_t accounts;        /**< packets turned away, every remembered account having a stream */
        uint32_t accounts_forgot; /**< records of accounts forgotten to make room, up to two per account */
        uint32_t stream_packets;  /**< packets turned away by `udt_guards::stream_packets` */
        uint32_t stream_history;  /**< packets turned away by `udt_guards::stream_history` */
        uint32_t requests; /**< missing packets that were due and not asked for; again each time it happens */
        uint32_t pull_backs; /**< early packets that did not pull the clock back */
        uint32_t latency;    /**< leaps of a user's clock to the live edge */
    } udt_guard_info;

    /** `UDT_API_VERSION` of the library at hand, which may be newer than the header. */
    uint32_t udt_api_version(void);

    /** `UDT_VERSION` of the library at hand. Never null. */
    const char* udt_version(void);

    /** A result in a few words, for messages. Never null. */
    const char* udt_result_text(int result);

    /**
 * Makes a receiver, stopped.
 * @param calls   copied; may be null: packets are then taken, played and dropped in silence
 * @param context handed to the callbacks; must outlive the receiver
 * @param flags   0 or `UDT_OWNER_DRIVEN`
 * @return null when there is no memory, `calls->size` is too small or a flag is not known
 */
    udt_recv* udt_recv_create(const udt_callbacks* calls, void* context, uint32_t flags);

    /** Stops the receiver and frees it. Never inside one of its callbacks. Null does nothing. */
    void udt_recv_destroy(udt_recv* recv);

    /** Starts the worker. Does nothing on a running receiver. */
    int udt_recv_start(udt_recv* recv);

    /**
 * Stops: the last turn ends, the end report is written to the log, the buffers are emptied. Takes at least 200 ms with
 * a thread, no time when owner-driven. Afterwards no callback comes. Does nothing on a stopped receiver.
 */
    int udt_recv_stop(udt_recv* recv);

    /** Sets the tuning; see `udt_params`. */
    int udt_recv_set_params(udt_recv* recv, const udt_params* params);

    /** Sets what the receiver takes at most; see `udt_guards`. Kept over stop and start. Any thread. */
    int udt_recv_set_guards(udt_recv* recv, const udt_guards* guards);

    /** Tells what each guard did. Any thread. */
    int udt_recv_get_guard_info(udt_recv* recv, udt_guard_info* info);

    /** Tells the measured round-trip time, ms; it moves the interval between requests for one gap. */
    int udt_recv_set_rtt(udt_recv* recv, uint32_t rtt_ms);

    /** Allows (not 0, the default) or forbids (0) loss requests. A stop allows them again. */
    int udt_recv_enable_requests(udt_recv* recv, int enable);

    /** Tells the room's state; packets are released in `UDT_ROOM_PLAYS` only. */
    int udt_recv_set_room_state(udt_recv* recv, uint32_t state);

    /** Takes one packet. A stopped receiver drops it and returns `UDT_OK`. Any thread. */
    int udt_recv_feed(udt_recv* recv, const udt_packet* packet);

    /**
 * Asks the worker to remove streams on its next turn. Any thread.
 * @param account  the user, 0 for none
 * @param sub_type `UDT_CLEAR_ALL_BUT_AUDIO`, or the sub-type of the named users' streams; 0: nothing
 */
    int udt_recv_clear(udt_recv* recv, uint64_t account, uint32_t sub_type);

    /**
 * Makes one turn of an owner-driven receiver: takes what was fed, releases what is due, asks for what is missing. Every
 * 10 ms is the usual pace. One thread at a time; a call from inside a callback does nothing.
 * @return `UDT_E_STATE` when the receiver is not owner-driven
 */
    int udt_recv_run_turn(udt_recv* recv);

    /** `udt_clock_set(tick_ms)`, then `udt_recv_run_turn`: one step of a replay. */
    int udt_recv_run_turn_at(udt_recv* recv, uint64_t tick_ms);

    /** Fills the receiver-wide figures. Any thread. */
    int udt_recv_get_info(udt_recv* recv, udt_info* info);

    /**
 * Fills one record per stream, ordered by account, then sub-type. Any thread.
 * @param streams  an array of `capacity` records; the `size` of the first counts for all of them
 * @param filled   the records filled; may be null
 */
    int udt_recv_get_streams(udt_recv* recv, udt_stream* streams, uint32_t capacity, uint32_t* filled);

    /** Where a user's playout stands. Any thread. @return `UDT_E_NOT_FOUND` when there is no such user */
    int udt_recv_get_playout(udt_recv* recv, uint64_t account, udt_playout* playout);

    /** Reads the downlink since the previous call and begins a new interval: let one poller ask. Any thread. */
    int udt_recv_get_downlink(udt_recv* recv, udt_downlink* downlink);

    /** Reads the last stream-loss calculation. Any thread. */
    int udt_recv_get_loss(udt_recv* recv, udt_loss* loss);

    /**
 * The clock. Receivers go by a monotonic millisecond clock. `udt_clock_set` stops it for the calling thread, so that
 * what this thread feeds and steps happens at that tick, whatever the real time: a call of an hour is replayed in
 * seconds, and gives the same result every time. Set it before every step; forwards, as clocks go. Other threads keep
 * the real clock, or their own: several replays may run side by side. For owner-driven receivers; a worker thread of
 * its own always goes by the real clock. Replaces what `xp_settickcountsource` had set.
 */
    void udt_clock_set(uint64_t tick_ms);

    /** Gives the calling thread the real clock back. */
    void udt_clock_real(void);

    /** The calling thread's clock, ms. */
    uint64_t udt_clock_now(void);

    /**
 * Takes one log line. Called on the thread that wrote it, from several threads at once.
 * @param level    4: events and anomalies, 5: traces of every packet
 * @param function the operation that wrote it
 * @param text     the line, without a line end; both strings are valid during the call
 */
    typedef void (*udt_log_function)(void* context, int level, const char* function, const char* text);

    /**
 * Sets where the lines of all receivers of the process go; null, the default: nowhere. Lines up to `level` come. When it
 * returns, no other thread is inside the previous function. Any thread.
 */
    int udt_log_set(udt_log_function function, void* context, int level);

#ifdef __cplusplus
}
#endif

#endif /* UDTRECV_H */
