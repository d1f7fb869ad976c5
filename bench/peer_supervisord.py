#!/usr/bin/env python3
"""The capture and idle-CPU figures of this supervisor and of supervisord, side
by side in one run (nightly; not part of the test command).

    python3 bench/peer_supervisord.py [path/to/VantrelWatchdog]

Needs supervisord on PATH (Debian package "supervisor"); without it only this
supervisor's rows are printed. Both capture into files on tmpfs where there is
one, with the same child scripts: a burst of 50 MiB to standard output (the rate
the child sees, median of 5) and 50 quiet children (CPU of every thread of the
supervisor from schedstat, over at least 10 s). Only processes started here are
signalled.
"""

import os
import shutil
import signal
import subprocess
import sys
import tempfile
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, HERE)
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))

import bench_all  # noqa: E402
import watchdog_harness  # noqa: E402
from watchdog_harness import wait_until  # noqa: E402

IDLE_SECONDS = 10.0
CONF = """[supervisord]
nodaemon=true
logfile={dir}/supervisord.log
pidfile={dir}/supervisord.pid
childlogdir={dir}
{programs}"""
BURST_PROGRAM = """[program:burst]
command=/bin/sh {script}
autostart=true
autorestart=false
startsecs=0
stdout_logfile={dir}/burst.out
stdout_logfile_maxbytes=0
"""
QUIET_PROGRAM = """[program:quiet]
command=/bin/sleep 600
process_name=%(program_name)s_%(process_num)02d
numprocs={n}
autostart=true
autorestart=false
startsecs=0
stdout_logfile={dir}/%(program_name)s_%(process_num)02d.out
"""


def run_supervisord(work, programs, until, timeout=60):
    """Starts supervisord on `programs`, waits for `until()`, returns the process."""
    conf = os.path.join(work, "supervisord.conf")
    with open(conf, "w") as f:
        f.write(CONF.format(dir=work, programs=programs))
    proc = subprocess.Popen(["supervisord", "-c", conf], stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL)
    if not wait_until(until, timeout=timeout):
        stop(proc)
        raise RuntimeError("supervisord did not get there")
    return proc


def stop(proc):
    proc.send_signal(signal.SIGTERM)
    try:
        proc.wait(timeout=30)
    except subprocess.TimeoutExpired:
        proc.kill()
        proc.wait(timeout=10)


def peer_capture(work):
    rates = []
    took = os.path.join(work, "took")
    script = os.path.join(work, "burst.sh")
    with open(script, "w") as f:
        f.write(bench_all.BURST.format(mib=bench_all.CAPTURE_MIB, took=took))
    for n in range(bench_all.CAPTURE_ROUNDS):
        proc = run_supervisord(work, BURST_PROGRAM.format(script=script, dir=work),
                               lambda: os.path.exists(took) and len(bench_all.burst_rates(took)) == n + 1)
        full = wait_until(lambda: os.path.getsize(os.path.join(work, "burst.out")) == bench_all.CAPTURE_MIB << 20,
                          timeout=30)
        stop(proc)
        os.unlink(os.path.join(work, "burst.out"))
        if not full:
            raise RuntimeError("supervisord's file lacks bytes")
    rates = bench_all.burst_rates(took)
    return bench_all.percentile(rates, 0.5)


def peer_idle(work):
    n = bench_all.CHILDREN

    def all_up():
        try:
            return len(subprocess.run(["pgrep", "-P", str(proc_box[0].pid)], capture_output=True,
                                      text=True).stdout.split()) >= n
        except (IndexError, OSError):
            return False
    proc_box = []
    conf_programs = QUIET_PROGRAM.format(n=n, dir=work)
    conf = os.path.join(work, "supervisord.conf")
    with open(conf, "w") as f:
        f.write(CONF.format(dir=work, programs=conf_programs))
    proc_box.append(subprocess.Popen(["supervisord", "-c", conf], stdout=subprocess.DEVNULL,
                                     stderr=subprocess.DEVNULL))
    try:
        if not wait_until(all_up, timeout=60):
            raise RuntimeError("supervisord did not start its %d children" % n)
        time.sleep(1.0)
        return bench_all.idle_cpu_percent(proc_box[0].pid, IDLE_SECONDS)
    finally:
        stop(proc_box[0])


def main():
    binary = (sys.argv[1] if len(sys.argv) > 1 else
              os.environ.get("WATCHDOG_BIN") or os.path.join(HERE, "..", "build", "src", "VantrelWatchdog"))
    watchdog_harness.BIN = os.path.abspath(binary)
    rows = []
    bench_all.bench_capture(rows, 0)
    bench_all.bench_children(rows, IDLE_SECONDS)
    if shutil.which("supervisord"):
        work = tempfile.mkdtemp(prefix="peer_sv_", dir="/dev/shm" if os.path.isdir("/dev/shm") else None)
        try:
            rows.append(("supervisord: capture, child writing %d MiB (median of %d)" %
                         (bench_all.CAPTURE_MIB, bench_all.CAPTURE_ROUNDS), "%.0f MiB/s" % peer_capture(work)))
            rows.append(("supervisord: CPU, %d quiet children, schedstat over %.0f s" %
                         (bench_all.CHILDREN, IDLE_SECONDS), "%.3f%% of one core" % peer_idle(work)))
        finally:
            shutil.rmtree(work, ignore_errors=True)
    else:
        rows.append(("supervisord", "not installed (apt-get install supervisor)"))
    width = max(len(r[0]) for r in rows)
    for name, value in rows:
        print("| %-*s | %s |" % (width, name, value))
    return 0


if __name__ == "__main__":
    sys.exit(main())
