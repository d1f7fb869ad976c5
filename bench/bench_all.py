#!/usr/bin/env python3
"""Every benchmark of the supervisor binary, printed as one table.

    python3 bench/bench_all.py [path/to/VantrelWatchdog] [seconds-per-measurement]

Measures, against the real binary on 127.0.0.1:
  - GetStatus throughput and p50/p99 latency with 1024 configured applications,
    1 and 8 clients, parsed (xmlrpc.client) and raw HTTP, with the server's CPU
    per call; anonymous memory after the 8-client raw run;
  - resident memory with 1024 configured applications, and with 50 running children;
  - supervisor CPU with those 50 quiet children, from every thread's schedstat
    over at least 10 s;
  - restart latency: from a child's end (SIGKILL from here) to the start of its
    replacement (the first thing the replacement does is note the time);
  - output capture: the rate a child writing 50 MiB to standard output sees,
    against the same child writing into a plain pipe reader to /dev/null, and
    whether the session file holds every byte.

Every loop is bounded in count and time; only processes this script started
are signalled. The binary defaults to $WATCHDOG_BIN, then build/src/VantrelWatchdog.
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import xmlrpc.client

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))

import getstatus_throughput  # noqa: E402  (its clients are reused)
import rss_idle  # noqa: E402
import standalone  # noqa: E402
import watchdog_harness  # noqa: E402
from standalone import watchdog as Watchdog  # noqa: E402
from watchdog_harness import wait_until  # noqa: E402

APPS = getstatus_throughput.APPS
CHILDREN = 50
RESTARTS = 30
QUIET = "exec sleep 600\n"
# Notes its start in nanoseconds, then waits to be killed (bounded).
NOTING = "echo \"$(date +%s%N) $$\" >> {starts}\nexec sleep 120\n"
CAPTURE_MIB = 50
# Writes CAPTURE_MIB MiB as fast as it can and notes how long that took, in ns.
BURST = ("s=$(date +%s%N)\ndd if=/dev/zero bs=1M count={mib} status=none\n"
         "echo $(( $(date +%s%N) - s )) >> {took}\n")
CAPTURE_ROUNDS = 5   # alternating with the plain reader; medians reported


def percentile(values, p):
    values = sorted(values)
    return values[min(len(values) - 1, int(len(values) * p))] if values else float("nan")


def cpu_seconds(pid):
    return rss_idle.cpu_ticks(pid) / os.sysconf("SC_CLK_TCK")


def schedstat_seconds(pid):
    """CPU time of every thread of `pid`, in seconds, from schedstat (ns)."""
    total = 0
    for task in os.listdir("/proc/%d/task" % pid):
        try:
            with open("/proc/%d/task/%s/schedstat" % (pid, task)) as f:
                total += int(f.read().split()[0])
        except (OSError, ValueError, IndexError):
            pass   # a thread that ended meanwhile
    return total / 1e9


def idle_cpu_percent(pid, seconds):
    cpu0, t0 = schedstat_seconds(pid), time.monotonic()
    time.sleep(seconds)
    return 100.0 * (schedstat_seconds(pid) - cpu0) / (time.monotonic() - t0)


def getstatus_latency(port, clients, seconds, kind):
    """(requests/s, p50 ms, p99 ms) over `seconds` with `clients` threads."""
    lat = [[] for _ in range(clients)]
    errors = []
    deadline = time.monotonic() + seconds

    def run(slot):
        conn = kind(port)
        try:
            for _ in range(getstatus_throughput.MAX_REQUESTS_PER_CLIENT):
                if time.monotonic() >= deadline:
                    break
                t0 = time.monotonic()
                conn.call()
                lat[slot].append(time.monotonic() - t0)
        except Exception as exc:  # noqa: BLE001 - reported below
            errors.append(repr(exc))
        finally:
            conn.close()

    began = time.monotonic()
    threads = [threading.Thread(target=run, args=(i,)) for i in range(clients)]
    for t in threads:
        t.start()
    for t in threads:
        t.join(seconds + 60)
    if errors:
        raise RuntimeError("; ".join(errors[:3]))
    every = [x for per in lat for x in per]
    return len(every) / (time.monotonic() - began), percentile(every, 0.5) * 1e3, percentile(every, 0.99) * 1e3


def bench_getstatus(rows, seconds):
    wd = Watchdog()
    try:
        wd.write_conf(getstatus_throughput.configured_apps())
        wd.start()
        wd.wait_port(timeout=30)
        wd.wait_log(r"Will care about %d apps" % APPS, timeout=10)
        time.sleep(1.0)
        mem = rss_idle.status_kib(wd.proc.pid)
        rows.append(("resident memory, %d configured apps, none running" % APPS, "%.1f MiB" % (mem["VmRSS"] / 1024)))
        for kind, label in ((getstatus_throughput.RpcClient, "xmlrpc.client"),
                            (getstatus_throughput.RawClient, "raw HTTP")):
            for clients in (1, 8):
                run_for = max(seconds, 10.0) if kind is getstatus_throughput.RawClient else seconds
                # Process totals: they keep the time of connection threads that ended.
                cpu0 = cpu_seconds(wd.proc.pid)
                rate, p50, p99 = getstatus_latency(wd.port, clients, run_for, kind)
                per_call = (cpu_seconds(wd.proc.pid) - cpu0) / max(rate * run_for, 1) * 1e3
                rows.append(("GetStatus, %d apps, %d client(s), %s" % (APPS, clients, label),
                             "%.0f req/s, p50 %.1f ms, p99 %.1f ms, server CPU %.2f ms/call" %
                             (rate, p50, p99, per_call)))
        mem = rss_idle.status_kib(wd.proc.pid)
        time.sleep(2.0)   # the answer of the last second is dropped, freed memory handed back
        later = rss_idle.status_kib(wd.proc.pid)
        rows.append(("RssAnon after %.0f s of 8 raw HTTP clients: at once / 2 s later" % max(seconds, 10.0),
                     "%.1f / %.1f MiB" % (mem["RssAnon"] / 1024, later["RssAnon"] / 1024)))
        wd.stop(timeout=30)
    finally:
        wd.cleanup()


def bench_children(rows, seconds):
    wd = Watchdog()
    try:
        wd.add_script("VantrelLib", QUIET)
        os.mkdir(wd.log_path + ".sessions")   # as an operator keeps it: every child's output captured
        lines = []
        for i in range(CHILDREN):
            lines += ["--lib=/cfg/lib%02d" % i, "--bin-path=" + wd.bin_dir, "--env=PATH=/usr/bin:/bin", "--autorun=1"]
        wd.write_conf(lines)
        wd.start()
        wd.wait_port(timeout=30)
        rpc = wd.rpc()
        running = wait_until(lambda: sum(1 for e in rpc.VantrelWatchdog.GetStatus()["list"] if e["pid"]) == CHILDREN,
                             timeout=30)
        rpc("close")()
        if not running:
            raise RuntimeError("the %d children did not all start" % CHILDREN)
        time.sleep(1.0)
        pid = wd.proc.pid
        mem = rss_idle.status_kib(pid)
        span = max(seconds, 10.0)
        cpu = idle_cpu_percent(pid, span)
        rows.append(("resident memory, %d running children" % CHILDREN, "%.1f MiB, %s threads" % (
            mem["VmRSS"] / 1024, mem.get("Threads", "?"))))
        rows.append(("supervisor CPU, %d quiet children, schedstat over %.0f s" % (CHILDREN, span),
                     "%.3f%% of one core" % cpu))
        wd.stop(timeout=60)
    finally:
        wd.cleanup()


def read_starts(path):
    try:
        with open(path) as f:
            return [(int(a) / 1e9, int(b)) for a, b in (line.split() for line in f if line.strip())]
    except (OSError, ValueError):
        return []


def bench_restart(rows):
    # Several applications, each killed only a few times, so the fast-exit
    # brake (six ends within 4 s of their start) never engages.
    apps = 10
    wd = Watchdog()
    try:
        lines = []
        for i in range(apps):
            starts = wd.path("starts%d" % i)
            name = "run%d.sh" % i
            wd.add_script(name, NOTING.format(starts=starts))
            lines += ["--script=noting %d" % i, "--bin-path=" + os.path.join(wd.bin_dir, name),
                      "--env=PATH=/usr/bin:/bin", "--respawn=1"]
        wd.write_conf(lines)
        wd.start()
        wd.wait_port(timeout=30)
        samples = []
        for n in range(RESTARTS):
            i = n % apps
            path = wd.path("starts%d" % i)
            if not wait_until(lambda: len(read_starts(path)) == n // apps + 1, timeout=10):
                raise RuntimeError("application %d did not (re)start" % i)
            pid = read_starts(path)[-1][1]
            time.sleep(0.05)   # let its sleep take over the pid
            t_kill = time.time()
            os.kill(pid, signal.SIGKILL)
            if not wait_until(lambda: len(read_starts(path)) == n // apps + 2, timeout=10):
                raise RuntimeError("application %d was not restarted" % i)
            samples.append(read_starts(path)[-1][0] - t_kill)
        rows.append(("restart latency, child end to replacement start (%d restarts)" % len(samples),
                     "median %.0f ms, p95 %.0f ms" % (percentile(samples, 0.5) * 1e3, percentile(samples, 0.95) * 1e3)))
        wd.stop(timeout=60)
    finally:
        wd.cleanup()


def burst_rates(took):
    with open(took) as f:
        return [CAPTURE_MIB / (int(line) / 1e9) for line in f if line.strip()]


def plain_pipe_rate(wd):
    """MiB/s the burst sees writing into `cat > /dev/null`."""
    took = wd.path("took-plain")
    wd.add_script("burst-plain.sh", BURST.format(mib=CAPTURE_MIB, took=took))
    script = os.path.join(wd.bin_dir, "burst-plain.sh")
    subprocess.run("%s | cat > /dev/null" % script, shell=True, check=True, timeout=120)
    return burst_rates(took)[-1]


def bench_capture(rows, seconds):
    del seconds   # CAPTURE_ROUNDS bursts of CAPTURE_MIB MiB
    wd = Watchdog()
    # Session files on tmpfs where there is one: the figure is the supervisor's,
    # not the disk's write-back speed (which throttles any writer alike).
    shm = tempfile.mkdtemp(prefix="wd_capture_", dir="/dev/shm") if os.path.isdir("/dev/shm") else None
    if shm:
        wd.log_path = os.path.join(shm, "watchdog.log")
    try:
        took = wd.path("took")
        wd.add_script("VantrelLib", BURST.format(mib=CAPTURE_MIB, took=took))
        sessions = wd.log_path + ".sessions"
        os.mkdir(sessions)   # the full path: ring and session file
        wd.write_conf(["--lib=/cfg/burst", "--bin-path=" + wd.bin_dir, "--env=PATH=/usr/bin:/bin"])
        wd.start()
        wd.wait_port(timeout=30)
        rpc = wd.rpc()
        plain = []
        for n in range(CAPTURE_ROUNDS):
            rpc.VantrelWatchdog.SetField(0, "", "t_run", "")
            if not wait_until(lambda: os.path.exists(took) and len(burst_rates(took)) == n + 1 and
                              rpc.VantrelWatchdog.GetStatus()["list"][0]["pid"] == 0, timeout=60):
                raise RuntimeError("burst %d did not end" % n)
            plain.append(plain_pipe_rate(wd))
        rates = burst_rates(took)
        files = [n for n in os.listdir(sessions) if n.endswith("-1")]
        full = len(files) == CAPTURE_ROUNDS and all(
            os.path.getsize(os.path.join(sessions, n)) == CAPTURE_MIB << 20 for n in files)
        rate, base = percentile(rates, 0.5), percentile(plain, 0.5)
        rows.append(("capture, child writing %d MiB: rate it sees / plain pipe reader (median of %d%s)" %
                     (CAPTURE_MIB, CAPTURE_ROUNDS, ", files on tmpfs" if shm else ""),
                     "%.0f / %.0f MiB/s (%.2fx), session files %s" %
                     (rate, base, rate / base, "complete" if full else "INCOMPLETE")))
        rpc("close")()
        wd.stop(timeout=30)
    finally:
        wd.cleanup()
        if shm:
            shutil.rmtree(shm, ignore_errors=True)


def main():
    binary = (sys.argv[1] if len(sys.argv) > 1 else
              os.environ.get("WATCHDOG_BIN") or os.path.join(HERE, "..", "build", "src", "VantrelWatchdog"))
    seconds = min(float(sys.argv[2]), 60.0) if len(sys.argv) > 2 else 5.0
    watchdog_harness.BIN = os.path.abspath(binary)
    rows = []
    for step in (lambda: bench_getstatus(rows, seconds), lambda: bench_children(rows, seconds),
                 lambda: bench_restart(rows), lambda: bench_capture(rows, seconds)):
        try:
            step()
        except Exception as exc:  # noqa: BLE001 - one failed measurement must not hide the others
            rows.append(("(a measurement failed)", repr(exc)[:100]))
    width = max(len(r[0]) for r in rows)
    print("| %-*s | %s |" % (width, "measurement", "result"))
    print("|-%s-|-%s-|" % ("-" * width, "-" * 40))
    for name, value in rows:
        print("| %-*s | %s |" % (width, name, value))
    return 0 if not any(r[0].startswith("(a measurement failed)") for r in rows) else 1


if __name__ == "__main__":
    sys.exit(main())
