#!/usr/bin/env python3
"""Times `devupdate --list --reboot` over the largest device list against each service the suite
runs the tool against: devsim, the raw-socket peer and the peer on Python's websockets (see
testsupport/peers.py). Every service answers each reboot at once; every run must exit 0, print
every device and have every reboot read by the service, in order.

    python3 bench/peers.py [BUILD] [DEVICES] [RUNS]     # defaults: build 84879 3

The list is padded to 31,999,702 bytes: 84,879 devices of about 376 bytes each, the largest list
that fits the transport's 32,000,000-byte message. Prints, per service, the median (min to max)
wall time of the run, the tool's CPU time and its peak RSS. A fresh service for every run; its
start (devsim loads the list from a file) is not timed. The websockets peer needs Debian's
python3-websockets, installed for /usr/bin/python3.
"""
import json
import os
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "testsupport"))
from harness import Devsim  # noqa: E402
from peers import RawPeer, WebsocketsPeer, fleet  # noqa: E402

LARGEST = 31999702  # bytes of the largest "devices" message of about 375-byte devices under 32,000,000
build = sys.argv[1] if len(sys.argv) > 1 else "build"
count = int(sys.argv[2]) if len(sys.argv) > 2 else 84879
runs = int(sys.argv[3]) if len(sys.argv) > 3 else 3
tool, devsim = os.path.join(build, "cli", "devupdate"), os.path.join(build, "devsim", "devsim")
devices = fleet(count, LARGEST if count == 84879 else None)
reboots = "".join('{"device":"%s","msg":"reboot"}\n' % device["name"] for device in devices)


def sample(kind, folder, fleet_file):
    if kind == "devsim":
        service = Devsim(folder, ["--tick-ms=0", "--fleet=" + fleet_file], binary=devsim, record=True)
    else:
        service = {"raw": RawPeer, "websockets": WebsocketsPeer}[kind](devices)
    try:
        start = time.perf_counter()
        run = subprocess.Popen([tool, "--port=%d" % service.port, "--list", "--reboot"], stdout=subprocess.PIPE)
        lines = sum(1 for _ in run.stdout)
        _, status, usage = os.wait4(run.pid, 0)
        elapsed = time.perf_counter() - start
        read = service.frames(timeout=600)
    finally:
        service.stop()
    if status != 0 or lines != count or read != reboots:
        sys.exit("%s: status %d, %d lines, %d of %d reboots read (or out of order)" %
                 (kind, status, lines, read.count("\n"), count))
    return elapsed, usage.ru_utime + usage.ru_stime, usage.ru_maxrss / 1024


with tempfile.TemporaryDirectory() as folder:
    fleet_file = os.path.join(folder, "fleet.json")
    with open(fleet_file, "w") as f:
        json.dump(devices, f)
    for kind in ("devsim", "raw", "websockets"):
        samples = [sample(kind, folder, fleet_file) for _ in range(runs)]
        wall, cpu, rss = zip(*samples)
        print("%-10s %d devices, --list --reboot: %.2f s (%.2f to %.2f), tool CPU %.2f s, peak RSS %.0f MiB, %d runs"
              % (kind, count, statistics.median(wall), min(wall), max(wall), statistics.median(cpu), max(rss), runs))
