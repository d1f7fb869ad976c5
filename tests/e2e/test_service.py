"""Service manager notifications: READY=1 only once the control port answers,
WATCHDOG=1 keeps coming from the supervision loop, STOPPING=1 at shutdown."""

import os
import socket
import time
import unittest

from watchdog_harness import BIN, Watchdog


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class ServiceNotify(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.sock.close)
        self.sock.bind(self.wd.path("notify.sock"))

    def receive(self, timeout):
        """Datagrams received until the deadline, each with whether the port answered then."""
        got, deadline = [], time.monotonic() + timeout
        while time.monotonic() < deadline:
            self.sock.settimeout(max(0.01, deadline - time.monotonic()))
            try:
                text = self.sock.recv(4096).decode()
            except socket.timeout:
                break
            answered = "READY=1" in text and self.status_answers()
            got.append((text, answered))
        return got

    def status_answers(self):
        rpc = self.wd.rpc()
        try:
            return "list" in rpc.VantrelWatchdog.GetStatus()
        finally:
            rpc("close")()

    def test_ready_after_the_port_answers_then_keep_alives_then_stopping(self):
        self.wd.write_conf([])
        self.wd.start(env=dict(os.environ, NOTIFY_SOCKET=self.wd.path("notify.sock"),
                               WATCHDOG_USEC="400000"))
        got = self.receive(timeout=3.0)
        texts = [text for text, _ in got]
        ready = [i for i, text in enumerate(texts) if "READY=1" in text]
        self.assertEqual(len(ready), 1, texts)
        self.assertTrue(got[ready[0]][1], "READY=1 came before the control port answered")
        # Half of 400 ms: about 15 in three seconds; a loaded machine may send fewer.
        alive = [text for text in texts if text == "WATCHDOG=1"]
        self.assertGreaterEqual(len(alive), 5, texts)
        self.assertLessEqual(len(alive), 20, texts)
        self.wd.send()
        stopping = [text for text, _ in self.receive(timeout=5.0) if "STOPPING=1" in text]
        self.assertEqual(len(stopping), 1)
        self.assertEqual(self.wd.wait_exit(), 0)
