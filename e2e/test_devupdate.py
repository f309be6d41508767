"""End-to-end journeys: the built devupdate against devsim over a real socket.

Every test starts its own devsim on an ephemeral port with a small fleet,
runs devupdate as a separate process, and checks standard output byte for
byte, the exit status and the exact frames devsim received.
"""

import json
import os
import queue
import re
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

    def tool(self, sim_or_port, *args):
        port = sim_or_port if isinstance(sim_or_port, int) else sim_or_port.port
        done = subprocess.run([DEVUPDATE, "--port=%d" % port, *args], cwd=self.folder,
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, timeout=TIMEOUT)
        return done.stdout.decode(), done.returncode

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
        error = "* Line 1, Column 1\n  Syntax error: value, object or array expected.\n"
        self.check(sim, ["--list", "--device-name=alpha"],
                   "Failed to parse JSON message: " + error + "\n" + found(FLEET["alpha"]), 0)


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


class Faults(Journey):
    def test_nothing_listening(self):
        with socket.socket() as probe:
            probe.bind(("127.0.0.1", 0))
            port = probe.getsockname()[1]
        output, status = self.tool(port, "--list")
        self.assertEqual((output, status), ("", 1))

    def test_service_closing_mid_job(self):
        sim = self.start_sim(args=["--close-after=3"])
        self.check(sim, ["--file=fw-any.bin", "--device-name=alpha"],
                   bar("alpha", 0) + "\r" + bar("alpha", 25) + "\r" + bar("alpha", 50), 1)

    def test_oversized_frame_ends_the_run(self):
        sim = self.start_sim(args=["--oversize-after=0"])
        self.check(sim, ["--list"], "", 1)


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


if __name__ == "__main__":
    unittest.main()
