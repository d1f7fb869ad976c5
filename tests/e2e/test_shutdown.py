# Shutdown of the supervisor: every termination signal, SIGTERM pending before
# the server runs, stopping the children with SIGINT and a repeated signal.

import os
import signal
import unittest

from watchdog_harness import SLEEPER, launch, pid_alive, read, wait_until

# Notes SIGINT in "$2.int", then lingers 2 s before leaving (bounded).
LINGERING = 'trap \'echo int >> "$2.int"; sleep 2; exit 0\' INT\necho started > "$2.started"\n' + SLEEPER


class Shutdown(unittest.TestCase):
    def test_every_termination_signal_ends_with_bye(self):
        for sig in (signal.SIGINT, signal.SIGHUP, signal.SIGALRM, signal.SIGTERM):
            # SIGTERM stays blocked across exec: it is pending before the server runs.
            wd = launch(self, [], wait=sig != signal.SIGTERM,
                        preexec_fn=lambda: signal.pthread_sigmask(signal.SIG_BLOCK, {signal.SIGTERM}))
            self.assertEqual(wd.stop(sig), 0, wd.log())
            msgs = wd.messages()
            self.assertEqual(([m for m in msgs if "catched" in m], msgs[-1]),
                             (["sighandler: [%d] catched %d" % (wd.proc.pid, sig)], "Bye!"), sig)

    def test_children_get_sigint_once_and_a_second_signal_only_logs(self):
        # The SIGKILL for a child that ignores SIGINT is timed with a fake clock in the unit tests.
        wd = launch(self, lambda wd: wd.app_lines("elem_mixer", "mixer", "--autorun=1"), {"VantrelElementsMixer": LINGERING})
        self.assertTrue(wait_until(lambda: os.path.exists(wd.path("mixer.started")), 20), wd.log())
        wd.wait_log(r"forker's pid=[1-9]")
        pids = wd.child_pids()
        wd.proc.terminate()
        wd.wait_log(r"killing child pid=")
        wd.proc.terminate()   # while the child lingers
        self.assertEqual(wd.wait_exit(60), 0)
        self.assertEqual(read(wd.path("mixer.int")), "int\n", "SIGINT once")
        msgs = wd.messages()
        self.assertEqual(sum("catched 15" in m for m in msgs), 2)
        self.assertEqual([int(m.rsplit("=", 1)[1]) for m in msgs if m.startswith("sighandler: killing child pid=")], pids)
        self.assertEqual(msgs[-1], "Bye!")
        self.assertFalse([p for p in pids if pid_alive(p)])
