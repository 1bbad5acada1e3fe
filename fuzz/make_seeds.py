#!/usr/bin/env python3
"""fuzz/make_seeds.py FOLDER: writes first files for every fuzzer, from what is in the tree."""
import pathlib
import random
import struct
import sys

root = pathlib.Path(__file__).resolve().parent.parent
out = pathlib.Path(sys.argv[1])
captures = root / "data/rtp"


def put(door, name, data):
    folder = out / door
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(data if isinstance(data, bytes) else data.encode())


def pcap_frames(path):
    data, at = path.read_bytes(), 24
    while at + 16 <= len(data):
        length = struct.unpack_from("<I", data, at + 8)[0]
        yield at, data[at + 16 : at + 16 + length]
        at += 16 + length


def pcapng_blocks(path):
    data, at = path.read_bytes(), 0
    while at + 12 <= len(data):
        kind, length = struct.unpack_from("<II", data, at)
        yield at, kind, data[at : at + length]
        at += length


def udp_payload(frame):
    ip = frame[14:] if frame[12:14] == b"\x08\x00" else frame[16:]
    head = (ip[0] & 15) * 4
    return ip[head + 8 :] if ip[0] >> 4 == 4 and ip[9] == 17 else b""


def rtp_input(setup, payloads):
    data = bytes([setup])
    for i, payload in enumerate(payloads):
        payload = payload[:300]
        data += struct.pack("<H", len(payload) | (i & 1) << 12) + payload
    return data


# ---- rtp, reader ----
pcaps = {path.stem: path for path in captures.glob("*.pcap")}
for name, path in pcaps.items():
    frames = list(pcap_frames(path))
    put("reader", name + ".pcap", path.read_bytes()[: frames[6][0]])
    put("reader", name + ".cut", path.read_bytes()[: frames[3][0] - 7])
    put("reader", name + ".frame", bytes([0, 0, 0, 0]) + frames[1][1][:400])
    payloads = [p for p in (udp_payload(frame) for _, frame in frames) if p]
    for setup in (0, 17, 6):
        put("rtp", f"{name}-{setup}", rtp_input(setup, payloads[:12]))
ng = captures / "h264-opus-rtx-lab-31s.pcapng"
blocks = list(pcapng_blocks(ng))
put("reader", "lab.pcapng", ng.read_bytes()[: blocks[9][0]])
payloads = []
for _, kind, block in blocks:
    if kind == 6:
        length = struct.unpack_from("<I", block, 20)[0]
        payload = udp_payload(block[28 : 28 + length])
        if payload:
            payloads.append(payload)
rtcp = [p for p in payloads if 192 <= p[1] <= 223]
rtx = [p for p in payloads if p[1] & 127 in (97, 99)]
for setup in (0, 16, 17, 8 | 1 << 5):
    put("rtp", f"lab-{setup}", rtp_input(setup, payloads[:10]))
    put("rtp", f"lab-rtcp-{setup}", rtp_input(setup, rtcp[:8] + payloads[40:44]))
    put("rtp", f"lab-rtx-{setup}", rtp_input(setup, payloads[100:104] + rtx[:4]))
dump = next(captures.glob("*.rtpdump")).read_bytes()
put("reader", "reorder.rtpdump", dump[:1500])

# ---- capture: changes ----
for which in range(4):
    for flags in (0, 4, 64):
        put("capture", f"whole-{which}-{flags}", bytes([which | flags, 0, 0, 127, 127]))
    put("capture", f"lossy-{which}", bytes([which, 40, 0]) + bytes([20, 0x8A, 3, 30, 0x8C, 4, 10, 0x8B, 5, 0x8D, 30, 0, 60]))
    put("capture", f"odd-{which}", bytes([which, 10, 0]) + b"".join(bytes([9, 0x80 | how, 7, 1, 2, 3]) for how in range(16)))

# ---- calls ----
rng = random.Random(1)
for n in range(12):
    calls = bytes([n])
    for i in range(60):
        sender = rng.randrange(6)
        how = rng.choice([0, 0, 0, 0, 0x20, 0x40])
        calls += bytes([0, sender | how]) + (bytes([rng.randrange(256), rng.randrange(256)]) if how else b"")
        calls += bytes([0x80]) if i % 3 == 2 else b""
        if n > 4 and i % 10 == 9:
            calls += bytes([0xC0 | rng.randrange(32), rng.randrange(256), rng.randrange(256)])
        if n > 8 and i % 12 == 11:
            calls += bytes([0xE0 | rng.randrange(20), rng.randrange(256), rng.randrange(256), rng.randrange(256)])
    put("lockstep", f"calls-{n}", calls)
    put("receiver", f"calls-{n}", calls.replace(b"\x80", b"\x90"))

# ---- text ----
for path in (root / "lab/scenarios").glob("*.json"):
    put("text", path.name, b"s" + path.read_bytes())
for path in (root / "lab/scenarios/traces").iterdir():
    lines = b"\n".join(path.read_bytes().split(b"\n")[:12])
    if path.suffix in (".ping", ".down"):
        for letter in ("rl" if path.suffix == ".down" else "dl"):
            put("text", f"{path.stem}-{letter}", letter.encode() + lines)
table = "Timestamp,DL_bitrate,UL_bitrate,PINGAVG,PINGLOSS\n2019.12.14_10.16.30,100,20,35.5,0\n2019.12.14_10.16.31,200,30,40,10\n"
for letter in "rudl":
    put("text", f"table-{letter}", letter + table)
put("text", "pattern", "l0\n0\n1\n0\n1\n1\n")
grid = "# udtlab-matrix 1 cells=2 seed=1\ncell,loss_percent,checks\n"
put("text", "grid", "m" + grid + "0,1,ok\n--\n" + grid + "1,2,broken\n")
put("text", "list", "g1,5:20:5,30%")
put("text", "shard", "g2/5")
put("text", "map", "p96=H264/90000")
put("text", "map-rtx", "p99=rtx:96")
put("text", "options", "odown.loss_percent=5\nusers.0.count=2\nusers.video.kbps=300\nreceiver.low_latency=true\n")
put("text", "options-2", "odown.jitter_ms=20\nusers.leave_s=0.2\ndown.outages=[[0.1,50]]\nrelay.push_gops=2\n")

# ---- maps ----
for door in ("xpmap", "seqmap", "pktmap"):
    for n in range(6):
        put(door, f"random-{n}", bytes(rng.randrange(256) for _ in range(40 * (n + 1))))
