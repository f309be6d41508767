"""devsim through its binary: its command line, and its answers to requests devupdate never sends, via a raw client."""

import json
import os
import signal
import socket
import subprocess
import unittest

from harness import DEVSIM, TIMEOUT, Journey, WebSocket, slurp


def exchange(port, requests, count=0):
    """What devsim sends a client that sends `requests`: the devices list, then the next `count` messages."""
    with WebSocket(port) as ws:
        got = [ws.message()]
        for request in requests:
            ws.send(request)
        return got + [ws.message() for _ in range(count)]


def frame(payload, opcode=1, size=None):
    """A frame masked with a zero key, claiming `size` bytes of payload when that is given."""
    size = len(payload) if size is None else size
    length = [size] if size < 126 else [254] + list(size.to_bytes(2, "big")) if size < 65536 else [255] + list(
        size.to_bytes(8, "big"))
    return bytes([0x80 | opcode, 0x80 | length[0]] + length[1:]) + bytes(4) + payload


def memory(sim, key):
    """devsim's VmRSS or VmHWM in bytes; None where there is no /proc, or in a sanitized build."""
    if os.environ.get("DEVSIM_MEMORY_UNWEIGHED"):
        return None
    try:
        with open("/proc/%d/status" % sim.proc.pid) as f:
            return next(int(line.split()[1]) * 1024 for line in f if line.startswith(key + ":"))
    except FileNotFoundError:
        return None


def brief(message):
    """A message in one line: its kind, then what it says about the device and the job."""
    return " ".join(str(message[key]["name"] if isinstance(message[key], dict) else message[key])
                    for key in ("msg", "device", "progress", "status", "error", "ErrorReason", "zor_error_t", "desc")
                    if key in message)


class Service(Journey):
    def setUp(self):
        super().setUp()
        normal = {"manufacturer": {"id": "acme"}, "product": {"id": "x100", "version": "2.0.3"}}
        fleet = [dict(normal, name="n1"), dict(normal, name="n2"), dict(normal, name="stuck", sim={"stallAt": 0}),
                 dict(normal, name="shy", sim={"refuse": True, "resultCode": 9, "desc": "No space left"}),
                 dict(normal, name="flaky", sim={"failAt": 60, "errorCode": 3}),
                 dict(normal, name="picky", sim={"resultAt": 50, "resultCode": 9, "desc": "Battery low"}),
                 {"name": "fs", "isSafeModeDevice": True, "safeModeVersion": 1,
                  "interfaces": [{"macAddr": "AA:BB:CC:00:00:02"}], "sim": {"recoverVersion": "4.0.0"}},
                 {"name": "sm", "isSafeModeDevice": True, "safeModeVersion": 2, "sim": {"recoverVersion": "3.0.0"}},
                 {"name": "odd", "isSafeModeDevice": True, "sim": {"refuse": True, "resultCode": 8, "desc": "No"}}]
        self.fleet = "--fleet=" + self.write("fleet.json", json.dumps(fleet))
        self.image, self.other = self.write("fw.bin", ""), self.write("other.bin", "DEVFW1 manufacturer=northwind\n")

    def upgrade(self, device, path=None, force="false"):
        return {"msg": "upgrade", "device": device, "filePath": self.image if path is None else path, "override": force}

    def test_jobs_go_as_their_device_and_the_options_say(self):
        upgrade, ask = self.upgrade, lambda key, value: {"msg": "failsafe_recover", key: value}
        recover, refused = ask("macaddr", "aa:bb:cc:00:00:02"), lambda text: ["upgrade_result " + text]
        restart = lambda name: ["device_removed " + name, "device_added " + name]
        done = lambda name: restart(name) + ["upgrade_progress %s 100 Done" % name]  # a job ends after the restart
        # devsim's options, requests, what devsim sends back after the list, and lines its log holds.
        table = [
            ((), [upgrade("")], refused(" 7 Request names no device"), []),
            ((), [upgrade("fs")], refused("fs 6 Device fs is in failsafe mode and cannot take an image"), []),
            ((), [upgrade("odd")], refused("odd 6 Device odd is in unknown mode and cannot take an image"), []),
            ((), [upgrade("n1", "")], refused("n1 7 Request names no firmware file"), []),
            ((), [upgrade("n1", "/nonexistent/fw.bin")], refused("n1 2 Cannot read firmware file /nonexistent/fw.bin"), []),
            ((), [upgrade("n1", self.folder)], refused("n1 2 Cannot read firmware file " + self.folder), []),
            ((), [upgrade("n1", self.other)], refused("n1 3 Image is for northwind/any but n1 is acme/x100"), []),
            ((), [upgrade("n1", self.write("nw.bin", "DEVFW1 for model=NW200\r\n"))],
             refused("n1 3 Image is for any/NW200 but n1 is acme/x100"), []),
            ((), [upgrade("shy")], refused("shy 9 No space left"), []),
            ((), [ask("device", "")], refused(" 7 Request names no device"), []),
            ((), [ask("macaddr", "aa:bb:cc:00:00:99")], refused("aa:bb:cc:00:00:99 4 Unknown device aa:bb:cc:00:00:99"), []),
            ((), [ask("device", "n1")], refused("n1 6 Device n1 is not in safe or failsafe mode"), []),
            ((), [ask("device", "odd")], refused("odd 8 No"), []),
            ((), [upgrade("flaky")], ["upgrade_progress flaky 50 Flashing",
                                      "upgrade_progress flaky 60 Fail 3 Flash write error"], []),
            ((), [upgrade("picky")], ["upgrade_result picky 9 Battery low"], []),
            ((), [upgrade("n1", self.other, "true")], ["upgrade_progress n1 50 Flashing", *done("n1")],
             ["Image is for northwind/any but n1 is acme/x100; flashing it anyway"]),
            (("--tick-ms=1", "--progress-steps=4"), [recover],
             ["upgrade_progress fs %d Recovering" % p for p in (25, 50, 75)] + done("fs"), []),
            (("--tick-ms=3600000",), [recover, dict(recover, macaddr="fs")],
             ["upgrade_result fs 5 Device fs is busy with another job"], []),
            # Requests it cannot act on are logged and ignored; it still answers the next one.
            ((), ["this is not json", "[1]", "{}", {"msg": "bogus"}, dict(upgrade("ghost"), override=5)],
             ["upgrade_result ghost 4 Unknown device ghost"],
             ["ignoring a frame that is not JSON (* Line 1, Column 1 Syntax error: value, object or array expected.)",
              "ignoring a JSON value that is not an object", 'ignoring a message without a "msg" string',
              'ignoring unknown request "bogus"', '"override" is not a string, taken as "false"']),
            (("--mute-after=1",), [upgrade("n1")], [], ["muted after 1 messages", "muted, ignoring a frame of"]),
            ((), [upgrade("stuck"), upgrade("stuck"), {"msg": "reboot", "device": "ghost"},
                  {"msg": "reboot", "device": "stuck"}, {"msg": "reboot"}, {"msg": "reboot", "device": "n1"}],
             ["upgrade_progress stuck 0 Transferring", "upgrade_result stuck 5 Device stuck is busy with another job",
              *restart("n1")],
             ['reboot of unknown device "ghost" ignored', 'reboot of unknown device "" ignored',
              "reboot of stuck ignored, a job is running on it"]),
        ]
        for args, requests, expected, logged in table:
            with self.subTest(args=args, request=requests[0]):
                sim = self.sim(self.fleet, *args)
                self.assertEqual([brief(m) for m in exchange(sim.port, requests, len(expected))[1:]], expected)
                sim.wait_for(lambda: all(line in slurp(sim.log_path) for line in logged), "logging %s" % logged)

    def test_a_finished_job_leaves_the_device_at_its_new_version(self):
        port = self.sim(self.fleet).port
        exchange(port, [self.upgrade("n1"),
                        self.upgrade("n2", self.write("v7.bin", "DEVFW1 manufacturer=ACME version=7.1\n")),
                        self.upgrade("sm"), {"msg": "failsafe_recover", "macaddr": "aa:bb:cc:00:00:02"}], 16)
        # Once each job sent its 4 messages, a plain image has bumped the version, a versioned one set it, and a
        # safe-mode device that took an image and a recovered one are normal at their recovery version, as listed later.
        self.assertEqual([(d["name"], d.get("product", {}).get("version"), d.get("isSafeModeDevice"))
                          for d in exchange(port, [])[0]["devices"]],
                         [("n1", "2.0.4", None), ("n2", "7.1", None), ("stuck", "2.0.3", None),
                          ("shy", "2.0.3", None), ("flaky", "2.0.3", None), ("picky", "2.0.3", None),
                          ("fs", "4.0.0", None), ("sm", "3.0.0", None), ("odd", None, True)])

    def test_scripted_devices_come_go_and_change_in_their_time(self):
        change = {"changeAfterMs": 40, "changeTo": {"isSafeModeDevice": None, "product": {"version": "2"}}}
        fleet = [{"name": "beta", "sim": {"leaveAfterMs": 60}}, {"name": "carol", "sim": {"appearAfterMs": 20}},
                 {"name": "dave", "isSafeModeDevice": True, "sim": change},
                 {"name": "eve", "sim": dict(change, appearAfterMs=80, leaveAfterMs=0)}]  # not there to change or leave
        got = exchange(self.sim("--fleet=" + self.write("timed.json", json.dumps(fleet))).port, [], 4)
        self.assertEqual([got[0]["devices"]] + got[1:], [
            [{"name": "beta"}, {"name": "dave", "isSafeModeDevice": True}],
            {"msg": "device_added", "device": {"name": "carol"}},
            {"msg": "device_changed", "from": {"name": "dave", "isSafeModeDevice": True},
             "to": {"name": "dave", "product": {"version": "2"}}},
            {"msg": "device_removed", "device": {"name": "beta"}},
            {"msg": "device_added", "device": {"name": "eve"}}])

    def test_devsim_closes_a_connection_when_asked_to_and_when_stopped(self):
        stopped = self.sim()  # the one asked to close is stopped, and checked, as every sim is when the test ends
        for sim, reason in ((self.sim("--close-after=1"), b"closing as asked"), (stopped, b"service stopping")):
            with self.subTest(reason), WebSocket(sim.port) as ws:
                self.assertEqual(ws.message()["msg"], "devices")
                if sim is stopped:
                    sim.proc.send_signal(signal.SIGINT)
                self.assertEqual(ws.frame(), (8, (1001).to_bytes(2, "big") + reason))
        self.assertEqual(stopped.proc.wait(TIMEOUT), 0)


    def test_no_client_stops_devsim_or_takes_it_past_its_limits(self):
        """Each row's hostile clients stay connected while another client is served; devsim's peak memory stays
        within its limits of 2 MB unwritten per client and 1 MB per message (without them, the slow reader took it
        17 MB higher and the flood 40 MB)."""
        reboot, big = json.dumps({"msg": "reboot", "device": "n1"}).encode(), "x" * 100000
        small, fleet = self.fleet, "--fleet=" + self.write("big.json", json.dumps([{"name": "n1", "pad": big}]))
        forged = "a\ndevsim: client 9 gone (x)\x1b[2J\u2028"

        def sender(port, *frames, answered=True):  # sends raw frames; a parsed reboot after them is still answered
            ws = WebSocket(port)
            ws.sock.sendall(b"".join(frames) + (frame(reboot) if answered else b""))
            if answered:
                self.assertEqual(ws.message()["msg"], "devices")
                self.assertEqual(ws.message()["msg"], "device_removed")
            return [ws]

        def slow_reader(port):  # never reads while another client reboots the 100 kB device 100 times
            idle, busy = WebSocket(port), WebSocket(port)
            busy.message()
            for _ in range(100):
                busy.sock.sendall(frame(reboot))
                busy.message(), busy.message()
            return [idle, busy]

        def flood(port):  # 200 reboots of the 100 kB device at once, nothing read: 40 MB of news for it alone
            ws = WebSocket(port)
            ws.sock.sendall(frame(reboot) * 200)
            return [ws]

        def crowd(port):  # the cap is 3 clients: a fourth is refused until one leaves
            held = [WebSocket(port) for _ in range(3)]
            self.assertRaisesRegex(ConnectionError, "refused", WebSocket, port)
            held[0].sock.shutdown(socket.SHUT_WR)
            return held

        # devsim's options, the hostile clients (kept open while the next client is served), lines devsim logs.
        table = [
            ((small,), lambda port: sender(port, frame(b"[" * 1001 + b"]" * 1001)),
             ["ignoring a frame that is not JSON (Exceeded stackLimit in readValue().)"]),
            ((small,), lambda port: sender(port, frame(b"x", size=1000001), answered=False),
             ["gone (closed by devsim: code 1009, A message was too large)"]),
            ((small,), lambda port: sender(port, frame(b"x" * 999999, size=1000000), answered=False), []),
            ((small,), lambda port: sender(port, frame(reboot, opcode=2)), ["ignoring a binary frame of 33 bytes"]),
            ((fleet,), slow_reader, ["cut off, it reads too slowly", "gone (closed by devsim: more than 2000000 bytes"]),
            ((fleet,), flood, ["reboot n1"]),
            ((small,), lambda port: sender(port, frame(json.dumps({"msg": "reboot", "device": forged}).encode())),
             ['reboot of unknown device "a\\x0adevsim: client 9 gone (x)\\x1b[2J\\u2028" ignored']),
            ((small, "--max-clients=3"), crowd, ["refusing a connection from 127.0.0.1:", "gone (ended normally: end of s"]),
        ]
        for args, hostile, logged in table:
            with self.subTest(hostile=hostile.__name__, args=args, logged=logged[:1]):
                sim = self.sim("--max-unwritten=2000000", "--max-message=1000000", *args)
                start, held = memory(sim, "VmRSS"), hostile(sim.port)
                sim.wait_for(lambda: all(line in slurp(sim.log_path) for line in logged), "logging %s" % logged)
                with WebSocket(sim.port) as ws:
                    name = ws.message()["devices"][0]["name"]
                    ws.send({"msg": "reboot", "device": name})
                    self.assertEqual(brief(ws.message()), "device_removed " + name)
                if start is not None:
                    self.assertLess(memory(sim, "VmHWM") - start, 8000000)
                self.assertEqual([line[:8] for line in slurp(sim.log_path).splitlines() if line[:8] != "devsim: "], [])
                for ws in held:
                    ws.__exit__()


class CommandLine(Journey):
    def test_it_says_where_it_listens_in_one_line(self):
        port_file = self.folder + "/port"
        sim = subprocess.Popen([DEVSIM, "--port=0", "--port-file=" + port_file], stdout=subprocess.PIPE, text=True)
        self.addCleanup(sim.communicate, timeout=TIMEOUT)
        self.addCleanup(sim.terminate)
        line = sim.stdout.readline()  # flushed at once: the port file is there by now
        self.assertEqual(line, "devsim listening on 127.0.0.1:%d\n" % int(slurp(port_file)))

    def test_bad_command_lines_end_it_with_a_reason(self):
        busy = self.sim().port
        # Arguments after --port=0, the exit status and the last line devsim prints.
        table = [
            (["-h"], 0, "SIGINT or SIGTERM stops it."),
            (["--bogus"], 2, "devsim: unknown option --bogus (see --help)"),
            (["--port=65536"], 2, "devsim: --port needs a whole number up to 65535"),
            (["--tick-ms=-1"], 2, "devsim: --tick-ms needs a whole number up to 3600000"),
            (["--tick-ms="], 2, "devsim: --tick-ms needs a whole number up to 3600000"),
            (["--close-after=99999999999"], 2, "devsim: --close-after needs a whole number up to 2147483647"),
            (["--progress-steps=0"], 2, "devsim: --progress-steps must be at least 1"),
            (["--max-clients=0"], 2, "devsim: --max-clients needs a whole number from 1 up to 1000000"),
            (["--fleet=f.json", "--generate-fleet=1"], 2, "devsim: --fleet and --generate-fleet exclude each other"),
            (["--fleet=/nonexistent/f.json"], 1, "devsim: cannot open fleet file /nonexistent/f.json"),
            (["--record=/nonexistent/r"], 1, "devsim: cannot open record file /nonexistent/r"),
            (["--port-file=/nonexistent/p"], 1, "devsim: cannot write port file /nonexistent/p"),
            (["--port=%d" % busy], 1, "devsim: cannot listen on 127.0.0.1:%d: Address already in use" % busy),
        ]
        for args, status, last in table:
            with self.subTest(args):
                done = subprocess.run([DEVSIM, "--port=0", *args], capture_output=True, text=True, timeout=TIMEOUT)
                self.assertEqual((done.returncode, (done.stdout + done.stderr).splitlines()[-1]), (status, last))


if __name__ == "__main__":
    unittest.main()
