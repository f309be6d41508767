"""The built devupdate: its command line, and against devsim over real sockets what only they show; literal output."""

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


class Journeys(Journey):
    def test_frames_sent_just_before_the_end_reach_the_service(self):
        upgrade = '{"device":"%s","filePath":"%s/fw.bin","msg":"upgrade","override":"false"}\n'
        reboots = lambda names: "".join('{"device":"%s","msg":"reboot"}\n' % name for name in names)
        listed_big, fleet_big = listing(20000)
        _, few = listing(300)
        bars = "".join((STARTED + DONE).replace("lobby-panel-01", name) for name in few)
        big = "big-" + "x" * 8000000  # larger than what the sockets buffer while devsim does not read
        big_fleet = self.write("big.json", json.dumps([{"name": big}]))
        # devsim's options, the tool's, its output, and every frame devsim received, in order. devsim
        # announces each reboot as it reads it, so a tool that closed before every frame was read
        # would lose the rest to the reset its system sends back.
        table = [
            ((), ("--recover-safe", "--recover-failsafe", "--all", "--reboot"),
             (STARTED + DONE).replace("lobby-panel-01", "dock-controller-03") +
             (STARTED + DONE).replace("lobby-panel-01", "yard-gw-07"),
             '{"device":"dock-controller-03","msg":"failsafe_recover"}\n' + reboots(["dock-controller-03"]) +
             '{"macaddr":"yard-gw-07","msg":"failsafe_recover"}\n' + reboots(["yard-gw-07"])),
            (("--generate-fleet=300", "--pause-reading-ms=1"), ("--file=fw.bin", "--all", "--reboot"), bars,
             "".join(upgrade % (name, self.folder) + reboots([name]) for name in few)),
            (("--generate-fleet=20000", "--pause-reading-ms=20"), ("--list", "--reboot"), listed_big, reboots(fleet_big)),
            (("--fleet=" + big_fleet, "--pause-reading-ms=500"), ("--list", "--reboot"),
             "Found[Normal]:   %s,?,?,?\n" % big, reboots([big])),
        ]
        for sim_args, args, output, frames in table:
            with self.subTest(sim=sim_args, args=args[:3]):
                sim = self.sim(*sim_args)
                self.assertEqual(self.tool("--port=%d" % sim.port, *args), (output, 0, ""))
                self.assertEqual(sim.frames(), frames)
                self.assertTrue(" gone (dropped without closing: End of File)" in slurp(sim.log_path),
                                "the tool's connection did not end with an end of stream")

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
    # Reset after reading about a hundred reboots: the run was over, but not every request was read.
    # Whether the library saw the reset, and logged it, depends on when it came.
    ("reset amid a list's reboots", ("--generate-fleet=3000", "--reset-after=201"), ("--list", "--reboot"),
     listing(3000)[0], 1, None),
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
