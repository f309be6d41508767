#!/usr/bin/env python3
"""Times `devupdate --list` and `devupdate --list --reboot` over the same generated fleet
served by devsim, and checks that devsim received every reboot request, in order.

    python3 bench/list_reboot.py [BUILD] [DEVICES] [RUNS]     # defaults: build 84879 5

Each sample gets a fresh devsim (so that the news it sends after a reboot run cannot
slow the next one) and a warm-up list run first (so that devsim's one-off serialisation
of the list is not timed). Prints the median wall-clock time of each, in seconds.
"""
import os
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "testsupport"))
from harness import Devsim  # noqa: E402

build = sys.argv[1] if len(sys.argv) > 1 else "build"
devices = int(sys.argv[2]) if len(sys.argv) > 2 else 84879
runs = int(sys.argv[3]) if len(sys.argv) > 3 else 5
tool, devsim = os.path.join(build, "cli", "devupdate"), os.path.join(build, "devsim", "devsim")


def sample(args, folder):
    sim = Devsim(folder, ["--tick-ms=0", "--generate-fleet=%d" % devices], binary=devsim, record=True)
    try:
        list_run = [tool, "--port=%d" % sim.port, "--list"]
        subprocess.run(list_run, stdout=subprocess.DEVNULL, check=True, timeout=600)
        start = time.perf_counter()
        subprocess.run(list_run[:2] + args, stdout=subprocess.DEVNULL, check=True, timeout=600)
        elapsed = time.perf_counter() - start
        record = sim.frames(clients=2, timeout=600)  # devsim has read all the second run sent
    finally:
        sim.stop()
    if "--reboot" in args:
        got = [line.split('"')[3] for line in record.splitlines()]
        want = ["node-%05d" % n for n in range(1, devices + 1)]
        if got != want:
            sys.exit("devsim received %d of %d reboot requests (or out of order)" % (len(got), devices))
    return elapsed


with tempfile.TemporaryDirectory() as folder:
    for args in (["--list"], ["--list", "--reboot"]):
        times = [sample(args, folder) for _ in range(runs)]
        print("%-18s %d devices: median %.3f s (min %.3f, max %.3f, %d runs)" %
              (" ".join(args), devices, statistics.median(times), min(times), max(times), runs))
