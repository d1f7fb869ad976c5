#!/usr/bin/env python3
"""GetStatus requests per second against a supervisor holding 1024 configured
applications (never started), with 1 and with 8 concurrent clients: once with
xmlrpc.client (the reply is parsed, as a front end does) and once with raw HTTP
requests whose replies are read but not parsed, which shows the server's share.

    python3 bench/getstatus_throughput.py [path/to/VantrelWatchdog] [seconds]

The binary defaults to $WATCHDOG_BIN, then build/src/VantrelWatchdog; each
measurement runs for `seconds` (default 5, at most 60). Talks to 127.0.0.1
only, every client loop is bounded in count and time, and the supervisor it
started is stopped with SIGTERM (SIGKILL when it does not end).
"""

import http.client
import os
import sys
import threading
import time
import xmlrpc.client

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))

import standalone  # noqa: E402
import watchdog_harness  # noqa: E402

APPS = 1024
MAX_REQUESTS_PER_CLIENT = 1_000_000
TYPES = ["elem_mixer", "elem_matrix", "elem_clock", "io", "lib", "sched"]


REQUEST = (b'<?xml version="1.0"?><methodCall><methodName>VantrelWatchdog.GetStatus</methodName>'
           b'<params/></methodCall>')


class RawClient:
    """GetStatus over one kept-alive HTTP connection, reply read unparsed."""

    def __init__(self, port):
        self.conn = http.client.HTTPConnection(watchdog_harness.HOST, port, timeout=30)

    def call(self):
        self.conn.request("POST", "/RPC2", REQUEST, {"Content-Type": "text/xml"})
        reply = self.conn.getresponse()
        body = reply.read()
        if reply.status != 200 or body.count(b"<name>ptr</name>") != APPS:
            raise RuntimeError("bad reply: HTTP %d, %d bytes" % (reply.status, len(body)))

    def close(self):
        self.conn.close()


class RpcClient:
    """GetStatus through xmlrpc.client, reply parsed into Python values."""

    def __init__(self, port):
        self.rpc = xmlrpc.client.ServerProxy("http://%s:%d/RPC2" % (watchdog_harness.HOST, port))

    def call(self):
        reply = self.rpc.VantrelWatchdog.GetStatus()
        if len(reply["list"]) != APPS:
            raise RuntimeError("short listing: %d" % len(reply["list"]))

    def close(self):
        self.rpc("close")()


def configured_apps():
    """Option lines for APPS applications that are configured but never started."""
    lines = []
    for i in range(APPS):
        lines += ["--%s=/cfg/app%04d" % (TYPES[i % len(TYPES)], i), "--alias=App %04d" % i,
                  "--thumb=thumb%04d.png" % i]
    return lines


def measure(port, clients, seconds, kind):
    """Completed requests per second over `seconds` with `clients` threads."""
    counts = [0] * clients
    errors = []
    start = threading.Barrier(clients + 1)
    deadline = [0.0]

    def client(slot):
        conn = kind(port)
        try:
            start.wait(timeout=10)
            for _ in range(MAX_REQUESTS_PER_CLIENT):
                if time.monotonic() >= deadline[0]:
                    break
                conn.call()
                counts[slot] += 1
        except Exception as exc:  # noqa: BLE001 - reported below
            errors.append(repr(exc))
        finally:
            conn.close()

    threads = [threading.Thread(target=client, args=(i,)) for i in range(clients)]
    for t in threads:
        t.start()
    began = time.monotonic()
    deadline[0] = began + seconds
    start.wait(timeout=10)
    for t in threads:
        t.join(timeout=seconds + 30)
    elapsed = time.monotonic() - began
    if errors:
        raise RuntimeError("; ".join(errors[:3]))
    return sum(counts) / elapsed


def main():
    binary = sys.argv[1] if len(sys.argv) > 1 else os.environ.get("WATCHDOG_BIN") or \
        os.path.join(HERE, "..", "build", "src", "VantrelWatchdog")
    seconds = min(float(sys.argv[2]), 60.0) if len(sys.argv) > 2 else 5.0
    watchdog_harness.BIN = os.path.abspath(binary)

    wd = standalone.watchdog()
    try:
        wd.write_conf(configured_apps())
        wd.start()
        wd.wait_port(timeout=30)
        probe = xmlrpc.client.ServerProxy("http://%s:%d/RPC2" % (watchdog_harness.HOST, wd.port))
        size = len(xmlrpc.client.dumps((probe.VantrelWatchdog.GetStatus(),), methodresponse=True))
        probe("close")()
        print("GetStatus with %d applications, reply about %d KiB" % (APPS, size // 1024))
        for kind, label in ((RpcClient, "xmlrpc.client"), (RawClient, "raw HTTP")):
            for clients in (1, 8):
                rate = measure(wd.port, clients, seconds, kind)
                print("%-13s %d client(s): %.1f requests/s" % (label, clients, rate))
        status = wd.stop(timeout=30)
        if status is None:
            print("supervisor did not stop on SIGTERM", file=sys.stderr)
            return 1
        return 0
    finally:
        wd.cleanup()


if __name__ == "__main__":
    sys.exit(main())
