"""End-to-end journeys: the built devupdate against devsim over a real socket.

Every test starts its own devsim on an ephemeral port with a small fleet,
runs devupdate as a separate process, and checks standard output byte for
byte, the exit status and the exact frames devsim received.
"""

import collections
import json
import os
import queue
import re
import resource
import select
import shutil
import signal
import socket
import subprocess
import tempfile
import threading
import time
import unittest

DEVUPDATE = os.environ.get("DEVUPDATE", "devupdate")
DEVSIM = os.environ.get("DEVSIM", "devsim")
TIMEOUT = 10  # generous upper bound for any wait; tests normally take milliseconds
STEPS = 4     # progress events per job: 25, 50, 75, then Done


# ---------------------------------------------------------------- expected text

def bar(name, percent, detail=""):
    head = int(percent * 50 / 100.0)
    cells = "".join("=" if i < head else ">" if i == head else " " for i in range(50))
    text = "Updating %s : [%s] %d%%" % (name, cells, percent)
    return text + (" - " + detail if detail else "")


def redrawn(name, *percents):
    """A job cut short: its first bar and the redraws it got so far, no line end."""
    return bar(name, 0) + "".join("\r" + bar(name, percent) for percent in percents)


def devsim_percents(steps):
    """The percentages of the progress events devsim sends before "Done" in a
    job of `steps` steps: step * 100 / steps, rounded down, for every step but
    the last."""
    return [step * 100 // steps for step in range(1, steps)]


# What the tool prints for devsim's "this is not json" frame.
NOT_JSON = ("Failed to parse JSON message: * Line 1, Column 1\n"
            "  Syntax error: value, object or array expected.\n\n")


def job(name, ending=(100, "SUCCESS"), progress=(25, 50, 75)):
    """A job's console text: first bar, redraws, final bar and its line end."""
    text = bar(name, 0)
    for percent in progress:
        text += "\r" + bar(name, percent)
    return text + "\r" + bar(name, *ending) + "\n"


def found(device, word="Found"):
    label = "%s[%s]: " % (word, mode_word(device))
    product = device.get("product", {})
    version = product.get("versionString") or product.get("version", "?")
    return "%-17s%s,%s,%s,%s\n" % (label, device["name"], device["manufacturer"]["name"],
                                    product["name"], version)


def mode_word(device):
    if not device.get("isSafeModeDevice"):
        return "Normal"
    return {1: "Failsafe"}.get(device.get("safeModeVersion"), "Safe")


def frame(**members):
    return json.dumps(members, sort_keys=True, separators=(",", ":")) + "\n"


# ---------------------------------------------------------------- the fleet

def device(name, number, maker="acme", model="x100", version="1.0.0", **extra):
    makers = {"acme": "Acme", "northwind": "Northwind"}
    models = {"x100": "X100 Controller", "nw200": "NW-200 Gateway"}
    entry = {
        "id": "ID%04d" % number,
        "name": name,
        "manufacturer": {"id": maker, "name": makers[maker]},
        "product": {"id": model, "name": models[model]},
        "interfaces": [{"name": "eth0", "ipAddress": "192.168.1.%d" % number,
                        "macAddr": "00:1b:2c:00:00:%02x" % number}],
    }
    if version is not None:
        entry["product"]["version"] = version
    entry.update(extra)
    return entry


def base_fleet():
    gamma = device("gamma", 3, "northwind", "nw200", "4.1.0")
    gamma["product"]["versionString"] = "4.1.0 (build 7)"
    gamma["interfaces"].append({"name": "wlan0", "ipAddress": "192.168.1.13",
                                "macAddr": "00:1b:2c:00:00:13"})
    return [
        device("alpha", 1),
        device("beta", 2, version="1.0.1"),
        gamma,
        device("delta", 4, version="safe-1.2", isSafeModeDevice=True, safeModeVersion=2,
               sim={"recoverVersion": "1.5.0"}),
        device("epsilon", 5, "northwind", "nw200", None, isSafeModeDevice=True,
               safeModeVersion=1, sim={"recoverVersion": "4.0.0"}),
        # Safe mode without a version: the tool never selects it.
        device("zeta", 6, isSafeModeDevice=True),
    ]


def wire(entry):
    return {k: v for k, v in entry.items() if k != "sim"}


def with_version(entry, version):
    copy = json.loads(json.dumps(wire(entry)))
    copy.pop("isSafeModeDevice", None)
    copy.pop("safeModeVersion", None)
    copy["product"]["version"] = version
    if "versionString" in copy["product"]:
        copy["product"]["versionString"] = version
    return copy


FLEET = {d["name"]: d for d in base_fleet()}


# ---------------------------------------------------------------- processes

class Lines:
    """Collects a pipe's output on a thread so tests can wait for text."""

    def __init__(self, pipe, binary=False):
        self.chunks = queue.Queue()
        self.text = b"" if binary else ""
        self.pipe = pipe
        self.thread = threading.Thread(target=self._pump, args=(pipe,), daemon=True)
        self.thread.start()

    def close(self):
        """Call once the writer has exited."""
        self.thread.join(TIMEOUT)
        self.pipe.close()

    def _pump(self, pipe):
        for chunk in iter(lambda: pipe.read1(65536), b""):
            self.chunks.put(chunk)
        self.chunks.put(None)

    def wait_for(self, predicate, timeout=TIMEOUT):
        deadline = time.monotonic() + timeout
        while not predicate(self.text):
            left = deadline - time.monotonic()
            if left <= 0:
                raise AssertionError("timed out; output so far:\n%r" % (self.text,))
            try:
                chunk = self.chunks.get(timeout=left)
            except queue.Empty:
                continue
            if chunk is None:
                raise AssertionError("stream ended; output so far:\n%r" % (self.text,))
            self.text += chunk if isinstance(self.text, bytes) else chunk.decode()
        return self.text


class Sim:
    """One devsim process with its own fleet file and frame record."""

    def __init__(self, folder, fleet=None, args=()):
        self.record = os.path.join(folder, "frames.txt")
        command = [DEVSIM, "--port=0", "--tick-ms=0", "--progress-steps=%d" % STEPS,
                   "--record=" + self.record, *args]
        if fleet is not None:
            path = os.path.join(folder, "fleet.json")
            with open(path, "w") as f:
                json.dump({"devices": fleet}, f)
            command.append("--fleet=" + path)
        self.proc = subprocess.Popen(command, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
        self.log = Lines(self.proc.stderr, binary=True)
        ready, _, _ = select.select([self.proc.stdout], [], [], TIMEOUT)
        line = self.proc.stdout.readline().decode() if ready else ""
        match = re.fullmatch(r"devsim listening on 127\.0\.0\.1:(\d+)\n", line)
        if not match:
            self.stop()
            raise AssertionError("devsim did not start: %r" % line)
        self.port = int(match.group(1))

    def clients_gone(self, count):
        """Waits until `count` clients have disconnected: by then every frame
        they sent has been read and recorded."""
        self.log.wait_for(lambda text: len(re.findall(rb"client \d+ gone", text)) >= count)

    def frames(self):
        if not os.path.exists(self.record):
            return ""
        with open(self.record, "rb") as f:
            return f.read().decode()

    def stop(self):
        """Stops devsim; returns its exit status (0 after a clean stop)."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
            try:
                self.proc.wait(TIMEOUT)
            except subprocess.TimeoutExpired:
                self.proc.kill()
                self.proc.wait()
        self.proc.stdout.close()
        self.log.close()
        return self.proc.returncode


class Journey(unittest.TestCase):
    fleet = None  # base fleet unless a test class says otherwise
    sim_args = ()

    def setUp(self):
        self.folder = os.path.realpath(tempfile.mkdtemp(prefix="devupdate-e2e-"))
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.image("fw-any.bin", "DEVFW1 version=2.0.0\n")
        self.image("fw-acme.bin", "DEVFW1 manufacturer=acme model=x100 version=2.0.0\n")

    def image(self, name, header):
        with open(os.path.join(self.folder, name), "wb") as f:
            f.write(header.encode() + bytes(range(256)) * 4)

    def start_sim(self, fleet=None, args=(), generated=False):
        sim = Sim(self.folder, None if generated else base_fleet() if fleet is None else fleet, args)
        self.addCleanup(self.stop_sim, sim)
        return sim

    def stop_sim(self, sim):
        status = sim.stop()
        self.assertEqual(status, 0, "devsim did not stop cleanly:\n" + sim.log.text.decode())

    def tool(self, sim_or_port, *args, wrapper=(), timeout=TIMEOUT):
        """Runs devupdate to its end; returns its output and exit status, and
        keeps its standard error and wall time in `stderr` and `elapsed`."""
        port = sim_or_port if isinstance(sim_or_port, int) else sim_or_port.port
        started = time.monotonic()
        done = subprocess.run([*wrapper, DEVUPDATE, "--port=%d" % port, *args], cwd=self.folder,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=timeout)
        self.elapsed = time.monotonic() - started
        self.stderr = done.stderr.decode(errors="replace")
        return done.stdout.decode(), done.returncode

    def assert_ended_normally(self, status):
        """Exit status 0 or 1: never a signal (a crash, an abort, a sanitizer's
        kill) or another status."""
        if status < 0:
            self.fail("devupdate was killed by signal %d; stderr:\n%s"
                      % (-status, getattr(self, "stderr", "")))
        self.assertIn(status, (0, 1), "stderr:\n" + getattr(self, "stderr", ""))

    def assert_same_text(self, got, expected):
        """assertEqual for outputs too long for a readable diff: names the first
        difference with some context on either side."""
        if got == expected:
            return
        at = next((i for i, (a, b) in enumerate(zip(got, expected)) if a != b),
                  min(len(got), len(expected)))
        self.fail("output differs at character %d of %d (expected %d):\n got      %r\n expected %r"
                  % (at, len(got), len(expected), got[max(0, at - 100):at + 100],
                     expected[max(0, at - 100):at + 100]))

    def check(self, sim, args, output, status, frames=None, clients=1):
        got, code = self.tool(sim, *args)
        self.assertEqual(got, output)
        self.assertEqual(code, status)
        if frames is not None:
            sim.clients_gone(clients)
            self.assertEqual(sim.frames(), frames)

    def path(self, name):
        return os.path.join(self.folder, name)


# ---------------------------------------------------------------- journeys

class ExpectedText(unittest.TestCase):
    """The helpers that write expected output, held to literal examples."""

    def test_progress_bars(self):
        self.assertEqual(bar("Unit-8", 0), "Updating Unit-8 : [>" + " " * 49 + "] 0%")
        self.assertEqual(bar("Unit-8", 37),
                         "Updating Unit-8 : [" + "=" * 18 + ">" + " " * 31 + "] 37%")
        self.assertEqual(bar("Unit-8", 100, "SUCCESS"),
                         "Updating Unit-8 : [" + "=" * 50 + "] 100% - SUCCESS")

    def test_devsim_percents_match_a_default_job(self):
        self.assertEqual(devsim_percents(STEPS), [25, 50, 75])
        self.assertEqual(devsim_percents(100000)[998:1001], [0, 1, 1])

    def test_device_lines(self):
        self.assertEqual(found(FLEET["epsilon"], "Lost"),
                         "Lost[Failsafe]:  epsilon,Northwind,NW-200 Gateway,?\n")


class Listing(Journey):
    def test_list_shows_every_device_with_a_known_mode(self):
        sim = self.start_sim()
        listed = ("Found[Normal]:   alpha,Acme,X100 Controller,1.0.0\n"
                  "Found[Normal]:   beta,Acme,X100 Controller,1.0.1\n"
                  "Found[Normal]:   gamma,Northwind,NW-200 Gateway,4.1.0 (build 7)\n"
                  "Found[Safe]:     delta,Acme,X100 Controller,safe-1.2\n"
                  "Found[Failsafe]: epsilon,Northwind,NW-200 Gateway,?\n")
        self.check(sim, ["--list"], listed, 0, frames="")

    def test_each_filter_kind_selects_its_devices(self):
        sim = self.start_sim()
        table = [
            ("--device-mode=failsafe", ["epsilon"]),
            ("--device-name=BETA", ["beta"]),
            ("--device-ip=192.168.1.13", ["gamma"]),
            ("--device-mac=00:1B:2C:00:00:01", ["alpha"]),
            ("--manufacturer=NorthWind", ["gamma", "epsilon"]),
            ("--model=x100", ["alpha", "beta", "delta"]),
        ]
        for option, names in table:
            with self.subTest(option=option):
                self.check(sim, ["--list", option], "".join(found(FLEET[n]) for n in names), 0)

    def test_list_with_reboot_reboots_each_listed_device(self):
        sim = self.start_sim()
        names = ("alpha", "beta", "gamma")
        self.check(sim, ["--list", "--reboot", "--device-mode=normal"],
                   "".join(found(FLEET[n]) for n in names), 0,
                   frames="".join(frame(msg="reboot", device=n) for n in names))

    def test_binary_frames_are_read_like_text_frames(self):
        sim = self.start_sim(args=["--binary"])
        self.check(sim, ["--list", "--device-mode=safe"], found(FLEET["delta"]), 0)

    def test_frame_that_is_not_json_is_reported_and_skipped(self):
        sim = self.start_sim(args=["--garbage-after=0"])
        self.check(sim, ["--list", "--device-name=alpha"], NOT_JSON + found(FLEET["alpha"]), 0)


class Updating(Journey):
    def test_update_without_all_takes_the_first_match_only(self):
        sim = self.start_sim()
        self.check(sim, ["--file=fw-acme.bin", "--model=x100"], job("alpha"), 0,
                   frames=frame(msg="upgrade", device="alpha", filePath=self.path("fw-acme.bin"),
                                override="false"))
        updated = with_version(FLEET["alpha"], "2.0.0")
        self.check(sim, ["--list", "--model=x100"],
                   found(updated) + found(FLEET["beta"]) + found(FLEET["delta"]), 0)

    def test_update_all_with_reboot_goes_on_after_a_failure(self):
        fleet = base_fleet()
        fleet[1]["sim"] = {"failAt": 40, "errorReason": "Flash write error"}
        sim = self.start_sim(fleet)
        output = (job("alpha") + job("beta", (40, "Flash write error"), (25,)) + job("gamma"))
        frames = ""
        for name in ("alpha", "beta", "gamma"):
            frames += frame(msg="upgrade", device=name, filePath=self.path("fw-any.bin"),
                            override="false")
            frames += frame(msg="reboot", device=name)
        self.check(sim, ["--file=fw-any.bin", "--all", "--reboot"], output, 1, frames=frames)
        after = [with_version(FLEET["alpha"], "2.0.0"), FLEET["beta"],
                 with_version(FLEET["gamma"], "2.0.0")]
        self.check(sim, ["--list", "--device-mode=normal"], "".join(map(found, after)), 0)

    def test_mismatched_image_is_refused_unless_forced(self):
        sim = self.start_sim()
        refusal = "Image is for acme/x100 but gamma is northwind/nw200"
        self.check(sim, ["--file=fw-acme.bin", "--device-name=gamma"],
                   job("gamma", (0, refusal), ()), 1)
        self.check(sim, ["--file=fw-acme.bin", "--device-name=gamma", "--force"], job("gamma"), 0,
                   clients=2,
                   frames=frame(msg="upgrade", device="gamma", filePath=self.path("fw-acme.bin"),
                                override="false")
                   + frame(msg="upgrade", device="gamma", filePath=self.path("fw-acme.bin"),
                           override="true"))

    def test_no_matching_device(self):
        sim = self.start_sim()
        self.check(sim, ["--file=fw-any.bin", "--device-name=nobody"],
                   "No matching devices found.\n", 1, frames="")


class Recovery(Journey):
    def test_safe_and_failsafe_recovery_with_the_library_image(self):
        sim = self.start_sim()
        self.check(sim, ["--recover-safe", "--recover-failsafe", "--all"],
                   job("delta") + job("epsilon"), 0,
                   frames=frame(msg="failsafe_recover", device="delta")
                   + frame(msg="failsafe_recover", macaddr="epsilon"))
        recovered = [with_version(FLEET["delta"], "1.5.0"), with_version(FLEET["epsilon"], "4.0.0")]
        self.check(sim, ["--list", "--device-name=delta", "--device-name=epsilon"],
                   "".join(map(found, recovered)), 0)

    def test_safe_recovery_with_a_given_image(self):
        sim = self.start_sim()
        self.check(sim, ["--recover-safe=fw-acme.bin"], job("delta"), 0,
                   frames=frame(msg="upgrade", device="delta", filePath=self.path("fw-acme.bin"),
                                override="false"))


# ---------------------------------------------------------------- faults

UPDATE_ALPHA = ("--file=fw-any.bin", "--device-name=alpha")
UPDATE_ALL = ("--file=fw-any.bin", "--all")


def upgrades(*names):
    """The frames of upgrade requests with fw-any.bin, one per name."""
    return lambda test: "".join(frame(msg="upgrade", device=name,
                                      filePath=test.path("fw-any.bin"), override="false")
                                for name in names)


def cpu_seconds(pid):
    """User plus system CPU time a running process has used so far, or None
    where there is no /proc."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            fields = f.read().rsplit(")", 1)[1].split()
    except FileNotFoundError:
        return None
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def children_cpu_seconds():
    usage = resource.getrusage(resource.RUSAGE_CHILDREN)
    return usage.ru_utime + usage.ru_stime


# One row per way the service can let the tool down. `sim` holds devsim's
# fault options (None: nothing listens at all); `frames` what devsim must
# have received, where that is certain; `log` a text standard error must
# contain (None: standard error stays empty).
Fault = collections.namedtuple("Fault", "name sim args output status frames log",
                               defaults=(None, None))

# Messages devsim sends a client in an update of alpha: the list, 25, 50, 75,
# alpha leaving and coming back, "Done"; so six per job after the list.
FAULTS = [
    # The library logs the refused connection on standard error.
    Fault("nothing_listening", None, ("--list",), "", 1, log="Connection refused"),
    Fault("service_closing_before_the_list", ("--close-after=0",), ("--list",), "", 1,
          frames=""),
    Fault("service_closing_mid_job", ("--close-after=3",), UPDATE_ALPHA,
          redrawn("alpha", 25, 50), 1, frames=upgrades("alpha")),
    # The close comes right behind alpha's "Done", after the tool has asked
    # for beta; whether devsim still reads that request is up to its library.
    Fault("service_closing_between_jobs", ("--close-after=7",), UPDATE_ALL,
          job("alpha") + bar("beta", 0), 1),
    # The close comes right behind the last "Done": the run is over by then.
    Fault("service_closing_after_the_last_job", ("--close-after=19",), UPDATE_ALL,
          job("alpha") + job("beta") + job("gamma"), 0,
          frames=upgrades("alpha", "beta", "gamma")),
    Fault("frame_that_is_not_json_mid_job", ("--garbage-after=2",), UPDATE_ALPHA,
          redrawn("alpha", 25) + NOT_JSON + job("alpha")[len(redrawn("alpha", 25)):], 0,
          frames=upgrades("alpha")),
    Fault("binary_frames_during_a_job", ("--binary",), UPDATE_ALPHA, job("alpha"), 0,
          frames=upgrades("alpha")),
    # 33,000,027 bytes, over the WebSocket library's message limit: the library
    # fails the connection (close code 1009) and logs why on standard error.
    Fault("oversized_frame_ends_the_run", ("--oversize-after=0",), ("--list",), "", 1,
          frames="", log="too large"),
    Fault("oversized_frame_mid_job", ("--oversize-after=3",), UPDATE_ALPHA,
          redrawn("alpha", 25, 50), 1, frames=upgrades("alpha"), log="too large"),
]

QUIET_WINDOW = 0.5  # seconds of watching a tool that waits on a silent service


class Faults(Journey):
    """A service that goes away, talks nonsense, goes quiet or floods the tool.
    Whatever happens the tool ends with 0 or 1, never by a signal, and prints
    what an ordinary run prints up to the fault; a silent service is waited
    for without burning CPU."""

    def run_fault(self, row):
        if row.sim is None:
            with socket.socket() as probe:
                probe.bind(("127.0.0.1", 0))
                target = probe.getsockname()[1]
        else:
            target = self.start_sim(args=row.sim)
        output, status = self.tool(target, *row.args)
        self.assert_ended_normally(status)
        self.assertEqual(output, row.output)
        self.assertEqual(status, row.status)
        if row.log is None:
            self.assertEqual(self.stderr, "")
        else:
            self.assertIn(row.log, self.stderr)
        if row.frames is not None:
            target.clients_gone(1)
            expected = row.frames(self) if callable(row.frames) else row.frames
            self.assertEqual(target.frames(), expected)

    def test_silent_service_is_waited_for_without_spinning(self):
        table = [
            (0, ("--list",), ""),
            (2, UPDATE_ALPHA, redrawn("alpha", 25)),
        ]
        for mute_after, args, shown in table:
            with self.subTest(mute_after=mute_after):
                sim = self.start_sim(args=["--mute-after=%d" % mute_after])
                launched = time.monotonic()
                children_before = children_cpu_seconds()
                waiting = subprocess.Popen([DEVUPDATE, "--port=%d" % sim.port, *args],
                                           cwd=self.folder, stdout=subprocess.PIPE,
                                           stderr=subprocess.PIPE)
                output, errors = Lines(waiting.stdout), Lines(waiting.stderr)
                self.addCleanup(errors.close)
                self.addCleanup(output.close)
                self.addCleanup(waiting.wait, TIMEOUT)
                self.addCleanup(lambda proc=waiting: proc.poll() is None and proc.kill())

                sim.log.wait_for(lambda text: b"muted after" in text)
                output.wait_for(lambda text: text == shown)
                started, before = time.monotonic(), cpu_seconds(waiting.pid)
                time.sleep(QUIET_WINDOW)
                after, ended = cpu_seconds(waiting.pid), time.monotonic()
                self.assertIsNone(waiting.poll(), "devupdate should still be waiting")
                self.assertEqual(output.text, shown)

                waiting.terminate()
                waiting.wait(TIMEOUT)
                self.assertEqual(waiting.returncode, -signal.SIGTERM)
                if before is None or after is None:
                    # No /proc: judge the whole life of the process instead.
                    busy = children_cpu_seconds() - children_before
                    started, ended = launched, time.monotonic()
                else:
                    busy = after - before
                self.assertLess(busy, 0.1 * (ended - started),
                                "devupdate used %.3f s of CPU in %.3f s of waiting"
                                % (busy, ended - started))
                self.assertEqual(errors.text, "")

    def test_hundred_thousand_progress_events(self):
        steps = 100000
        sim = self.start_sim(args=["--progress-steps=%d" % steps])
        output, status = self.tool(sim, *UPDATE_ALPHA)
        self.assert_ended_normally(status)
        self.assertEqual(output.count("\r"), steps)
        self.assert_same_text(output, job("alpha", progress=devsim_percents(steps)))
        self.assertEqual(status, 0)
        self.assertEqual(self.stderr, "")


for _row in FAULTS:
    setattr(Faults, "test_" + _row.name, lambda self, row=_row: self.run_fault(row))
del _row


class LongLived(Journey):
    def test_devices_that_come_go_and_change(self):
        fleet = [
            device("alpha", 1),
            device("beta", 2, sim={"leaveAfterMs": 90}),
            device("carol", 3, sim={"appearAfterMs": 30}),
            device("dave", 4, isSafeModeDevice=True, safeModeVersion=1,
                   sim={"changeAfterMs": 60, "changeTo": {"isSafeModeDevice": False}}),
        ]
        sim = self.start_sim(fleet)
        listener = subprocess.Popen([DEVUPDATE, "--port=%d" % sim.port, "--list", "--long-lived",
                                     "--device-mode=normal"], cwd=self.folder,
                                    stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        output = Lines(listener.stdout)
        self.addCleanup(output.close)
        self.addCleanup(listener.wait, TIMEOUT)
        self.addCleanup(listener.terminate)
        dave = wire(fleet[3])
        dave["isSafeModeDevice"] = False
        expected = (found(fleet[0]) + found(fleet[1]) + found(wire(fleet[2])) + found(dave)
                    + found(wire(fleet[1]), "Lost"))
        output.wait_for(lambda text: len(text) >= len(expected))
        self.assertEqual(output.text, expected)

        # A reboot asked for by another client reaches the listener as the
        # device leaving and coming back.
        self.check(sim, ["--list", "--reboot", "--device-name=alpha"], found(fleet[0]), 0)
        expected += found(fleet[0], "Lost") + found(fleet[0])
        output.wait_for(lambda text: len(text) >= len(expected))
        self.assertEqual(output.text, expected)
        self.assertIsNone(listener.poll(), "a long-lived run never ends by itself")


class Simulator(Journey):
    """devsim's own command line, so the tools the journeys rely on stay honest."""

    def test_help_lists_every_option(self):
        done = subprocess.run([DEVSIM, "--help"], stdout=subprocess.PIPE, timeout=TIMEOUT)
        self.assertEqual(done.returncode, 0)
        for option in ("--port=", "--fleet=", "--generate-fleet=", "--tick-ms=",
                       "--progress-steps=", "--record=", "--close-after=", "--garbage-after=",
                       "--mute-after=", "--oversize-after=", "--binary"):
            self.assertIn(option, done.stdout.decode())

    def test_unusable_fleet_file_is_refused_with_a_reason(self):
        path = self.path("twice.json")
        with open(path, "w") as f:
            json.dump([{"name": "a"}, {"name": "a"}], f)
        done = subprocess.run([DEVSIM, "--port=0", "--fleet=" + path], stdout=subprocess.PIPE,
                              stderr=subprocess.PIPE, timeout=TIMEOUT)
        self.assertEqual(done.returncode, 1)
        self.assertEqual(done.stdout, b"")
        self.assertIn(b'duplicate device name "a"', done.stderr)

    def test_example_fleet_loads(self):
        example = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "devsim",
                               "fleets", "example.json")
        with open(example) as f:
            fleet = json.load(f)["devices"]
        sim = self.start_sim(fleet)
        # The last device only appears later.
        self.check(sim, ["--list"], "".join(found(wire(d)) for d in fleet[:-1]), 0)


class LargeFleet(Journey):
    def test_list_of_fifty_thousand_devices(self):
        sim = self.start_sim(args=["--generate-fleet=50000"], generated=True)
        output, status = self.tool(sim, "--list")
        lines = output.splitlines(keepends=True)
        self.assertEqual(status, 0)
        self.assertEqual(len(lines), 50000)
        self.assertEqual(lines[0], "Found[Normal]:   node-00001,Acme,X100 Controller,2.0.3\n")
        self.assertEqual(lines[-1], "Found[Normal]:   node-50000,Northwind,NW-200 Gateway,4.1.0\n")


# ---------------------------------------------------------------- memory

VALGRIND = ("valgrind", "--tool=memcheck", "--leak-check=full",
            "--errors-for-leak-kinds=definite,indirect", "--error-exitcode=99")
VALGRIND_TIMEOUT = 120  # memcheck's start-up alone takes most of a second


def sanitized(binary):
    """True for a binary built with a sanitizer runtime, which valgrind cannot run."""
    path = shutil.which(binary) or binary
    with open(path, "rb") as f:
        content = f.read()
    return any(mark in content for mark in (b"__asan_init", b"__tsan_init", b"__msan_init"))


@unittest.skipUnless(shutil.which("valgrind"), "valgrind is not installed")
class Memory(Journey):
    """Whole runs under memcheck: no invalid access, nothing lost at exit, and
    the same output and exit status as without it."""

    @classmethod
    def setUpClass(cls):
        if sanitized(DEVUPDATE):
            raise unittest.SkipTest("devupdate is built with a sanitizer; valgrind cannot run it")

    def under_memcheck(self, args, output, status, frames, sim_args=()):
        sim = self.start_sim(args=sim_args)
        self.check(sim, args, output, status)
        report_file = self.path("memcheck.log")
        got, code = self.tool(sim, *args, wrapper=(*VALGRIND, "--log-file=" + report_file),
                              timeout=VALGRIND_TIMEOUT)
        with open(report_file) as f:
            report = f.read()
        self.assertNotEqual(code, 99, "memcheck found errors:\n" + report)
        self.assert_ended_normally(code)
        self.assertEqual(code, status, report)
        self.assertEqual(got, output)
        self.assertIn("ERROR SUMMARY: 0 errors", report)
        if "All heap blocks were freed" not in report:
            self.assertIn("definitely lost: 0 bytes", report)
            self.assertIn("indirectly lost: 0 bytes", report)
        sim.clients_gone(2)
        self.assertEqual(sim.frames(), frames * 2)

    def test_list(self):
        listed = "".join(found(FLEET[name])
                         for name in ("alpha", "beta", "gamma", "delta", "epsilon"))
        self.under_memcheck(["--list"], listed, 0, "")

    def test_update_all_with_reboot(self):
        frames = "".join(frame(msg="upgrade", device=name, filePath=self.path("fw-any.bin"),
                               override="false") + frame(msg="reboot", device=name)
                         for name in ("alpha", "beta", "gamma"))
        self.under_memcheck(["--file=fw-any.bin", "--all", "--reboot"],
                            job("alpha") + job("beta") + job("gamma"), 0, frames)

    def test_run_cut_short_by_the_service(self):
        self.under_memcheck(["--file=fw-any.bin", "--all", "--reboot"],
                            redrawn("alpha", 25, 50), 1, upgrades("alpha")(self),
                            sim_args=["--close-after=3"])


if __name__ == "__main__":
    unittest.main()
