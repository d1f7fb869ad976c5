"""vantrelctl against the real supervisor: status and its exit status, start,
stop and restart with their waits, tail -f, configuration round trips through
the option file, addressing, JSON, and a fleet with a stopped member."""

import json
import os
import re
import subprocess
import time
import unittest

from watchdog_harness import BIN, Watchdog, entries, free_port, wait_until

CTL = os.environ.get("VANTRELCTL_BIN", "")

TICKER = "i=0\nwhile [ $i -lt 600 ]; do echo tick $i; sleep 0.1; i=$((i+1)); done\n"
# Ignores SIGINT, so only the supervisor's SIGKILL ends it.
STUBBORN = "trap '' INT\ntouch \"$0.ready\"\n" + TICKER
# Says who it is, then writes 200 KB at once whenever "$0.burst" appears.
TALKER = ("echo begin $$\ni=0\nwhile [ $i -lt 600 ]; do\n"
          "  if [ -e \"$0.burst\" ]; then rm -f \"$0.burst\"; head -c 200000 /dev/zero | tr '\\0' x;"
          " echo; echo after burst; fi\n  sleep 0.1; i=$((i+1))\ndone\n")


def read(path):
    with open(path) as f:
        return f.read()


def app(wd, type_name, alias, *more):
    return wd.app_lines(type_name, alias.replace(" ", "_"), "--alias=" + alias, *more)


@unittest.skipUnless(BIN and CTL, "WATCHDOG_BIN or VANTRELCTL_BIN not set")
class Vantrelctl(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        for name, body in (("VantrelElementsMixer", TICKER), ("VantrelElementsDVE", STUBBORN),
                           ("VantrelElementsMatrix", TALKER)):
            self.wd.add_script(name, body)
        self.wd.write_conf(app(self.wd, "elem_mixer", "Mix A", "--autorun=1")
                           + app(self.wd, "elem_mixer", "Mix B")
                           + app(self.wd, "elem_matrix", "Mix A")
                           + app(self.wd, "elem_dve", "Stubborn"))
        # Machine commands are only recorded by this supervisor.
        self.wd.start(env=self.wd.fake_system_env())
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))
        self.assertTrue(wait_until(lambda: entries(self.rpc)[0]["pid"], 10), self.wd.log())

    def ctl(self, *args, urls=None):
        env = dict(os.environ, NO_COLOR="1", VANTREL_WATCHDOG_URL="127.0.0.1:%d" % self.wd.port)
        cmd = [CTL] + ["--url=" + u for u in (urls or [])] + list(args)
        return subprocess.run(cmd, env=env, capture_output=True, text=True, timeout=60)

    def ctl_json(self, *args, urls=None):
        done = self.ctl("--json", *args, urls=urls)
        return done.returncode, json.loads(done.stdout)["hosts"]

    def slot(self, alias, type_name=None):
        return next(e for e in entries(self.rpc)
                    if e["alias"] == alias and type_name in (None, e["app_name"]))

    def test_status_exit_status_and_json(self):
        rc, hosts = self.ctl_json("status")
        self.assertEqual(rc, 0)
        apps = hosts[0]["apps"]
        self.assertEqual([(a["index"], a["name"], a["type"], a["state"], a["respawn"]) for a in apps],
                         [(0, "Mix A", "elem_mixer", "running", True), (1, "Mix B", "elem_mixer", "stopped", False),
                          (2, "Mix A", "elem_matrix", "stopped", False), (3, "Stubborn", "elem_dve", "stopped", False)])
        self.assertEqual([a["handle"] for a in apps], [e["ptr"] for e in entries(self.rpc)])
        self.assertEqual(apps[0]["pid"], entries(self.rpc)[0]["pid"])
        table = self.ctl("status", "Mix*").stdout.splitlines()
        self.assertEqual(table[0].split()[:5], ["IDX", "HANDLE", "NAME", "TYPE", "STATE"])
        self.assertEqual([re.split(r"\s{2,}", l)[4] for l in table[1:]], ["running", "stopped", "stopped"])
        # Respawn on a stopped application whose executable is missing: it should run and cannot.
        self.rpc.VantrelWatchdog.SetItem(-1, "", "elem_dve", "Broken", "", "", self.wd.path("none"), "", [], [])
        self.rpc.VantrelWatchdog.SetField(4, "", "f_respawn", "1")
        wait_until(lambda: entries(self.rpc)[4]["err"], 10)
        self.assertEqual(self.ctl("status").returncode, 3)
        self.assertEqual(self.ctl_json("status", "Broken")[1][0]["apps"][0]["state"], "start error")
        self.assertEqual(self.ctl("status", "0", "1").returncode, 0)

    def test_start_stop_restart_wait_for_the_change(self):
        rows = [
            (("start", "Mix B"), r"^Mix B: started \(pid (\d+)\)$", True),
            (("start", "1"), r"^Mix B: already running \(pid (\d+)\)$", True),
            (("restart", "Mix B"), r"^Mix B: restarted \(pid \d+ -> (\d+)\)$", True),
            (("respawn", "Mix B", "on"), r"^respawn on for Mix B at index 1", None),
            (("restart", "Mix B"), r"^Mix B: restarted \(pid \d+ -> (\d+)\)$", True),
            (("stop", "Mix B"), r"^Mix B: stopped$", False),
            (("stop", "Mix B"), r"^Mix B: not running$", False),
            (("start", "--no-wait", "Mix B"), r"^Mix B: start requested$", None),
        ]
        for args, expected, running in rows:
            with self.subTest(args=args):
                done = self.ctl(*args)
                self.assertEqual(done.returncode, 0, done.stderr)
                m = re.match(expected, done.stdout.strip())
                self.assertTrue(m, done.stdout)
                entry = self.slot("Mix B")
                if running is not None:
                    self.assertEqual(entry["pid"] != 0, running)
                if running:
                    self.assertEqual(entry["pid"], int(m.group(1)))
        self.assertEqual(self.slot("Mix B")["f_respawn"], 0)  # stop is for good
        # Every change went by handle, none by index.
        calls = re.findall(r"ctl_method_SetField: idx=(-?\d+), ptr=\[(\w*)\]", self.wd.log())
        self.assertTrue(calls)
        self.assertEqual({c for c in calls if c != ("-1", self.slot("Mix B")["ptr"])}, set())

    def test_stop_that_needs_sigkill_says_so(self):
        self.assertEqual(self.ctl("start", "Stubborn").returncode, 0)
        self.assertTrue(wait_until(lambda: os.path.exists(self.wd.path("bin", "VantrelElementsDVE.ready")), 10))
        done = self.ctl("stop", "Stubborn")
        self.assertEqual(done.returncode, 0, done.stderr)
        self.assertIn("killed with SIGKILL after 15 s", done.stdout)
        self.assertEqual(self.slot("Stubborn")["pid"], 0)

    def test_tail_follows_restarts_and_marks_lost_bytes(self):
        self.rpc.VantrelWatchdog.SetField(2, "", "f_respawn", "1")
        self.assertTrue(wait_until(lambda: entries(self.rpc)[2]["pid"], 10))
        out_path = self.wd.path("tail.out")
        with open(out_path, "w") as out:
            tail = subprocess.Popen([CTL, "--url=127.0.0.1:%d" % self.wd.port, "tail", "-f", "--interval=3",
                                     "@" + entries(self.rpc)[2]["ptr"]], stdout=out, stderr=subprocess.STDOUT)
        self.addCleanup(tail.wait, 10)
        self.addCleanup(tail.kill)
        read_out = lambda: read(out_path)
        self.assertTrue(wait_until(lambda: "begin" in read_out(), 10), read_out())
        self.rpc.VantrelWatchdog.SetField(2, "", "t_term", "")
        self.assertTrue(wait_until(lambda: len(re.findall(r"begin \d+", read_out())) == 2, 15), read_out())
        open(self.wd.path("bin", "VantrelElementsMatrix.burst"), "w").close()
        self.assertTrue(wait_until(lambda: "after burst" in read_out(), 20), read_out()[-500:])
        lost = re.findall(r"\[vantrelctl: (\d+) bytes lost", read_out())
        self.assertEqual(len(lost), 1, read_out()[-500:])
        shown = read_out().count("x")
        self.assertEqual(int(lost[0]) + shown, 200000)

    def conf_holds(self, text):
        return wait_until(lambda: text in read(self.wd.conf_path), 10)

    def test_configuration_round_trips_through_the_option_file(self):
        b = "--bin-path=%s\n" % self.wd.bin_dir
        rows = [
            (("add", "elem_dve", "--alias=New DVE", "--config=/cfg/n", "--env=A=1", "--raw=--port=7",
              "--bin-path=" + self.wd.bin_dir), "--elem_dve=/cfg/n\n--alias=New DVE\n" + b + "--env=A=1\n--raw=--port=7\n"),
            (("edit", "New DVE", "--alias=Renamed", "--no-raw"), "--elem_dve=/cfg/n\n--alias=Renamed\n" + b + "--env=A=1\n"),
            (("clone", "Renamed"), "--alias=Renamed(clone)\n"),
            (("move", "Renamed(clone)", "up"), "--alias=Renamed(clone)\n" + b + "--env=A=1\n\n--elem_dve=/cfg/n\n--alias=Renamed\n"),
            (("autorun", "Renamed", "on"), "--alias=Renamed\n" + b + "--autorun=1\n--env=A=1\n"),
            (("remove", "Renamed(clone)"), None),
        ]
        for args, text in rows:
            with self.subTest(args=args):
                done = self.ctl(*args)
                self.assertEqual(done.returncode, 0, done.stderr)
                if text:
                    self.assertTrue(self.conf_holds(text), read(self.wd.conf_path))
        self.assertTrue(wait_until(lambda: "Renamed(clone)" not in read(self.wd.conf_path), 10))
        self.assertNotIn("--raw=--port=7", read(self.wd.conf_path))
        self.assertEqual([e["alias"] for e in entries(self.rpc)][4:], ["Renamed"])
        done = self.ctl("add", "elem_nothing")
        self.assertIn("unknown type 'elem_nothing'", done.stderr)
        self.assertEqual((done.returncode, len(entries(self.rpc))), (1, 5))  # no empty slot left behind
        self.ctl("start", "Renamed")
        done = self.ctl("remove", "Renamed")
        self.assertEqual((done.returncode, len(entries(self.rpc))), (1, 5))
        self.assertIn("Renamed is running; stop it first", done.stderr)

    def test_addressing(self):
        handle = self.slot("Mix B")["ptr"]
        rows = [("Mix B", "Mix B"), ("1", "Mix B"), ("@" + handle, "Mix B"), ("@0x" + handle.upper(), "Mix B"),
                ("Mi? B", "Mix B"), ("Stub*", "Stubborn"), ("elem_dve", "Stubborn"), ("3", "Stubborn")]
        for token, alias in rows:
            with self.subTest(token=token):
                rc, hosts = self.ctl_json("show", token)
                self.assertEqual((rc, hosts[0]["item"]["alias"]), (0, alias))
        for token, message in (("Mix A", r"'Mix A' is ambiguous; candidates:\n  0 @\w+ Mix A \(elem_mixer\)\n"
                                         r"  2 @\w+ Mix A \(elem_matrix\)\n"),
                               ("Mix*", "'Mix\\*' is ambiguous"), ("nope", "no application 'nope'"),
                               ("@ffffff", "no application with handle @ffffff"), ("9", "no application '9'")):
            with self.subTest(token=token):
                done = self.ctl("respawn", token, "on")
                self.assertEqual(done.returncode, 1)
                self.assertRegex(done.stderr, message)
        self.assertEqual([e["f_respawn"] for e in entries(self.rpc)], [1, 0, 0, 0])

    def test_handle_keeps_addressing_after_a_concurrent_move(self):
        handle = self.ctl_json("status", "Mix B")[1][0]["apps"][0]["handle"]
        # Another operator moves the matrix above it.
        self.rpc.VantrelWatchdog.SetField(2, "", "t_up", "")
        self.assertEqual(self.ctl("autorun", "@" + handle, "on").returncode, 0)
        self.assertEqual([(e["alias"], e["f_autorun"]) for e in entries(self.rpc)][1:3],
                         [("Mix A", 0), ("Mix B", 1)])
        self.rpc.VantrelWatchdog.SetField(-1, handle, "t_del", "")
        done = self.ctl("show", "@" + handle)
        self.assertEqual(done.returncode, 1)
        self.assertIn("no application with handle @" + handle, done.stderr)

    def test_fleet_with_a_stopped_member_and_machine_commands(self):
        other = Watchdog(self)
        other.write_conf(["--instance-name=Second"])
        other.start()
        other.wait_port()
        hosts_file = self.wd.path("hosts")
        with open(hosts_file, "w") as f:
            f.write("# studio\n127.0.0.1:%d\n\nhttp://127.0.0.1:%d/RPC2\n" % (other.port, free_port()))
        urls = ["127.0.0.1:%d" % self.wd.port]
        started = time.monotonic()
        rc, hosts = self.ctl_json("--hosts", hosts_file, "status", urls=urls)
        self.assertLess(time.monotonic() - started, 10)
        self.assertEqual(rc, 4)
        self.assertEqual([(h["ok"], h.get("instance_name"), len(h.get("apps", []))) for h in hosts],
                         [(True, "", 4), (True, "Second", 0), (False, None, 0)])
        self.assertRegex(hosts[2]["error"], "refused")
        lines = self.ctl("--hosts", hosts_file, "status", urls=urls).stdout.splitlines()
        self.assertEqual(lines[0].split()[0], "HOST")
        self.assertRegex(lines[-1], r"^127\.0\.0\.1:\d+\s+unreachable: connect: Connection refused$")
        self.assertEqual(len(lines), 1 + 4 + 1)
        # Machine commands only with --confirm, and only to one supervisor.
        record = self.wd.path("system.txt")
        self.assertEqual(self.ctl("reboot").returncode, 2)
        self.assertEqual(self.ctl("reboot", "--confirm", urls=urls * 2).returncode, 2)
        self.assertFalse(os.path.exists(record))
        self.assertEqual(self.ctl("reboot", "--confirm").returncode, 0)
        self.assertIn("/usr/sbin/reboot", read(record))

    def test_every_command_has_help(self):
        for cmd in ("status", "start", "stop", "restart", "tail", "add", "edit", "remove", "clone", "move",
                    "autorun", "respawn", "show", "types", "elements", "auth", "reboot", "halt"):
            with self.subTest(cmd=cmd):
                done = self.ctl(cmd, "--help")
                self.assertEqual(done.returncode, 0)
                self.assertIn("Usage", done.stdout)


if __name__ == "__main__":
    unittest.main()
