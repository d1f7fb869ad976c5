# Runs the real supervisor binary for end-to-end tests: a temp dir, a free
# port on 127.0.0.1, bounded waits, and a cleanup that kills only the processes
# this helper started (the supervisor and the children its log reports).

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
CTL = os.environ.get("VANTRELCTL_BIN", "")
# Leading mark, date, milliseconds: "! [2018-06-01 12:00:05.042] message".
LINE_RE = re.compile(r"^[ !?] \[\d{4}-\d\d-\d\d \d\d:\d\d:\d\d\.\d{3}\] (.*)$")
# Stays up at most 60 s; short sleeps so SIGINT ends it promptly.
SLEEPER = "i=0\nwhile [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done\n"
# Ignores SIGINT (only SIGKILL ends it); "$0.ready" tells the trap is set.
STUBBORN = "trap '' INT\ntouch \"$0.ready\"\n" + SLEEPER


def wait_until(predicate, timeout=10.0):
    # Polls predicate() until it is truthy or the deadline passes; its last value.
    deadline = time.monotonic() + timeout
    value = predicate()
    while not value and time.monotonic() < deadline:
        time.sleep(0.05)
        value = predicate()
    return value


def read(path):
    with open(path, errors="replace") as f:
        return f.read()


def write(path, text):
    with open(path, "w") as f:
        f.write(text)


def pid_alive(pid):
    try:
        return read("/proc/%d/stat" % pid).rsplit(")", 1)[1].split()[0] != "Z"
    except (OSError, IndexError):
        return False


def listening_sockets(port):
    rows = [l.split() for l in read("/proc/net/tcp").splitlines()[1:]]
    return {"socket:[%s]" % c[9] for c in rows if int(c[1].rsplit(":", 1)[1], 16) == port and c[3] == "0A"}


def pid_listening_on(port):
    # Pid of the process holding the listening TCP socket on port, or None.
    inodes = listening_sockets(port)
    for pid in filter(str.isdigit, os.listdir("/proc") if inodes else []):
        try:
            if any(os.readlink("/proc/%s/fd/%s" % (pid, fd)) in inodes for fd in os.listdir("/proc/%s/fd" % pid)):
                return int(pid)
        except OSError:
            continue
    return None


def cpu_seconds(pid):
    fields = read("/proc/%d/stat" % pid).rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def launch(test, lines, scripts=None, fake_system=False, **start_kw):
    # A started supervisor whose port answers; lines may be a function of the Watchdog.
    wd = Watchdog(test)
    for name, body in (scripts or {}).items():
        wd.add_script(name, body)
    wd.write_conf(lines(wd) if callable(lines) else list(lines))
    if fake_system:
        start_kw["env"] = wd.fake_system_env()
    wd.start(**start_kw)
    return wd


def entries(rpc):
    return rpc.VantrelWatchdog.GetStatus()["list"]


def set_field(rpc, idx, field, val="", ptr=""):
    return rpc.VantrelWatchdog.SetField(idx, ptr, field, val)["ret"]


class Watchdog:
    # One supervisor run in its own temp dir: files, process, log and cleanup.
    def __init__(self, test):
        test.assertTrue(BIN and CTL, "WATCHDOG_BIN and VANTRELCTL_BIN name the binaries under test")
        self.dir = tempfile.mkdtemp(prefix="wd_e2e_")
        self.bin_dir = self.path("bin")
        os.mkdir(self.bin_dir)
        with socket.socket() as s:   # a port nothing listens on now
            self.port = s.bind((HOST, 0)) or s.getsockname()[1]
        self.log_path, self.conf_path = self.path("watchdog.log"), self.path("watchdog.conf")
        self.proc, self.extra_pids = None, []
        test.addCleanup(self.cleanup)

    def path(self, *parts):
        return os.path.join(self.dir, *parts)

    def app_lines(self, type_name, prefix, *more):
        # One application: config is a path prefix in the temp dir, executable from bin_dir.
        return ["--%s=%s" % (type_name, self.path(prefix)), "--bin-path=" + self.bin_dir,
                "--env=PATH=/usr/bin:/bin"] + list(more)

    def fake_system_env(self):
        # Machine commands are only recorded in system.txt, never run.
        return dict(os.environ, VANTREL_WATCHDOG_FAKE_SYSTEM=self.path("system.txt"))

    def add_script(self, name, body):
        write(os.path.join(self.bin_dir, name), "#!/bin/sh\n" + body)
        os.chmod(os.path.join(self.bin_dir, name), 0o755)

    def write_conf(self, lines):
        write(self.conf_path, "".join(l + "\n" for l in ["--port=%d" % self.port, "--log-file-name=" + self.log_path] + lines))

    def start(self, args=None, env=None, wait=True, **popen_kw):
        self.proc = subprocess.Popen([BIN] + (args or [self.conf_path]), cwd=self.dir, env=env, stdin=subprocess.DEVNULL,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL, **popen_kw)
        if wait:
            self.wait_port()

    def wait_port(self, timeout=60.0):
        wait_until(lambda: listening_sockets(self.port) or self.proc.poll() is not None, timeout)
        if not listening_sockets(self.port):
            raise AssertionError("control port %d did not answer; log:\n%s" % (self.port, self.log()))

    def wait_exit(self, timeout=30.0):
        try:
            return self.proc.wait(timeout=timeout)
        except subprocess.TimeoutExpired:
            return None

    def stop(self, sig=signal.SIGTERM, timeout=30.0):
        self.proc.send_signal(sig)
        return self.wait_exit(timeout)

    def rpc(self, test=None):
        proxy = xmlrpc.client.ServerProxy("http://%s:%d/RPC2" % (HOST, self.port))
        if test is not None:
            test.addCleanup(proxy("close"))
        return proxy

    def log(self):
        return read(self.log_path) if os.path.exists(self.log_path) else ""

    def messages(self):
        return [m.group(1) for m in map(LINE_RE.match, self.log().splitlines()) if m]

    def wait_log(self, pattern, count=1, timeout=20.0):
        if not wait_until(lambda: len(re.findall(pattern, self.log())) >= count, timeout):
            raise AssertionError("log never showed %r x%d; log:\n%s" % (pattern, count, self.log()))

    def child_pids(self):
        return [int(p) for p in re.findall(r"forker's pid=(\d+)", self.log()) if int(p) > 0]

    def cleanup(self):
        if self.proc is not None and self.proc.poll() is None:
            self.proc.kill()
            self.wait_exit(10)
        for pid in self.child_pids() + self.extra_pids:
            try:   # only processes whose command line names this run's temp dir
                if pid_alive(pid) and self.dir in read("/proc/%d/cmdline" % pid):
                    os.kill(pid, signal.SIGKILL)
            except OSError:
                pass
        shutil.rmtree(self.dir, ignore_errors=True)
