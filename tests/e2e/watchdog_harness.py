"""Shared helper for end-to-end tests of the supervisor binary.

Typical use in a unittest.TestCase:

    def setUp(self):
        self.wd = Watchdog(self)              # temp dir, free port, cleanup registered
        self.wd.add_script("VantrelElementsMixer", SLEEPER)
        self.wd.write_conf(["--elem_mixer=/cfg", "--bin-path=" + self.wd.bin_dir,
                            "--env=PATH=/usr/bin:/bin", "--autorun=1"])
        self.wd.start()                       # foreground, log echo off by default
        self.wd.wait_port()
        ...
        self.assertEqual(self.wd.stop(), 0)   # SIGTERM and wait for the exit status

Everything talks to 127.0.0.1 only and every wait has a deadline. Cleanup kills
only the processes this helper started: the supervisor itself and the children
whose pids its log reports (checked against the temp dir before killing).
"""

import os
import re
import shutil
import signal
import socket
import subprocess
import tempfile
import time
import xmlrpc.client

HOST = "127.0.0.1"
BIN = os.environ.get("WATCHDOG_BIN", "")

# Leading mark, date, milliseconds: "! [2018-06-01 12:00:05.042] message".
LINE_RE = re.compile(r"^[ !?] \[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] (.*)$")


def free_port():
    """A TCP port on 127.0.0.1 that nothing listens on right now."""
    with socket.socket(socket.AF_INET, socket.SOCK_STREAM) as s:
        s.bind((HOST, 0))
        return s.getsockname()[1]


def port_open(port, timeout=0.2):
    try:
        with socket.create_connection((HOST, port), timeout=timeout):
            return True
    except OSError:
        return False


def wait_until(predicate, timeout=10.0, interval=0.05):
    """Polls predicate() until it is truthy or the deadline passes; returns its last value."""
    deadline = time.monotonic() + timeout
    value = predicate()
    while not value and time.monotonic() < deadline:
        time.sleep(interval)
        value = predicate()
    return value


def pid_alive(pid):
    """True while pid exists and is not a zombie."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            state = f.read().rsplit(")", 1)[1].split()[0]
        return state != "Z"
    except (OSError, IndexError):
        return False


def pid_listening_on(port):
    """Pid of the process holding the listening TCP socket on port, or None."""
    inodes = set()
    for table in ("/proc/net/tcp", "/proc/net/tcp6"):
        try:
            with open(table) as f:
                next(f)
                for line in f:
                    cols = line.split()
                    if int(cols[1].rsplit(":", 1)[1], 16) == port and cols[3] == "0A":
                        inodes.add(cols[9])
        except OSError:
            pass
    if not inodes:
        return None
    targets = {"socket:[%s]" % i for i in inodes}
    for name in os.listdir("/proc"):
        if not name.isdigit():
            continue
        try:
            for fd in os.listdir("/proc/%s/fd" % name):
                if os.readlink("/proc/%s/fd/%s" % (name, fd)) in targets:
                    return int(name)
        except OSError:
            continue
    return None


def entries(rpc):
    """GetStatus's list of slots."""
    return rpc.VantrelWatchdog.GetStatus()["list"]


def handles(rpc):
    return [e["ptr"] for e in entries(rpc)]


def log_messages(text):
    """The message part of every well-formed log line, in order."""
    out = []
    for line in text.splitlines():
        m = LINE_RE.match(line)
        if m:
            out.append(m.group(1))
    return out


class Watchdog:
    """One supervisor run in its own temp dir: files, process, log and cleanup."""

    def __init__(self, test=None, port=None):
        self.dir = tempfile.mkdtemp(prefix="wd_e2e_")
        self.bin_dir = os.path.join(self.dir, "bin")
        os.mkdir(self.bin_dir)
        self.port = port or free_port()
        self.log_path = os.path.join(self.dir, "watchdog.log")
        self.conf_path = os.path.join(self.dir, "watchdog.conf")
        self.proc = None
        self.extra_pids = []   # further pids to clean up, e.g. a detached supervisor
        if test is not None:
            test.addCleanup(self.cleanup)

    # --- files -----------------------------------------------------------
    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    def app_lines(self, type_name, prefix, *more):
        """Option lines for one application whose config is a path prefix in
        the temp dir and whose executable comes from bin_dir."""
        return ["--%s=%s" % (type_name, self.path(prefix)), "--bin-path=" + self.bin_dir,
                "--env=PATH=/usr/bin:/bin"] + list(more)

    def fake_system_env(self):
        """The binary's environment: machine commands are only recorded, never run."""
        env = dict(os.environ)
        env["VANTREL_WATCHDOG_FAKE_SYSTEM"] = self.path("system.txt")
        return env

    def add_script(self, name, body):
        """Writes an executable /bin/sh script into bin_dir; returns its path."""
        p = os.path.join(self.bin_dir, name)
        with open(p, "w") as f:
            f.write("#!/bin/sh\n" + body)
        os.chmod(p, 0o755)
        return p

    def write_conf(self, lines):
        """Writes the option file: given lines plus --port and --log-file-name."""
        with open(self.conf_path, "w") as f:
            f.write("--port=%d\n--log-file-name=%s\n" % (self.port, self.log_path))
            for line in lines:
                f.write(line + "\n")
        return self.conf_path

    # --- process ---------------------------------------------------------
    def command(self, args=None):
        if args is None:
            args = [self.conf_path]
        return [BIN] + list(args)

    def start(self, args=None, env=None, stderr=subprocess.DEVNULL, **popen_kw):
        """Starts the binary (default args: the option file) and returns the Popen."""
        self.proc = subprocess.Popen(self.command(args), cwd=self.dir, env=env,
                                     stdin=subprocess.DEVNULL, stdout=subprocess.DEVNULL,
                                     stderr=stderr, **popen_kw)
        return self.proc

    def wait_port(self, timeout=10.0):
        ok = wait_until(lambda: port_open(self.port) or
                        (self.proc is not None and self.proc.poll() is not None), timeout)
        if not ok or not port_open(self.port):
            raise AssertionError("control port %d did not open; log:\n%s" % (self.port, self.log()))

    def send(self, sig=signal.SIGTERM):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.send_signal(sig)

    def wait_exit(self, timeout=30.0):
        """Exit status of the started process, or None if it is still running."""
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None

    def stop(self, sig=signal.SIGTERM, timeout=30.0):
        self.send(sig)
        return self.wait_exit(timeout)

    def rpc(self):
        return xmlrpc.client.ServerProxy("http://%s:%d/RPC2" % (HOST, self.port))

    # --- log -------------------------------------------------------------
    def log(self):
        try:
            with open(self.log_path, errors="replace") as f:
                return f.read()
        except OSError:
            return ""

    def messages(self):
        return log_messages(self.log())

    def wait_log(self, pattern, count=1, timeout=10.0):
        """Waits until the log holds at least count matches of the regex; returns them."""
        rx = re.compile(pattern)
        found = wait_until(lambda: len(rx.findall(self.log())) >= count, timeout)
        if not found:
            raise AssertionError("log never showed %r x%d; log:\n%s" % (pattern, count, self.log()))
        return rx.findall(self.log())

    def child_pids(self):
        """Pids of children the supervisor reported starting."""
        return [int(p) for p in re.findall(r"forker's pid=(\d+)", self.log()) if int(p) > 0]

    # --- cleanup ---------------------------------------------------------
    def _ours(self, pid):
        try:
            with open("/proc/%d/cmdline" % pid, "rb") as f:
                return self.dir.encode() in f.read()
        except OSError:
            return False

    def cleanup(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            try:
                self.proc.wait(timeout=10)
            except subprocess.TimeoutExpired:
                pass
        for pid in self.child_pids() + self.extra_pids:
            if pid_alive(pid) and self._ours(pid):
                try:
                    os.kill(pid, signal.SIGKILL)
                except OSError:
                    pass
        shutil.rmtree(self.dir, ignore_errors=True)
