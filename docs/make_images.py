#!/usr/bin/env python3
"""docs/make_images.py BUILD [--check]: makes docs/images/*.svg.

Drawings are drawn here. Plots are runs of BUILD's udtlab on the scenarios of lab/scenarios, and of its shared library
stepped through the C interface (with examples/scenario.py); they are the same every time. --check writes nothing, and fails
when a picture in the tree is not what would be made.
"""
import ctypes
import json
import math
import pathlib
import re
import subprocess
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent
IMAGES = ROOT / "docs" / "images"
SCENARIOS = ROOT / "lab" / "scenarios"

INK, DIM, GRID, PAPER = "#1a202c", "#5a6472", "#e3e7ec", "#ffffff"
BLUE, ORANGE, GREEN, RED, VIOLET = "#2b6cb0", "#c05621", "#2f855a", "#c53030", "#6b46c1"
TINT = {BLUE: "#e3eefa", ORANGE: "#fdeee0", GREEN: "#e4f4ea", RED: "#fbe7e7", VIOLET: "#efe8fb", DIM: "#f1f3f5"}


def number(value):
    return f"{value:.1f}".rstrip("0").rstrip(".")


class Svg:
    def __init__(self, width, height, title):
        self.width, self.height = width, height
        self.parts = [f'<title>{title}</title>', f'<rect width="{width}" height="{height}" rx="6" fill="{PAPER}"/>']

    def line(self, x1, y1, x2, y2, color=INK, width=1.2, dash=None, arrow=False):
        extra = f' stroke-dasharray="{dash}"' if dash else ""
        if arrow:
            extra += f' marker-end="url(#{self.arrow(color)})"'
        self.parts.append(f'<path d="M{number(x1)} {number(y1)}L{number(x2)} {number(y2)}" stroke="{color}" '
                          f'stroke-width="{width}" fill="none"{extra}/>')

    def arrow(self, color):
        name = "a" + color[1:]
        mark = (f'<marker id="{name}" viewBox="0 0 8 8" refX="7" refY="4" markerWidth="7" markerHeight="7" '
                f'orient="auto"><path d="M0 0.5L8 4L0 7.5z" fill="{color}"/></marker>')
        if mark not in self.parts:
            self.parts.insert(1, mark)
        return name

    def path(self, points, color, width=1.8):
        data = "".join(f'{"L" if i else "M"}{number(x)} {number(y)}' for i, (x, y) in enumerate(points))
        self.parts.append(f'<path d="{data}" stroke="{color}" stroke-width="{width}" fill="none" '
                          'stroke-linejoin="round"/>')

    def rect(self, x, y, width, height, fill, color="none", radius=3):
        self.parts.append(f'<rect x="{number(x)}" y="{number(y)}" width="{number(width)}" height="{number(height)}" '
                          f'rx="{radius}" fill="{fill}" stroke="{color}"/>')

    def dot(self, x, y, color, radius=3):
        self.parts.append(f'<circle cx="{number(x)}" cy="{number(y)}" r="{radius}" fill="{color}"/>')

    def text(self, x, y, text, color=INK, size=12, anchor="start", bold=False, mono=False):
        text = text.replace("&", "&amp;").replace("<", "&lt;")
        extra = ' font-weight="600"' if bold else ""
        if mono:
            extra += ' font-family="DejaVu Sans Mono,Menlo,monospace"'
        self.parts.append(f'<text x="{number(x)}" y="{number(y)}" fill="{color}" font-size="{size}" '
                          f'text-anchor="{anchor}"{extra}>{text}</text>')

    def box(self, x, y, width, height, text, color, size=11.5, mono=False):
        self.rect(x, y, width, height, TINT[color], color)
        lines = text.split("\n")
        for i, one in enumerate(lines):
            self.text(x + width / 2, y + height / 2 + size * (0.36 + 1.2 * (i - (len(lines) - 1) / 2)), one, color, size,
                      "middle", mono=mono)

    def __str__(self):
        return (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {self.width} {self.height}" '
                f'width="{self.width}" height="{self.height}" font-family="DejaVu Sans,Helvetica,Arial,sans-serif">\n'
                + "\n".join(self.parts) + "\n</svg>\n")


def steps(top, most=5):
    """Round values from 0 up, the last at or above `top`."""
    if top <= 0:
        top = 1
    step = 10 ** math.floor(math.log10(top))
    for factor in (0.1, 0.2, 0.25, 0.5, 1, 2):
        if top / (step * factor) <= most:
            step *= factor
            break
    count = math.ceil(top / step - 1e-9)
    return [step * i for i in range(count + 1)]


class Plot:
    """One panel of lines: values over numbers, or over names at even distances."""

    def __init__(self, svg, x, y, width, height, title, x_title, unit="", x_names=None, top=None):
        self.svg, self.x, self.y, self.width, self.height = svg, x + 46, y + 46, width - 60, height - 90
        self.unit, self.x_names, self.series, self.marks, self.top = unit, x_names, [], [], top
        svg.text(x + 8, y + 14, title, INK, 12.5, bold=True)
        svg.text(self.x + self.width / 2, y + height - 8, x_title, DIM, 11, "middle")

    def add(self, name, points, color, dots=True, bars=False):
        self.series.append((name, points, color, "bars" if bars else dots))

    def mark(self, x, text):
        self.marks.append((x, text))

    def draw(self):
        svg = self.svg
        ticks = steps(self.top or max(y for _, points, _, _ in self.series for _, y in points))
        if self.x_names:
            low, high = -0.3, len(self.x_names) - 0.7
        else:
            low = min(x for _, points, _, _ in self.series for x, _ in points)
            high = max(x for _, points, _, _ in self.series for x, _ in points)

        def at_x(value):
            return self.x + self.width * (value - low) / (high - low)

        def at_y(value):
            return self.y + self.height * (1 - value / ticks[-1])

        for tick in ticks:
            svg.line(self.x, at_y(tick), self.x + self.width, at_y(tick), GRID, 1)
            svg.text(self.x - 6, at_y(tick) + 4, f"{tick:g}", DIM, 10.5, "end")
        svg.text(self.x - 6, self.y - 12, self.unit, DIM, 10.5, "end")
        if self.x_names:
            for i, name in enumerate(self.x_names):
                svg.text(at_x(i), self.y + self.height + 16, str(name), DIM, 10.5, "middle")
        else:
            for tick in [low + t for t in steps(high - low, 8)]:
                if tick <= high:
                    svg.line(at_x(tick), self.y + self.height, at_x(tick), self.y + self.height + 4, DIM, 1)
                    svg.text(at_x(tick), self.y + self.height + 16, f"{tick:g}", DIM, 10.5, "middle")
        for x, text in self.marks:
            svg.line(at_x(x), self.y, at_x(x), self.y + self.height, DIM, 1, "3 3")
            svg.text(at_x(x) + 4, self.y + 10, text, DIM, 10.5)
        for index, (name, points, color, dots) in enumerate(self.series):
            if dots == "bars":
                for x, y in points:
                    left = at_x(x) + 15 * (index - len(self.series) / 2) + 1
                    svg.rect(left, at_y(y), 13, max(at_y(0) - at_y(y), 1), color, radius=1)
                continue
            svg.path([(at_x(x), at_y(y)) for x, y in points], color)
            if dots:
                for x, y in points:
                    svg.dot(at_x(x), at_y(y), color)
        # The legend, under the title, from the right.
        right = self.x + self.width
        for name, _, color, _ in reversed(self.series):
            right -= 6.4 * len(name) + 26
            svg.line(right, self.y - 16, right + 14, self.y - 16, color, 2.4)
            svg.text(right + 18, self.y - 12, name, color, 11)


# ---- Runs ----------------------------------------------------------------------------------------------------------

class Lab:
    def __init__(self, build):
        self.program = build / "lab" / "udtlab"
        self.library = build / "libudtrecv.so"

    def simulate(self, scenario, *sets, seconds=60, options=()):
        command = [self.program, "simulate", "--scenario", SCENARIOS / f"{scenario}.json", "--json", "-"]
        if seconds:
            command += ["--seconds", str(seconds)]
        for one in sets:
            command += ["--set", one]
        done = subprocess.run(command + list(options), capture_output=True, check=False, text=True)
        if done.returncode:
            sys.exit(f"{' '.join(map(str, command))}\nended with {done.returncode}: {done.stderr}")
        return json.loads(done.stdout), done.stderr

    def call(self, scenario, **changes):
        """The call of examples/scenario.py, to be stepped by us."""
        sys.path.insert(0, str(ROOT / "examples"))
        sys.dont_write_bytecode = True
        import os
        os.environ["UDTRECV_LIBRARY"] = str(self.library)
        import scenario as example
        if isinstance(scenario, str):
            scenario = json.loads((SCENARIOS / f"{scenario}.json").read_text(encoding="utf-8"))
        scenario.update(changes)
        return example, example.Call(example.load_library(), scenario)


def delays(result, media="audio", what="median"):
    """Mean over the streams of one kind."""
    found = [stream["playout_delay_ms"][what] for stream in result["streams"] if stream["media"] == media]
    return sum(found) / len(found)


# ---- Drawings ------------------------------------------------------------------------------------------------------

def draw_threads():
    svg = Svg(860, 400, "Who calls whom, over time")
    lanes = [("network threads", 64, BLUE), ("worker", 190, GREEN), ("control thread", 330, VIOLET)]
    for name, y, color in lanes:
        svg.text(14, y - 26, name, color, 13, bold=True)
        svg.line(14, y, 846, y, "#cbd2da", 1.2)
    svg.text(14, 206, "the only one that", DIM, 10.5)
    svg.text(14, 219, "touches the buffers", DIM, 10.5)

    for x in (150, 196, 246, 300, 372, 410, 470, 540, 566):
        svg.rect(x, 54, 16, 20, TINT[BLUE], BLUE)
    svg.text(150, 44, "UDTReceiveNetData", BLUE, 11, mono=True)
    svg.text(290, 44, "parses the head (UdtParsePacketHeadInfo), appends to the intake list", DIM, 11)
    for x, to in ((158, 196), (204, 236), (254, 346), (308, 350), (380, 500), (418, 504), (478, 508)):
        svg.line(x, 76, to, 168, "#9db8d6", 1, arrow=True)
    svg.line(548, 76, 636, 140, "#9db8d6", 1, "3 3", arrow=True)
    svg.text(640, 146, "dropped: stopped", DIM, 10.5)

    for i, x in enumerate((190, 340, 494)):
        svg.box(x, 170, 92, 40, "turn", GREEN)
        svg.text(x + 46, 226, "< 1 ms of work", DIM, 10, "middle") if i == 0 else None
        if i < 2:
            svg.line(x + 94, 190, x + 146, 190, DIM, 1, "2 3")
            svg.text(x + 120, 184, "10 ms", DIM, 10, "middle")
    svg.rect(352, 106, 116, 42, PAPER)
    svg.line(360, 168, 360, 132, GREEN, 1.4, arrow=True)
    svg.text(354, 122, "OnUDTRecvOutData", GREEN, 10.5, mono=True)
    svg.line(396, 168, 396, 146, GREEN, 1.4, arrow=True)
    svg.text(372, 141, "UdtRecvHandleEvent", GREEN, 10.5, mono=True)

    svg.box(90, 316, 66, 28, "Start", VIOLET, mono=True)
    svg.line(146, 314, 186, 212, VIOLET, 1.2, "4 3", arrow=True)
    svg.box(246, 316, 116, 28, "UDTSetRecv…", VIOLET, mono=True)
    svg.line(330, 314, 352, 212, VIOLET, 1.2, "4 3", arrow=True)
    svg.text(346, 262, "seen by the next turn", DIM, 10.5)
    svg.box(520, 316, 236, 28, "Stop: 200 ms, then waits", VIOLET)
    svg.line(532, 314, 552, 212, VIOLET, 1.2, "4 3", arrow=True)
    svg.text(548, 290, "stop flag", DIM, 10.5)
    svg.box(594, 170, 144, 40, "end report, buffers\nemptied", GREEN, 10.5)
    svg.line(738, 212, 750, 312, GREEN, 1.2, "4 3", arrow=True)
    svg.text(764, 334, "no callback", VIOLET, 11)
    svg.text(764, 348, "after this", VIOLET, 11)
    svg.text(14, 384, "No lock is held while a callback runs. A callback may call every operation of the receiver; it delays "
             "everything else while it runs.", DIM, 11.5)
    return svg


def draw_time():
    svg = Svg(860, 330, "Three clocks and a grid")
    svg.text(14, 24, "the tick clock: 32-bit milliseconds of xp_gettickcount", BLUE, 12.5, bold=True)
    svg.line(40, 62, 830, 62, BLUE, 1.6, arrow=True)
    for i in range(27):
        x = 60 + i * 28
        svg.line(x, 56, x, 68, BLUE, 1)
    svg.text(60, 84, "a turn every 10 ms and what its work took", DIM, 11)
    for i in (4, 9, 14, 19, 24):
        svg.dot(60 + i * 28, 62, ORANGE, 4.5)
    svg.text(60 + 4 * 28, 48, "loss scan: on the first turn 50 ms or more after the last", ORANGE, 11)

    svg.text(14, 128, "the playout clock of one user: milliseconds of the sender's media time", GREEN, 12.5, bold=True)
    svg.line(40, 168, 830, 168, GREEN, 1.6, arrow=True)
    points = [(60, "first release:\nset to its media time"), (270, "real speed"), (430, "12 ms of ticks\nmove it by 9"),
              (590, "12 ms of ticks\nmove it by 13"), (740, "jumps over 5 s\nwithout media")]
    for x, text in points:
        svg.line(x, 162, x, 174, GREEN, 1.4)
        for j, line in enumerate(text.split("\n")):
            svg.text(x, 190 + 13 * j, line, GREEN if j == 0 else DIM, 11)
    svg.line(760, 160, 806, 160, GREEN, 1.4, "3 3", arrow=True)
    svg.text(14, 240, "the transport's clock: 16-bit milliseconds of each datagram's header", VIOLET, 12.5, bold=True)
    svg.line(40, 268, 830, 268, VIOLET, 1.6, arrow=True)
    for x, text in ((60, "0"), (300, "65535 | 0: unwrapped per stream"), (620, "65535 | 0")):
        svg.line(x, 262, x, 274, VIOLET, 1.4)
        svg.text(x, 290, text, DIM, 11)
    svg.text(14, 318, "Spans between ticks are unsigned differences, so the wrap after 49.7 days is harmless.", DIM, 11.5)
    return svg


def draw_playout():
    svg = Svg(860, 330, "What the playout clock of a user goes by")
    y = 104
    svg.line(30, y, 836, y, INK, 1.4, arrow=True)
    svg.text(836, y + 18, "media time", DIM, 11, "end")
    svg.rect(40, y - 16, 216, 32, TINT[DIM], "none")
    for i in range(8):
        svg.rect(52 + i * 25, y - 9, 16, 18, "#d9dee5", "#aab3be")
    svg.text(42, y - 24, "released", DIM, 11.5)
    for i in range(16):
        if i not in (5, 6):
            svg.rect(262 + i * 25, y - 9, 16, 18, TINT[BLUE], BLUE)
    svg.text(300, y - 24, "lost: asked for as long as it lies ahead of the clock", RED, 11)
    svg.rect(262 + 5 * 25, y - 9, 41, 18, TINT[RED], RED)
    svg.line(256, y - 46, 256, y + 64, GREEN, 2)
    svg.text(256, y - 52, "dwTimelineOut, the clock", GREEN, 11.5, "middle", bold=True)
    svg.line(662, y - 46, 662, y + 64, BLUE, 2)
    svg.text(662, y - 52, "dwTimelineIn, the newest media", BLUE, 11.5, "middle", bold=True)
    svg.line(262, y + 44, 656, y + 44, INK, 1.2, arrow=True)
    svg.text(459, y + 38, "dwDataLen, what is buffered", INK, 11.5, "middle")

    y = 216
    svg.text(30, y - 28, "dwDataLen against the target decides the speed", INK, 12.5, bold=True)
    svg.rect(30, y, 250, 30, TINT[ORANGE], ORANGE)
    svg.text(155, y + 19, "below: 3/4 of real time", ORANGE, 11.5, "middle")
    svg.rect(280, y, 170, 30, TINT[GREEN], GREEN)
    svg.text(365, y + 19, "real time", GREEN, 11.5, "middle")
    svg.rect(450, y, 386, 30, TINT[BLUE], BLUE)
    svg.text(643, y + 19, "above: 13/12 of real time", BLUE, 11.5, "middle")
    svg.text(280, y + 46, "target", INK, 11.5, "middle")
    svg.text(450, y + 46, "target + 100 ms (10 in low-latency mode)", INK, 11.5, "middle")
    svg.text(30, y + 78, "target = 1.2 × width of the transit band + extra wait since a loss,  at least wTimelineDelta,  at most "
             "wQueuePeriod", INK, 11.5)
    svg.text(30, y + 98, "extra wait = 1000 ms per 20 % of downlink loss, and 1000 more  (low-latency: 100 ms per 3 %, and 100 "
             "more); 0 before the first loss", DIM, 11.5)
    return svg


def draw_pairing():
    svg = Svg(860, 250, "Audio and video of one user on one clock")
    for y, name, color in ((60, "audio", ORANGE), (140, "video", VIOLET)):
        svg.text(14, y + 4, name, color, 13, bold=True)
        svg.line(80, y, 836, y, "#cbd2da", 1.2)
    for i in range(24):
        svg.rect(90 + i * 30, 50, 20, 20, TINT[ORANGE] if i < 13 else PAPER, ORANGE)
    for i in range(10):
        svg.rect(90 + i * 75, 130, 46, 20, TINT[VIOLET] if i < 5 else PAPER, VIOLET)
    svg.line(420, 30, 420, 190, GREEN, 2)
    svg.text(424, 204, "the user's clock", GREEN, 11.5, bold=True)
    svg.text(424, 220, "video up to here is released", DIM, 11)
    svg.line(480, 30, 480, 90, ORANGE, 2)
    svg.text(486, 34, "audio up to here is released", ORANGE, 11)
    svg.line(424, 94, 476, 94, ORANGE, 1.4, arrow=True)
    svg.text(484, 98, "play delay, as the owner reports it: the sound", DIM, 11)
    svg.text(484, 112, "still has to go through the device", DIM, 11)
    svg.text(90, 204, "filled: released", DIM, 11)
    svg.text(14, 240, "So what is heard and what is shown belong together. Without a report (0) both leave at the same "
             "media time.", DIM, 11.5)
    return svg


def draw_log():
    svg = Svg(860, 300, "Log lines over the life of a stream")
    y = 60
    svg.line(30, y, 838, y, INK, 1.4, arrow=True)
    svg.text(838, y + 18, "time", DIM, 11, "end")
    events = [(60, "first packet", "First pkg isn't I frame", BLUE), (150, "first key frame", "FirstIFrmRecv", BLUE),
              (240, "released", "Chn waiting for output is done\nTimelineOut Init", GREEN),
              (350, "first picture", "I-frame last pkg is out\nfirst I-frm can be decoded", GREEN),
              (480, "a loss is played", "OutPacketVideoNew lost\nCheckPkgRequestFail", RED),
              (620, "6 s of silence", "CheckTimeOut Erase", DIM), (740, "Stop", "UdtRecvEndStatInfo … end\nrun stop...", DIM)]
    for i, (x, name, lines, color) in enumerate(events):
        svg.dot(x, y, color, 4.5)
        svg.text(x, y - 14, name, color, 11, "middle")
        down = y + (44 if i % 2 == 0 else 98)
        svg.line(x, y + 6, x, down - 12, color, 1, "2 3")
        for j, line in enumerate(lines.split("\n")):
            svg.text(x - 20 if x < 700 else x - 60, down + 14 * j, line, color, 10.5, mono=True)
    svg.rect(30, 212, 808, 26, TINT[GREEN], GREEN)
    svg.text(44, 229, "level 4: events and anomalies, a handful a minute", GREEN, 11.5)
    svg.rect(150, 248, 688, 26, TINT[DIM], DIM)
    svg.text(164, 265, "level 5: every packet.  ReceiveNetData → Pkg is duplicated, recv_request_pkg, AdjustLimit → request → OutPacketNew",
             DIM, 11)
    return svg


def draw_limits():
    svg = Svg(860, 220, "Who checks what")
    boxes = [(20, "network", DIM, "any bytes, from\nanybody"), (220, "owner", ORANGE, "who? authenticates\nhow long? checks lengths\nhow much? bounds accounts, rates"),
             (480, "receiver", GREEN, "takes any head\nreads no bytes of the body\nbounds requests and target"),
             (700, "decoder", BLUE, "checks payloads")]
    widths = [130, 190, 150, 140]
    for (x, name, color, text), width in zip(boxes, widths):
        svg.box(x, 36, width, 50, name, color, 14)
        for i, line in enumerate(text.split("\n")):
            svg.text(x + 4, 108 + 16 * i, line, color, 11.5)
    for (x, _, _, _), width, (to, _, _, _) in zip(boxes, widths, boxes[1:]):
        svg.line(x + width + 4, 61, to - 4, 61, INK, 1.4, arrow=True)
    svg.line(186, 20, 186, 176, RED, 1.6, "6 4")
    svg.text(192, 30, "nothing to the left of this is trusted", RED, 11)
    svg.text(20, 204, "Heads are values, not bytes: whatever the owner's parser leaves in a tagUdtPacketHeadInfo is tolerated.", DIM, 11.5)
    return svg


def draw_requests(lab):
    """One gap, as the receiver itself asks for it: nothing is ever answered."""
    example, call = lab.call({"seconds": 1, "users": [{"count": 1}]})
    library, asked, tick = call.lib, [], 0

    def on_request(_context, requests, count):
        asked.extend((tick, requests[i].user_seq) for i in range(count))

    keep = example.REQUEST(on_request)
    nothing = example.OUTPUT(lambda _context, _packet, _delay: None)
    library.udt_recv_destroy(call.recv)
    recv = library.udt_recv_create(ctypes.byref(example.Callbacks(ctypes.sizeof(example.Callbacks), nothing, keep)),
                                   None, example.OWNER_DRIVEN)
    library.udt_clock_set(100000)
    library.udt_recv_start(recv)
    # The warm-up of the first delay is over, and nothing is played: the gap stays ahead of the clock.
    gap_at = 3005
    for tick in range(0, gap_at + 1500):
        library.udt_clock_set(100000 + tick)
        if tick in (gap_at - 20, gap_at):
            seq = 10 if tick < gap_at else 13
            packet = example.Packet(size=ctypes.sizeof(example.Packet), sub_type=example.AUDIO, account=7,
                                    sender_seq=seq, down_seq=seq, media_ms=5000 + 20 * seq)
            library.udt_recv_feed(recv, ctypes.byref(packet))
        if tick % 10 == 0:
            library.udt_recv_run_turn(recv)
    library.udt_recv_destroy(recv)
    times = sorted({t for t, seq in asked if seq == 11})

    svg = Svg(860, 250, "When a gap is asked for")
    scale = 790 / 1300

    def at(value):
        return 40 + (value - gap_at + 60) * scale

    y = 110
    svg.line(30, y, 846, y, INK, 1.4, arrow=True)
    for value in range(0, 1201, 100):
        svg.line(at(gap_at + value), y, at(gap_at + value), y + 6, INK, 1)
        svg.text(at(gap_at + value), y + 20, str(value), DIM, 10.5, "middle")
    svg.text(846, y + 36, "ms since the packet behind the gap came", DIM, 11, "end")
    svg.dot(at(gap_at), y, BLUE, 5)
    svg.text(at(gap_at) - 4, y - 54, "10, then 13:", BLUE, 11, "middle")
    svg.text(at(gap_at) - 4, y - 41, "11 and 12 are missing", BLUE, 11, "middle")
    svg.line(at(gap_at), y - 36, at(gap_at), y - 8, BLUE, 1.2, arrow=True)
    svg.rect(at(gap_at), y + 50, 300 * scale, 22, TINT[ORANGE], ORANGE)
    svg.text(at(gap_at + 150), y + 65, "wFirstGetTime: asked once", ORANGE, 11, "middle")
    svg.rect(at(gap_at + 300), y + 50, at(times[2]) - at(gap_at + 300), 22, TINT[RED], RED)
    svg.text((at(gap_at + 300) + at(times[2])) / 2, y + 90, "two more,", RED, 11, "middle")
    svg.text((at(gap_at + 300) + at(times[2])) / 2, y + 104, "one per scan", RED, 11, "middle")
    svg.rect(at(times[2]), y + 50, 846 - at(times[2]), 22, TINT[GREEN], GREEN)
    svg.text((at(times[2]) + 846) / 2, y + 65, "then one every interval (wNextGetTime, round trip): here 200 ms", GREEN, 11,
             "middle")
    for i, value in enumerate(times):
        svg.line(at(value), y - 26, at(value), y - 4, RED, 2, arrow=True)
        svg.text(at(value), y - 32 - (12 if i == 2 else 0), f"{value - gap_at}", RED, 11, "middle", bold=True)
    svg.text(30, 24, "Requests of one gap that nobody answers", INK, 12.5, bold=True)
    svg.text(30, 238, "Asking ends when the gap is filled, when the playout clock reaches the packet behind it, or when that packet "
             "is cleared.", DIM, 11.5)
    return svg


# ---- Plots ---------------------------------------------------------------------------------------------------------

def plot_timeline(lab):
    """How playout follows a step of the network, from the receiver's own traces."""
    _, log = lab.simulate("handover-step", seconds=None, options=("--log-level", "5"))
    pattern = re.compile(r"^ *([0-9.]+) [45] OutPacket\w*: OutPacketNew Subtype:2 .*?DataLen:(\d+) Jitter:(\d+) "
                         r"Tickout:(\d+) .*Uin:1 ")
    rows = [tuple(map(float, match.groups())) for match in map(pattern.match, log.split("\n")) if match]
    if not rows:
        sys.exit("no OutPacketNew lines in the log of handover-step")
    svg = Svg(860, 300, "Playout over a step of the delay")
    plot = Plot(svg, 0, 6, 860, 290, "handover-step: one way from 25 to 140 ms at 20 s, back at 40 s", "s of the call",
                "ms")
    seconds = {}
    for time, buffered, band, waited in rows:
        if time < 60:
            seconds.setdefault(int(time * 2) / 2, []).append((buffered, band, waited))
    for i, (name, color) in enumerate((("buffered", BLUE), ("band", ORANGE), ("waited", GREEN))):
        plot.add(name, [(t, sum(row[i] for row in found) / len(found)) for t, found in sorted(seconds.items())], color,
                 dots=False)
    plot.mark(20, "")
    plot.mark(40, "")
    plot.draw()
    return svg


def pair(title_left, unit_left, title_right, unit_right, x_title, names):
    svg = Svg(860, 250, x_title)
    return (svg, Plot(svg, 0, 6, 430, 240, title_left, x_title, unit_left, names),
            Plot(svg, 430, 6, 430, 240, title_right, x_title, unit_right, names))


def sweep(lab, scenario, option, values, left, right, titles, x_title, sets=(), seconds=60):
    results = [lab.simulate(scenario, f"{option}={value}", "count_from_s=5", *sets, seconds=seconds)[0]
               for value in values]
    svg, plot_left, plot_right = pair(*titles, x_title, values)
    for plot, series in ((plot_left, left), (plot_right, right)):
        for name, function, color in series:
            plot.add(name, [(i, function(result)) for i, result in enumerate(results)], color)
        plot.draw()
    return svg


def plot_timeline_delta(lab):
    return sweep(lab, "clock-skew", "receiver.timeline_ms", [50, 100, 200, 300, 500, 1000, 2000],
                 [("median", lambda r: delays(r), BLUE), ("95 %", lambda r: delays(r, what="p95"), ORANGE)],
                 [("came back in time", lambda r: 100 * r["all"]["recovered_in_time_share"], GREEN)],
                 ("playout delay of audio", "ms", "lost packets that came back in time to be played", "%"),
                 "wTimelineDelta, ms (clock-skew, low-latency)", sets=("receiver.mode=low-latency",))


def plot_queue_period(lab):
    return sweep(lab, "burst-loss-30", "receiver.timeline_max_ms", [1000, 1500, 2000, 3000, 4000, 6000],
                 [("median", lambda r: delays(r), BLUE), ("95 %", lambda r: delays(r, what="p95"), ORANGE)],
                 [("never played", lambda r: 1000 * r["all"]["gap_packets"] / r["all"]["sent"], RED)],
                 ("playout delay of audio", "ms", "packets that were never played", "‰"),
                 "wQueuePeriod, ms (burst-loss-30)")


def plot_first_request(lab):
    return sweep(lab, "satellite", "receiver.first_request_ms", [200, 300, 500, 700, 1000, 1500],
                 [("requests per lost packet", lambda r: r["all"]["requests_per_lost"], BLUE)],
                 [("answered needlessly", lambda r: 100 * r["all"]["answers_needless"] / r["all"]["answers_sent"], ORANGE)],
                 ("requests", "", "answers that came twice or too late to matter", "%"),
                 "wFirstGetTime, ms (satellite: 600 ms round trip)")


def plot_next_request(lab):
    return sweep(lab, "burst-loss-30", "receiver.next_request_ms", [100, 200, 400, 800, 1600],
                 [("requests per lost packet", lambda r: r["all"]["requests_per_lost"], BLUE)],
                 [("95 %", lambda r: max(s["asked_to_arrived_ms"]["p95"] for s in r["streams"]), ORANGE),
                  ("99 %", lambda r: max(s["asked_to_arrived_ms"]["p99"] for s in r["streams"]), RED)],
                 ("requests", "", "from the first request to the answer", "ms"),
                 "wNextGetTime, ms (burst-loss-30)", sets=("receiver.rtt_every_ms=0",))


def plot_mode(lab):
    names = ["clean-office", "cafe-wifi", "lte-driving", "burst-loss-30", "satellite"]
    svg, left, right = pair("median playout delay of audio", "ms", "packets that were never played", "‰",
                            "wUdtMode: bit 0 (low-latency) clear and set", [n.replace("-", " ", 1) for n in names])
    for mode, color in (("default", BLUE), ("low-latency", ORANGE)):
        results = [lab.simulate(name, f"receiver.mode={mode}", "count_from_s=5")[0] for name in names]
        left.add(mode, list(enumerate(delays(r) for r in results)), color, bars=True)
        right.add(mode, list(enumerate(1000 * r["all"]["gap_packets"] / r["all"]["sent"] for r in results)), color,
                  bars=True)
    left.draw()
    right.draw()
    return svg


def plot_push(lab):
    return sweep(lab, "clean-office", "relay.push_gops", [0, 1, 2, 3],
                 [("picture", lambda r: max(s["first_output_ms"] for s in r["streams"] if s["media"] == "video") - 10000,
                   VIOLET)],
                 [("audio and picture", lambda r: (delays(r) + delays(r, "video")) / 2, BLUE)],
                 ("from joining to the last user's first picture", "ms", "median playout delay", "ms"),
                 "wPushGopNum (clean-office, joined after 10 s)",
                 sets=("receiver.join_s=10",), seconds=40)


def stepped(lab, scenario, params, every_ms, read, seconds):
    """A call of examples/scenario.py with settings, read every so often."""
    example, call = lab.call(scenario, seconds=seconds)

    class Params(ctypes.Structure):
        _fields_ = [("size", ctypes.c_uint32)] + [(name, ctypes.c_uint16) for name in (
            "buffer_max_ms", "buffer_min_ms", "first_request_ms", "next_request_ms", "loss_period_ms", "output_delay_ms",
            "server_delay_ms", "mode", "push_gops", "padding")]

    settings = Params(size=ctypes.sizeof(Params), output_delay_ms=200, push_gops=2)
    for name, value in params.items():
        setattr(settings, name, value)
    call.lib.udt_recv_set_params.argtypes = [ctypes.c_void_p, ctypes.POINTER(Params)]
    call.check(call.lib.udt_recv_set_params(call.recv, ctypes.byref(settings)))
    turn, rows = call.lib.udt_recv_run_turn, []

    def run_turn(recv):
        result = turn(recv)
        if call.now % every_ms == 0:
            rows.append((call.now / 1000, read(call)))
        return result

    class Library:
        def __getattr__(self, name):
            return run_turn if name == "udt_recv_run_turn" else getattr(library, name)

    library, call.lib = call.lib, Library()
    call.run()
    return call, rows


def plot_loss_period(lab):
    class Loss(ctypes.Structure):
        _fields_ = [(name, ctypes.c_uint32) for name in ("size", "loss", "expected", "received", "burst")]

    def read(call):
        loss = Loss(size=ctypes.sizeof(Loss))
        call.lib.udt_recv_get_loss.argtypes = [ctypes.c_void_p, ctypes.POINTER(Loss)]
        call.check(call.lib.udt_recv_get_loss(call.recv, ctypes.byref(loss)))
        return loss.loss / 100

    svg = Svg(860, 250, "wCalcRecvLossTime")
    plot = Plot(svg, 0, 6, 860, 240, "stream loss as UDTCalcRecvLoss tells it, with no request answered", "s of the call (the "
                "sound of burst-loss-30)", "%")
    for period, color in ((2000, BLUE), (10000, ORANGE)):
        scenario = json.loads((SCENARIOS / "burst-loss-30.json").read_text(encoding="utf-8"))
        scenario["request"]["loss_percent"] = 100
        _, rows = stepped(lab, scenario, {"loss_period_ms": period}, 250, read, 40)
        plot.add(f"{period} ms", rows, color, dots=False)
    plot.draw()
    return svg


def check_without_effect(lab):
    """What the parameters page says of three settings: they change nothing that is played, asked for or measured."""
    wanted = None
    for params in ({}, {"output_delay_ms": 0}, {"output_delay_ms": 900}, {"server_delay_ms": 3000}):
        call, _ = stepped(lab, "burst-loss-30", params, 1000, lambda call: 0, 20)
        found = (call.played, call.requests, call.waits)
        if wanted is not None and found != wanted:
            sys.exit(f"{params} has an effect now: tell it in docs/parameters.md, and plot it")
        wanted = found


def main():
    arguments = [one for one in sys.argv[1:] if one != "--check"]
    if len(arguments) != 1:
        sys.exit(__doc__)
    lab = Lab(pathlib.Path(arguments[0]).resolve())
    images = {
        "threads": draw_threads(),
        "time": draw_time(),
        "log": draw_log(),
        "limits": draw_limits(),
        "requests": draw_requests(lab),
        "playout": draw_playout(),
        "pairing": draw_pairing(),
        "playout-step": plot_timeline(lab),
        "param-timeline-delta": plot_timeline_delta(lab),
        "param-queue-period": plot_queue_period(lab),
        "param-first-get-time": plot_first_request(lab),
        "param-next-get-time": plot_next_request(lab),
        "param-udt-mode": plot_mode(lab),
        "param-push-gop-num": plot_push(lab),
        "param-calc-recv-loss-time": plot_loss_period(lab),
    }
    check_without_effect(lab)
    stale = []
    IMAGES.mkdir(exist_ok=True)
    for name, svg in images.items():
        path = IMAGES / f"{name}.svg"
        if not path.exists() or path.read_text(encoding="utf-8") != str(svg):
            stale.append(path.name)
            if "--check" not in sys.argv:
                path.write_text(str(svg), encoding="utf-8")
    if "--check" in sys.argv and stale:
        sys.exit("not what is made now: " + ", ".join(stale) + "; look at them and run docs/make_images.py BUILD")
    print(f"{len(images)} pictures, {len(stale)} of them new")


if __name__ == "__main__":
    main()
