# Start of the supervisor binary: the log's first and last lines, inherited
# variables, a busy port, detaching with its file modes and
# bounded backups, and service manager notifications.

import os
import re
import signal
import socket
import stat
import time
import unittest

from watchdog_harness import HOST, SLEEPER, Watchdog, entries, launch, pid_alive, pid_listening_on, read, set_field, wait_until

# Records its environment and start, then waits (bounded). $2 is its config: a path prefix.
RECORDER = {"VantrelElementsMixer": 'env > "$2.env"\necho started > "$2.started"\n' + SLEEPER}


def mode(path):
    return stat.S_IMODE(os.lstat(path).st_mode)


class Startup(unittest.TestCase):
    def test_foreground_run_passes_named_variables_and_ends_with_bye(self):
        env = {k: v for k, v in os.environ.items() if k not in ("VANTREL_ELEMENTS_DEVICE", "CUDA_MPS_LOG_DIRECTORY")}
        wd = launch(self, lambda wd: wd.app_lines("elem_mixer", "mixer", "--autorun=1"), RECORDER,
                    env=dict(env, CUDA_VISIBLE_DEVICES="3", HOME="/root"))
        self.assertTrue(wait_until(lambda: os.path.exists(wd.path("mixer.started")), 20), wd.log())
        child_env = read(wd.path("mixer.env")).splitlines()
        self.assertEqual(sorted(e for e in child_env if e.split("=")[0] in ("CUDA_VISIBLE_DEVICES", "PATH", "HOME")),
                         ["CUDA_VISIBLE_DEVICES=3", "PATH=/usr/bin:/bin"], "only named variables are inherited")
        self.assertEqual(wd.stop(), 0)
        lines, msgs = wd.log().splitlines(), wd.messages()
        self.assertEqual(len(lines), len(msgs), "every line is well formed")
        self.assertEqual((lines[0][0], msgs[0][:16], msgs[-1]), (" ", "VantrelWatchdog ", "Bye!"))
        self.assertEqual([m for m in msgs if m.startswith("main: ")], ["main: CUDA_VISIBLE_DEVICES=3"])

    def test_busy_port_starts_nothing_and_exits_0(self):
        wd = Watchdog(self)
        wd.add_script("VantrelElementsMixer", RECORDER["VantrelElementsMixer"])
        wd.write_conf(wd.app_lines("elem_mixer", "mixer", "--autorun=1"))
        with socket.socket() as busy:
            busy.bind((HOST, wd.port))
            busy.listen(1)
            wd.start(wait=False)
            self.assertEqual(wd.wait_exit(20), 0)
        self.assertEqual([l[0] for l in wd.log().splitlines() if l.endswith("] Failed to init control interfaca")], ["!"])
        self.assertEqual((wd.messages()[-1], [m for m in wd.messages() if "Will care about" in m]), ("Bye!", []))
        self.assertFalse(os.path.exists(wd.path("mixer.started")))

    def test_daemon_detaches_keeps_modes_and_bounds_backups(self):
        wd = Watchdog(self)
        wd.write_conf(["--conf-backups=2", "--lib=x"])
        os.chmod(wd.conf_path, 0o640)
        wd.start([wd.conf_path, "--demonize"], wait=False)
        self.assertEqual(wd.wait_exit(10), 0)
        pid = wait_until(lambda: pid_listening_on(wd.port), 10)
        self.assertTrue(pid, "daemon never listened")
        wd.extra_pids.append(pid)
        self.assertEqual((os.readlink("/proc/%d/cwd" % pid), os.readlink("/proc/%d/fd/2" % pid)), ("/", "/dev/null"))
        self.assertIn("Umask:\t0000\n", read("/proc/%d/status" % pid))
        self.assertEqual(int(read("/proc/%d/stat" % pid).rsplit(")", 1)[1].split()[3]), pid, "own session")
        for n in range(1, 5):
            self.assertEqual(set_field(wd.rpc(self), 0, "f_autorun", str(n % 2)), 0)
            wd.wait_log(r"updating config file", n)
        self.assertEqual(mode(wd.conf_path), 0o640)
        backups = lambda: [n for n in os.listdir(wd.dir) if re.match(r"watchdog\.conf-\d+\.\d+$", n)]
        wait_until(lambda: len(backups()) <= 2, 5)   # the last save logs before it prunes
        self.assertEqual(len(backups()), 2, os.listdir(wd.dir))
        for root, dirs, files in os.walk(wd.dir):
            for p in (os.path.join(root, n) for n in dirs + files):
                self.assertFalse(mode(p) & 0o002 and not os.path.islink(p), "world-writable: %s" % p)
        self.assertEqual(mode(wd.log_path) & 0o027, 0)
        os.kill(pid, signal.SIGTERM)
        self.assertTrue(wait_until(lambda: not pid_alive(pid), 20), "daemon did not end")
        self.assertTrue(wait_until(lambda: wd.messages()[-1:] == ["Bye!"], 5), wd.log())

    def test_service_manager_hears_ready_keep_alives_and_stopping(self):
        wd = Watchdog(self)
        sock = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(sock.close)
        sock.bind(wd.path("notify.sock"))

        def receive(seconds):
            # Datagrams until the deadline, READY=1 marked with whether the port answered then.
            got, deadline = [], time.monotonic() + seconds
            while time.monotonic() < deadline:
                sock.settimeout(max(0.01, deadline - time.monotonic()))
                try:
                    text = sock.recv(4096).decode()
                except socket.timeout:
                    break
                got.append(text + ("(answered)" if "READY=1" in text and entries(wd.rpc()) == [] else ""))
            return got
        wd.write_conf([])
        wd.start(wait=False, env=dict(os.environ, NOTIFY_SOCKET=wd.path("notify.sock"), WATCHDOG_USEC="400000"))
        texts = receive(3.0)
        self.assertEqual([t.endswith("(answered)") for t in texts if "READY=1" in t], [True], texts)
        # Half of 400 ms: about 15 in three seconds; a loaded machine may send fewer.
        self.assertTrue(5 <= texts.count("WATCHDOG=1") <= 20, texts)
        wd.proc.terminate()
        self.assertEqual(sum("STOPPING=1" in t for t in receive(5.0)), 1)
        self.assertEqual(wd.wait_exit(), 0)
