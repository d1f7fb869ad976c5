"""SetField through the running binary: moves, deletion and cloning as seen by
indexes and handles, start and terminate of a real child, the flag values,
unknown commands, and persistence of configuration changes.

The machine commands are never sent here for a request that addresses no
application; the unit tests cover them with a recording runner."""

import glob
import os
import re
import unittest

from watchdog_harness import BIN, LINE_RE, Watchdog, entries, handles, pid_alive, wait_until

ERANGE = -34
ENOENT = -2

# Stays up until SIGINT, then notes the signal and ends a moment later, so a
# second terminate request arrives while it is still running. It says "READY"
# once its trap is set, since a signal before that would simply kill it.
# Bounded to 60 s.
SIGNAL_NOTING_CHILD = """\
trap 'echo INT >> "{notes}"; sleep 1; exit 0' INT
echo READY >> "{notes}.ready"
i=0
while [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done
"""


def set_field(rpc, idx, ptr, field, val=""):
    return rpc.VantrelWatchdog.SetField(idx, ptr, field, val)["ret"]


def aliases(rpc):
    return [e["alias"] for e in entries(rpc)]


class SetFieldCase(unittest.TestCase):
    APPS = ["--lib=/cfg/a", "--alias=A", "--sched=/cfg/b", "--alias=B", "--io=/cfg/c", "--alias=C"]

    def setUp(self):
        self.wd = Watchdog(self)
        self.notes = self.wd.path("signals.txt")
        self.wd.add_script("VantrelElementsMixer", SIGNAL_NOTING_CHILD.format(notes=self.notes))
        self.wd.write_conf(self.APPS)
        self.wd.start(env=self.wd.fake_system_env())
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))

    def tearDown(self):
        self.assertFalse(os.path.exists(self.wd.path("system.txt")), "no machine command was issued")

    def amend(self):
        return self.rpc.VantrelWatchdog.GetStatus()["amend"]

    def add_child_app(self):
        """Adds an elem_mixer whose executable is the signal-noting script; its index."""
        ret = self.rpc.VantrelWatchdog.SetItem(-1, "", "elem_mixer", "Child", "", "", self.wd.bin_dir, "", [],
                                               ["PATH=/usr/bin:/bin"])
        self.assertEqual(ret, {"ret": 0})
        return len(entries(self.rpc)) - 1

    def wait_pid(self, idx, running=True, timeout=10.0):
        pid = wait_until(lambda: (entries(self.rpc)[idx]["pid"] != 0) == running and
                         (entries(self.rpc)[idx]["pid"] or -1), timeout)
        self.assertTrue(pid, "pid of slot %d never became %s" % (idx, "set" if running else "0"))
        return pid


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class RunAndTerminate(SetFieldCase):
    def test_run_then_terminate_twice_sends_one_signal(self):
        idx = self.add_child_app()
        self.assertEqual(set_field(self.rpc, idx, "", "t_run"), 0)
        pid = self.wait_pid(idx)
        self.assertTrue(wait_until(lambda: os.path.exists(self.notes + ".ready"), timeout=5.0))
        self.assertEqual(set_field(self.rpc, idx, "", "t_run"), 0)
        self.wd.wait_log(r"ctl_method_SetField: already running")

        amend_before = entries(self.rpc)[idx]["amend"]
        self.assertEqual(set_field(self.rpc, idx, "", "t_term"), 0)
        self.assertEqual(set_field(self.rpc, idx, "", "T_TERM"), 0)
        self.wd.wait_log(r"ctl_method_SetField: already terminating")
        self.assertGreaterEqual(entries(self.rpc)[idx]["amend"], amend_before + 2)

        self.wait_pid(idx, running=False)
        self.assertTrue(wait_until(lambda: not pid_alive(pid), timeout=5.0))
        with open(self.notes) as f:
            self.assertEqual(f.read().split(), ["INT"])
        self.assertEqual(set_field(self.rpc, idx, "", "t_term"), 0)
        self.wd.wait_log(r"ctl_method_SetField: not running")

    def test_running_application_is_not_deleted(self):
        idx = self.add_child_app()
        set_field(self.rpc, idx, "", "t_run")
        self.wait_pid(idx)
        before = self.amend()
        self.assertEqual(set_field(self.rpc, idx, "", "t_del"), 0)
        self.assertEqual(len(entries(self.rpc)), idx + 1)
        self.assertEqual(self.amend(), (before + 1) & 0xFFFFFFFF)
        set_field(self.rpc, idx, "", "t_term")
        self.wait_pid(idx, running=False)
        # Once it has ended, its launch thread is joined and the slot goes.
        self.assertEqual(set_field(self.rpc, idx, "", "t_del"), 0)
        self.assertEqual(aliases(self.rpc), ["A", "B", "C"])

    def test_one_launch_logs_its_steps_in_order(self):
        """Operators follow a launch by these lines: texts, marks and order per thread."""
        self.wd.add_script("VantrelElementsMatrix", "exit 3\n")
        ret = self.rpc.VantrelWatchdog.SetItem(-1, "", "elem_matrix", "Quick", "", "/cfg/q", self.wd.bin_dir,
                                               "", [], ["PATH=/usr/bin:/bin"])
        self.assertEqual(ret, {"ret": 0})
        idx = len(entries(self.rpc)) - 1
        ptr = entries(self.rpc)[idx]["ptr"]
        self.assertEqual(set_field(self.rpc, idx, "", "t_run"), 0)
        self.wd.wait_log(r"WIFEXITED=\[1\], WEXITSTATUS=\[3\]")
        self.assertEqual(self.wd.stop(), 0)

        lines = []
        for line in self.wd.log().splitlines():
            m = LINE_RE.match(line)
            if m:
                lines.append((line[0], m.group(1)))
        run = "watchdog_respawner_run: "
        proc = "watchdog_respawner_run_proc: "
        supervision = [l for l in lines if l[1].startswith(run)]
        forker = [l for l in lines if l[1].startswith(proc) and "envp[" not in l[1]]
        envp = [l[1] for l in lines if l[1].startswith(proc + "envp[")]
        pid = int(re.search(r"fork done, pid=\[(\d+)\]", self.wd.log()).group(1))

        self.assertEqual(supervision, [(" ", run + "starting forker thread"),
                                       (" ", run + "waiting for forker result"),
                                       (" ", run + "forker's pid=%d" % pid)])
        self.assertEqual(forker, [
            (" ", proc + "starting: type={elem_matrix}, sys_id={%s}" % ptr),
            (" ", proc + "executable=[%s/VantrelElementsMatrix]" % self.wd.bin_dir),
            (" ", proc + "config=[/cfg/q]"),
            (" ", proc + "argv[0]=[Quick]"),
            (" ", proc + "argv[1]=[--nodemonize]"),
            (" ", proc + "argv[2]=[/cfg/q]"),
            (" ", proc + "fork done, pid=[%d]" % pid),
            (" ", proc + "waitpid(%d)" % pid),
            ("!", proc + "waitpid(%d)=%d" % (pid, pid)),
            (" ", proc + "pid=%d, type={elem_matrix}, sys_id={%s}" % (pid, ptr)),
            (" ", proc + "pid=%d, WIFEXITED=[1], WEXITSTATUS=[3], WIFSIGNALED=[0], WIFSTOPPED=[0]" % pid),
        ])
        # The application's own entry first; variables taken over from our
        # environment may follow it.
        self.assertEqual(envp[0], proc + "envp[0]=[PATH=/usr/bin:/bin]")
        self.assertEqual(envp, [proc + "envp[%d]=[%s]" % (i, e.split("=[", 1)[1][:-1]) for i, e in enumerate(envp)])

        # Across the threads: the request comes first, the environment is logged
        # before the fork, and the pid is reported only after the fork.
        order = [l[1] for l in lines]
        self.assertLess(order.index("ctl_method_SetField: marking to start"), order.index(supervision[0][1]))
        self.assertLess(order.index(envp[-1]), order.index(proc + "fork done, pid=[%d]" % pid))
        self.assertLess(order.index(proc + "fork done, pid=[%d]" % pid), order.index(supervision[2][1]))
        self.assertIn(("!", "ctl_method_SetField: marking to start"), lines)
        # The end: the supervision thread leaves before the last line.
        self.assertEqual(order[-2:], ["watchdog_respawner_proc: exiting", "Bye!"])


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class SetFieldPersistence(SetFieldCase):
    def conf_text(self):
        with open(self.wd.conf_path) as f:
            return f.read()

    def test_changes_reach_the_option_file_and_survive_a_restart(self):
        self.assertEqual(set_field(self.rpc, 1, "", "t_clone"), 0)
        self.assertEqual(set_field(self.rpc, 0, "", "f_respawn", "0"), 0)
        self.assertEqual(set_field(self.rpc, 3, "", "t_up"), 0)
        self.assertTrue(wait_until(lambda: "--alias=B(clone)" in self.conf_text(), timeout=5.0),
                        self.conf_text())
        order = [line for line in self.conf_text().splitlines() if line.startswith("--alias=")]
        self.assertEqual(order, ["--alias=A", "--alias=B", "--alias=C", "--alias=B(clone)"])
        self.assertTrue(glob.glob(self.wd.conf_path + "-*.*"), "a backup of the previous file")

        items = [self.rpc.VantrelWatchdog.GetItem(i, "") for i in range(4)]
        self.assertEqual(self.wd.stop(), 0)
        self.wd.start(env=self.wd.fake_system_env())
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))
        self.assertEqual([self.rpc.VantrelWatchdog.GetItem(i, "") for i in range(4)], items)


if __name__ == "__main__":
    unittest.main()
