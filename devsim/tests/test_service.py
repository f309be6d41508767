"""devsim's answers to requests that devupdate never sends, through a client written here."""

import json
import os
import socket
import sys
import unittest

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "e2e"))
from test_devupdate import TIMEOUT, Journey  # noqa: E402  (a scratch folder and a devsim on an ephemeral port)


def exchange(port, requests, last):
    """What devsim sends a client that sends `requests` once the device list is in: the list, and
    with a `last`, what follows until `last` accepts all there is. Frames are masked with a zero key."""
    with socket.create_connection(("127.0.0.1", port), TIMEOUT) as sock, sock.makefile("rb") as stream:
        sock.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                     b"Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n\r\n")
        while stream.readline() not in (b"\r\n", b""):
            pass
        got = []
        while not (got and (last is None or len(got) > 1 and last(got))):
            size = stream.read(2)[1] & 127
            size = int.from_bytes(stream.read(2 if size == 126 else 8), "big") if size > 125 else size
            got.append(json.loads(stream.read(size)))
            if len(got) == 1:  # the list is in: send the requests
                for data in (json.dumps(request).encode() for request in requests):
                    length = bytes([0x80 | len(data)]) if len(data) < 126 else b"\xfe" + len(data).to_bytes(2, "big")
                    sock.sendall(b"\x81" + length + bytes(4) + data)
        return got


class Service(Journey):
    def setUp(self):
        super().setUp()
        normal = {"manufacturer": {"id": "acme"}, "product": {"id": "x100", "version": "2.0.3"}}
        fleet = [dict(normal, name="n1"), dict(normal, name="n2"), dict(normal, name="stuck", sim={"stallAt": 0}),
                 dict(normal, name="shy", sim={"refuse": True, "resultCode": 9, "desc": "No space left"}),
                 {"name": "fs", "isSafeModeDevice": True, "safeModeVersion": 1,
                  "interfaces": [{"macAddr": "AA:BB:CC:00:00:02"}], "sim": {"recoverVersion": "4.0.0"}},
                 {"name": "odd", "isSafeModeDevice": True}]
        self.port = self.sim("--fleet=" + self.write("fleet.json", json.dumps(fleet))).port

    def test_bad_requests_are_refused_with_a_code_and_a_reason(self):
        image, other = self.write("fw.bin", "plain image\n"), self.write("other.bin", "DEVFW1 manufacturer=northwind\n")
        upgrade = lambda device, path=image: {"msg": "upgrade", "device": device, "filePath": path}
        recover = lambda key, value: {"msg": "failsafe_recover", key: value}
        # Requests, and the code, device and reason of the result that answers the last one.
        table = [
            ([upgrade("")], "7 : Request names no device"),
            ([upgrade("ghost")], "4 ghost: Unknown device ghost"),
            ([upgrade("fs")], "6 fs: Device fs is in failsafe mode and cannot take an image"),
            ([upgrade("odd")], "6 odd: Device odd is in unknown mode and cannot take an image"),
            ([upgrade("n1", "")], "7 n1: Request names no firmware file"),
            ([upgrade("n1", "/nonexistent/fw.bin")], "2 n1: Cannot read firmware file /nonexistent/fw.bin"),
            ([upgrade("n1", other)], "3 n1: Image is for northwind/any but n1 is acme/x100"),
            ([upgrade("shy")], "9 shy: No space left"),
            ([upgrade("stuck"), upgrade("stuck")], "5 stuck: Device stuck is busy with another job"),
            ([recover("device", "")], "7 : Request names no device"),
            ([recover("macaddr", "aa:bb:cc:00:00:99")], "4 aa:bb:cc:00:00:99: Unknown device aa:bb:cc:00:00:99"),
            ([recover("device", "n1")], "6 n1: Device n1 is not in safe or failsafe mode"),
        ]
        for requests, expected in table:
            with self.subTest(requests[-1]):
                reply = exchange(self.port, requests, lambda got: got[-1]["msg"] == "upgrade_result")[-1]
                self.assertEqual("%d %s: %s" % (reply["zor_error_t"], reply["device"], reply["desc"]), expected)

    def test_a_finished_job_leaves_the_device_at_its_new_version(self):
        exchange(self.port, [{"msg": "upgrade", "device": "n1", "filePath": self.write("fw.bin", "plain image\n")},
                             {"msg": "upgrade", "device": "n2",
                              "filePath": self.write("v7.bin", "DEVFW1 manufacturer=ACME version=7.1\n")},
                             {"msg": "failsafe_recover", "macaddr": "aa:bb:cc:00:00:02"}],
                 lambda got: [m.get("status") for m in got].count("Done") == 3)
        # A plain image bumps the version, a versioned one sets it, and a recovery leaves the
        # device in normal mode at its recovery version; a client that connects later lists them so.
        self.assertEqual([(d["name"], d.get("product", {}).get("version"), d.get("isSafeModeDevice"))
                          for d in exchange(self.port, [], None)[0]["devices"]],
                         [("n1", "2.0.4", None), ("n2", "7.1", None), ("stuck", "2.0.3", None),
                          ("shy", "2.0.3", None), ("fs", "4.0.0", None), ("odd", None, True)])

    def test_scripted_devices_come_go_and_change_in_their_time(self):
        change = {"changeAfterMs": 40, "changeTo": {"isSafeModeDevice": None, "product": {"version": "2"}}}
        fleet = [{"name": "beta", "sim": {"leaveAfterMs": 60}}, {"name": "carol", "sim": {"appearAfterMs": 20}},
                 {"name": "dave", "isSafeModeDevice": True, "sim": change}]
        got = exchange(self.sim("--fleet=" + self.write("timed.json", json.dumps(fleet))).port, [],
                       lambda got: len(got) == 4)
        self.assertEqual([got[0]["devices"]] + got[1:], [
            [{"name": "beta"}, {"name": "dave", "isSafeModeDevice": True}],
            {"msg": "device_added", "device": {"name": "carol"}},
            {"msg": "device_changed", "from": {"name": "dave", "isSafeModeDevice": True},
             "to": {"name": "dave", "product": {"version": "2"}}},
            {"msg": "device_removed", "device": {"name": "beta"}}])


if __name__ == "__main__":
    unittest.main()
