"""Shutdown of the supervisor: termination signals, stopping the children,
repeated and early signals, and the SIGKILL escalation."""

import os
import signal
import time
import unittest

from watchdog_harness import BIN, Watchdog, pid_alive, wait_until

# Marks its start and a SIGINT in files named after $2 (the config); after
# SIGINT it lingers for $LINGER tenths of a second before leaving.
CHILD = r'''
echo started > "$2.started"
trap 'echo int >> "$2.int"; j=0; while [ $j -lt "${LINGER:-0}" ]; do sleep 0.1; j=$((j+1)); done; exit 0' INT
i=0
while [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done
'''

# Ignores SIGINT altogether; only SIGKILL ends it.
STUBBORN = r'''
trap '' INT
echo started > "$2.started"
i=0
while [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done
'''


def app(wd, type_name, prefix, *more):
    return wd.app_lines(type_name, prefix, "--autorun=1", *more)


class TerminationSignal(unittest.TestCase):
    def setUp(self):
        self.assertTrue(BIN, "WATCHDOG_BIN is not set")
        self.wd = Watchdog(self)

    def start_two_children(self, linger_tenths=0):
        self.wd.add_script("VantrelElementsMixer", CHILD)
        self.wd.add_script("VantrelElementsMatrix", CHILD)
        linger = "--env=LINGER=%d" % linger_tenths
        self.wd.write_conf(app(self.wd, "elem_mixer", "mixer", linger) +
                           app(self.wd, "elem_matrix", "matrix", linger))
        self.wd.start()
        self.wd.wait_port()
        started = lambda: all(os.path.exists(self.wd.path(p + ".started")) for p in ("mixer", "matrix"))
        self.assertTrue(wait_until(started, 10), self.wd.log())
        # The log is written a moment after the children run.
        self.wd.wait_log(r"forker's pid=[1-9]", count=2)
        return self.wd.child_pids()

    def count(self, needle):
        return sum(1 for m in self.wd.messages() if needle in m)

    def test_sigterm_stops_both_children_and_ends_with_bye(self):
        pids = self.start_two_children()
        self.assertEqual(len(pids), 2)
        self.assertEqual(self.wd.stop(timeout=30), 0)

        for prefix in ("mixer", "matrix"):
            with open(self.wd.path(prefix + ".int")) as f:
                self.assertEqual(f.read(), "int\n", prefix + " got SIGINT once")
        msgs = self.wd.messages()
        self.assertEqual(self.count("catched 15"), 1)
        killed = sorted(int(m.rsplit("=", 1)[1]) for m in msgs if m.startswith("sighandler: killing child pid="))
        self.assertEqual(killed, sorted(pids))
        self.assertEqual(msgs[-1], "Bye!")
        for pid in pids:
            self.assertFalse(pid_alive(pid))

    def test_second_sigterm_only_logs_and_counts(self):
        self.start_two_children(linger_tenths=20)
        self.wd.send(signal.SIGTERM)
        self.wd.wait_log(r"killing child pid=", count=2)
        self.wd.send(signal.SIGTERM)
        self.wd.wait_log(r"catched 15", count=2)
        self.assertEqual(self.wd.wait_exit(30), 0)
        self.assertEqual(self.count("catched 15"), 2)
        self.assertEqual(self.count("killing child"), 2)
        self.assertEqual(self.wd.messages()[-1], "Bye!")

    def test_every_termination_signal_shuts_down(self):
        for sig in (signal.SIGINT, signal.SIGHUP, signal.SIGALRM):
            with self.subTest(sig=sig.name):
                wd = Watchdog(self)
                wd.write_conf([])
                wd.start()
                wd.wait_port()
                self.assertEqual(wd.stop(sig), 0)
                msgs = wd.messages()
                self.assertIn("sighandler: [%d] catched %d" % (wd.proc.pid, sig), msgs)
                self.assertEqual(msgs[-1], "Bye!")

    def test_signal_pending_before_the_server_runs_still_ends_it(self):
        # Blocked across exec, the signal is already pending when the
        # supervisor starts and is taken before the server exists.
        self.wd.write_conf([])
        self.wd.start(preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM}))
        self.wd.send(signal.SIGTERM)
        self.assertEqual(self.wd.wait_exit(20), 0, self.wd.log())
        msgs = self.wd.messages()
        self.assertEqual(sum(1 for m in msgs if "catched 15" in m), 1)
        self.assertEqual(msgs[-1], "Bye!")

    def test_child_ignoring_sigint_is_killed_after_15_seconds(self):
        self.wd.add_script("VantrelElementsMixer", STUBBORN)
        self.wd.write_conf(app(self.wd, "elem_mixer", "mixer"))
        self.wd.start()
        self.wd.wait_port()
        self.assertTrue(wait_until(lambda: os.path.exists(self.wd.path("mixer.started")), 10))
        self.wd.wait_log(r"forker's pid=[1-9]")
        pid = self.wd.child_pids()[0]
        begin = time.monotonic()
        self.assertEqual(self.wd.stop(timeout=40), 0)
        self.assertGreater(time.monotonic() - begin, 14.5)
        self.assertFalse(pid_alive(pid))
        self.assertEqual(self.wd.messages()[-1], "Bye!")


if __name__ == "__main__":
    unittest.main()
