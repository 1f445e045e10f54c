#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""An NTP server whose very first reply is an hour ahead of its others.

A program that takes a reading of the manager before the outcome of its attempt, which is the first reply alone, is an
hour off. One that waits for the outcome is right: the lie is trimmed off. NtpClock tells nothing of replies that
contradict each other: it tells the time of its second attempt. Prints "listening on HOST:PORT", and ends with SIGTERM.

usage: first_reply_lies.py HOST:PORT CLOCK_ERROR_S
"""
import signal
import socket
import struct
import sys
import time

LIE_S = 3600
SECONDS_FROM_1900_TO_1970 = 2208988800
SERVER_MODE = 0x24  # no leap second, version 4, mode 4


def time_stamp(error_s):
    return int((time.time() + SECONDS_FROM_1900_TO_1970 + error_s) * 2**32) % 2**64


def main():
    host, port = sys.argv[1].rsplit(":", 1)
    error_s = int(sys.argv[2])
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(0))
    server = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    server.bind((host, int(port)))
    print(f"listening on {host}:{server.getsockname()[1]}", flush=True)
    is_first = True
    while True:
        request, client = server.recvfrom(1000)
        if len(request) < 48:
            continue
        now = time_stamp(error_s + LIE_S if is_first else error_s)
        is_first = False
        # Stratum 2, poll, precision, root delay, root dispersion, reference identifier, then the four time stamps.
        head = struct.pack("!BBbbIIIQ", SERVER_MODE, 2, 6, -20, 0, 0, 0x7f000001, now)
        server.sendto(head + request[40:48] + struct.pack("!QQ", now, now), client)


if __name__ == "__main__":
    main()
