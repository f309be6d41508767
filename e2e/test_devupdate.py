"""The built devupdate: its command line, and over real sockets what only they show, against devsim and against
peers on other stacks; literal output."""

import json
import os
import re
import select
import signal
import socket
import subprocess
import time
import unittest

from harness import DEVUPDATE, TIMEOUT, Journey, slurp
from peers import RawPeer, WebsocketsPeer, fleet

# One job on devsim's built-in fleet, with devsim's --progress-steps=2.
UPDATE = ("--file=fw.bin", "--device-name=lobby-panel-01")
STARTED = ("Updating lobby-panel-01 : [>                                                 ] 0%"
           "\rUpdating lobby-panel-01 : [=========================>                        ] 50%")
DONE = "\rUpdating lobby-panel-01 : [==================================================] 100% - SUCCESS\n"
NOT_JSON = "Failed to parse JSON message: * Line 1, Column 1\n  Syntax error: value, object or array expected.\n\n"
TOO_DEEP = "Failed to parse JSON message: Exceeded stackLimit in readValue().\n"


def listing(devices):
    """What `--list` prints for devsim's --generate-fleet=N, and the names in its order."""
    names = ["node-%05d" % n for n in range(1, devices + 1)]
    models = ("Acme,X100 Controller,2.0.3", "Northwind,NW-200 Gateway,4.1.0")
    return "".join("Found[Normal]:   %s,%s\n" % (name, models[n % 2]) for n, name in enumerate(names)), names


def threads(pid):
    """Per thread of a process: its state, the CPU ticks it used and the times it was switched out."""
    task = "/proc/%d/task/" % pid
    return {tid: [slurp(task + tid + "/stat").rsplit(")", 1)[1].split()[i] for i in (0, 11, 12)] +
            re.findall(r"ctxt_switches:\s*(\d+)", slurp(task + tid + "/status")) for tid in os.listdir(task)}


# Every frame a service reads from the tool, as the tool writes them.
REBOOT = '{"device":"%s","msg":"reboot"}\n'
UPGRADE = '{"device":"%s","filePath":"{folder}/fw.bin","msg":"upgrade","override":"false"}\n'
RECOVERY = [dict(fleet(1)[0], name="dock-controller-03", isSafeModeDevice=True, safeModeVersion=2),
            dict(fleet(1)[0], name="yard-gw-07", isSafeModeDevice=True, safeModeVersion=1), fleet(1)[0]]
BIG = "big-" + "x" * 8000000  # larger than what the sockets buffer while the service does not read
EVERY = {"devsim": (), "raw": {}, "websockets": {}}
BUSY = 60  # seconds; a bound for the larger runs, which take a few on a machine that is busy elsewhere


def reboots(devices):
    return "".join(REBOOT % device["name"] for device in devices)


def bars(*names):
    return "".join((STARTED + DONE).replace("lobby-panel-01", name) for name in names)


def table():
    """The runs every service meets: a name; the devices served; the tool's arguments; how each service
    serves it (devsim's options, a peer's settings; none: it cannot); the tool's output and exit status;
    every frame the service read, in order; the pongs the service read. The services answer every
    reboot at once, so a tool that ended before the service had read every frame would lose the rest
    to the reset its system sends back; with a reset of the service's own, the run fails."""
    few, many, most, cut = fleet(200), fleet(5000), fleet(20000), 100
    return [
        ("a list", fleet(1000), ("--list",), EVERY, listing(1000)[0], 0, "", []),
        ("20,000 reboots", most, ("--list", "--reboot"), EVERY, listing(20000)[0], 0, reboots(most), []),
        ("200 upgrades, each device rebooted once its job ended", few, ("--file=fw.bin", "--all", "--reboot"),
         EVERY, bars(*listing(200)[1]), 0, "".join(UPGRADE % d["name"] + REBOOT % d["name"] for d in few), []),
        ("recoveries", RECOVERY, ("--recover-safe", "--recover-failsafe", "--all", "--reboot"), EVERY,
         bars("dock-controller-03", "yard-gw-07"), 0,
         '{"device":"dock-controller-03","msg":"failsafe_recover"}\n' + REBOOT % "dock-controller-03" +
         '{"macaddr":"yard-gw-07","msg":"failsafe_recover"}\n' + REBOOT % "yard-gw-07", []),
        ("read in small chunks with pauses", many, ("--list", "--reboot"),
         {"devsim": ("--pause-reading-ms=20",), "raw": {"chunk": 1000, "pause": 0.002}},
         listing(5000)[0], 0, reboots(many), []),
        ("one request larger than the sockets hold", [{"name": BIG}], ("--list", "--reboot"),
         {"devsim": ("--pause-reading-ms=500",), "raw": {"pause": 0.005}},
         "Found[Normal]:   %s,?,?,?\n" % BIG, 0, REBOOT % BIG, []),
        ("reset after %d of 5,000 reboots" % cut, many, ("--list", "--reboot"),
         {"devsim": ("--reset-after=%d" % (2 * cut + 1),),  # its messages: the list, then two per reboot
          "raw": {"reset_after": cut}, "websockets": {"reset_after": cut}},
         listing(5000)[0], 1, reboots(many[:cut]), []),
        ("the list in four frames, pings before and amid them", fleet(300), ("--list",),
         {"raw": {"fragments": 4}, "websockets": {"fragments": 4}}, listing(300)[0], 0, "", [b"before", b"during"]),
    ]


class Table:
    """The table's rows that `peer` can serve, against it."""

    peer = None

    def serve(self, devices, how):
        if self.peer == "devsim":  # it makes a generated fleet faster than it reads one
            generated = devices == fleet(len(devices))
            return self.sim("--generate-fleet=%d" % len(devices) if generated else
                            "--fleet=" + self.write("fleet.json", json.dumps(devices)), *how)
        service = {"raw": RawPeer, "websockets": WebsocketsPeer}[self.peer](devices, **how)
        self.addCleanup(service.stop)
        return service

    def test_rows(self):
        for name, devices, args, how, output, status, frames, pongs in table():
            if self.peer not in how:
                continue
            with self.subTest(name):
                service = self.serve(devices, how[self.peer])
                got, code, errors = self.tool("--port=%d" % service.port, *args, timeout=BUSY)
                self.assertEqual((got, code), (output, status))
                read = service.frames(timeout=BUSY)
                # A service that resets reads what came before it cut; devsim, all it had taken from the socket.
                self.assertEqual(read if status == 0 else read[:len(frames)], frames.replace("{folder}", self.folder))
                if status == 0:
                    self.assertEqual(errors, "")
                if self.peer != "devsim":
                    self.assertEqual(service.pongs, pongs)
                if self.peer == "raw":  # it alone tells an end of stream from a reset
                    self.assertEqual(service.ending, "end of stream" if status == 0 else "reset by the service")


class OnDevsim(Table, Journey):
    peer = "devsim"


class OnRaw(Table, Journey):
    peer = "raw"


class OnWebsockets(Table, Journey):
    peer = "websockets"


class Journeys(Journey):
    def test_a_closed_output_pipe_ends_a_list_reboot_run_before_any_reboot(self):
        # Like `| head -1`: more lines than a pipe holds, and the reader gone after the first.
        sim = self.sim("--generate-fleet=3000")
        tool = subprocess.Popen([DEVUPDATE, "--port=%d" % sim.port, "--list", "--reboot"], cwd=self.folder,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.assertEqual(tool.stdout.readline().decode(), listing(1)[0])
        tool.stdout.close()
        self.assertEqual(tool.wait(TIMEOUT), -signal.SIGPIPE)
        self.assertNotIn("reboot", sim.frames())

    def test_a_run_that_sent_nothing_does_not_wait_for_the_service_to_close(self):
        sim = self.sim("--generate-fleet=4", "--pause-reading-ms=3000")  # long deaf to the tool's end of stream
        self.assertEqual(self.tool("--port=%d" % sim.port, "--list"), (listing(4)[0], 0, ""))
        self.assertNotIn(" gone (", slurp(sim.log_path), "the tool waited for the service to close")


class Entry(Journey):
    def test_usage_errors_and_exit_status(self):
        with open(os.path.join(os.path.dirname(os.path.abspath(__file__)), "usage.txt")) as f:
            usage = f.read().replace("devupdate", DEVUPDATE, 1)  # the text when started as plain "devupdate"
        d = self.folder + "/"
        os.symlink(d + "fw.bin", d + "link.bin")
        os.symlink(d + "gone.bin", d + "dangling.bin")
        # The usage text for an argument it does not know; an accepted command line, which gets as far
        # as the connection library refusing port 0; or an error, the first one met from the left.
        table = [
            (usage, "--update-all --list", "--list --port", "--listx", "--list --forced", "-h --list",
             "--bogus --device-mode=x"),
            ("Error initializing connection: invalid uri\n", "--port=0 --file= --list", "--port=0 --recover-safe=",
             "--port=0 --recover-safe", "--port=0 --recover-failsafe", "--port=-1 --list",
             "--port=0 --file=%slink.bin" % d, "--port=0 --recover-safe=%smissing.bin" % d),
            ("Error: One of either --list, --file, --recover-safe or --recover-failsafe must be specified\n",
             "", "--file=", "--all --reboot --force --long-lived --device-name=x"),
            ("Error: Invalid device mode specified. Valid modes are 'normal', 'failsafe', or 'safemode'.\n",
             "--device-mode=x --bogus", "--device-mode=safemode --list", "--device-mode= --list"),
            # The number conversion's own message, which each C++ library words its own way.
            (re.compile(r"Error: stoi(: [a-z ]+)?\n"), "--port=abc --list", "--port= --list", "--port=99999999999 --list"),
            ("Error: The specified firmware file did not exist.\n", "--file=%smissing.bin" % d,
             "--file=%sdangling.bin" % d),
            ("Error: The specified firmware file was not a regular file.\n", "--file=" + d),
        ]
        for expected, *lines in table:
            for line in lines:
                with self.subTest(line):
                    got, status = self.tool(*line.split())[:2]
                    self.assertEqual((got if isinstance(expected, str) or not expected.fullmatch(got) else expected,
                                      status), (expected, 1))


# One row per way the service can fail the tool: devsim's faults (None: nothing listens), the tool's
# arguments, its output, exit status and a text its standard error holds ("": empty; None: not read).
FAULTS = [
    ("nothing listening", None, ("--list",), "", 1, "Connection refused"),
    ("closed mid-job", ("--close-after=2",), UPDATE, STARTED, 1, ""),
    ("dropped mid-job without a close frame", ("--drop-after=2",), UPDATE, STARTED, 1, "End of File"),
    ("not JSON mid-job", ("--garbage-after=2",), UPDATE, STARTED + NOT_JSON + DONE, 0, ""),
    ("JSON that is not an object before the list", ("--not-object-after=0",), UPDATE, STARTED + DONE, 0, ""),
    ("nested past the reader's limit mid-job", ("--deep-after=2",), UPDATE, STARTED + TOO_DEEP + DONE, 0, ""),
    ("binary frames", ("--binary",), UPDATE, STARTED + DONE, 0, ""),
    ("oversized frame mid-job", ("--oversize-after=2",), UPDATE, STARTED, 1, "A message was too large"),
]


class Faults(Journey):
    def test_each_fault_ends_or_continues_the_run_as_it_should(self):
        for name, sim_args, args, output, status, log in FAULTS:
            with self.subTest(name), socket.socket() as idle:
                idle.bind(("127.0.0.1", 0))  # bound but not listening: connections are refused
                port = idle.getsockname()[1] if sim_args is None else self.sim(*sim_args).port
                got, code, errors = self.tool("--port=%d" % port, *args)
                self.assertEqual((got, code), (output, status))
                if log is not None:
                    self.assertEqual(bool(errors), bool(log), errors)
                    self.assertIn(log, errors)

    @unittest.skipUnless(os.path.isdir("/proc/self/task"), "reads the tool's threads from /proc, which macOS lacks")
    def test_silent_service_is_waited_for_without_spinning(self):
        tool = subprocess.Popen([DEVUPDATE, "--port=%d" % self.sim("--mute-after=2").port, *UPDATE], cwd=self.folder,
                                stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(tool.communicate)
        self.addCleanup(tool.kill)
        self.assertEqual(tool.stdout.read(len(STARTED)).decode(), STARTED)  # the bars are ASCII
        # Asleep in the kernel until the service speaks: once every thread of the tool sleeps, none of
        # them runs or wakes again while the service is silent, on a loaded machine too. A busy loop
        # would show in the CPU time, a polling one in the voluntary switches.
        deadline = time.monotonic() + TIMEOUT
        while {t[0] for t in threads(tool.pid).values()} != {"S"} and time.monotonic() < deadline:
            time.sleep(0.01)
        before = threads(tool.pid)
        self.assertEqual({t[0] for t in before.values()}, {"S"}, "the tool sleeps while the service is silent")
        self.assertEqual(select.select([tool.stdout], [], [], 0.5)[0], [], "a silent service is waited for")
        self.assertEqual(threads(tool.pid), before, "the tool ran while the service was silent")


if __name__ == "__main__":
    unittest.main()
