# vantrelctl against the real supervisor: status and its exit status, JSON,
# addressing, start/stop/restart with their waits and the SIGKILL report, tail
# -f across restarts, configuration round trips, a fleet, machine commands.

import json
import os
import re
import subprocess
import time
import unittest

from watchdog_harness import CTL, STUBBORN, launch, entries, Watchdog, read, set_field, wait_until, write

TICKER = "i=0\nwhile [ $i -lt 600 ]; do echo tick $i; sleep 0.1; i=$((i+1)); done\n"
# Says who it is, then writes 200 KB at once whenever "$0.burst" appears.
TALKER = ("echo begin $$\ni=0\nwhile [ $i -lt 600 ]; do\n  if [ -e \"$0.burst\" ]; then rm -f \"$0.burst\";"
          " head -c 200000 /dev/zero | tr '\\0' x; echo; echo after burst; fi\n  sleep 0.1; i=$((i+1))\ndone\n")


class Vantrelctl(unittest.TestCase):
    def setUp(self):
        app = lambda wd, t, alias, *more: wd.app_lines(t, alias.replace(" ", "_"), "--alias=" + alias, *more)
        self.wd = launch(self, lambda wd: app(wd, "elem_mixer", "Mix A", "--autorun=1") + app(wd, "elem_mixer", "Mix B")
                         + app(wd, "elem_matrix", "Mix A") + app(wd, "elem_dve", "Stubborn"),
                         {"VantrelElementsMixer": TICKER, "VantrelElementsDVE": STUBBORN, "VantrelElementsMatrix": TALKER},
                         fake_system=True)   # machine commands are only recorded
        self.rpc = self.wd.rpc(self)
        self.assertTrue(wait_until(lambda: entries(self.rpc)[0]["pid"], 20), self.wd.log())

    def ctl(self, *args, urls=()):
        env = dict(os.environ, NO_COLOR="1", VANTREL_WATCHDOG_URL="127.0.0.1:%d" % self.wd.port)
        return subprocess.run([CTL] + ["--url=" + u for u in urls] + list(args), env=env, capture_output=True,
                              text=True, timeout=60)

    def ctl_json(self, *args, urls=()):
        done = self.ctl("--json", *args, urls=urls)
        return done.returncode, json.loads(done.stdout)["hosts"]

    def slot(self, alias):
        return next(e for e in entries(self.rpc) if e["alias"] == alias)

    def test_status_addressing_and_handles(self):
        rc, hosts = self.ctl_json("status")
        apps = hosts[0]["apps"]
        self.assertEqual([rc] + [(a["index"], a["name"], a["type"], a["state"], a["respawn"]) for a in apps],
                         [0, (0, "Mix A", "elem_mixer", "running", True), (1, "Mix B", "elem_mixer", "stopped", False),
                          (2, "Mix A", "elem_matrix", "stopped", False), (3, "Stubborn", "elem_dve", "stopped", False)])
        slots = entries(self.rpc)
        self.assertEqual([a["handle"] for a in apps] + [apps[0]["pid"]], [e["ptr"] for e in slots] + [slots[0]["pid"]])
        table = self.ctl("status", "Mix*").stdout.splitlines()
        self.assertEqual(table[0].split()[:5], ["IDX", "HANDLE", "NAME", "TYPE", "STATE"])
        self.assertEqual([re.split(r"\s{2,}", l)[4] for l in table[1:]], ["running", "stopped", "stopped"])

        handle = self.slot("Mix B")["ptr"]
        for token, alias in (("@0x" + handle.upper(), "Mix B"), ("Stub*", "Stubborn"), ("elem_dve", "Stubborn")):
            self.assertEqual(self.ctl_json("show", token)[1][0]["item"]["alias"], alias, token)
        done = self.ctl("respawn", "Mix A", "on")   # resolution is unit-tested; here: it changes nothing
        self.assertEqual((done.returncode, [e["f_respawn"] for e in entries(self.rpc)]), (1, [1, 0, 0, 0]))

        set_field(self.rpc, 2, "t_up")   # another operator moves the matrix above Mix B
        self.assertEqual(self.ctl("autorun", "@" + handle, "on").returncode, 0)
        self.assertEqual([(e["alias"], e["f_autorun"]) for e in entries(self.rpc)][1:3], [("Mix A", 0), ("Mix B", 1)])
        set_field(self.rpc, -1, "t_del", ptr=handle)
        done = self.ctl("show", "@" + handle)
        self.assertTrue(done.returncode == 1 and "no application with handle @" + handle in done.stderr, done.stderr)

        # Respawn on, executable missing: it should run and cannot.
        self.rpc.VantrelWatchdog.SetItem(-1, "", "elem_dve", "Broken", "", "", self.wd.path("none"), "", [], [])
        set_field(self.rpc, 3, "f_respawn", "1")
        self.wd.wait_log("executable startup failed, check paths")
        self.assertEqual(self.ctl("status").returncode, 3)
        self.assertEqual(self.ctl_json("status", "Broken")[1][0]["apps"][0]["state"], "start error")
        self.assertEqual(self.ctl("status", "0", "1").returncode, 0)

    def test_start_stop_restart_and_configuration_round_trips(self):
        for args, expected, running in [
                (("start", "Mix B"), r"Mix B: started \(pid (\d+)\)$", True),
                (("start", "1"), r"Mix B: already running \(pid (\d+)\)$", True),
                (("restart", "Mix B"), r"Mix B: restarted \(pid \d+ -> (\d+)\)$", True),
                (("respawn", "Mix B", "on"), r"respawn on for Mix B at index 1", None),
                (("restart", "Mix B"), r"Mix B: restarted \(pid \d+ -> (\d+)\)$", True),
                (("stop", "Mix B"), r"Mix B: stopped$", False), (("stop", "Mix B"), r"Mix B: not running$", False),
                (("start", "--no-wait", "Mix B"), r"Mix B: start requested$", None)]:
            with self.subTest(args=args):
                done = self.ctl(*args)
                m = re.match(expected, done.stdout.strip())
                self.assertTrue(done.returncode == 0 and m, (done.stdout, done.stderr))
                if running is not None:
                    self.assertEqual(self.slot("Mix B")["pid"], int(m.group(1)) if running else 0)
        self.assertEqual(self.slot("Mix B")["f_respawn"], 0, "stop is for good")
        calls = set(re.findall(r"ctl_method_SetField: idx=(-?\d+), ptr=\[(\w*)\]", self.wd.log()))
        self.assertEqual(calls, {("-1", self.slot("Mix B")["ptr"])}, "every change went by handle")

        b = "--bin-path=%s\n" % self.wd.bin_dir
        for args, text in [
                (("add", "elem_dve", "--alias=New DVE", "--config=/cfg/n", "--env=A=1", "--raw=--port=7", b.strip()),
                 "--elem_dve=/cfg/n\n--alias=New DVE\n" + b + "--env=A=1\n--raw=--port=7\n"),
                (("edit", "New DVE", "--alias=Renamed", "--no-raw"), "--elem_dve=/cfg/n\n--alias=Renamed\n" + b + "--env=A=1\n"),
                (("clone", "Renamed"), "--alias=Renamed(clone)\n"),
                (("move", "Renamed(clone)", "up"), "--alias=Renamed(clone)\n" + b + "--env=A=1\n\n--elem_dve=/cfg/n\n"),
                (("autorun", "Renamed", "on"), "--alias=Renamed\n" + b + "--autorun=1\n--env=A=1\n"),
                (("remove", "Renamed(clone)"), "--alias=Renamed\n")]:
            with self.subTest(args=args):
                self.assertEqual(self.ctl(*args).returncode, 0)
                self.assertTrue(wait_until(lambda: text in read(self.wd.conf_path), 10), read(self.wd.conf_path))
        self.assertTrue(wait_until(lambda: "Renamed(clone)" not in read(self.wd.conf_path), 10))
        self.assertEqual([e["alias"] for e in entries(self.rpc)][4:], ["Renamed"])
        for args, message in ((("add", "elem_nothing"), "unknown type 'elem_nothing'"),
                              (("remove", "Renamed"), "Renamed is running; stop it first")):
            self.ctl("start", "Renamed")
            done = self.ctl(*args)
            self.assertIn(message, done.stderr)
            self.assertEqual((done.returncode, len(entries(self.rpc))), (1, 5), "no slot added or removed")

    def test_tail_follows_restarts_and_a_stop_that_needs_sigkill_says_so(self):
        set_field(self.rpc, 2, "f_respawn", "1")
        self.assertTrue(wait_until(lambda: entries(self.rpc)[2]["pid"], 10))
        out_path = self.wd.path("tail.out")
        with open(out_path, "w") as out:
            tail = subprocess.Popen([CTL, "--url=127.0.0.1:%d" % self.wd.port, "tail", "-f", "--interval=3",
                                     "@" + entries(self.rpc)[2]["ptr"]], stdout=out, stderr=subprocess.STDOUT)
        self.addCleanup(tail.wait, 10)
        self.addCleanup(tail.kill)
        self.assertTrue(wait_until(lambda: "begin" in read(out_path), 10), read(out_path))
        set_field(self.rpc, 2, "t_term")
        self.assertTrue(wait_until(lambda: len(re.findall(r"begin \d+", read(out_path))) == 2, 20), read(out_path))
        open(self.wd.path("bin", "VantrelElementsMatrix.burst"), "w").close()
        self.assertTrue(wait_until(lambda: "after burst" in read(out_path), 20), read(out_path)[-500:])
        lost = re.findall(r"\[vantrelctl: (\d+) bytes lost", read(out_path))
        self.assertEqual(len(lost), 1, read(out_path)[-500:])
        self.assertEqual(int(lost[0]) + read(out_path).count("x"), 200000)

        self.assertEqual(self.ctl("start", "Stubborn").returncode, 0)
        self.assertTrue(wait_until(lambda: os.path.exists(self.wd.path("bin", "VantrelElementsDVE.ready")), 10))
        done = self.ctl("stop", "Stubborn")
        self.assertIn("killed with SIGKILL after 15 s", done.stdout, done.stderr)
        self.assertEqual((done.returncode, self.slot("Stubborn")["pid"]), (0, 0))

    def test_fleet_with_a_stopped_member_machine_commands_and_help(self):
        other = launch(self, ["--instance-name=Second"])
        hosts_file = self.wd.path("hosts")
        write(hosts_file, "# studio\n127.0.0.1:%d\n\nhttp://127.0.0.1:%d/RPC2\n" % (other.port, Watchdog(self).port))
        urls = ["127.0.0.1:%d" % self.wd.port]
        started = time.monotonic()
        rc, hosts = self.ctl_json("--hosts", hosts_file, "status", urls=urls)
        self.assertLess(time.monotonic() - started, 10)
        self.assertEqual([rc] + [(h["ok"], h.get("instance_name"), len(h.get("apps", []))) for h in hosts],
                         [4, (True, "", 4), (True, "Second", 0), (False, None, 0)])
        lines = self.ctl("--hosts", hosts_file, "status", urls=urls).stdout.splitlines()
        self.assertEqual((lines[0].split()[0], len(lines)), ("HOST", 1 + 4 + 1))
        self.assertRegex(lines[-1], r"^127\.0\.0\.1:\d+\s+unreachable: connect: Connection refused$")
        # Machine commands only with --confirm, and only to one supervisor.
        record = self.wd.path("system.txt")
        self.assertEqual([self.ctl("reboot").returncode, self.ctl("reboot", "--confirm", urls=urls * 2).returncode], [2, 2])
        self.assertFalse(os.path.exists(record))
        self.assertEqual(self.ctl("reboot", "--confirm").returncode, 0)
        self.assertIn("/usr/sbin/reboot", read(record))
        for cmd in ("status", "start", "stop", "restart", "tail", "add", "edit", "remove", "clone", "move",
                    "autorun", "respawn", "show", "types", "elements", "auth", "reboot", "halt"):
            done = self.ctl(cmd, "--help")
            self.assertTrue(done.returncode == 0 and "Usage" in done.stdout, cmd)
