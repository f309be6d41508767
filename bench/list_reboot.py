#!/usr/bin/env python3
"""Times `devupdate --list` and `devupdate --list --reboot` over the same generated fleet
served by devsim, and checks that devsim received every reboot request, in order.

    python3 bench/list_reboot.py [BUILD] [DEVICES] [RUNS]     # defaults: build 84879 5

Each sample gets a fresh devsim (so that the news it sends after a reboot run cannot
slow the next one) and a warm-up list run first (so that devsim's one-off serialisation
of the list is not timed). Prints the median wall-clock time of each, in seconds.
"""
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

build = sys.argv[1] if len(sys.argv) > 1 else "build"
devices = int(sys.argv[2]) if len(sys.argv) > 2 else 84879
runs = int(sys.argv[3]) if len(sys.argv) > 3 else 5
tool, devsim = os.path.join(build, "cli", "devupdate"), os.path.join(build, "devsim", "devsim")


def sample(args, folder):
    record, log_path = os.path.join(folder, "rec"), os.path.join(folder, "log")
    for path in (record, log_path):
        if os.path.exists(path):
            os.remove(path)
    with open(log_path, "wb") as log:
        sim = subprocess.Popen([devsim, "--port=0", "--tick-ms=0", "--generate-fleet=%d" % devices,
                                "--record=" + record], stdout=subprocess.PIPE, stderr=log)
    try:
        port = re.search(rb":(\d+)$", sim.stdout.readline().strip()).group(1).decode()
        subprocess.run([tool, "--port=" + port, "--list"], stdout=subprocess.DEVNULL, check=True)
        start = time.perf_counter()
        subprocess.run([tool, "--port=" + port, *args], stdout=subprocess.DEVNULL, check=True)
        elapsed = time.perf_counter() - start
        while open(log_path).read().count(" gone (") < 2:  # devsim has read all the second run sent
            time.sleep(0.05)
    finally:
        sim.terminate()
        sim.wait()
    if "--reboot" in args:
        got = [line.split('"')[3] for line in open(record)]
        want = ["node-%05d" % n for n in range(1, devices + 1)]
        if got != want:
            sys.exit("devsim received %d of %d reboot requests (or out of order)" % (len(got), devices))
    return elapsed


with tempfile.TemporaryDirectory() as folder:
    for args in (["--list"], ["--list", "--reboot"]):
        times = [sample(args, folder) for _ in range(runs)]
        print("%-18s %d devices: median %.3f s (min %.3f, max %.3f, %d runs)" %
              (" ".join(args), devices, statistics.median(times), min(times), max(times), runs))
