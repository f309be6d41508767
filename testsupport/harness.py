"""What the Python tests and benchmarks share: devsim on a free port, a bare WebSocket client,
and a test case with a scratch folder. CTest puts this folder on PYTHONPATH."""

import itertools
import json
import os
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import unittest

DEVUPDATE = os.environ.get("DEVUPDATE", "devupdate")
DEVSIM = os.environ.get("DEVSIM", "devsim")
TIMEOUT = 10  # seconds; an upper bound for waits that normally take milliseconds
STARTUP = 60  # seconds; devsim builds and serialises its whole fleet before it listens


def slurp(path):
    with open(path) as f:
        return f.read()


class Devsim:
    """One devsim on a free port; its log, its port file and with `record` the frames it receives
    are files in `folder`."""

    serial = itertools.count()

    def __init__(self, folder, args, binary=DEVSIM, record=False):
        base = os.path.join(folder, "devsim%d." % next(Devsim.serial))
        self.log_path, self.record, port_file = base + "log", base + "rec", base + "port"
        recording = ["--record=" + self.record] if record else []
        with open(self.log_path, "wb") as log:
            self.proc = subprocess.Popen([binary, "--port=0", "--port-file=" + port_file, *recording, *args],
                                         stdout=subprocess.DEVNULL, stderr=log)
        try:
            self.wait_for(lambda: os.path.exists(port_file), "listening", STARTUP)
        except RuntimeError:
            self.proc.kill()
            self.proc.wait()
            raise
        self.port = int(slurp(port_file))

    def wait_for(self, ready, what, timeout=TIMEOUT):
        """Returns once `ready()` holds; raises when devsim ends first or `timeout` seconds pass."""
        deadline = time.monotonic() + timeout
        while not ready():
            if self.proc.poll() is not None or time.monotonic() > deadline:
                raise RuntimeError("devsim %s before %s: %s" % (
                    "took too long" if self.proc.returncode is None else "ended with status %d" % self.proc.returncode,
                    what, slurp(self.log_path)[-1000:]))
            time.sleep(0.01)

    def gone(self):
        """How many clients have left so far."""
        return slurp(self.log_path).count(" gone (")

    def frames(self, clients=1, timeout=TIMEOUT):
        """What devsim received, once `clients` clients have gone (all they sent is recorded by then)."""
        self.wait_for(lambda: self.gone() >= clients, "%d clients had gone" % clients, timeout)
        return slurp(self.record) if os.path.exists(self.record) else ""

    def stop(self):
        """Its exit status after SIGTERM."""
        if self.proc.poll() is None:
            self.proc.send_signal(signal.SIGTERM)
        try:
            return self.proc.wait(TIMEOUT)
        except subprocess.TimeoutExpired:
            self.proc.kill()  # nothing is left running, whatever the test makes of it
            self.proc.wait()
            raise


class Frames:
    """WebSocket frames written out by hand over `sock`, read through `stream` (anything with read and
    readline): what the bare client below and the raw peer in peers.py share."""

    def __init__(self, sock, stream, client):
        self.sock, self.stream, self.mask = sock, stream, client

    def read_line(self):
        line = self.stream.readline()
        if not line.endswith(b"\n"):
            raise ConnectionError("the connection ended mid-handshake")
        return line

    def read(self, size):
        data = self.stream.read(size)
        if len(data) < size:
            raise ConnectionError("the connection ended mid-frame")
        return data

    def head(self):
        """The next frame's opcode, payload length and mask bit; its payload (after any masking key) is
        next to read."""
        first, second = self.read(2)
        size = second & 127
        size = int.from_bytes(self.read(2 if size == 126 else 8), "big") if size > 125 else size
        return first & 15, size, second & 128

    def header(self):
        """The next frame's opcode and payload length."""
        return self.head()[:2]

    def frame(self):
        """The next frame's opcode and payload, unmasked."""
        opcode, size, masked = self.head()
        key = self.read(4) if masked else bytes(4)
        payload = self.read(size)
        if any(key):
            mask = int.from_bytes((key * (size // 4 + 1))[:size], "big")
            payload = (int.from_bytes(payload, "big") ^ mask).to_bytes(size, "big")
        return opcode, payload

    def send_frame(self, opcode, data, fin=True):
        """One frame; a client's carry a zero masking key, which leaves the payload as it is."""
        size = len(data)
        length = bytes([size]) if size < 126 else \
            b"\x7e" + size.to_bytes(2, "big") if size < 65536 else b"\x7f" + size.to_bytes(8, "big")
        self.sock.sendall(bytes([fin << 7 | opcode, self.mask << 7 | length[0]]) + length[1:] +
                          bytes(4 if self.mask else 0) + data)

    def send(self, message):
        """Sends a text frame: `message` as JSON, or a str as it is."""
        self.send_frame(1, (message if isinstance(message, str) else json.dumps(message)).encode())


class WebSocket(Frames):
    """A client written out by hand, for what no client library would send or show: frames go out
    masked with a zero key; every frame read is returned as it came."""

    def __init__(self, port, timeout=TIMEOUT):
        sock = socket.create_connection(("127.0.0.1", port), timeout)
        super().__init__(sock, sock.makefile("rb"), client=True)
        self.sock.sendall(b"GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                          b"Sec-WebSocket-Key: AAAAAAAAAAAAAAAAAAAAAA==\r\nSec-WebSocket-Version: 13\r\n\r\n")
        if not self.stream.readline().startswith(b"HTTP/1.1 101 "):
            raise ConnectionError("the service refused the WebSocket handshake")
        while self.read_line() != b"\r\n":
            pass

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.stream.close()
        self.sock.close()

    def message(self):
        """The next message, decoded; raises when the service closes instead."""
        opcode, payload = self.frame()
        if opcode == 8:
            raise ConnectionError("the service closed the connection: %r" % payload)
        return json.loads(payload)


class Journey(unittest.TestCase):
    """A scratch folder holding a firmware file, devsims that record what they receive, and devupdate."""

    def setUp(self):
        self.folder = os.path.realpath(tempfile.mkdtemp(prefix="devupdate-test-"))
        self.addCleanup(shutil.rmtree, self.folder, True)
        self.write("fw.bin", "DEVFW1 version=2.0.0\n")

    def write(self, name, text):
        """A file in the scratch folder; gives its path."""
        with open(os.path.join(self.folder, name), "w") as f:
            f.write(text)
        return f.name

    def sim(self, *args):
        """A devsim that runs each job in two steps at once, stopped cleanly when the test ends."""
        sim = Devsim(self.folder, ("--tick-ms=0", "--progress-steps=2", *args), record=True)
        self.addCleanup(lambda: self.assertEqual(sim.stop(), 0, "devsim did not stop cleanly"))
        return sim

    def tool(self, *args, timeout=TIMEOUT):
        """Runs devupdate to its end: its standard output, exit status and standard error."""
        done = subprocess.run([DEVUPDATE, *args], cwd=self.folder, capture_output=True, timeout=timeout)
        return done.stdout.decode(), done.returncode, done.stderr.decode()
