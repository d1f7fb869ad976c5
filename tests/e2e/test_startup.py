"""Start-up of the supervisor binary: exit statuses, the log's first and last
lines, detaching, a busy port, inherited variables and start failures."""

import os
import signal
import socket
import subprocess
import shutil
import tempfile
import time
import unittest

from watchdog_harness import (BIN, HOST, LINE_RE, Watchdog, log_messages, pid_alive,
                              pid_listening_on, wait_until)

# A child that records its start and environment, marks SIGINT and otherwise
# waits (at most a minute). $2 is the application's config: a path prefix.
RECORDER = r'''
env > "$2.env"
echo started > "$2.started"
trap 'echo int > "$2.int"; exit 0' INT
i=0
while [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done
'''

INHERITED = ("VANTREL_ELEMENTS_DEVICE", "CUDA_MPS_LOG_DIRECTORY", "CUDA_VISIBLE_DEVICES")


def clean_env(**extra):
    env = {k: v for k, v in os.environ.items() if k not in INHERITED}
    env.update(extra)
    return env


class CommandLineExitStatus(unittest.TestCase):
    """Option errors end the process before anything runs."""

    def setUp(self):
        self.assertTrue(BIN, "WATCHDOG_BIN is not set")
        self.cwd = tempfile.mkdtemp(prefix="wd_e2e_cli_")
        self.addCleanup(shutil.rmtree, self.cwd, True)

    def run_bin(self, *args):
        return subprocess.run([BIN] + list(args), cwd=self.cwd, capture_output=True, text=True,
                              stdin=subprocess.DEVNULL, timeout=20)

    def assert_nothing_started(self):
        self.assertEqual(os.listdir(self.cwd), [], "no log may be started")

    def test_help_prints_usage_and_exits_255(self):
        for flag in ("--help", "-h"):
            with self.subTest(flag=flag):
                r = self.run_bin(flag)
                self.assertEqual(r.returncode, 255)
                lines = r.stderr.splitlines()
                self.assertTrue(lines[0].startswith("VantrelWatchdog"), lines[0])
                self.assertEqual(lines[1], "Usage:")
                self.assertIn("    -h, --help                         Show this help and usage", lines)
                self.assertEqual(r.stdout, "")
        self.assert_nothing_started()

    def test_bad_option_exits_255(self):
        r = self.run_bin("--no-such-option")
        self.assertEqual(r.returncode, 255)
        self.assertIn("ERROR: Incorrect argument! [--no-such-option]", r.stderr)
        self.assertIn("Usage:", r.stderr)
        self.assert_nothing_started()

    def test_unreadable_port_exits_234(self):
        r = self.run_bin("--port=abc")
        self.assertEqual(r.returncode, 234)
        self.assertIn("ERROR: argument '--port' required", r.stderr)
        self.assert_nothing_started()


class ForegroundRun(unittest.TestCase):
    """A normal start and end in the foreground."""

    def setUp(self):
        self.assertTrue(BIN, "WATCHDOG_BIN is not set")
        self.wd = Watchdog(self)

    def test_banner_first_and_bye_last(self):
        self.wd.write_conf([])
        self.wd.start()
        self.wd.wait_port()
        self.assertEqual(self.wd.stop(), 0)
        lines = self.wd.log().splitlines()
        for line in lines:
            self.assertRegex(line, LINE_RE)
        msgs = log_messages(self.wd.log())
        self.assertTrue(msgs[0].startswith("VantrelWatchdog "), msgs[0])
        self.assertEqual(lines[0][0], " ")
        self.assertEqual(msgs[-1], "Bye!")
        caught = [l for l in lines if "catched" in l]
        self.assertEqual(len(caught), 1)
        self.assertTrue(caught[0].startswith("! "), caught[0])
        self.assertTrue(caught[0].endswith("] sighandler: [%d] catched 15" % self.wd.proc.pid), caught[0])

    def test_log_of_an_earlier_run_is_rotated(self):
        with open(self.wd.log_path, "w") as f:
            f.write("earlier run\n")
        self.wd.write_conf([])
        self.wd.start()
        self.wd.wait_port()
        self.assertEqual(self.wd.stop(), 0)
        rotated = [n for n in os.listdir(self.wd.dir) if n.startswith("watchdog.log-")]
        self.assertEqual(len(rotated), 1, rotated)
        self.assertRegex(rotated[0], r"^watchdog\.log-\d{8}_\d{6}$")
        with open(self.wd.path(rotated[0])) as f:
            self.assertEqual(f.read(), "earlier run\n")
        self.assertNotIn("earlier run", self.wd.log())

    def test_busy_port_starts_nothing_and_exits_0(self):
        self.wd.add_script("VantrelElementsMixer", RECORDER)
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "mixer", "--autorun=1"))
        with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as busy:
            busy.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
            busy.bind((HOST, self.wd.port))
            busy.listen(1)
            self.wd.start()
            self.assertEqual(self.wd.wait_exit(20), 0)
        msgs = self.wd.messages()
        failed = [l for l in self.wd.log().splitlines() if l.endswith("] Failed to init control interfaca")]
        self.assertEqual(len(failed), 1, self.wd.log())
        self.assertTrue(failed[0].startswith("! "), failed[0])
        self.assertEqual(msgs[-1], "Bye!")
        self.assertFalse(any("Will care about" in m for m in msgs), msgs)
        time.sleep(0.3)
        self.assertFalse(os.path.exists(self.wd.path("mixer.started")))


class Detaching(unittest.TestCase):
    def setUp(self):
        self.assertTrue(BIN, "WATCHDOG_BIN is not set")
        self.wd = Watchdog(self)

    def test_demonize_detaches_into_root_with_umask_0(self):
        self.wd.write_conf([])
        self.wd.start([self.wd.conf_path, "--demonize"])
        self.assertEqual(self.wd.wait_exit(10), 0)
        self.assertTrue(wait_until(lambda: pid_listening_on(self.wd.port), 10), "daemon never listened")
        pid = pid_listening_on(self.wd.port)
        self.wd.extra_pids.append(pid)
        self.assertNotEqual(pid, self.wd.proc.pid)
        self.assertEqual(os.readlink("/proc/%d/cwd" % pid), "/")
        with open("/proc/%d/status" % pid) as f:
            status = dict(l.split(":", 1) for l in f.read().splitlines() if ":" in l)
        self.assertEqual(status["Umask"].strip(), "0000")
        with open("/proc/%d/stat" % pid) as f:
            session = int(f.read().rsplit(")", 1)[1].split()[3])
        self.assertEqual(session, pid, "the daemon leads its own session")
        self.assertEqual(os.readlink("/proc/%d/fd/2" % pid), "/dev/null")

        os.kill(pid, signal.SIGTERM)
        self.assertTrue(wait_until(lambda: not pid_alive(pid), 20), "daemon did not end")
        self.assertTrue(wait_until(lambda: self.wd.messages()[-1:] == ["Bye!"], 5), self.wd.log())
        self.assertIn("sighandler: [%d] catched 15" % pid, self.wd.messages())


class ChildEnvironment(unittest.TestCase):
    def setUp(self):
        self.assertTrue(BIN, "WATCHDOG_BIN is not set")
        self.wd = Watchdog(self)
        self.wd.add_script("VantrelElementsMixer", RECORDER)
        self.wd.write_conf(self.wd.app_lines("elem_mixer", "mixer", "--autorun=1"))

    def child_env(self):
        self.assertTrue(wait_until(lambda: os.path.exists(self.wd.path("mixer.started")), 10),
                        self.wd.log())
        with open(self.wd.path("mixer.env")) as f:
            return f.read().splitlines()

    def test_only_cuda_visible_devices_reaches_the_child(self):
        self.wd.start(env=clean_env(CUDA_VISIBLE_DEVICES="3", HOME="/root"))
        self.wd.wait_port()
        env = self.child_env()
        self.assertIn("CUDA_VISIBLE_DEVICES=3", env)
        self.assertIn("PATH=/usr/bin:/bin", env)
        self.assertFalse(any(e.startswith("HOME=") for e in env), env)
        self.assertEqual(self.wd.stop(), 0)
        taken = [m for m in self.wd.messages() if m.startswith("main: ")]
        self.assertEqual(taken, ["main: CUDA_VISIBLE_DEVICES=3"])

class StartFailures(unittest.TestCase):
    """The forker must see its own child's exit status while the process-wide
    reaper runs; both classifications depend on it."""

    def setUp(self):
        self.assertTrue(BIN, "WATCHDOG_BIN is not set")
        self.wd = Watchdog(self)

    def test_start_error_and_respawn_too_fast_with_the_server_running(self):
        self.wd.add_script("VantrelElementsMatrix", "exit 1\n")
        missing = self.wd.path("no-such-dir")
        self.wd.write_conf(
            ["--elem_mixer=mixer", "--bin-path=" + missing, "--env=PATH=/usr/bin:/bin", "--respawn=1"] +
            self.wd.app_lines("elem_matrix", "matrix", "--respawn=1"))
        self.wd.start()
        self.wd.wait_port()
        self.wd.wait_log(r"executable startup failed, check paths", timeout=15)
        self.wd.wait_log(r"respawn too fast", timeout=15)

        with self.wd.rpc() as proxy:
            status = proxy.VantrelWatchdog.GetStatus()
        errs = {e["app_name"]: (e["err"], e["f_respawn"]) for e in status["list"]}
        self.assertEqual(errs["elem_mixer"], ("Start error", 0))
        self.assertEqual(errs["elem_matrix"], ("Respawn too fast", 0))
        self.assertEqual(self.wd.stop(), 0)
        self.assertEqual(self.wd.messages()[-1], "Bye!")



class ExampleConfiguration(unittest.TestCase):
    """The shipped example runs: its children start and the supervisor ends cleanly."""

    def setUp(self):
        self.assertTrue(BIN, "WATCHDOG_BIN is not set")
        self.wd = Watchdog(self)

    def test_example_configuration_runs(self):
        examples = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..", "examples")
        examples = os.path.normpath(examples)
        with open(os.path.join(examples, "watchdog.conf.in")) as f:
            text = f.read().replace("@BIN_DIR@", os.path.join(examples, "bin")).replace("@WORK_DIR@", self.wd.dir)
        # The file's own pass would reset the port to its default of 9000.
        with open(self.wd.conf_path, "w") as f:
            f.write(text + "--port=%d\n" % self.wd.port)
        self.wd.log_path = self.wd.path("log", "VantrelWatchdog.log")
        self.wd.start()
        self.wd.wait_port()
        self.wd.wait_log(r"Will care about 3 apps")
        self.wd.wait_log(r"forker's pid=[1-9]", count=2)
        with self.wd.rpc() as proxy:
            status = proxy.VantrelWatchdog.GetStatus()
        self.assertEqual(status["instance_name"], "example")
        self.assertEqual([e["alias"] for e in status["list"]], ["mixer1", "matrix1", "Studio clock"])
        self.assertEqual(self.wd.stop(), 0)
        self.assertEqual(self.wd.messages()[-1], "Bye!")


if __name__ == "__main__":
    unittest.main()
