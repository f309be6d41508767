#!/usr/bin/env python3
"""Times how long devsim takes from its start until it listens, serving a fleet file of N
devices, for several N: linear loading shows as a steady time per device.

    python3 bench/fleet_load.py [BUILD] [RUNS] [N...]     # defaults: build 5 21220 42440 84879

The files hold devices like those of --generate-fleet (84,879 is the most a list message can
carry). Prints the median seconds per size and the microseconds per device.
"""
import json
import os
import statistics
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "testsupport"))
from harness import Devsim  # noqa: E402

build = sys.argv[1] if len(sys.argv) > 1 else "build"
runs = int(sys.argv[2]) if len(sys.argv) > 2 else 5
sizes = [int(n) for n in sys.argv[3:]] or [21220, 42440, 84879]
devsim = os.path.join(build, "devsim", "devsim")


def device(i):
    maker, model, version = (("acme", "X100 Controller", "2.0.3"), ("northwind", "NW-200 Gateway", "4.1.0"))[i % 2]
    return {"id": "GN%07d" % (i + 1), "name": "node-%05d" % (i + 1),
            "manufacturer": {"id": maker, "name": maker.capitalize()},
            "product": {"id": model.split()[0].lower(), "name": model, "version": version},
            "interfaces": [{"name": "eth0", "ipAddress": "10.%d.%d.%d" % (i >> 16 & 255, i >> 8 & 255, i & 255),
                            "macAddr": "02:00:00:%02x:%02x:%02x" % (i >> 16 & 255, i >> 8 & 255, i & 255)}]}


with tempfile.TemporaryDirectory() as folder:
    print("%8s %10s %14s  (median of %d runs)" % ("devices", "seconds", "us per device", runs))
    for n in sizes:
        path = os.path.join(folder, "fleet%d.json" % n)
        with open(path, "w") as f:
            json.dump([device(i) for i in range(n)], f)
        times = []
        for _ in range(runs):
            start = time.perf_counter()
            sim = Devsim(folder, ["--fleet=" + path], binary=devsim)
            times.append(time.perf_counter() - start)
            sim.stop()
        median = statistics.median(times)
        print("%8d %10.3f %14.1f" % (n, median, median / n * 1e6))
