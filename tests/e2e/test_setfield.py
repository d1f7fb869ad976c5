# An application's life through SetItem, SetField and GetItem on the running
# binary: start, terminate, persistence across a restart, respawning too fast,
# and the launch's log lines.

import os
import re
import unittest

from watchdog_harness import LINE_RE, SLEEPER, entries, launch, pid_alive, read, set_field, wait_until

# Notes SIGINT and ends a second later, so a second terminate arrives while it
# still runs; "$0.ready" once the trap is set.
SIGNAL_NOTING_CHILD = 'trap \'echo INT >> "$0.int"; sleep 1; exit 0\' INT\ntouch "$0.ready"\n' + SLEEPER


class ApplicationLife(unittest.TestCase):
    def setUp(self):
        self.wd = launch(self, ["--lib=/cfg/a", "--alias=A", "--sched=/cfg/b", "--alias=B", "--io=/cfg/c", "--alias=C"],
                         fake_system=True)
        self.rpc = self.wd.rpc(self)
        self.addCleanup(lambda: self.assertFalse(os.path.exists(self.wd.path("system.txt")), "machine command"))

    def add(self, type_name, alias, bin_dir, config="", raws=(), envs=("PATH=/usr/bin:/bin",)):
        ret = self.rpc.VantrelWatchdog.SetItem(-1, "", type_name, alias, "", config, bin_dir, "", list(raws), list(envs))
        self.assertEqual(ret, {"ret": 0})
        return len(entries(self.rpc)) - 1

    def test_run_terminate_and_restart(self):
        notes = self.wd.path("bin", "VantrelElementsMixer.int")
        self.wd.add_script("VantrelElementsMixer", SIGNAL_NOTING_CHILD)
        idx = self.add("elem_mixer", "Child", self.wd.bin_dir)
        self.assertEqual(set_field(self.rpc, idx, "t_run"), 0)
        pid = wait_until(lambda: entries(self.rpc)[idx]["pid"], 20)
        self.assertTrue(wait_until(lambda: os.path.exists(self.wd.path("bin", "VantrelElementsMixer.ready")), 10))
        app_amend = entries(self.rpc)[idx]["amend"]
        self.assertEqual([set_field(self.rpc, idx, "t_term"), set_field(self.rpc, idx, "T_TERM")], [0, 0])
        self.wd.wait_log(r"ctl_method_SetField: already terminating")
        self.assertGreaterEqual(entries(self.rpc)[idx]["amend"], app_amend + 2)
        self.assertTrue(wait_until(lambda: entries(self.rpc)[idx]["pid"] == 0 and not pid_alive(pid), 20), "stopped, reaped")
        self.assertEqual(read(notes).split(), ["INT"], "one SIGINT for two requests")

        self.add("elem_mixer", "Mixer 1", "", "/cfg/mixer.xml", ["--xmlrpc-port=9101"], ["MIXER_MODE=2"])
        block = "\n--elem_mixer=/cfg/mixer.xml\n--alias=Mixer 1\n--env=MIXER_MODE=2\n--raw=--xmlrpc-port=9101\n"
        self.assertTrue(wait_until(lambda: block in read(self.wd.conf_path), 10), read(self.wd.conf_path))
        items = [self.rpc.VantrelWatchdog.GetItem(i, "") for i in range(5)]
        self.assertEqual(self.wd.stop(), 0)
        self.wd.start(env=self.wd.fake_system_env())
        self.rpc = self.wd.rpc(self)
        self.assertEqual([self.rpc.VantrelWatchdog.GetItem(i, "") for i in range(5)], items)

        self.wd.add_script("VantrelElementsMatrix", "exit 1\n")   # a start error is shown by vantrelctl's test
        idx = self.add("elem_matrix", "Quick", self.wd.bin_dir)
        self.assertEqual(set_field(self.rpc, idx, "f_respawn", "1"), 0)
        self.wd.wait_log("respawn too fast")
        self.assertTrue(wait_until(lambda: entries(self.rpc)[idx]["err"] == "Respawn too fast", 10), entries(self.rpc)[idx])

    def test_one_launch_logs_its_steps_in_order(self):
        # Operators follow a launch by these lines: texts, marks and order across threads.
        self.wd.add_script("VantrelElementsMatrix", "exit 3\n")
        idx = self.add("elem_matrix", "Quick", self.wd.bin_dir, "/cfg/q")
        ptr = entries(self.rpc)[idx]["ptr"]
        self.assertEqual(set_field(self.rpc, idx, "t_run"), 0)
        self.wd.wait_log(r"WIFEXITED=\[1\], WEXITSTATUS=\[3\]")
        self.assertEqual(self.wd.stop(), 0)
        lines = [(l[0], m.group(1)) for l, m in ((l, LINE_RE.match(l)) for l in self.wd.log().splitlines()) if m]
        run, proc = "watchdog_respawner_run: ", "watchdog_respawner_run_proc: "
        pid = int(re.search(r"fork done, pid=\[(\d+)\]", self.wd.log()).group(1))
        self.assertEqual([l for l in lines if l[1].startswith(run)], [
            (" ", run + "starting forker thread"), (" ", run + "waiting for forker result"),
            (" ", run + "forker's pid=%d" % pid)])
        self.assertEqual([l for l in lines if l[1].startswith(proc) and "envp[" not in l[1]], [
            (" ", proc + "starting: type={elem_matrix}, sys_id={%s}" % ptr),
            (" ", proc + "executable=[%s/VantrelElementsMatrix]" % self.wd.bin_dir),
            (" ", proc + "config=[/cfg/q]"), (" ", proc + "argv[0]=[Quick]"),
            (" ", proc + "argv[1]=[--nodemonize]"), (" ", proc + "argv[2]=[/cfg/q]"),
            (" ", proc + "fork done, pid=[%d]" % pid), (" ", proc + "waitpid(%d)" % pid),
            ("!", proc + "waitpid(%d)=%d" % (pid, pid)),
            (" ", proc + "pid=%d, type={elem_matrix}, sys_id={%s}" % (pid, ptr)),
            (" ", proc + "pid=%d, WIFEXITED=[1], WEXITSTATUS=[3], WIFSIGNALED=[0], WIFSTOPPED=[0]" % pid)])
        order = [l[1] for l in lines]
        envp = [m for m in order if m.startswith(proc + "envp[")]
        self.assertEqual(envp[0], proc + "envp[0]=[PATH=/usr/bin:/bin]")
        # The request first, the environment before the fork, the pid reported after it.
        steps = ["ctl_method_SetField: marking to start", run + "starting forker thread", envp[-1],
                 proc + "fork done, pid=[%d]" % pid, run + "forker's pid=%d" % pid]
        self.assertEqual([order.index(s) for s in steps], sorted(order.index(s) for s in steps))
        self.assertEqual(order[-2:], ["watchdog_respawner_proc: exiting", "Bye!"])
