"""Services the project did not write, for the tool to meet besides devsim: one built on Python's
websockets library as a service on it would be written, one on raw sockets whose reading, answering
and ending a test controls. Like a real service, each answers every request at once, reads at its
own pace and closes its side once its client has ended its stream; a test may make it harsher."""

import asyncio
import base64
import hashlib
import json
import logging
import socket
import struct
import threading
import time

from harness import TIMEOUT, Frames

LINGER_ZERO = struct.pack("ii", 1, 0)  # close() then resets the connection: no close frame, no end of stream


def fleet(count, total=None):
    """The devices of devsim's --generate-fleet=count; with `total`, each padded with a "location" the
    tool does not read so that their "devices" message is `total` bytes long."""
    devices = []
    for i in range(count):
        octets = ((i >> 16) & 255, (i >> 8) & 255, i & 255)
        maker, product = (("acme", "Acme"), ("x100", "X100 Controller", "2.0.3")) if i % 2 == 0 else \
            (("northwind", "Northwind"), ("nw200", "NW-200 Gateway", "4.1.0"))
        devices.append({"id": "GN%07d" % (i + 1), "name": "node-%05d" % (i + 1),
                        "interfaces": [{"ipAddress": "10.%d.%d.%d" % octets,
                                        "macAddr": "02:00:00:%02x:%02x:%02x" % octets, "name": "eth0"}],
                        "manufacturer": dict(zip(("id", "name"), maker)),
                        "product": dict(zip(("id", "name", "version"), product))})
    if total:
        room = total - len(text({"devices": devices, "msg": "devices"})) - count * len(',"location":""')
        for i, device in enumerate(devices):
            device["location"] = "x" * (room * (i + 1) // count - room * i // count)
    return devices


def text(message):
    """A message as a service on the tool's JSON library writes it: compact, members sorted."""
    return json.dumps(message, separators=(",", ":"), sort_keys=True, ensure_ascii=False)


class Peer:
    """What both peers share: the fleet they serve, the answers they give, what they read."""

    def __init__(self, devices, reset_after=None, fragments=1):
        self.devices = {device.get("name"): device for device in devices}
        self.list = text({"devices": devices, "msg": "devices"})
        self.reset_after, self.fragments = reset_after, fragments
        self.read, self.pongs, self.ending = [], [], None  # payloads read in order; pongs read; how it ended
        self.ended = threading.Event()

    def pieces(self):
        """The list cut into `fragments` pieces, for a message sent as several frames."""
        step = -(-len(self.list) // self.fragments)
        return [self.list[at:at + step] for at in range(0, len(self.list), step)]

    def answers(self, payload):
        """What a request makes the service say: a job's progress and its end, for its client; a rebooting
        device's departure, for every client."""
        try:
            request = json.loads(payload)
            kind, name = request.get("msg"), request.get("device", request.get("macaddr"))
        except (ValueError, AttributeError):
            return [], []
        if kind == "reboot" and name in self.devices:
            return [], [text({"device": self.devices[name], "msg": "device_removed"})]
        if kind in ("upgrade", "failsafe_recover"):
            return [text({"device": name, "msg": "upgrade_progress", "progress": p, "status": s})
                    for p, s in ((50, "Flashing"), (100, "Done"))], []
        return [], []

    def frames(self, timeout=TIMEOUT):
        """Every payload read, once the connection has ended."""
        if not self.ended.wait(timeout):
            raise RuntimeError("the connection did not end; read so far: %d frames" % len(self.read))
        return "".join(self.read)


class Paced:
    """A socket read `chunk` bytes at a time with `pause` seconds after each read."""

    def __init__(self, sock, chunk, pause):
        self.sock, self.chunk, self.pause, self.buffer = sock, chunk, pause, bytearray()

    def fill(self, until):
        while not until():
            data = self.sock.recv(self.chunk)
            if not data:
                return
            self.buffer += data
            time.sleep(self.pause)

    def take(self, size):
        data = bytes(self.buffer[:size])
        del self.buffer[:size]
        return data

    def read(self, size):
        self.fill(lambda: len(self.buffer) >= size)
        return self.take(size)

    def ended(self):
        """Whether the stream ends here: nothing left to read."""
        self.fill(lambda: self.buffer)
        return not self.buffer

    def readline(self):
        self.fill(lambda: b"\n" in self.buffer)
        return self.take(self.buffer.find(b"\n") + 1 or len(self.buffer))


class RawPeer(Peer):
    """One connection, served by hand: `chunk` and `pause` pace its reading, `reset_after` frames read
    end it with a reset, `fragments` > 1 sends the list in that many frames with a ping before and after
    the first."""

    def __init__(self, devices, chunk=65536, pause=0, **how):
        super().__init__(devices, **how)
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.serve, args=(chunk, pause), daemon=True)
        self.thread.start()

    def serve(self, chunk, pause):
        try:
            sock, _ = self.listener.accept()
        except OSError:
            return self.ended.set()  # stopped before anyone came
        with sock:
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)  # as services that answer at once do
            wire = Frames(sock, Paced(sock, chunk, pause), client=False)
            try:
                self.handshake(wire)
                self.ending = self.talk(wire)
            except ConnectionResetError:
                self.ending = "reset"
            except (ConnectionError, OSError) as error:
                self.ending = str(error)
            finally:
                self.ended.set()

    def handshake(self, wire):
        key = b""
        for line in iter(wire.read_line, b"\r\n"):
            name, _, value = line.partition(b":")
            key = value.strip() if name.strip().lower() == b"sec-websocket-key" else key
        accept = base64.b64encode(hashlib.sha1(key + b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11").digest())
        wire.sock.sendall(b"HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                          b"Sec-WebSocket-Accept: " + accept + b"\r\n\r\n")

    def talk(self, wire):
        """Sends the list, then reads and answers until the connection ends; says how it ended."""
        pieces = self.pieces()
        if len(pieces) > 1:
            wire.send_frame(9, b"before")
        for at, piece in enumerate(pieces):
            wire.send_frame(0 if at else 1, piece.encode(), fin=at == len(pieces) - 1)
            if at == 0 and len(pieces) > 1:
                wire.send_frame(9, b"during")
        while True:
            if wire.stream.ended():
                return "end of stream"
            opcode, payload = wire.frame()
            if opcode == 8:
                wire.send_frame(8, payload[:2])
                return "close frame"
            if opcode == 9:
                wire.send_frame(10, payload)
            elif opcode == 10:
                self.pongs.append(payload)
            elif opcode in (0, 1, 2):
                self.read.append(payload.decode())
                if len(self.read) == self.reset_after:
                    wire.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, LINGER_ZERO)
                    return "reset by the service"
                own, everyone = self.answers(payload)
                for answer in own + everyone:
                    wire.send(answer)

    def stop(self):
        self.listener.close()
        self.thread.join(TIMEOUT)


class WebsocketsPeer(Peer):
    """A service on the websockets library's ordinary server API. Job progress goes to the client that
    asked; a rebooting device's departure is news for every client, broadcast as the library does it
    (never waiting, skipping connections that have closed). `reset_after` frames read end the
    connection with a reset; `fragments` > 1 sends the list in that many frames with a ping before
    and after the first."""

    def __init__(self, devices, **how):
        super().__init__(devices, **how)
        import websockets  # only this peer needs the library
        self.websockets, self.clients, self.started = websockets, set(), threading.Event()
        # A client that left while answers were on their way is routine, not news.
        logging.getLogger("websockets").setLevel(logging.CRITICAL)
        logging.getLogger("asyncio").setLevel(logging.CRITICAL)
        self.thread = threading.Thread(target=asyncio.run, args=(self.main(),), daemon=True)
        self.thread.start()
        if not self.started.wait(TIMEOUT):
            raise RuntimeError("the websockets peer did not start")

    async def main(self):
        self.loop, self.done = asyncio.get_running_loop(), asyncio.Event()
        async with self.websockets.serve(self.handle, "127.0.0.1", 0) as server:
            self.port = server.sockets[0].getsockname()[1]
            self.started.set()
            await self.done.wait()

    async def handle(self, ws):
        self.clients.add(ws)
        pings = []
        try:
            await self.send_list(ws, pings)
            async for message in ws:
                if len(self.read) == self.reset_after:
                    continue  # what the library had taken in before the reset goes nowhere
                self.read.append(message)
                if len(self.read) == self.reset_after:
                    ws.transport.get_extra_info("socket").setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, LINGER_ZERO)
                    ws.transport.abort()
                    continue
                own, everyone = self.answers(message)
                for answer in own:
                    await ws.send(answer)
                for answer in everyone:
                    self.websockets.broadcast(self.clients, answer)
        except self.websockets.ConnectionClosed:
            pass
        finally:
            self.clients.discard(ws)
            self.pongs = [data for data, pong in pings if pong.done() and not pong.exception()]
            self.ended.set()

    async def send_list(self, ws, pings):
        pieces = self.pieces()
        if len(pieces) == 1:
            return await ws.send(self.list)
        pings.append((b"before", await ws.ping(b"before")))

        async def fragments():
            for at, piece in enumerate(pieces):
                yield piece
                if at == 0:
                    pings.append((b"during", await ws.ping(b"during")))
        await ws.send(fragments())

    def stop(self):
        self.loop.call_soon_threadsafe(self.done.set)
        self.thread.join(TIMEOUT)
