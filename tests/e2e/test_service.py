# Service manager notifications: READY=1 only once the control port answers,
# WATCHDOG=1 keeps coming from the supervision loop, STOPPING=1 at shutdown.

import os
import socket
import time
import unittest

from watchdog_harness import BIN, Watchdog, entries


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class ServiceNotify(unittest.TestCase):
    def test_ready_after_the_port_answers_then_keep_alives_then_stopping(self):
        wd = Watchdog(self)
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(sock.close)
        sock.bind(wd.path("notify.sock"))

        def receive(seconds):
            # Datagrams until the deadline, each with whether the port answered on READY=1.
            got, deadline = [], time.monotonic() + seconds
            while time.monotonic() < deadline:
                sock.settimeout(max(0.01, deadline - time.monotonic()))
                try:
                    text = sock.recv(4096).decode()
                except socket.timeout:
                    break
                got.append((text, "READY=1" in text and entries(wd.rpc()) == []))
            return got

        wd.write_conf([])
        wd.start(env=dict(os.environ, NOTIFY_SOCKET=wd.path("notify.sock"), WATCHDOG_USEC="400000"))
        got = receive(3.0)
        texts = [text for text, _ in got]
        ready = [answered for text, answered in got if "READY=1" in text]
        self.assertEqual(ready, [True], "READY=1 once, after the control port answered: %s" % texts)
        # Half of 400 ms: about 15 in three seconds; a loaded machine may send fewer.
        self.assertTrue(5 <= texts.count("WATCHDOG=1") <= 20, texts)
        wd.send()
        self.assertEqual(sum("STOPPING=1" in text for text, _ in receive(5.0)), 1)
        self.assertEqual(wd.wait_exit(), 0)


if __name__ == "__main__":
    unittest.main()
