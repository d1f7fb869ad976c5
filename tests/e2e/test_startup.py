# Start and end of the supervisor binary: exit statuses, the log's first and
# last lines, log rotation, detaching, a busy port, inherited variables and the
# shipped example configuration.

import os
import signal
import socket
import subprocess
import unittest

from watchdog_harness import BIN, HOST, LINE_RE, SLEEPER, Watchdog, pid_alive, pid_listening_on, read, wait_until

# Records its environment and start, then waits (bounded). $2 is its config: a path prefix.
RECORDER = 'env > "$2.env"\necho started > "$2.started"\n' + SLEEPER


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class Startup(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)

    def test_option_errors_exit_before_anything_runs(self):
        rows = [(["--help"], 255, "    -h, --help                         Show this help and usage"),
                (["--no-such-option"], 255, "ERROR: Incorrect argument! [--no-such-option]"),
                (["--port=abc"], 234, "ERROR: argument '--port' required")]
        for args, code, text in rows:
            with self.subTest(args=args):
                r = subprocess.run([BIN] + args, cwd=self.wd.bin_dir, capture_output=True, text=True,
                                   stdin=subprocess.DEVNULL, timeout=20)
                self.assertEqual((r.returncode, r.stdout), (code, ""))
                self.assertIn(text, r.stderr.splitlines())
                self.assertEqual(os.listdir(self.wd.bin_dir), [], "no log may be started")

    def test_foreground_run_rotates_the_old_log_and_ends_with_bye(self):
        with open(self.wd.log_path, "w") as f:
            f.write("earlier run\n")
        self.wd.add_script("VantrelElementsMixer", RECORDER)
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "mixer", "--autorun=1"))
        env = {k: v for k, v in os.environ.items() if k not in ("VANTREL_ELEMENTS_DEVICE", "CUDA_MPS_LOG_DIRECTORY")}
        self.wd.start(env=dict(env, CUDA_VISIBLE_DEVICES="3", HOME="/root"))
        self.wd.wait_port()
        self.assertTrue(wait_until(lambda: os.path.exists(self.wd.path("mixer.started")), 20), self.wd.log())
        child_env = read(self.wd.path("mixer.env")).splitlines()
        self.assertIn("CUDA_VISIBLE_DEVICES=3", child_env)
        self.assertIn("PATH=/usr/bin:/bin", child_env)
        self.assertFalse([e for e in child_env if e.startswith("HOME=")], "only named variables are inherited")
        self.assertEqual(self.wd.stop(), 0)

        rotated = [n for n in os.listdir(self.wd.dir) if n.startswith("watchdog.log-")]
        self.assertEqual(len(rotated), 1, rotated)
        self.assertRegex(rotated[0], r"^watchdog\.log-\d{8}_\d{6}$")
        self.assertEqual(read(self.wd.path(rotated[0])), "earlier run\n")
        lines, msgs = self.wd.log().splitlines(), self.wd.messages()
        self.assertEqual(len(lines), len(msgs), "every line is well formed")
        self.assertTrue(lines[0].startswith(" ") and msgs[0].startswith("VantrelWatchdog "), lines[0])
        self.assertEqual(msgs[-1], "Bye!")
        self.assertEqual([m for m in msgs if m.startswith("main: ")], ["main: CUDA_VISIBLE_DEVICES=3"])
        caught = [l for l in lines if "catched" in l]
        self.assertEqual(len(caught), 1)
        self.assertRegex(caught[0], r"^! .*\] sighandler: \[%d\] catched 15$" % self.wd.proc.pid)

    def test_busy_port_starts_nothing_and_exits_0(self):
        self.wd.add_script("VantrelElementsMixer", RECORDER)
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "mixer", "--autorun=1"))
        with socket.socket() as busy:
            busy.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            busy.bind((HOST, self.wd.port))
            busy.listen(1)
            self.wd.start()
            self.assertEqual(self.wd.wait_exit(20), 0)
        failed = [l for l in self.wd.log().splitlines() if l.endswith("] Failed to init control interfaca")]
        self.assertEqual(len(failed), 1, self.wd.log())
        self.assertTrue(failed[0].startswith("! "), failed[0])
        self.assertEqual(self.wd.messages()[-1], "Bye!")
        self.assertFalse(any("Will care about" in m for m in self.wd.messages()))
        self.assertFalse(os.path.exists(self.wd.path("mixer.started")))

    def test_demonize_detaches_into_root_with_umask_0(self):
        self.wd.write_conf([])
        self.wd.start([self.wd.conf_path, "--demonize"])
        self.assertEqual(self.wd.wait_exit(10), 0)
        pid = wait_until(lambda: pid_listening_on(self.wd.port), 10)
        self.assertTrue(pid, "daemon never listened")
        self.wd.extra_pids.append(pid)
        self.assertEqual(os.readlink("/proc/%d/cwd" % pid), "/")
        self.assertIn("Umask:\t0000\n", read("/proc/%d/status" % pid))
        self.assertEqual(int(read("/proc/%d/stat" % pid).rsplit(")", 1)[1].split()[3]), pid, "own session")
        self.assertEqual(os.readlink("/proc/%d/fd/2" % pid), "/dev/null")
        os.kill(pid, signal.SIGTERM)
        self.assertTrue(wait_until(lambda: not pid_alive(pid), 20), "daemon did not end")
        self.assertTrue(wait_until(lambda: self.wd.messages()[-1:] == ["Bye!"], 5), self.wd.log())
        self.assertIn("sighandler: [%d] catched 15" % pid, self.wd.messages())

    def test_example_configuration_runs(self):
        examples = os.path.normpath(os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples"))
        text = read(os.path.join(examples, "watchdog.conf.in"))
        text = text.replace("@BIN_DIR@", os.path.join(examples, "bin")).replace("@WORK_DIR@", self.wd.dir)
        with open(self.wd.conf_path, "w") as f:   # its own pass would reset the port to 9000
            f.write(text + "--port=%d\n" % self.wd.port)
        self.wd.log_path = self.wd.path("log", "VantrelWatchdog.log")
        self.wd.start()
        self.wd.wait_port()
        self.wd.wait_log(r"forker's pid=[1-9]", count=2)
        status = self.wd.rpc(self).VantrelWatchdog.GetStatus()
        self.assertEqual(status["instance_name"], "example")
        self.assertEqual([e["alias"] for e in status["list"]], ["mixer1", "matrix1", "Studio clock"])
        self.assertEqual(self.wd.stop(), 0)
        self.assertEqual(self.wd.messages()[-1], "Bye!")


if __name__ == "__main__":
    unittest.main()
