#!/usr/bin/env python3
"""Times devupdate against bench/floor, the least work a client on the same stack can do,
each served by a fresh devsim that sends as fast as it can (--tick-ms=0), or, for the
reboot cases, by a fresh bench/reboot_service.

    python3 bench/throughput.py [options] [CASE...]

Cases (default: list-10000 list-84879 storm-100000 live-10000; the reboot cases by name):
  list-N    devsim --generate-fleet=N; client --list
  storm-M   one device, one upgrade with M progress events; client --file=fw.bin
  live-N    devsim --generate-fleet=N --close-after=2N+1; client --list --long-lived, while
            `devupdate --list --reboot` makes devsim announce every device lost and found
            again; devsim then closes, which ends both clients with status 1
  reboot-N  reboot_service --devices=N; client --list --reboot: N device lines and one
            reboot request per device, each answered at once with "device_removed" and
            "device_added" (as devsim answers); the run ends when the service has read
            them all and closed. bench/pyclient.py runs too (with a python3 that has the
            websockets package; Debian's python3-websockets)
  rebootquiet-N  the same, but the service reads the requests without answering

Every run gets a fresh devsim whose list is already serialised (devsim does that before it
listens) and that has served one connection, or a fresh reboot_service (its frames are
built before it listens). The clients take turns, and their output and exit status must be
the same, byte for byte, in every run; in a reboot case the service must have read every
request, in order, and nothing else. Prints, per case and
client, the median wall time, the median CPU time (user + system) and the largest peak RSS
(from GNU time where there is one), and the tool / floor ratios. In a storm or a live run
devsim does more work per message than either client, so wall times there mostly measure
devsim: compare CPU times.

Options:
  --build=DIR       build folder holding cli/devupdate, devsim/devsim, bench/floor and
                    bench/reboot_service (build)
  --tool=PATH       the tool to measure (DIR/cli/devupdate), e.g. an older build
  --runs=N          timed runs per client and case (5)
  --callgrind=DIR   instead of timing, run each client once under valgrind's callgrind and
                    print instruction counts; profiles, outputs and each profile's top
                    functions go to DIR (default cases then: list-10000 storm-20000 live-2000;
                    valgrind comes from Debian: apt-get install valgrind)
"""
import hashlib
import os
import re
import statistics
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "testsupport"))
from harness import Devsim, WebSocket, slurp  # noqa: E402

LIMIT = 32000000  # the transport's largest message


def parse_args(argv):
    opts = {"build": "build", "tool": None, "runs": 5, "callgrind": None}
    cases = []
    for arg in argv:
        key, _, value = arg.partition("=")
        if key.startswith("--") and key[2:] in opts:
            opts[key[2:]] = int(value) if key == "--runs" else value
        elif re.fullmatch(r"(list|storm|live|reboot|rebootquiet)-\d+", arg):
            cases.append(arg)
        else:
            sys.exit(__doc__)
    if not cases:
        cases = ["list-10000", "storm-20000", "live-2000"] if opts["callgrind"] else \
            ["list-10000", "list-84879", "storm-100000", "live-10000"]
    return opts, cases


def scenario(case):
    """devsim's arguments, the client's arguments, whether a reboot driver runs."""
    kind, n = case.split("-")
    n = int(n)
    if kind == "list":
        return ["--generate-fleet=%d" % n], ["--list"], False
    if kind.startswith("reboot"):
        return ["--devices=%d" % n] + (["--quiet"] if kind == "rebootquiet" else []), ["--list", "--reboot"], False
    if kind == "storm":
        return ["--generate-fleet=1", "--progress-steps=%d" % n], ["--file=fw.bin"], False
    return ["--generate-fleet=%d" % n, "--close-after=%d" % (2 * n + 1)], ["--list", "--long-lived"], True


def summary(case, path):
    """The output's digest, or None when it is short of a whole list (three lines a device
    for live) or of a finished upgrade. Read in pieces: this process stays small."""
    kind, n = case.split("-")
    digest, lines, tail = hashlib.sha256(), 0, b""
    with open(path, "rb") as f:
        for piece in iter(lambda: f.read(1 << 20), b""):
            digest.update(piece)
            lines += piece.count(b"\n")
            tail = (tail + piece)[-16:]
    whole = tail.endswith(b"100% - SUCCESS\n") if kind == "storm" else lines == int(n) * (3 if kind == "live" else 1)
    return (digest.hexdigest(), lines) if whole else None


def gnu_time():
    """GNU time, which reports the peak RSS of the client alone; without it the peak RSS
    from wait4 also counts this process's own memory, which the child held before exec."""
    try:
        out = subprocess.run(["/usr/bin/time", "--version"], capture_output=True, text=True)
        return "/usr/bin/time" if "GNU" in out.stdout + out.stderr else None
    except OSError:
        return None


def serve(binary, args, folder):
    """A fresh devsim that has served one connection, and the length of its list message (read
    from that connection's first frame header alone); or a fresh reboot_service, which says
    the length itself."""
    if os.path.basename(binary).startswith("reboot_service"):
        sim = Devsim(folder, args, binary=binary)
        sim.list_bytes = int(re.search(r"list message of (\d+) bytes", slurp(sim.log_path)).group(1))
        return sim
    sim = Devsim(folder, ["--tick-ms=0", *args], binary=binary)
    try:
        with WebSocket(sim.port) as ws:
            sim.list_bytes = ws.header()[1]
    except OSError:
        sim.stop()
        raise
    return sim


def connections(sim):
    return slurp(sim.log_path).count(" connected from ")


def reboots_read(sim, devices):
    """What reboot_service read from its one client, once that connection has ended: None
    when it was every reboot, in order, and nothing else; otherwise its own words."""
    def ended():
        return re.search(r"connection 1 read .*", slurp(sim.log_path))

    sim.wait_for(ended, "the connection ended", 60)
    words = ended().group(0)
    return None if words == "connection 1 read %d of %d reboots in order, 0 other frames" % (devices, devices) else words


def websockets_python():
    """A python3 that can import websockets, or None."""
    for python in (sys.executable, "/usr/bin/python3", "python3"):
        try:
            if subprocess.run([python, "-c", "import websockets"], capture_output=True).returncode == 0:
                return python
        except OSError:
            pass
    return None


def run_client(command, folder, driver, sim, out_path):
    """Runs one client to its end; returns (wall s, cpu s, peak RSS KiB, exit status)."""
    seen = connections(sim)
    rss_path = out_path + ".rss"
    if TIME:
        command = [TIME, "-f", "%M", "-o", rss_path, *command]
    with open(out_path, "wb") as out:
        start = time.perf_counter()
        proc = subprocess.Popen(command, stdout=out, stderr=subprocess.DEVNULL, cwd=folder)
        if driver:
            # The reboots go out once devsim has the client, so that it sees every one.
            sim.wait_for(lambda: connections(sim) != seen or proc.poll() is not None, "the client connected", 60)
            subprocess.run(driver, stdout=subprocess.DEVNULL, check=True)
        _, status, usage = os.wait4(proc.pid, 0)
        wall = time.perf_counter() - start
    rss = usage.ru_maxrss // (1024 if sys.platform == "darwin" else 1)
    if TIME:
        rss = int(open(rss_path).read().split()[-1])
    return wall, usage.ru_utime + usage.ru_stime, rss, os.waitstatus_to_exitcode(status)


TIME = gnu_time()


def main():
    opts, cases = parse_args(sys.argv[1:])
    build = opts["build"]
    tool = opts["tool"] or os.path.join(build, "cli", "devupdate")
    devsim = os.path.join(build, "devsim", "devsim")
    floor = os.path.join(build, "bench", "floor")
    service = os.path.abspath(os.path.join(build, "bench", "reboot_service"))
    clients = [("tool", [os.path.abspath(tool)]), ("floor", [os.path.abspath(floor)])]
    python = websockets_python()
    pyclient = [python, os.path.join(os.path.dirname(os.path.abspath(__file__)), "pyclient.py")] if python else None
    reboot = [os.path.abspath(os.path.join(build, "cli", "devupdate")), "--list", "--reboot"]
    cg_dir = opts["callgrind"] and os.path.abspath(opts["callgrind"])
    if cg_dir:
        os.makedirs(cg_dir, exist_ok=True)
    results = {}
    with tempfile.TemporaryDirectory() as folder:
        with open(os.path.join(folder, "fw.bin"), "wb") as fw:
            fw.write(bytes(4096))  # no header: any device takes it
        for case in cases:
            sim_args, client_args, drives = scenario(case)
            rebooting = case.startswith("reboot")
            runners = clients + ([("python", pyclient)] if rebooting and pyclient and not cg_dir else [])
            expected = None
            runs = 1 if cg_dir else opts["runs"]
            # Round by round, so that a change in the machine's other load falls on both.
            for i in range(runs):
                for name, binary in runners:
                    sim = serve(service if rebooting else devsim, sim_args, folder)
                    command = [*binary, *client_args, "--port=%d" % sim.port]
                    out_path = os.path.join(cg_dir or folder, "%s.%s.out" % (case, name))
                    profile = os.path.join(cg_dir or folder, "%s.%s.cg" % (case, name))
                    if cg_dir:
                        command = ["valgrind", "--tool=callgrind", "--callgrind-out-file=" + profile,
                                   "--log-file=" + profile + ".log", *command]
                    try:
                        sample = run_client(command, folder, reboot + ["--port=%d" % sim.port] if drives else None,
                                            sim, out_path)
                        unread = rebooting and reboots_read(sim, int(case.split("-")[1]))
                    finally:
                        sim.stop()
                    if unread:
                        sys.exit("%s: %s run %d: reboot_service %s" % (case, name, i + 1, unread))
                    got = (sample[3], summary(case, out_path))
                    if got[1] is None:
                        sys.exit("%s: %s printed too little, see %s" % (case, name, out_path))
                    if expected is None:
                        expected = got
                    elif got != expected:
                        sys.exit("%s: %s run %d differs from the tool's first run (exit %d against %d)"
                                 % (case, name, i + 1, got[0], expected[0]))
                    if cg_dir:
                        log = open(profile + ".log").read()
                        sample = int(re.search(r"Collected : (\d+)", log).group(1))
                        with open(profile + ".top", "w") as top:
                            subprocess.run(["callgrind_annotate", "--inclusive=no", profile], stdout=top,
                                           stderr=subprocess.DEVNULL)
                    results.setdefault((case, name), []).append(sample)
            if case.startswith(("list", "reboot")):
                print("%s: one list message of %d bytes (limit %d), %d output lines"
                      % (case, sim.list_bytes, LIMIT, expected[1][1]))
    if any(case.startswith("reboot") for case in cases) and not pyclient and not cg_dir:
        print("no python3 with the websockets package: the Python client was left out")
    report(cases, results, bool(cg_dir))


def report(cases, results, instructions):
    if instructions:
        print("%-18s %14s %14s %12s" % ("case", "tool Ir (M)", "floor Ir (M)", "tool/floor"))
        for case in cases:
            t, f = results[case, "tool"][0], results[case, "floor"][0]
            print("%-18s %14.1f %14.1f %12.3f" % (case, t / 1e6, f / 1e6, t / f))
        return
    print("median of %d runs; wall and CPU (user + system) in seconds, largest peak RSS in MiB"
          % len(results[cases[0], "tool"]))
    print("%-18s %-6s %8s %8s %8s" % ("case", "client", "wall", "cpu", "rss"))
    medians = {}
    for case in cases:
        for name in ("tool", "floor", "python"):
            samples = results.get((case, name))
            if not samples:
                continue
            wall, cpu = (statistics.median(s[k] for s in samples) for k in (0, 1))
            medians[case, name] = wall, cpu, max(s[2] for s in samples) / 1024
            print("%-18s %-6s %8.3f %8.3f %8.1f" % (case, name, *medians[case, name]))
    print("%-18s %16s %16s %16s %18s" % ("case", "wall tool/floor", "cpu tool/floor", "rss tool/floor",
                                         "wall python/floor"))
    for case in cases:
        tool, floor, python = medians[case, "tool"], medians[case, "floor"], medians.get((case, "python"))
        print("%-18s %16.3f %16.3f %16.3f %18s" % (case, *(t / f for t, f in zip(tool, floor)),
                                                   "%.3f" % (python[0] / floor[0]) if python else "-"))

if __name__ == "__main__":
    main()
