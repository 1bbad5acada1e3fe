#!/usr/bin/env python3
"""The receiver from Python (ctypes): runs the sound of a udtlab scenario in virtual time.

usage: scenario.py [SCENARIO.json]        UDTRECV_LIBRARY names the library where the system does not find it

It shows all that a binding has to do: the records, the callbacks, the clock. The network is a small one of its own:
of a scenario it knows seconds, seed, the number of users, and delay_ms, jitter_ms, loss_percent and burst of `down` and
`request`; it says what it leaves out.
"""
import ctypes
import ctypes.util
import heapq
import itertools
import json
import os
import random
import sys
from ctypes import POINTER, Structure, byref, c_char_p, c_int, c_int32, c_uint8, c_uint16, c_uint32, c_uint64, c_void_p, sizeof

OK, AUDIO, OWNER_DRIVEN, ROOM_PLAYS = 0, 1, 1, 3


class Packet(Structure):
    _fields_ = [("size", c_uint32), ("sub_type", c_uint32), ("account", c_uint64), ("sender_seq", c_uint32),
                ("down_seq", c_uint32), ("media_ms", c_uint32), ("transport_ms", c_uint16), ("frame_type", c_uint8),
                ("packet_index", c_uint8), ("data_packets", c_uint8), ("fec_packets", c_uint8),
                ("frame_index", c_uint8), ("gop_index", c_uint8), ("bytes", c_uint32), ("wire_bytes", c_uint32),
                ("reserved", c_uint32), ("data", c_void_p), ("user", c_uint64)]


class Output(Structure):
    _fields_ = [("size", c_uint32), ("sub_type", c_uint32), ("account", c_uint64), ("sender_seq", c_uint32),
                ("down_seq", c_uint32), ("media_ms", c_uint32), ("transport_ms", c_uint16), ("frame_type", c_uint8),
                ("packet_index", c_uint8), ("data_packets", c_uint8), ("fec_packets", c_uint8),
                ("frame_index", c_uint8), ("gop_index", c_uint8), ("bytes", c_uint32), ("lost_before", c_uint32),
                ("arrival_tick", c_uint32), ("data", c_void_p), ("user", c_uint64), ("release_tick", c_uint32),
                ("reserved", c_uint32)]


class Request(Structure):
    _fields_ = [("account", c_uint64), ("user_seq", c_uint32), ("sub_type", c_uint8), ("padding", c_uint8 * 3)]


OUTPUT = ctypes.CFUNCTYPE(None, c_void_p, POINTER(Output), POINTER(c_int32))
REQUEST = ctypes.CFUNCTYPE(None, c_void_p, POINTER(Request), c_uint32)


class Callbacks(Structure):
    _fields_ = [("size", c_uint32), ("output", OUTPUT), ("request", REQUEST)]


class Stream(Structure):
    _fields_ = [("size", c_uint32), ("sub_type", c_uint32), ("account", c_uint64)] + [
        (name, c_uint32) for name in (
            "first_i_ms", "frames_before_i", "first_i_decodable", "decodable_i_ms", "buffer_min_ms", "buffer_max_ms",
            "delay_min_ms", "delay_max_ms", "delay_mean_ms", "buffer_ms", "skipped", "stamp_errors", "received",
            "lost", "requests_failed", "reserved")]


def load_library():
    path = os.environ.get("UDTRECV_LIBRARY") or ctypes.util.find_library("udtrecv")
    if not path:
        sys.exit("scenario.py: no library udtrecv; name it in UDTRECV_LIBRARY")
    lib = ctypes.CDLL(path)
    handle = [c_void_p]
    for name, result, arguments in (
            ("udt_version", c_char_p, []),
            ("udt_result_text", c_char_p, [c_int]),
            ("udt_clock_set", None, [c_uint64]),
            ("udt_recv_create", c_void_p, [POINTER(Callbacks), c_void_p, c_uint32]),
            ("udt_recv_destroy", None, handle),
            ("udt_recv_start", c_int, handle),
            ("udt_recv_set_room_state", c_int, handle + [c_uint32]),
            ("udt_recv_set_rtt", c_int, handle + [c_uint32]),
            ("udt_recv_feed", c_int, handle + [POINTER(Packet)]),
            ("udt_recv_run_turn", c_int, handle),
            ("udt_recv_get_streams", c_int, handle + [POINTER(Stream), c_uint32, POINTER(c_uint32)])):
        function = getattr(lib, name)
        function.restype, function.argtypes = result, arguments
    return lib


class Link:
    """One direction of the network: delay, jitter, and losses, alone or in bursts."""

    def __init__(self, scenario, chance):
        self.delay = scenario.pop("delay_ms", 20)
        self.jitter = scenario.pop("jitter_ms", 0)
        self.loss = scenario.pop("loss_percent", 0) / 100
        self.stay = 1 - 1 / scenario.pop("burst") if scenario.get("burst", 0) > 1 else self.loss
        scenario.pop("burst", None)
        self.chance, self.bad = chance, False

    def arrival(self, now):
        """When what is sent now arrives; None: never."""
        come = self.loss * (1 - self.stay) / (1 - self.loss) if self.loss < 1 else 1
        self.bad = self.chance.random() < (self.stay if self.bad else come)
        return None if self.bad else now + max(0, round(self.delay + self.chance.gauss(0, self.jitter)))


class Call:
    """A receiver that is stepped every 10 ms, and the senders of the sound that it plays."""

    def __init__(self, lib, scenario):
        chance = random.Random(scenario.pop("seed", 1))
        self.lib = lib
        self.down = Link(scenario.get("down", {}), chance)
        self.back = Link(scenario.get("request", {}), chance)
        self.users = sum(group.pop("count", 1) for group in scenario.get("users", [{"count": 1}]))
        self.seconds = scenario.pop("seconds", 60)
        self.now = 0
        self.events = []  # (tick, number, what, account, sequence)
        self.number = itertools.count()  # events of one tick happen in the order they were made
        self.sent = self.lost = self.played = self.concealed = self.requests = 0
        self.waits = []
        self.errors = []  # a callback must not let an exception out: it would be lost in C

        # Keep the function objects: the library only has their addresses.
        self.on_output, self.on_request = OUTPUT(self.output), REQUEST(self.request)
        self.recv = lib.udt_recv_create(byref(Callbacks(sizeof(Callbacks), self.on_output, self.on_request)), None,
                                        OWNER_DRIVEN)
        if not self.recv:
            sys.exit("scenario.py: no receiver")
        self.check(lib.udt_recv_set_room_state(self.recv, ROOM_PLAYS))
        self.check(lib.udt_recv_set_rtt(self.recv, self.down.delay + self.back.delay))

    def check(self, result):
        if result != OK:
            sys.exit("scenario.py: " + self.lib.udt_result_text(result).decode())

    def output(self, _context, packet, play_delay_ms):
        try:
            out = packet.contents
            self.played += 1
            self.concealed += out.lost_before
            self.waits.append(out.release_tick - out.arrival_tick & 0xFFFFFFFF)
            play_delay_ms[0] = 20
        except Exception as error:
            self.errors.append(error)

    def request(self, _context, requests, count):
        try:
            self.requests += 1
            there = self.back.arrival(self.now)
            if there is not None:
                for i in range(count):
                    self.push(there, "answer", requests[i].account, requests[i].user_seq)
        except Exception as error:
            self.errors.append(error)

    def push(self, tick, what, account, seq):
        heapq.heappush(self.events, (tick, next(self.number), what, account, seq))

    def handle(self, what, account, seq):
        if what == "arrive":
            data = b"sound"
            self.down_seq += 1
            packet = Packet(size=sizeof(Packet), sub_type=AUDIO, account=account, sender_seq=seq,
                            down_seq=self.down_seq, media_ms=1000 + seq * 20, transport_ms=1000 + seq * 20 & 0xFFFF,
                            bytes=len(data), wire_bytes=100, data=ctypes.cast(c_char_p(data), c_void_p))
            self.check(self.lib.udt_recv_feed(self.recv, byref(packet)))
            return
        there = self.down.arrival(self.now)
        if what == "send":
            self.sent += 1
            self.lost += there is None
        if there is not None:
            self.push(there, "arrive", account, seq)

    def run(self):
        self.lib.udt_clock_set(1000000)
        self.check(self.lib.udt_recv_start(self.recv))
        self.down_seq = 0
        streams, filled = (Stream * self.users)(), c_uint32()
        streams[0].size = sizeof(Stream)
        for self.now in range(0, self.seconds * 1000 + 4000, 10):
            if self.now % 20 == 0 and self.now < self.seconds * 1000:
                for user in range(self.users):
                    self.push(self.now, "send", 1001 + user, self.now // 20)
            while self.events and self.events[0][0] <= self.now:
                self.handle(*heapq.heappop(self.events)[2:])
            self.lib.udt_clock_set(1000000 + self.now)
            self.check(self.lib.udt_recv_run_turn(self.recv))
        self.check(self.lib.udt_recv_get_streams(self.recv, streams, self.users, byref(filled)))
        self.lib.udt_recv_destroy(self.recv)
        if self.errors:
            raise self.errors[0]
        return streams[:filled.value]


def left_out(scenario, path=""):
    for key, value in scenario.items():
        if isinstance(value, dict):
            yield from left_out(value, path + key + ".")
        elif key not in ("name", "about", "users", "seconds"):
            yield path + key


def main():
    scenario = {"name": "random loss", "seconds": 20, "users": [{"count": 2}],
                "down": {"delay_ms": 40, "jitter_ms": 8, "loss_percent": 5}, "request": {"delay_ms": 40}}
    if len(sys.argv) > 1:
        with open(sys.argv[1], encoding="utf-8") as file:
            scenario = json.load(file)
    lib = load_library()
    call = Call(lib, scenario)
    streams = call.run()

    print(f"udtrecv {lib.udt_version().decode()}: {scenario.get('name', 'unnamed')}, "
          f"{call.users} users, {call.seconds} s of sound")
    unknown = sorted(left_out(scenario))
    if unknown:
        print("left out: " + ", ".join(unknown))
    waits = sorted(call.waits) or [0]
    print(f"sent {call.sent}, lost on the way {call.lost}, requests {call.requests}, played {call.played}, "
          f"to be concealed {call.concealed}")
    print(f"waited, ms: median {waits[len(waits) // 2]}, 95 % {waits[len(waits) * 95 // 100]}, longest {waits[-1]}")
    print("user   received  missing at playout  asked for in vain")
    for stream in streams:
        print(f"{stream.account:<7}{stream.received:>8}{stream.lost:>20}{stream.requests_failed:>19}")


if __name__ == "__main__":
    main()
