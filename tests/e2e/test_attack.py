# The control port under attack from the network: hostile bodies, connection
# floods, a refused peer and a request during shutdown. The supervisor answers
# or drops each at once and serves on (or, shutting down, ends on time).

import os
import socket
import threading
import time
import unittest
import urllib.error
import urllib.request
import xmlrpc.client

from watchdog_harness import HOST, cpu_seconds, entries, launch, pid_alive, read

ANSWER_S = 5.0 if "TSAN_OPTIONS" in os.environ or "ASAN_OPTIONS" in os.environ else 1.0
W, NONE = "VantrelWatchdog.", "<string></string>"


def raw(method, *values):
    return ("<?xml version='1.0'?><methodCall><methodName>%s</methodName><params>%s</params></methodCall>"
            % (method, "".join("<param><value>%s</value></param>" % v for v in values)))


# (body, whether it must draw a fault rather than just any answer)
BODIES = [("", False), ("not xml at all", False), ("<?xml version='1.0'?><methodCall>", False),
          (raw(W + "GetItem", "<int>0</int>", "<string>" + "A" * 200000 + "</string>"), False),
          (raw(W + "SetItem", "<int>0</int>"), True), (raw(W + "SetField", "<int>0</int>", NONE, "<string>t_del</string>"), True),
          (raw(W + "SetField", "<array><data><value>1</value></data></array>", NONE, "<string>t_del</string>", NONE), True),
          (raw(W + "GetStdXXXBuf", "<int>0</int>", NONE, "<double>1e308</double>", "<int>1</int>"), True),
          (raw(W + "GetStdXXXBuf", "<int>0</int>", NONE, "<string>-99999999999999999999</string>",
               "<int>2147483647</int>"), False),
          (raw(W + "GetAuth", "<struct></struct>", "<base64>////</base64>"), True),
          (raw(W + "NoSuchMethod"), True), (raw("system.shutdown"), True),
          ("<?xml version='1.0'?><!DOCTYPE a [<!ENTITY b '" + "c" * 1000 + "'>]>" + raw("&b;")[21:], True),
          (raw(W + "GetItem", "<array><data><value>" * 5000 + "</value></data></array>" * 5000), True),
          ("<?xml version='1.0'?><!DOCTYPE m [<!ENTITY l0 'ha'>" + "".join("<!ENTITY l%d '%s'>" % (n, "&l%d;" % (n - 1) * 10)
           for n in range(1, 10)) + "]>" + raw(W + "GetStatus", "&l9;")[21:], True),
          (xmlrpc.client.dumps(([{"methodName": W + "GetStatus", "params": []}] * 2000,), "system.multicall"), True)]
# An <i8> that is not a plain number once took the request thread down.
BODIES += [(raw(W + "GetAuth", "<i8>%s</i8>" % t), True) for t in ("5x", "-", "99999999999999999999", "5 ")]


def post(port, body):
    # The raw answer to one POST, whatever its status; raises when the connection was dropped unanswered.
    try:
        request = urllib.request.Request("http://%s:%d/RPC2" % (HOST, port), body.encode(), {"Content-Type": "text/xml"})
        return urllib.request.urlopen(request, timeout=10).read()
    except urllib.error.HTTPError as answer:
        return answer.read()


def slow_sender(port, stop):
    # Sends a request a byte at a time and reconnects whenever it is dropped.
    while not stop.is_set():
        try:
            with socket.create_connection((HOST, port), timeout=2) as s:
                for byte in b"POST /RPC2 HTTP/1.1\r\nContent-Length: 99\r\n\r\n":
                    if stop.wait(0.3):
                        return
                    s.send(bytes([byte]))
        except OSError:
            stop.wait(0.05)


class ControlPortUnderAttack(unittest.TestCase):
    def start(self, lines, fake_system=False):
        return launch(self, lines or (lambda wd: wd.app_lines("elem_mixer", "c", "--autorun=1")),
                      {"VantrelElementsMixer": "trap '' INT\nsleep 3\n"}, fake_system)   # a slow stop, to be probed

    def assert_serves(self, wd, what):
        started = time.monotonic()
        self.assertEqual(entries(wd.rpc())[0]["alias"][:7], "Library", what)
        self.assertLess(time.monotonic() - started, ANSWER_S, what)

    def test_hostile_bodies_and_floods(self):
        wd = self.start(["--lib=/cfg/lib.xml", "--alias=Library"], fake_system=True)
        for body, faulted in BODIES:
            with self.subTest(body=body[:100]):
                started = time.monotonic()
                answer = post(wd.port, body)
                self.assertLess(time.monotonic() - started, ANSWER_S)
                self.assertTrue(b"<fault>" in answer or not faulted, answer[:300])
                self.assert_serves(wd, body[:100])
        before = cpu_seconds(wd.proc.pid)
        time.sleep(1.0)   # a measuring window, not a wait for anything
        self.assertLess(cpu_seconds(wd.proc.pid) - before, 0.3, "CPU back to idle")
        self.assertFalse(os.path.exists(wd.path("system.txt")), "no machine command was asked for")

        with self.subTest("100 idle and 60 slow connections"):
            idle = [socket.create_connection((HOST, wd.port)) for _ in range(100)]
            stop = threading.Event()
            senders = [threading.Thread(target=slow_sender, args=(wd.port, stop)) for _ in range(60)]
            try:
                [t.start() for t in senders]
                deadline = time.monotonic() + 8   # past the first-byte and read timeouts: drops and reconnects
                while time.monotonic() < deadline and not stop.wait(0.5):
                    self.assert_serves(wd, "under the flood")
            finally:
                stop.set()
                [t.join(10) for t in senders] + [s.close() for s in idle]

    def test_allow_without_127_0_0_1_refuses_us(self):
        wd = self.start(["--allow=10.0.0.0/8,192.168.1.7", "--script=/c"])
        with socket.create_connection((HOST, wd.port), timeout=ANSWER_S) as s:
            try:   # closed unread: a reset when the request bytes came first
                self.assertEqual(s.sendall(b"POST /RPC2 HTTP/1.0\r\n\r\n") or s.recv(100), b"")
            except ConnectionResetError:
                pass
        self.assertTrue(pid_alive(wd.proc.pid) and "--allow=10.0.0.0/8,192.168.1.7\n" in read(wd.conf_path), "serves on")

    def test_request_during_shutdown_is_refused_at_once(self):
        wd = self.start([])
        self.addCleanup(socket.create_connection((HOST, wd.port)).close)   # kept open through the shutdown
        wd.wait_log(r"forker's pid=\d+")
        stopping_since = time.monotonic()
        wd.proc.terminate()
        wd.wait_log("catched 15")
        asked = time.monotonic()
        try:
            entries(wd.rpc())
        except ConnectionError:   # refused, or reset while queued for a closing port
            pass
        self.assertLess(time.monotonic() - asked, ANSWER_S, "refused or answered at once")
        self.assertEqual(wd.wait_exit(30), 0)
        self.assertLess(time.monotonic() - stopping_since, 3 + 2 * ANSWER_S + 2, "the idle client held the exit")
