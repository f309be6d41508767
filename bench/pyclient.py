#!/usr/bin/env python3
"""What a user might write instead of devupdate for a list run, in plain Python (asyncio, the
`websockets` package, `json`), for bench/throughput.py to compare with:

    pyclient.py --port=P --list [--reboot]

prints the device lines devupdate prints and, with --reboot, sends each shown device a
"reboot" request in the bytes devupdate writes. The requests are delivered as devupdate
delivers them: after the last one the sending side of the TCP connection is shut down and
whatever arrives is dropped until the service closes the connection (the benchmark's
service says how many requests it read). Exit status 0, or 1 when there is no connection or
it ends before the device list. Needs python3-websockets (Debian) or `pip install websockets`.
"""
import asyncio
import json
import sys

import websockets


def text(obj, key, fallback=""):
    value = obj.get(key) if isinstance(obj, dict) else None
    return value if isinstance(value, str) else fallback


def mode_word(device):
    if device.get("isSafeModeDevice") is not True:
        return "Normal"
    version = device.get("safeModeVersion")
    if not isinstance(version, int) or isinstance(version, bool) or version == 0:
        return ""
    return "Failsafe" if version == 1 else "Safe"


def line(device):
    """The device's line, or None for a device devupdate does not show."""
    if not isinstance(device, dict):
        return None
    mode, name = mode_word(device), text(device, "name")
    if not mode or not name:
        return None
    product = device.get("product")
    version = text(product, "versionString") or text(product, "version", "?")
    return "%-17s%s,%s,%s,%s\n" % ("Found[%s]: " % mode, name, text(device.get("manufacturer"), "name", "?"),
                                    text(product, "name", "?"), version)


async def run(port, reboot):
    # A list of a few tens of megabytes is over the package's default message limit.
    async with websockets.connect("ws://127.0.0.1:%d" % port, max_size=None) as ws:
        async for message in ws:
            msg = json.loads(message)
            if not isinstance(msg, dict) or msg.get("msg") != "devices":
                continue
            for device in msg.get("devices") or []:
                shown = line(device)
                if shown is None:
                    continue
                sys.stdout.write(shown)
                if reboot:
                    request = {"device": device["name"], "msg": "reboot"}
                    await ws.send(json.dumps(request, separators=(",", ":")) + "\n")
            if not reboot:
                return 0
            ws.transport.write_eof()  # behind the last request, once the buffer is written
            try:
                async for _ in ws:
                    pass
            except websockets.ConnectionClosedError:
                pass  # the service closes without a close frame, as it may after an end of stream
            return 0
    return 1


def main(argv):
    port, listing, reboot = 7070, False, False
    for arg in argv:
        if arg == "--list":
            listing = True
        elif arg == "--reboot":
            reboot = True
        elif arg.startswith("--port="):
            port = int(arg[len("--port="):])
        else:
            listing = False
            break
    if not listing:
        sys.stderr.write("usage: pyclient.py --port=P --list [--reboot]\n")
        return 2
    try:
        return asyncio.run(run(port, reboot))
    except (OSError, websockets.WebSocketException) as e:
        sys.stderr.write("pyclient.py: %s\n" % e)
        return 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
