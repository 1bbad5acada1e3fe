#!/usr/bin/env python3
"""Makes the recordings that the shipped scenarios play: synthetic, ours, the same on every run.

lte-driving.down  mahimahi form: a cell whose rate wanders between 0.3 and 9 Mbit/s, with handovers of 0.1 to 0.5 s
cafe-wifi.ping    text of ping: 8 ms with bursts of contention to 120 ms, and an echo missing now and then
"""
import math
import os

HERE = os.path.dirname(os.path.abspath(__file__))


class Random:
    """A plain linear congruential generator: independent of the Python version."""

    def __init__(self, seed):
        self.state = seed

    def uniform(self):
        self.state = (self.state * 6364136223846793005 + 1442695040888963407) % 2**64
        return (self.state >> 11) / 2**53


def lte_driving(path):
    rnd = Random(1)
    log_rate, target, credit, lines, outage_left = math.log(3.0), math.log(3.0), 0.0, [], 0
    for ms in range(1, 40001):
        if ms % 2000 == 0:
            target = math.log(0.5 + 7.5 * rnd.uniform() ** 1.5)
        log_rate += (target - log_rate) * 0.002 + (rnd.uniform() - 0.5) * 0.04
        rate = min(9.0, max(0.3, math.exp(log_rate)))
        if ms % 9000 == 0:
            outage_left = 100 + int(400 * rnd.uniform())
        if outage_left > 0:
            outage_left -= 1
            continue
        credit += rate * 1000 / 8 / 1500
        while credit >= 1:
            credit -= 1
            lines.append(str(ms))
    with open(path, "w") as out:
        out.write("\n".join(lines) + "\n")


def cafe_wifi(path):
    rnd = Random(2)
    busy = 0.0
    with open(path, "w") as out:
        out.write("PING relay.example (192.0.2.1) 56(84) bytes of data.\n")
        for seq in range(1, 181):
            busy = busy * 0.7 + (60 * rnd.uniform() if rnd.uniform() < 0.15 else 0)
            if rnd.uniform() < 0.01:
                continue
            rtt = 8 + 4 * rnd.uniform() + busy
            out.write("64 bytes from 192.0.2.1: icmp_seq=%d ttl=57 time=%.1f ms\n" % (seq, rtt))


if __name__ == "__main__":
    lte_driving(os.path.join(HERE, "lte-driving.down"))
    cafe_wifi(os.path.join(HERE, "cafe-wifi.ping"))
