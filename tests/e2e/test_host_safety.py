# What the supervisor leaves on the host and how it copes with it: descriptors
# in its children, per-child option files, a full disk, and a child that
# closes its output.

import os
import shutil
import subprocess
import unittest

from watchdog_harness import (BIN, SLEEPER, Watchdog, cpu_seconds, entries, launch, pid_alive, pid_listening_on, read, write,
                              set_field, wait_until)

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
CLOSER = "exec 1>&- 2>&-\n" + SLEEPER   # lives on, bounded, without output streams


class HostSafety(unittest.TestCase):
    def record(self, wd, name):
        path = wd.path(name + ".rec")
        self.assertTrue(wait_until(lambda: os.path.exists(path), 20), wd.log())
        fds, conf, modes, *lines = read(path).splitlines()
        return fds.split(), conf, modes, lines

    def test_child_holds_no_supervisor_descriptor_and_port_survives_sigkill(self):
        wd = launch(self, lambda wd: wd.app_lines("elem_mixer", "mixer", "--raw=--a=1"), {"VantrelElementsMixer": RECORDER})
        with wd.rpc() as rpc:   # started while this request's connection is open
            self.assertEqual(set_field(rpc, 0, "t_run"), 0)
            fds, conf, _, _ = self.record(wd, "mixer")
        self.addCleanup(shutil.rmtree, os.path.dirname(conf), True)   # a killed supervisor leaves it
        self.assertEqual(fds, ["0", "1", "2"])
        wd.extra_pids.append(wd.child_pids()[0])
        wd.proc.kill()
        wd.wait_exit(10)
        wd.start()
        self.assertEqual(pid_listening_on(wd.port), wd.proc.pid, "the orphan holds no port")

    def test_per_child_file_is_private_ignores_planted_links_and_goes_with_its_child(self):
        wd = launch(self, lambda wd: wd.app_lines("elem_mixer", "once", "--alias=m1", "--raw=--matrix=/m"),
                    {"VantrelElementsMixer": RECORDER})
        write(wd.path("victim"), "root only\n")
        planted = ["/tmp/watchdog-%d-%03d.conf" % (wd.proc.pid, n) for n in range(3)]
        for link in planted:
            os.symlink(wd.path("victim"), link)
            self.addCleanup(os.remove, link)
        self.assertEqual(set_field(wd.rpc(self), 0, "t_run"), 0)
        fds, conf, modes, lines = self.record(wd, "once")
        self.assertEqual((modes, lines[0]), ("600 700", "--matrix=/m"))
        self.assertTrue(wait_until(lambda: not os.path.exists(conf), 10), "option file outlived its child")
        self.assertEqual(read(wd.path("victim")), "root only\n")
        self.assertTrue(all(os.path.islink(p) for p in planted))
        self.assertEqual(wd.stop(), 0)
        self.assertFalse(os.path.exists(os.path.dirname(conf)), "private directory left behind")

    def test_full_disk_keeps_the_standing_file_and_retries(self):
        unshare = ["unshare", "-m", "--propagation", "private"]
        if subprocess.run(unshare + ["true"], capture_output=True).returncode:
            self.skipTest("no mount namespace here")
        wd = Watchdog(self)
        os.mkdir(wd.path("cfg"))
        wd.write_conf(["--lib=x"])
        script = ('mount -t tmpfs -o size=64k tmpfs "$0" && cp "$1" "$0"/w.conf && : > "$0"/w.conf.writing'
                  ' && exec "$2" "$0"/w.conf 2>/dev/null')
        wd.proc = subprocess.Popen(unshare + ["sh", "-c", script, wd.path("cfg"), wd.conf_path, BIN], cwd=wd.dir)
        wd.wait_port()
        inside = "/proc/%d/root%s/" % (wd.proc.pid, wd.path("cfg"))
        self.assertFalse(os.path.exists(inside + "w.conf.writing"), "stale temporary file kept")
        before = read(inside + "w.conf")
        subprocess.run(["dd", "if=/dev/zero", "of=" + inside + "filler", "bs=4096", "count=1000"], capture_output=True)
        for val in ("1", "0", "1"):
            self.assertEqual(set_field(wd.rpc(self), 0, "f_autorun", val), 0)
            wd.wait_log(r"watchdog_save_conf: failed to write")
        self.assertEqual(read(inside + "w.conf"), before)
        os.remove(inside + "filler")
        wd.wait_log(r"done after \d+ failed attempts")
        self.assertEqual(wd.log().count("failed to write"), 1, wd.log())
        self.assertIn("--autorun=1\n", read(inside + "w.conf"))

    def test_child_that_closes_its_output_costs_little_and_stays_supervised(self):
        wd = launch(self, lambda wd: wd.app_lines("elem_matrix", "closer"), {"VantrelElementsMatrix": CLOSER})
        rpc = wd.rpc(self)
        self.assertEqual(set_field(rpc, 0, "t_run"), 0)
        pid = wait_until(lambda: entries(rpc)[0]["pid"], 10)
        # Closed pipes read as end of file at every pass: next to no CPU, and not the child's end.
        cpu0 = cpu_seconds(wd.proc.pid)
        self.assertFalse(wait_until(lambda: not pid_alive(pid) or entries(rpc)[0]["pid"] != pid, 2.0))
        self.assertLess(cpu_seconds(wd.proc.pid) - cpu0, 0.5, "supervisor busy while the child is quiet")
        self.assertEqual(set_field(rpc, 0, "t_term"), 0)
        self.assertTrue(wait_until(lambda: entries(rpc)[0]["pid"] == 0 and not pid_alive(pid), 20), "stopped and reaped")
        self.assertEqual(wd.stop(), 0)
