# What the supervisor leaves on the host and how it copes with it: descriptors
# in its children, file modes, per-child option files, bounded backups, the
# largest configuration, a full disk, an unwritable log, and children that flood
# or close their output.

import os
import pwd
import re
import shutil
import stat
import subprocess
import time
import unittest

from watchdog_harness import BIN, SLEEPER, Watchdog, entries, pid_alive, pid_listening_on, read, set_field, wait_until

# Records its open descriptors and its option file (path, modes, lines) in "$2.rec".
RECORDER = """exec python3 -c '
import os, sys, time
fds = [fd for fd in range(256) if os.path.exists("/proc/self/fd/%d" % fd)]
conf = sys.argv[-1]
modes = "%o %o" % (os.stat(conf).st_mode & 0o7777, os.stat(os.path.dirname(conf)).st_mode & 0o7777)
with open(sys.argv[-2] + ".rec", "w") as out:
    out.write("%s\\n%s\\n%s\\n%s" % (" ".join(map(str, fds)), conf, modes, open(conf).read()))
time.sleep(1 if "once" in sys.argv[-2] else 600)
' "$@"
"""
FLOOD = 'exec yes "flood flood flood flood flood flood flood flood flood flood flood"\n'
CLOSER = "exec 1>&- 2>&-\n" + SLEEPER   # lives on, bounded, without output streams


def mode(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


def cpu_seconds(pid):
    fields = read("/proc/%d/stat" % pid).rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def slowest_of(call, count=100):
    worst = 0.0
    for _ in range(count):
        t0 = time.monotonic()
        call()
        worst = max(worst, time.monotonic() - t0)
    return worst


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class HostSafety(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.add_script("VantrelElementsMixer", RECORDER)

    def record(self, name):
        path = self.wd.path(name + ".rec")
        self.assertTrue(wait_until(lambda: os.path.exists(path), 20), self.wd.log())
        fds, conf, modes, *lines = read(path).splitlines()
        return fds.split(), conf, modes, lines

    def test_child_holds_no_supervisor_descriptor_and_port_survives_sigkill(self):
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "mixer", "--raw=--a=1"))
        self.wd.start()
        self.wd.wait_port()
        with self.wd.rpc() as rpc:   # started while this request's connection is open
            self.assertEqual(set_field(rpc, 0, "t_run"), 0)
            fds, conf, _, _ = self.record("mixer")
        self.addCleanup(shutil.rmtree, os.path.dirname(conf), True)   # a killed supervisor leaves it
        self.assertEqual(fds, ["0", "1", "2"])
        self.wd.extra_pids.append(self.wd.child_pids()[0])
        self.wd.proc.kill()
        self.wd.wait_exit(10)
        self.wd.start()
        self.wd.wait_port()
        self.assertEqual(pid_listening_on(self.wd.port), self.wd.proc.pid, "the orphan holds no port")

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
        self.assertEqual(set_field(self.wd.rpc(self), 0, "t_run"), 0)
        fds, conf, modes, lines = self.record("once")
        self.assertEqual(modes, "600 700")
        self.assertEqual(lines, ["--matrix=/m", "--log-file-name=/Vantrel/logs/m1/log", "--state-save=/Vantrel/runtime/m1"])
        self.assertTrue(wait_until(lambda: not os.path.exists(conf), 10), "option file outlived its child")
        self.assertEqual(read(victim), "root only\n")
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
            self.assertEqual(set_field(self.wd.rpc(self), 0, "f_autorun", str(n % 2)), 0)
            self.wd.wait_log(r"updating config file", n)
        self.assertEqual(mode(self.wd.conf_path), 0o640)
        self.assertIn("--conf-backups=2\n", read(self.wd.conf_path))
        backups = lambda: [n for n in os.listdir(self.wd.dir) if re.match(r"watchdog\.conf-\d+\.\d+$", n)]
        wait_until(lambda: len(backups()) <= 2, 5)   # the last save logs before it prunes
        self.assertEqual(len(backups()), 2, os.listdir(self.wd.dir))
        for root, dirs, files in os.walk(self.wd.dir):
            for p in (os.path.join(root, n) for n in dirs + files):
                self.assertFalse(mode(p) & 0o002 and not os.path.islink(p), "world-writable: %s" % p)
        self.assertEqual(mode(self.wd.log_path) & 0o027, 0)

    def test_largest_configuration_round_trips_unchanged(self):
        long_value = "v" * 4095
        lines = ["--instance-name=big", "--port=%d" % self.wd.port, "--log-file-name=" + self.wd.log_path,
                 "--log-rotate-interval=86400"]
        for a in range(1024):
            lines += ["", "--elem_mixer=" + (long_value if a == 0 else "/cfg/%d" % a), "--alias=a%d" % a,
                      "--bin-path=" + self.wd.bin_dir] + ["--env=E%d=%d" % (e, a) for e in range(64)]
            lines += ["--raw=" + (long_value if a == 1023 and r == 127 else "--r%d=%d" % (r, a)) for r in range(128)]
        text = "\n".join(lines) + "\n"
        with open(self.wd.conf_path, "w") as f:
            f.write(text)
        for run in range(2):
            self.wd.start()
            self.wd.wait_port(60)
            self.assertEqual(set_field(self.wd.rpc(self), 0, "f_autorun", "0"), 0)
            self.wd.wait_log(r"updating config file", 1, 60)
            self.assertEqual(self.wd.stop(), 0)
            self.assertTrue(read(self.wd.conf_path) == text, "run %d wrote a different file" % run)

    def test_full_disk_keeps_the_standing_file_and_retries(self):
        if subprocess.run(["unshare", "-m", "--propagation", "private", "true"], capture_output=True).returncode:
            self.skipTest("no mount namespace here")
        cfg = self.wd.path("cfg")
        os.mkdir(cfg)
        self.wd.write_conf(["--lib=x"])
        script = ('mount -t tmpfs -o size=64k tmpfs "$0" && cp "$1" "$0"/w.conf && : > "$0"/w.conf.writing'
                  ' && exec "$2" "$0"/w.conf')
        self.wd.proc = subprocess.Popen(["unshare", "-m", "--propagation", "private", "sh", "-c", script, cfg,
                                         self.wd.conf_path, BIN], cwd=self.wd.dir, stdin=subprocess.DEVNULL)
        self.wd.wait_port()
        inside = "/proc/%d/root%s/" % (self.wd.proc.pid, cfg)
        self.assertFalse(os.path.exists(inside + "w.conf.writing"), "stale temporary file kept")
        before = read(inside + "w.conf")
        with open(inside + "filler", "wb", buffering=0) as f:
            try:
                for _ in range(1000):
                    f.write(b"x" * 4096)
            except OSError:
                pass
        rpc = self.wd.rpc(self)
        for val in ("1", "0", "1"):
            self.assertEqual(set_field(rpc, 0, "f_autorun", val), 0)
            self.wd.wait_log(r"watchdog_save_conf: failed to write")
        self.assertEqual(read(inside + "w.conf"), before)
        os.remove(inside + "filler")
        self.wd.wait_log(r"done after \d+ failed attempts")
        self.assertEqual(self.wd.log().count("failed to write"), 1, self.wd.log())
        self.assertIn("--autorun=1\n", read(inside + "w.conf"))

    def test_unwritable_log_is_echoed_to_stderr(self):
        log_dir = self.wd.path("logs")   # the log creates missing directories, so it gets one it may not write
        os.mkdir(log_dir)
        self.wd.log_path = os.path.join(log_dir, "wd.log")
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "mixer"))
        popen_kw = {}
        if os.geteuid() == 0:   # directory modes do not stop root
            nobody = pwd.getpwnam("nobody")
            popen_kw = {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": []}
            for root, _, files in os.walk(self.wd.dir):
                for p in [root] + [os.path.join(root, n) for n in files]:
                    os.chown(p, nobody.pw_uid, nobody.pw_gid)
        os.chmod(log_dir, 0o555)
        self.addCleanup(os.chmod, log_dir, 0o755)
        with open(self.wd.path("stderr.txt"), "w") as err:
            self.wd.start(stderr=err, **popen_kw)
        self.wd.wait_port()
        self.assertEqual(self.wd.stop(), 0)
        self.wd.log_path = self.wd.path("stderr.txt")
        self.assertTrue(self.wd.messages()[0].startswith("VantrelWatchdog "), self.wd.log())
        self.assertIn("Will care about 1 apps", self.wd.messages())
        self.assertEqual(self.wd.messages()[-1], "Bye!")
        self.assertEqual(os.listdir(log_dir), [])

    def test_flooding_and_closing_children_cost_little_and_stay_supervised(self):
        self.wd.add_script("VantrelElementsMixer", FLOOD)
        self.wd.add_script("VantrelElementsMatrix", CLOSER)
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "flood") + self.wd.app_lines("elem_matrix", "closer"))
        self.wd.start()
        self.wd.wait_port()
        rpc = self.wd.rpc(self)
        wd = rpc.VantrelWatchdog
        self.assertEqual(set_field(rpc, 1, "t_run"), 0)
        pid = wait_until(lambda: entries(rpc)[1]["pid"], 10)
        # Closed pipes read as end of file at every pass: next to no CPU, and not the child's end.
        cpu0 = cpu_seconds(self.wd.proc.pid)
        self.assertFalse(wait_until(lambda: not pid_alive(pid) or entries(rpc)[1]["pid"] != pid, 2.0))
        self.assertLess(cpu_seconds(self.wd.proc.pid) - cpu0, 0.5, "supervisor busy while the closer is quiet")

        self.assertEqual(set_field(rpc, 0, "t_run"), 0)
        self.assertTrue(wait_until(lambda: wd.GetStdXXXBuf(0, "", "0", 1)["head"] > 100000, 20), "the ring wraps")
        worst = max(slowest_of(wd.GetStatus), slowest_of(lambda: wd.GetStdXXXBuf(0, "", "0", 1)))
        self.assertLess(worst, 2.0, "a flooding child stalls requests")
        reply = wd.GetStdXXXBuf(0, "", "0", 1)
        self.assertEqual(reply["tail"] - reply["head"], 32768, "the ring stays full, never larger")
        for idx in (0, 1):
            self.assertEqual(set_field(rpc, idx, "t_term"), 0)
            self.assertTrue(wait_until(lambda: entries(rpc)[idx]["pid"] == 0, 20), "both still stop")
        self.assertTrue(wait_until(lambda: not pid_alive(pid), 10), "the closer was reaped")
        self.assertEqual(self.wd.stop(), 0)


if __name__ == "__main__":
    unittest.main()
