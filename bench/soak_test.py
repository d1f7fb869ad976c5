"""Soak: about a minute of 16 concurrent clients against a supervisor whose
children print continuously, crash and are restarted.

What must hold throughout: every request is answered within 2 s; the option
file on disk is always a complete file; afterwards the process still serves,
the final listing agrees with the final option file, and after SIGTERM no
child it ever reported is left running or unreaped.
"""

import os
import queue
import random
import threading
import time
import unittest
import xmlrpc.client

from watchdog_harness import BIN, Watchdog, wait_until

SOAK_SECONDS = float(os.environ.get("SOAK_SECONDS", "45"))
CLIENTS = int(os.environ.get("SOAK_CLIENTS", "16"))
# Under a sanitizer the supervisor runs several times slower, and every fork
# (made while a pass holds the lock) copies the sanitizer's large mappings; the
# soak still hunts races and bad accesses in every path there, with bounds
# that fit that speed. The 2 s bound is the normal build's.
SLOW_BUILD = "TSAN_OPTIONS" in os.environ or "ASAN_OPTIONS" in os.environ
REQUEST_LIMIT_S = 20.0 if SLOW_BUILD else 2.0
POOL_WAIT_S = 120.0 if SLOW_BUILD else 10.0
MIN_REQUESTS = 200 if SLOW_BUILD else 1000
# The control server keeps the HTTP library's default of 15 connections at a
# time, and a connection the library closed after its keep-alive quota still
# counts until the library reaps it; a client that reconnects at the limit
# waits 2 s or more. The client threads therefore share kept-alive
# connections, well below the limit; a request's latency is taken from the
# moment it has a connection.
CONNECTIONS = 10
ITERATIONS_MAX = 20000          # per client, on top of the time bound
SCRATCH_MAX = 12                # applications the clients may add, clones included

# Prints on both streams and crashes with SIGSEGV after a few seconds; bounded
# in lines and in time by itself even if nobody stops it.
CRASHER = """\
n=0
while [ $n -lt {life} ]; do
  echo "out $n of $$ ......................................................"
  echo "err $n of $$" >&2
  n=$((n+1))
  sleep 0.1
done
kill -SEGV $$
"""


def block_lines(conf_text):
    """(type, config, alias) of every application block of an option file."""
    apps = []
    for line in conf_text.splitlines():
        if not line.startswith("--") or "=" not in line:
            continue
        name, value = line[2:].split("=", 1)
        if name in ("instance-name", "port", "log-file-name", "log-rotate-interval"):
            continue
        if name == "alias":
            apps[-1][2] = value
        elif name in ("thumb", "bin-path", "numa-bind", "respawn", "autorun", "env", "raw"):
            continue
        else:
            apps.append([name, value, ""])
    return [tuple(a) for a in apps]


def incomplete_reason(text):
    """Why a read of the option file is not a whole file written by the supervisor, or None."""
    if text is None:
        return "missing"
    if not text:
        return "empty"
    if not text.endswith("\n"):
        return "cut inside a line"
    lines = text.split("\n")[:-1]
    for needed in ("--instance-name=", "--port=", "--log-file-name=", "--log-rotate-interval="):
        if not any(line.startswith(needed) for line in lines):
            return "no %s line" % needed
    for line in lines:
        if line and not line.startswith("--"):
            return "stray line %r" % line[:60]
    return None


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class Soak(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.add_script("VantrelElementsMixer", CRASHER.format(life=60))
        self.wd.add_script("VantrelElementsMatrix", CRASHER.format(life=90))
        lines = []
        for i in range(6):
            type_name = "elem_mixer" if i % 2 else "elem_matrix"
            lines += ["--%s=/cfg/core%d" % (type_name, i), "--alias=core %d" % i,
                      "--bin-path=" + self.wd.bin_dir, "--env=PATH=/usr/bin:/bin", "--respawn=1"]
            # Enough lines that a rewrite spans several writes of the file.
            lines += ["--raw=--option-%d=%s" % (k, "x" * 60) for k in range(40)]
        self.wd.write_conf(lines)
        with open(self.wd.conf_path) as f:
            self.initial_conf = f.read()
        self.wd.start()
        self.wd.wait_port()

        self.lock = threading.Lock()
        self.latencies = []
        self.slow = []
        self.errors = []
        self.pids = {}            # pid -> start time from /proc, as first seen
        self.conf_problems = []
        self.conf_reads = 0
        self.stop_at = time.monotonic() + SOAK_SECONDS

    # --- clients ---------------------------------------------------------
    def timed(self, what, call):
        try:
            proxy = self.pool.get(timeout=POOL_WAIT_S)
        except queue.Empty:
            with self.lock:
                self.errors.append("%s: no connection free for %.0f s" % (what, POOL_WAIT_S))
            return None
        t0 = time.monotonic()
        try:
            return call(proxy.VantrelWatchdog)
        except (xmlrpc.client.Fault, OSError, xmlrpc.client.ProtocolError) as e:
            with self.lock:
                self.errors.append("%s: %r" % (what, e))
            return None
        finally:
            self.pool.put(proxy)
            dt = time.monotonic() - t0
            with self.lock:
                self.latencies.append(dt)
                if dt > REQUEST_LIMIT_S:
                    self.slow.append((what, dt))

    def note_pids(self, st):
        for entry in st["list"]:
            pid = entry["pid"]
            if pid and pid not in self.pids:
                self.pids[pid] = proc_start_time(pid)

    def client(self, seed):
        rnd = random.Random(seed)
        n = 0
        if True:
            while time.monotonic() < self.stop_at and n < ITERATIONS_MAX:
                n += 1
                st = self.timed("GetStatus", lambda wd: wd.GetStatus())
                if st is None:
                    continue
                with self.lock:
                    self.note_pids(st)
                entries = st["list"]
                if not entries:
                    continue
                idx = rnd.randrange(len(entries))
                scratch = [e for e in entries if e["alias"].startswith("scratch")]
                op = rnd.randrange(12)
                if op == 0:
                    self.timed("GetItem", lambda wd: wd.GetItem(idx, ""))
                elif op == 1 and len(scratch) < SCRATCH_MAX:
                    self.timed("SetItem add", lambda wd: wd.SetItem(
                        -1, "", "elem_mixer", "scratch %d-%d" % (seed, n), "", "/cfg/scratch",
                        self.wd.bin_dir, "", ["--port=%d" % (40000 + n)], ["PATH=/usr/bin:/bin"]))
                elif op == 2 and scratch:
                    target = rnd.choice(scratch)
                    self.timed("SetItem update", lambda wd: wd.SetItem(
                        -1, target["ptr"], "elem_mixer", target["alias"], "t.png", "/cfg/updated",
                        self.wd.bin_dir, "", [], ["PATH=/usr/bin:/bin"]))
                elif op == 3:
                    self.timed("t_run", lambda wd: wd.SetField(idx, "", "t_run", ""))
                elif op == 4:
                    self.timed("t_term", lambda wd: wd.SetField(idx, "", "t_term", ""))
                elif op == 5:
                    # Scratch applications come and go; the core ones stay kept alive.
                    target = rnd.choice(scratch or entries)
                    value = rnd.choice("01") if target in scratch else "1"
                    self.timed("f_respawn", lambda wd: wd.SetField(-1, target["ptr"], "f_respawn", value))
                elif op == 6:
                    self.timed("t_up", lambda wd: wd.SetField(idx, "", rnd.choice(("t_up", "t_down")), ""))
                elif op == 7 and scratch and len(scratch) < SCRATCH_MAX:
                    target = rnd.choice(scratch)
                    if target["pid"] == 0:
                        self.timed("t_clone", lambda wd: wd.SetField(-1, target["ptr"], "t_clone", ""))
                elif op == 8 and scratch:
                    target = rnd.choice(scratch)
                    if target["pid"] == 0:
                        self.timed("t_del", lambda wd: wd.SetField(-1, target["ptr"], "f_respawn", "0"))
                        self.timed("t_del", lambda wd: wd.SetField(-1, target["ptr"], "t_del", ""))
                else:
                    self.timed("GetStdXXXBuf", lambda wd: wd.GetStdXXXBuf(
                        idx, "", str(rnd.randrange(0, 200000)), rnd.choice((1, 2))))

    def conf_watcher(self):
        deadline = self.stop_at + 1
        n = 0
        while time.monotonic() < deadline and n < 200000:
            n += 1
            try:
                with open(self.wd.conf_path) as f:
                    text = f.read()
            except FileNotFoundError:
                text = None
            reason = None if text == self.initial_conf else incomplete_reason(text)
            with self.lock:
                self.conf_reads += 1
                if reason and len(self.conf_problems) < 20:
                    self.conf_problems.append("%s: %r" % (reason, (text or "")[:80]))
            time.sleep(0.001)

    # --- the run ---------------------------------------------------------
    def test_soak(self):
        self.pool = queue.Queue()
        for _ in range(CONNECTIONS):
            self.pool.put(self.wd.rpc())
        threads = [threading.Thread(target=self.client, args=(i,)) for i in range(CLIENTS)]
        threads.append(threading.Thread(target=self.conf_watcher))
        for t in threads:
            t.start()
        for t in threads:
            t.join(SOAK_SECONDS + POOL_WAIT_S + 60)
        self.assertFalse(any(t.is_alive() for t in threads), "a client thread hung")
        while not self.pool.empty():
            self.pool.get()("close")()

        lat = sorted(self.latencies)
        p99 = lat[int(len(lat) * 0.99)] if lat else 0
        print("\nsoak: %d requests, p50 %.1f ms, p99 %.1f ms, max %.1f ms, %d option-file reads, %d child pids"
              % (len(lat), lat[len(lat) // 2] * 1e3 if lat else 0, p99 * 1e3, lat[-1] * 1e3 if lat else 0,
                 self.conf_reads, len(self.pids)))
        self.assertEqual(self.errors, [])
        self.assertEqual(self.slow, [], "requests slower than %.0f s" % REQUEST_LIMIT_S)
        self.assertGreater(len(lat), MIN_REQUESTS)
        self.assertGreater(len(self.pids), 6, "children were restarted")
        self.assertEqual(self.conf_problems, [], "a reader saw an incomplete option file")

        # Quiet now: the listing and the file must settle on the same configuration.
        rpc = self.wd.rpc()
        self.addCleanup(rpc("close"))

        def agree():
            st = rpc.VantrelWatchdog.GetStatus()
            items = [rpc.VantrelWatchdog.GetItem(-1, e["ptr"]) for e in st["list"]]
            listed = [(i["id_name"], i["config"], i["alias"]) for i in items]
            try:
                with open(self.wd.conf_path) as f:
                    on_disk = block_lines(f.read())
            except OSError:
                on_disk = None
            return listed == on_disk and (listed, on_disk)
        self.assertTrue(wait_until(agree, timeout=5.0), "final GetStatus and option file differ")
        self.note_pids(rpc.VantrelWatchdog.GetStatus())

        self.assertEqual(self.wd.stop(timeout=40), 0)
        leftovers = [pid for pid, start in self.pids.items()
                     if start is not None and proc_start_time(pid) == start]
        self.assertEqual(leftovers, [], "children left running or unreaped after shutdown")


def proc_start_time(pid):
    """Start time of pid in clock ticks (tells a reused pid apart), or None when gone."""
    try:
        with open("/proc/%d/stat" % pid) as f:
            return int(f.read().rsplit(")", 1)[1].split()[19])
    except (OSError, IndexError, ValueError):
        return None


if __name__ == "__main__":
    unittest.main()
