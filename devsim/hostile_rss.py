#!/usr/bin/env python3
"""devsim's peak memory under three hostile loads, for docs/performance.md.

    python3 devsim/hostile_rss.py BUILD CASE [DEVSIM OPTIONS...]

idle20    84,879 generated devices; 20 clients connect and never read while
          `devupdate --list --reboot` runs over the whole list
flood     the built-in fleet; one client sends 200,000 reboots and never reads, another stays idle
held      the built-in fleet; ten clients each send all but the last byte of a 31,000,000-byte message
held-max  the same with messages of 16,777,216 bytes, the largest --max-message allows by default
largest   no hostile client: `devupdate --list --reboot` over 84,879 devices of 376 bytes, a list
          just under 32,000,000 bytes; checks that devsim received every reboot, in order

Prints devsim's VmRSS once it listens and its VmHWM a few seconds after the load, in MB, and
how its clients went. Linux only (/proc)."""
import json
import os
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "testsupport"))
from harness import Devsim, WebSocket  # noqa: E402

build, case, extra = sys.argv[1], sys.argv[2], sys.argv[3:]


def status(pid, key):
    with open("/proc/%d/status" % pid) as f:
        return next(int(line.split()[1]) for line in f if line.startswith(key + ":")) / 1000


def header(size):  # a text frame claiming `size` bytes, masked with a zero key
    return b"\x81\xff" + size.to_bytes(8, "big") + bytes(4)


def padded_fleet(folder, count=84879, size=32000000):
    """The generated devices, each padded so that the list of `count` comes just under `size` bytes."""
    devices = [{"id": "GN%07d" % i, "interfaces": [{"ipAddress": "10.0.%d.%d" % (i // 256 % 256, i % 256),
                "macAddr": "02:00:00:%02x:%02x:%02x" % (i >> 16, i >> 8 & 255, i & 255), "name": "eth0"}],
                "manufacturer": {"id": "acme", "name": "Acme"}, "name": "node-%05d" % i,
                "product": {"id": "x100", "name": "X100 Controller", "version": "2.0.3"}} for i in range(1, count + 1)]
    bare = len(json.dumps({"devices": devices, "msg": "devices"}, separators=(",", ":")))
    for device in devices:
        device["notes"] = "x" * ((size - bare) // count - len(',"notes":""'))
    with open(os.path.join(folder, "fleet.json"), "w") as f:
        json.dump(devices, f)
    return ["--fleet=" + f.name]


with tempfile.TemporaryDirectory() as folder:
    fleet = {"idle20": ["--generate-fleet=84879"], "largest": padded_fleet(folder) if case == "largest" else []}
    sim = Devsim(folder, ["--tick-ms=0"] + fleet.get(case, []) + extra, binary=os.path.join(build, "devsim", "devsim"),
                 record=case == "largest")
    start, held = status(sim.proc.pid, "VmRSS"), []
    try:
        if case in ("idle20", "largest"):
            held = [WebSocket(sim.port) for _ in range(20 if case == "idle20" else 0)]
            tool = os.path.join(build, "cli", "devupdate")
            run = subprocess.run([tool, "--port=%d" % sim.port, "--list", "--reboot"], stdout=subprocess.DEVNULL,
                                 timeout=600)
            print("devupdate --list --reboot: exit status %d" % run.returncode)
            if case == "largest":
                names = [line.split('"')[3] for line in sim.frames().splitlines()]
                print("every reboot received, in order:", names == ["node-%05d" % i for i in range(1, 84880)])
        elif case == "flood":
            held = [WebSocket(sim.port), WebSocket(sim.port)]
            reboot = b'{"msg":"reboot","device":"lobby-panel-01"}'
            try:
                held[1].sock.sendall((b"\x81" + bytes([0x80 | len(reboot)]) + bytes(4) + reboot) * 200000)
            except OSError as e:  # reset when cut off; a timeout when devsim reads no more from it
                print("the flood ended early:", e)
        else:
            size = 31000000 if case == "held" else 16777216
            for _ in range(10):
                held.append(WebSocket(sim.port))
                try:
                    held[-1].sock.sendall(header(size) + b"x" * (size - 1))
                except OSError as e:  # closed at the header
                    print("a message ended early:", e)
        time.sleep(3)  # for devsim to take in what reached it
        print("%s: VmRSS %.0f MB once listening, VmHWM %.0f MB" % (case, start, status(sim.proc.pid, "VmHWM")))
    finally:
        for ws in held:
            ws.__exit__()
        sim.stop()
        print("".join(line for line in open(sim.log_path) if " gone (" in line or "refusing" in line))
