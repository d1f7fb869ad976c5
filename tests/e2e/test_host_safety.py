"""What the supervisor leaves on the host: descriptors in its children, file
modes, per-child option files, backups, and the option file through a full
disk and the largest configuration."""

import os
import re
import shutil
import stat
import subprocess
import unittest

from watchdog_harness import BIN, Watchdog, pid_listening_on, wait_until

# Records the child's open descriptors and its option file (path, modes, lines).
RECORDER = """exec python3 -c '
import os, sys, time
fds = [fd for fd in range(256) if os.path.exists("/proc/self/fd/%d" % fd)]
conf = sys.argv[-1]
modes = "%o %o" % (os.stat(conf).st_mode & 0o7777, os.stat(os.path.dirname(conf)).st_mode & 0o7777)
with open(conf) as f:
    lines = f.read()
with open(sys.argv[-2] + ".rec", "w") as out:
    out.write("%s\\n%s\\n%s\\n%s" % (" ".join(map(str, fds)), conf, modes, lines))
time.sleep(1 if "once" in sys.argv[-2] else 600)
' "$@"
"""


def set_field(wd, idx, field, val=""):
    with wd.rpc() as rpc:
        return rpc.VantrelWatchdog.SetField(idx, "", field, val)["ret"]


def mode(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


def saves(wd):
    return len(re.findall(r"watchdog_save_conf: updating config file", wd.log()))


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class HostSafety(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.add_script("VantrelElementsMixer", RECORDER)

    def record(self, name):
        path = self.wd.path(name + ".rec")
        self.assertTrue(wait_until(lambda: os.path.exists(path), 15), self.wd.log())
        with open(path) as f:
            fds, conf, modes, *lines = f.read().splitlines()
        return fds.split(), conf, modes, lines

    def test_child_holds_no_supervisor_descriptor_and_port_survives_sigkill(self):
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "mixer", "--raw=--a=1"))
        self.wd.start()
        self.wd.wait_port()
        with self.wd.rpc() as rpc:   # started while this request's connection is open
            self.assertEqual(rpc.VantrelWatchdog.SetField(0, "", "t_run", "")["ret"], 0)
            fds, conf, _, _ = self.record("mixer")
        self.addCleanup(shutil.rmtree, os.path.dirname(conf), True)   # a killed supervisor leaves it
        self.assertEqual(fds, ["0", "1", "2"])
        orphan = self.wd.child_pids()[0]
        self.wd.extra_pids.append(orphan)
        self.wd.proc.kill()
        self.wd.wait_exit(10)
        self.assertNotEqual(pid_listening_on(self.wd.port), orphan, "the orphan holds the port")
        self.wd.start()
        self.wd.wait_port()
        self.assertEqual(pid_listening_on(self.wd.port), self.wd.proc.pid)

    def test_per_child_file_is_private_ignores_planted_links_and_goes_with_its_child(self):
        victim = self.wd.path("victim")
        with open(victim, "w") as f:
            f.write("root only\n")
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "once", "--alias=m1", "--raw=--matrix=/m"))
        self.wd.start()
        self.wd.wait_port()
        planted = ["/tmp/watchdog-%d-%03d.conf" % (self.wd.proc.pid, n) for n in range(3)]
        for link in planted:
            os.symlink(victim, link)
            self.addCleanup(os.remove, link)
        self.assertEqual(set_field(self.wd, 0, "t_run"), 0)
        fds, conf, modes, lines = self.record("once")
        self.assertEqual(modes, "600 700")
        self.assertEqual(lines, ["--matrix=/m", "--log-file-name=/Vantrel/logs/m1/log",
                                 "--state-save=/Vantrel/runtime/m1"])
        self.assertTrue(wait_until(lambda: not os.path.exists(conf), 10), "option file outlived its child")
        with open(victim) as f:
            self.assertEqual(f.read(), "root only\n")
        self.assertTrue(all(os.path.islink(p) for p in planted))
        self.assertEqual(self.wd.stop(), 0)
        self.assertFalse(os.path.exists(os.path.dirname(conf)), "private directory left behind")

    def test_daemon_keeps_modes_and_bounds_backups(self):
        self.wd.write_conf(["--conf-backups=2", "--lib=x"])
        os.chmod(self.wd.conf_path, 0o640)
        self.wd.start([self.wd.conf_path, "--demonize"])
        self.assertEqual(self.wd.wait_exit(10), 0)
        self.assertTrue(wait_until(lambda: pid_listening_on(self.wd.port), 10), self.wd.log())
        self.wd.extra_pids.append(pid_listening_on(self.wd.port))
        for n in range(1, 5):
            self.assertEqual(set_field(self.wd, 0, "f_autorun", str(n % 2)), 0)
            self.wd.wait_log(r"updating config file", n)
        self.assertEqual(mode(self.wd.conf_path), 0o640)
        with open(self.wd.conf_path) as f:
            self.assertIn("--conf-backups=2\n", f.read())
        backups = lambda: [n for n in os.listdir(self.wd.dir) if n.startswith("watchdog.conf-")]
        wait_until(lambda: len(backups()) <= 2, 5)   # the last save logs before it prunes
        self.assertEqual(len(backups()), 2, backups())
        for root, dirs, files in os.walk(self.wd.dir):
            for name in dirs + files:
                p = os.path.join(root, name)
                self.assertFalse(mode(p) & 0o002 and not os.path.islink(p), "world-writable: %s" % p)
        self.assertEqual(mode(self.wd.log_path) & 0o027, 0)

    def test_largest_configuration_round_trips_unchanged(self):
        long_value = "v" * 4095
        lines = ["--instance-name=big", "--port=%d" % self.wd.port, "--log-file-name=" + self.wd.log_path,
                 "--log-rotate-interval=86400"]
        for a in range(1024):
            lines += ["", "--elem_mixer=" + (long_value if a == 0 else "/cfg/%d" % a), "--alias=a%d" % a,
                      "--bin-path=" + self.wd.bin_dir]
            lines += ["--env=E%d=%d" % (e, a) for e in range(64)]
            lines += ["--raw=" + (long_value if a == 1023 and r == 127 else "--r%d=%d" % (r, a)) for r in range(128)]
        text = "\n".join(lines) + "\n"
        with open(self.wd.conf_path, "w") as f:
            f.write(text)
        for run in range(2):
            self.wd.start()
            self.wd.wait_port(60)
            self.assertEqual(set_field(self.wd, 0, "f_autorun", "0"), 0)
            self.wd.wait_log(r"updating config file", 1, 60)
            self.assertEqual(self.wd.stop(), 0)
            with open(self.wd.conf_path) as f:
                self.assertTrue(f.read() == text, "run %d wrote a different file" % run)

    def test_full_disk_keeps_the_standing_file_and_retries(self):
        cfg = self.wd.path("cfg")
        os.mkdir(cfg)
        self.wd.write_conf(["--lib=x"])
        script = ('mount -t tmpfs -o size=64k tmpfs "$0" && cp "$1" "$0"/w.conf && : > "$0"/w.conf.writing'
                  ' && exec "$2" "$0"/w.conf')
        probe = subprocess.run(["unshare", "-m", "--propagation", "private", "true"], capture_output=True)
        if probe.returncode != 0:
            self.skipTest("no mount namespace here")
        self.wd.command = lambda args=None: list(args)
        self.wd.start(["unshare", "-m", "--propagation", "private", "sh", "-c", script, cfg,
                       self.wd.conf_path, BIN])
        self.wd.wait_port()
        inside = "/proc/%d/root%s/" % (self.wd.proc.pid, cfg)
        self.assertFalse(os.path.exists(inside + "w.conf.writing"), "stale temporary file kept")
        with open(inside + "w.conf") as f:
            before = f.read()
        with open(inside + "filler", "wb", buffering=0) as f:
            try:
                for _ in range(1000):
                    f.write(b"x" * 4096)
            except OSError:
                pass
        for val in ("1", "0", "1"):
            self.assertEqual(set_field(self.wd, 0, "f_autorun", val), 0)
            self.wd.wait_log(r"watchdog_save_conf: failed to write", 1)
        with open(inside + "w.conf") as f:
            self.assertEqual(f.read(), before)
        os.remove(inside + "filler")
        self.wd.wait_log(r"done after \d+ failed attempts", 1, 15)
        self.assertEqual(len(re.findall("failed to write", self.wd.log())), 1, self.wd.log())
        with open(inside + "w.conf") as f:
            self.assertIn("--autorun=1\n", f.read())


if __name__ == "__main__":
    unittest.main()
