#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Measures one sync of skorra-ntp, chronyd -Q and ntpdig with the same server: peers.py [OPTIONS] PATH_OF_SKORRA_NTP

The server is a chronyd that shows this machine's clock, so the true offset is 0. It is asked on loopback, and through a
relay that adds exponential jitter: 5 ms in both directions, and 10 ms in one. All of it runs in a network namespace of
its own, where port 123 is free: ntpdig asks no other. Exit status 77 where there can be no such namespace.
"""

import argparse
import heapq
import json
import os
import pathlib
import random
import re
import select
import shutil
import socket
import statistics
import subprocess
import sys
import tempfile
import threading
import time

SERVER, RELAY = "127.0.0.1", "127.0.0.2"
NETWORKS = {"loopback": (0.0, 0.0), "symmetric": (0.005, 0.005), "one-sided": (0.010, 0.0)}
# The clock's best estimate, and the trimmed mean of its manager, of the same syncs.
OURS, MANAGER = "skorra-ntp sync", "skorra-ntp, manager"
CHRONY = "chronyd -Q iburst"
# To reach, as ratios of skorra-ntp sync to the row named.
TARGETS = [("loopback", "time_s", CHRONY, 1 / 15), ("loopback", "cpu_s", CHRONY, 1.0),
           ("loopback", "memory_kib", CHRONY, 1.0), ("symmetric", "mean_error_s", CHRONY, 0.3),
           ("symmetric", "mean_error_s", MANAGER, 1.0), ("one-sided", "mean_error_s", MANAGER, 0.145)]
CHRONY_OFFSET = re.compile(r"System clock wrong by (-?[0-9.]+) seconds")


def relay(mean_there_s, mean_back_s, seed):
    """Passes datagrams on, each direction's after a delay of its own."""
    draw = random.Random(seed)
    front = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
    front.bind((RELAY, 123))
    backs, under_way, number = {}, [], 0
    while True:
        wait_s = max(0.0, under_way[0][0] - time.monotonic()) if under_way else None
        ready, _, _ = select.select([front, *backs.values()], [], [], wait_s)
        for source in ready:
            data, address = source.recvfrom(1024)
            if source is front:
                if address not in backs:
                    backs[address] = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
                    backs[address].connect((SERVER, 123))
                step, mean_s = backs[address].send, mean_there_s
            else:
                client = next(client for client, back in backs.items() if back is source)
                step, mean_s = (lambda bytes_, to=client: front.sendto(bytes_, to)), mean_back_s
            number += 1
            due = time.monotonic() + (draw.expovariate(1 / mean_s) if mean_s else 0.0)
            heapq.heappush(under_way, (due, number, step, data))
        while under_way and under_way[0][0] <= time.monotonic():
            _, _, step, data = heapq.heappop(under_way)
            step(data)


def tools(program, folder):
    """Of each tool: its command for a server, and how to find each of its offsets in what it prints."""
    def chronyd(options):
        return lambda server: ["chronyd", "-Q", "-t", "20", "-u", "root", f"server {server} {options}", "cmdport 0",
                               f"pidfile {folder}/client.pid"]

    def ntpdig(samples):
        return lambda server: ["ntpdig", "-j", "-p", str(samples), server]

    def of_json(key, scale):
        return lambda text: json.loads(text[text.index("{"):])[key] * scale

    def of_chrony(text):
        return float(CHRONY_OFFSET.search(text)[1])

    found = {OURS: (lambda server: [program, "sync", "--json", server],
                    {OURS: of_json("offset_us", 1e-6), MANAGER: of_json("manager_offset_us", 1e-6)})}
    others = {CHRONY: (chronyd("iburst"), of_chrony),
              "chronyd -Q, one sample": (chronyd("iburst maxsamples 1"), of_chrony)}
    if shutil.which("ntpdig"):
        others["ntpdig, 1 sample"] = (ntpdig(1), of_json("offset", 1.0))
        others["ntpdig, 20 samples"] = (ntpdig(20), of_json("offset", 1.0))
    return found | {name: (command, {name: offset_of}) for name, (command, offset_of) in others.items()}


def watch_memory(pid, peaks):
    """The largest resident size of a process so far, noted every 5 ms. The kernel's own account at its end would count
    the Python that became it, too."""
    try:
        while True:
            status = pathlib.Path(f"/proc/{pid}/status").read_text(encoding="utf-8")
            peaks.append(int(re.search(r"VmHWM:\s+(\d+)", status)[1]))
            time.sleep(0.005)
    except (OSError, TypeError):
        pass  # it has ended


def run(command):
    """The output of a command, and what it cost."""
    with tempfile.TemporaryFile("w+") as out:
        start = time.monotonic()
        child = subprocess.Popen(command, stdout=out, stderr=subprocess.STDOUT)
        peaks = []
        threading.Thread(target=watch_memory, args=(child.pid, peaks)).start()
        _, status, usage = os.wait4(child.pid, 0)
        took_s = time.monotonic() - start
        child.returncode = os.waitstatus_to_exitcode(status)
        out.seek(0)
        text = out.read()
    return text, {"time_s": took_s, "cpu_s": usage.ru_utime + usage.ru_stime, "memory_kib": max(peaks, default=0)}


def count_calls(command):
    with tempfile.NamedTemporaryFile("r") as out:
        subprocess.run(["strace", "-f", "-c", "-U", "calls,name", "-o", out.name, *command],
                       stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
        total = re.search(r"^ *([0-9]+) +total$", out.read(), re.M)
    return int(total[1]) if total else None


def measure(command, offsets_of, syncs):
    """A row of figures for each offset that the tool prints. What a sync cost stands in the first row."""
    costs, errors = [], {name: [] for name in offsets_of}
    first = next(iter(offsets_of))
    for _ in range(syncs):
        text, cost = run(command)
        try:
            found = {name: abs(offset_of(text)) for name, offset_of in offsets_of.items()}
        except (ValueError, TypeError, KeyError):
            print(f"{first}: no offset in what it printed:\n{text}", file=sys.stderr)
            continue
        costs.append(cost)
        for name, error in found.items():
            errors[name].append(error)
    if not costs:
        return {name: {"syncs": 0} for name in offsets_of}
    rows = {name: {"syncs": len(of_name), "median_error_s": statistics.median(of_name),
                   "mean_error_s": statistics.mean(of_name), "worst_error_s": max(of_name)}
            for name, of_name in errors.items()}
    rows[first] |= {key: statistics.median(cost[key] for cost in costs) for key in costs[0]}
    rows[first]["calls"] = count_calls(command)
    return rows


def start_server(folder):
    config = pathlib.Path(folder, "chrony.conf")
    config.write_text(f"port 123\nbindaddress {SERVER}\nlocal stratum 8\nallow all\ncmdport 0\nbindcmdaddress /\n"
                      f"pidfile {folder}/chronyd.pid\n", encoding="utf-8")
    server = subprocess.Popen(["chronyd", "-x", "-d", "-U", "-u", "root", "-f", config],
                              stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    with socket.socket(socket.AF_INET, socket.SOCK_DGRAM) as client:
        client.settimeout(0.1)
        for _ in range(100):
            try:
                client.sendto(b"\x23" + bytes(47), (SERVER, 123))
                if client.recv(1024)[1] == 8:
                    return server
            except OSError:
                time.sleep(0.05)
    server.terminate()
    raise SystemExit("peers: chronyd does not serve")


def measure_all(options):
    results = {}
    with tempfile.TemporaryDirectory() as folder:
        children = [start_server(folder)]
        try:
            for network, means in ((name, NETWORKS[name]) for name in options.networks):
                if network != "loopback":
                    children.append(subprocess.Popen([sys.executable, __file__, "--relay", *map(str, means)]))
                    time.sleep(0.5)
                results[network] = {}
                for command, offsets_of in tools(options.program, folder).values():
                    server = SERVER if network == "loopback" else RELAY
                    results[network] |= measure(command(server), offsets_of, options.syncs)
                if network != "loopback":
                    children[-1].terminate()
                    children.pop().wait()
        finally:
            for child in children:
                child.terminate()
                child.wait()
    return results


def print_table(results):
    print(f"{'network':10} {'tool':23} {'syncs':>5} {'time ms':>9} {'CPU ms':>7} {'MiB':>6} {'calls':>6} "
          f"{'error us: median':>17} {'mean':>8} {'worst':>8}")
    for network, rows in results.items():
        for name, row in rows.items():
            if not row["syncs"]:
                print(f"{network:10} {name:23}     0")
                continue
            costs = " " * 31  # those of the row before
            if "time_s" in row:
                costs = (f"{row['time_s'] * 1e3:9.1f} {row['cpu_s'] * 1e3:7.1f} {row['memory_kib'] / 1024:6.1f} "
                         f"{row['calls'] or 0:6}")
            print(f"{network:10} {name:23} {row['syncs']:5} {costs} {row['median_error_s'] * 1e6:17.1f} "
                  f"{row['mean_error_s'] * 1e6:8.1f} {row['worst_error_s'] * 1e6:8.1f}")
    print(f"\n{OURS}, as a ratio:")
    for network, key, other, target in TARGETS:
        if network not in results:
            continue
        ours, theirs = (results[network][name] for name in (OURS, other))
        if ours["syncs"] and theirs["syncs"] and theirs[key]:
            ratio = ours[key] / theirs[key]
            print(f"  {network:10} {key:13} to {other:20} {ratio:6.3f}, to reach {target:.3f}: "
                  f"{'yes' if ratio <= target else 'no'}")


def expect_writable(path, parser):
    """Says so before the measuring, not after it, if the file cannot be written."""
    try:
        with open(path, "a", encoding="utf-8"):
            pass
    except OSError as error:
        parser.error(f"cannot write '{path}': {error.strerror}")


def main():
    if sys.argv[1:2] == ["--relay"]:
        return relay(float(sys.argv[2]), float(sys.argv[3]), 1)
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("program")
    parser.add_argument("--syncs", type=int, default=30, help="of each tool on each network (default 30)")
    parser.add_argument("--networks", nargs="+", choices=NETWORKS, default=list(NETWORKS), help="default: all")
    parser.add_argument("--json", metavar="FILE", help="write the figures, too")
    parser.add_argument("--inside", action="store_true", help=argparse.SUPPRESS)
    options = parser.parse_args()
    if options.syncs < 1:
        parser.error("--syncs is 1 at least")
    if options.json:
        expect_writable(options.json, parser)
    if not options.inside:
        shell = 'ip link set lo up && exec "$@"'
        enter = ["unshare", "--net", *([] if os.getuid() == 0 else ["--map-root-user"])]
        if not shutil.which("chronyd") or subprocess.run([*enter, "ip", "link", "set", "lo", "up"],
                                                         stderr=subprocess.DEVNULL).returncode != 0:
            print("SKIPPED: no chronyd here, or no network namespace can be made")
            return 77
        return subprocess.run([*enter, "sh", "-c", shell, "sh", sys.executable, __file__, "--inside",
                               *sys.argv[1:]]).returncode
    results = measure_all(options)
    print_table(results)
    if options.json:
        pathlib.Path(options.json).write_text(json.dumps(results, indent=1) + "\n", encoding="utf-8")
    return 0 if all(rows[OURS]["syncs"] == options.syncs for rows in results.values()) else 1


if __name__ == "__main__":
    sys.exit(main())
