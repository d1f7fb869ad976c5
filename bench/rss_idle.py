#!/usr/bin/env python3
"""Resident memory of an idle supervisor holding 1024 configured applications
that are never started. Fails (exit 1) at 16 MiB or more.

    python3 bench/rss_idle.py [path/to/VantrelWatchdog]

The binary defaults to $WATCHDOG_BIN, then build/src/VantrelWatchdog. Talks
to 127.0.0.1 only; stops the supervisor it started with SIGTERM.
"""

import os
import sys
import time

HERE = os.path.dirname(os.path.abspath(__file__))
sys.path.insert(0, os.path.join(HERE, "..", "tests", "e2e"))

import standalone  # noqa: E402
import watchdog_harness  # noqa: E402

APPS = 1024
LIMIT_KIB = 16 * 1024
TYPES = ["elem_mixer", "elem_matrix", "elem_clock", "io", "lib", "sched"]


def status_kib(pid):
    fields = {}
    with open("/proc/%d/status" % pid) as f:
        for line in f:
            key, _, value = line.partition(":")
            fields[key] = value.strip()
    return {k: int(fields[k].split()[0]) for k in ("VmRSS", "RssAnon", "RssFile", "Threads")}


def cpu_ticks(pid):
    with open("/proc/%d/stat" % pid) as f:
        cols = f.read().rsplit(")", 1)[1].split()
    return int(cols[11]) + int(cols[12])


def main():
    binary = (sys.argv[1] if len(sys.argv) > 1 else
              os.environ.get("WATCHDOG_BIN") or os.path.join(HERE, "..", "build", "src", "VantrelWatchdog"))
    watchdog_harness.BIN = os.path.abspath(binary)
    wd = standalone.watchdog()
    try:
        lines = []
        for i in range(APPS):
            lines += ["--%s=/cfg/app%04d.xml" % (TYPES[i % len(TYPES)], i),
                      "--alias=Application %04d" % i,
                      "--bin-path=" + wd.path("nowhere"),
                      "--env=PATH=/usr/bin:/bin"]
        wd.write_conf(lines)
        wd.start()
        wd.wait_port(timeout=20)
        wd.wait_log(r"Will care about %d apps" % APPS, timeout=10)
        time.sleep(1.0)
        pid = wd.proc.pid
        before = cpu_ticks(pid)
        time.sleep(3.0)
        idle_ticks = cpu_ticks(pid) - before
        mem = status_kib(pid)
        status = wd.stop(timeout=30)
    finally:
        wd.cleanup()

    hz = os.sysconf("SC_CLK_TCK")
    print("apps=%d VmRSS=%d KiB (anon %d, file %d) threads=%d idle_cpu=%.1f%% exit=%s" % (
        APPS, mem["VmRSS"], mem["RssAnon"], mem["RssFile"], mem["Threads"],
        100.0 * idle_ticks / hz / 3.0, status))
    ok = mem["VmRSS"] < LIMIT_KIB and status == 0
    print("1 passed, 0 failed" if ok else "0 passed, 1 failed")
    return 0 if ok else 1


if __name__ == "__main__":
    sys.exit(main())
