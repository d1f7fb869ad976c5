"""SetField through the running binary: moves, deletion and cloning as seen by
indexes and handles, start and terminate of a real child, the flag values,
unknown commands, and persistence of configuration changes.

The machine commands are never sent here for a request that addresses no
application; the unit tests cover them with a recording runner."""

import glob
import os
import unittest

from watchdog_harness import BIN, Watchdog, pid_alive, wait_until

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


def fake_system_env(wd):
    """The binary's environment: machine commands are only recorded, never run."""
    env = dict(os.environ)
    env["VANTREL_WATCHDOG_FAKE_SYSTEM"] = wd.path("system.txt")
    return env


def set_field(rpc, idx, ptr, field, val=""):
    return rpc.VantrelWatchdog.SetField(idx, ptr, field, val)["ret"]


def entries(rpc):
    return rpc.VantrelWatchdog.GetStatus()["list"]


def aliases(rpc):
    return [e["alias"] for e in entries(rpc)]


def handles(rpc):
    return [e["ptr"] for e in entries(rpc)]


class SetFieldCase(unittest.TestCase):
    APPS = ["--lib=/cfg/a", "--alias=A", "--sched=/cfg/b", "--alias=B", "--io=/cfg/c", "--alias=C"]

    def setUp(self):
        self.wd = Watchdog(self)
        self.notes = self.wd.path("signals.txt")
        self.wd.add_script("VantrelElementsMixer", SIGNAL_NOTING_CHILD.format(notes=self.notes))
        self.wd.write_conf(self.APPS)
        self.wd.start(env=fake_system_env(self.wd))
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
class SlotCommands(SetFieldCase):
    def test_moves_change_indexes_not_handles(self):
        h = handles(self.rpc)
        before = self.amend()
        self.assertEqual(set_field(self.rpc, 2, "", "t_up"), 0)
        self.assertEqual(aliases(self.rpc), ["A", "C", "B"])
        self.assertEqual(handles(self.rpc), [h[0], h[2], h[1]])
        self.assertEqual(self.rpc.VantrelWatchdog.GetItem(-1, h[2])["ret"], 1)
        self.assertEqual(set_field(self.rpc, -1, h[0], "T_DOWN"), 0)
        self.assertEqual(aliases(self.rpc), ["C", "A", "B"])
        # At the edges nothing moves, yet the configuration counter still moves.
        self.assertEqual(set_field(self.rpc, 0, "", "t_up"), 0)
        self.assertEqual(set_field(self.rpc, 2, "", "t_down"), 0)
        self.assertEqual(aliases(self.rpc), ["C", "A", "B"])
        self.assertEqual(self.amend(), (before + 4) & 0xFFFFFFFF)

    def test_delete_shifts_later_slots(self):
        h = handles(self.rpc)
        self.assertEqual(set_field(self.rpc, 0, "", "t_del"), 0)
        self.assertEqual(aliases(self.rpc), ["B", "C"])
        self.assertEqual(handles(self.rpc), h[1:])
        self.assertEqual(self.rpc.VantrelWatchdog.GetItem(-1, h[0]), {"ret": ERANGE})
        self.assertEqual(self.rpc.VantrelWatchdog.GetItem(-1, h[2])["ret"], 1)

    def test_clone_inserts_behind_its_source(self):
        set_field(self.rpc, 1, "", "f_autorun", "1")
        h = handles(self.rpc)
        self.assertEqual(set_field(self.rpc, 1, "", "t_clone"), 0)
        got = entries(self.rpc)
        self.assertEqual([e["alias"] for e in got], ["A", "B", "B(clone)", "C"])
        self.assertEqual([got[i]["ptr"] for i in (0, 1, 3)], h)
        self.assertNotIn(got[2]["ptr"], h)
        clone = got[2]
        self.assertEqual((clone["pid"], clone["started"], clone["terminated"], clone["f_autorun"],
                          clone["f_respawn"], clone["amend"]), (0, 0, 0, 0, 0, 0))
        src, copy = (self.rpc.VantrelWatchdog.GetItem(i, "") for i in (1, 2))
        for key in ("id", "id_name", "config", "thumb", "bin_path", "numa_bind", "raws", "envs"):
            self.assertEqual(src[key], copy[key], key)

    def test_unknown_command_depends_on_the_addressed_application(self):
        before = self.amend()
        self.assertEqual(set_field(self.rpc, 0, "", "t_bogus"), ENOENT)
        self.assertEqual(set_field(self.rpc, 99, "", "t_bogus"), ERANGE)
        self.assertEqual(set_field(self.rpc, -1, "", "f_respawn", "1"), ERANGE)
        self.assertEqual(self.amend(), before)
        self.wd.wait_log(r"ctl_method_SetField: field=\[t_bogus\] not known")
        self.wd.wait_log(r"ctl_method_SetField: idx=99 out of apps range \(3\)")


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

    def test_respawn_flag_values(self):
        idx = self.add_child_app()
        for val, want in (("1", 1), ("abc", 0), ("2", 2)):
            self.assertEqual(set_field(self.rpc, idx, "", "f_respawn", val), 0)
            self.assertEqual(entries(self.rpc)[idx]["f_respawn"], want, val)
        self.wait_pid(idx)
        # Stop it for good: the flag first, then the signal.
        self.assertEqual(set_field(self.rpc, idx, "", "f_respawn", "0"), 0)
        self.assertEqual(set_field(self.rpc, idx, "", "t_term"), 0)
        self.wait_pid(idx, running=False)

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
        self.wd.start(env=fake_system_env(self.wd))
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))
        self.assertEqual([self.rpc.VantrelWatchdog.GetItem(i, "") for i in range(4)], items)


if __name__ == "__main__":
    unittest.main()
