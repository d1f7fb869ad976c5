"""Faults around the supervisor: an option file it cannot rewrite, a log it
cannot write, a child that closes its output early and one that floods it,
and hostile request bodies.

Directory permissions do not stop root, so where a test needs an unwritable
directory and runs as root, the supervisor runs as the unprivileged user
"nobody" instead (its temp dir is handed to that user).
"""

import http.client
import os
import pwd
import re
import stat
import subprocess
import time
import unittest
import xmlrpc.client

from watchdog_harness import BIN, HOST, Watchdog, log_messages, pid_alive, wait_until

PROMPT_P99_S = 0.2
FLOOD = 'exec yes "flood flood flood flood flood flood flood flood flood flood flood"\n'
# Closes both output streams at once and lives on, bounded, without them.
CLOSER = "exec 1>&- 2>&-\ni=0\nwhile [ $i -lt 300 ]; do sleep 0.1; i=$((i+1)); done\n"


def unprivileged():
    """popen keywords that drop root, and the uid/gid to hand files to; empty when not root."""
    if os.geteuid() != 0:
        return {}, None
    nobody = pwd.getpwnam("nobody")
    return {"user": nobody.pw_uid, "group": nobody.pw_gid, "extra_groups": []}, (nobody.pw_uid, nobody.pw_gid)


def give_tree(path, owner):
    if owner is None:
        return
    for root, dirs, files in os.walk(path):
        os.chown(root, *owner)
        for name in files:
            os.chown(os.path.join(root, name), *owner)


def latencies(call, count=200, budget_s=30.0):
    out = []
    deadline = time.monotonic() + budget_s
    for _ in range(count):
        if time.monotonic() > deadline:
            break
        t0 = time.monotonic()
        call()
        out.append(time.monotonic() - t0)
    return sorted(out)


def p99(sorted_values):
    return sorted_values[min(len(sorted_values) - 1, int(len(sorted_values) * 0.99))]


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class UnwritableOptionFile(unittest.TestCase):
    def test_failed_rewrite_keeps_the_old_file_and_the_next_change_succeeds(self):
        wd = Watchdog(self)
        conf_dir = wd.path("conf")
        os.mkdir(conf_dir)
        wd.conf_path = os.path.join(conf_dir, "watchdog.conf")
        wd.write_conf(["--lib=/cfg/lib.xml", "--alias=Original"])
        with open(wd.conf_path) as f:
            original = f.read()
        popen_kw, owner = unprivileged()
        give_tree(wd.dir, owner)
        wd.start(**popen_kw)
        wd.wait_port()
        rpc = wd.rpc()
        self.addCleanup(rpc("close"))
        self.addCleanup(os.chmod, conf_dir, 0o755)   # rmtree must get in again

        # Read-only file in a read-only directory: neither a new file beside
        # it nor a write in place can work.
        os.chmod(wd.conf_path, 0o444)
        os.chmod(conf_dir, 0o555)
        ret = rpc.VantrelWatchdog.SetItem(0, "", "lib", "Changed", "", "/cfg/lib.xml", "", "", [], [])
        self.assertEqual(ret, {"ret": 0})
        wd.wait_log(r"watchdog_save_conf: failed to open \[%s\], r=13 \(Permission denied\)"
                    % re.escape(wd.conf_path))
        with open(wd.conf_path) as f:
            self.assertEqual(f.read(), original, "the standing configuration is untouched")
        self.assertEqual(sorted(os.listdir(conf_dir)), ["watchdog.conf"])
        self.assertEqual(rpc.VantrelWatchdog.GetItem(0, "")["alias"], "Changed", "the change is still in effect")

        os.chmod(conf_dir, 0o755)
        os.chmod(wd.conf_path, 0o644)
        ret = rpc.VantrelWatchdog.SetItem(0, "", "lib", "Changed again", "", "/cfg/lib.xml", "", "", [], [])
        self.assertEqual(ret, {"ret": 0})

        def rewritten():
            with open(wd.conf_path) as f:
                return "--alias=Changed again\n" in f.read()
        self.assertTrue(wait_until(rewritten, timeout=5.0), wd.log())
        backups = [n for n in os.listdir(conf_dir) if n.startswith("watchdog.conf-")]
        self.assertEqual(len(backups), 1, os.listdir(conf_dir))
        with open(os.path.join(conf_dir, backups[0])) as f:
            self.assertEqual(f.read(), original, "the backup holds the configuration before the change")
        self.assertEqual(wd.stop(), 0)


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class UnwritableLog(unittest.TestCase):
    def test_lines_are_still_echoed_and_nothing_blocks(self):
        wd = Watchdog(self)
        wd.add_script("VantrelElementsMixer", FLOOD)
        # The log creates missing directories, so it gets one it may not write.
        log_dir = wd.path("logs")
        os.mkdir(log_dir)
        wd.write_conf(["--elem_mixer=/cfg/m", "--bin-path=" + wd.bin_dir, "--env=PATH=/usr/bin:/bin",
                       "--respawn=1"])
        with open(wd.conf_path) as f:
            text = f.read().replace(wd.log_path, os.path.join(log_dir, "wd.log"))
        with open(wd.conf_path, "w") as f:
            f.write(text)
        popen_kw, owner = unprivileged()
        give_tree(wd.dir, owner)
        os.chmod(log_dir, 0o555)
        self.addCleanup(os.chmod, log_dir, 0o755)
        err_path = wd.path("stderr.txt")
        with open(err_path, "w") as err:
            wd.start(stderr=err, **popen_kw)
        wd.wait_port()
        rpc = wd.rpc()
        self.addCleanup(rpc("close"))

        self.assertTrue(wait_until(lambda: rpc.VantrelWatchdog.GetStatus()["list"][0]["pid"] != 0, timeout=5))
        lat = latencies(rpc.VantrelWatchdog.GetStatus, count=100)
        self.assertLess(p99(lat), PROMPT_P99_S, "p99 %.1f ms" % (p99(lat) * 1e3))

        self.assertEqual(wd.stop(), 0)
        with open(err_path, errors="replace") as f:
            messages = log_messages(f.read())
        self.assertTrue(any(m.startswith("VantrelWatchdog ") for m in messages), messages[:5])
        self.assertIn("Will care about 1 apps", messages)
        self.assertIn("Bye!", messages)
        self.assertEqual(os.listdir(log_dir), [])


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class DifficultChildren(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.add_script("VantrelElementsMixer", FLOOD)
        self.wd.add_script("VantrelElementsMatrix", CLOSER)
        self.wd.write_conf(["--elem_mixer=/cfg/flood", "--alias=Flood", "--bin-path=" + self.wd.bin_dir,
                            "--env=PATH=/usr/bin:/bin",
                            "--elem_matrix=/cfg/closer", "--alias=Closer", "--bin-path=" + self.wd.bin_dir,
                            "--env=PATH=/usr/bin:/bin"])
        self.wd.start()
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))

    def pid_of(self, idx):
        return self.rpc.VantrelWatchdog.GetStatus()["list"][idx]["pid"]

    def test_flooding_child_does_not_slow_requests(self):
        wd = self.rpc.VantrelWatchdog
        self.assertEqual(wd.SetField(0, "", "t_run", ""), {"ret": 0})
        self.assertTrue(wait_until(lambda: self.pid_of(0) != 0, timeout=5))
        # Let the ring wrap a few times first.
        self.assertTrue(wait_until(lambda: wd.GetStdXXXBuf(0, "", "0", 1)["head"] > 100000, timeout=10))

        status = latencies(wd.GetStatus)
        reads = latencies(lambda: wd.GetStdXXXBuf(0, "", "0", 1))
        print("\nflood: GetStatus p99 %.1f ms, GetStdXXXBuf p99 %.1f ms" % (p99(status) * 1e3, p99(reads) * 1e3))
        self.assertLess(p99(status), PROMPT_P99_S)
        self.assertLess(p99(reads), PROMPT_P99_S)

        reply = wd.GetStdXXXBuf(0, "", "0", 1)
        self.assertEqual(reply["tail"] - reply["head"], 32768, "the ring stays full, never larger")
        self.assertTrue(reply["buf"].data.startswith(b"flood") or b"\nflood" in reply["buf"].data)

        self.assertEqual(wd.SetField(0, "", "t_term", ""), {"ret": 0})
        self.assertTrue(wait_until(lambda: self.pid_of(0) == 0, timeout=20), "a flooder still stops")

    def test_child_that_closes_its_output_keeps_being_supervised(self):
        wd = self.rpc.VantrelWatchdog
        self.assertEqual(wd.SetField(1, "", "t_run", ""), {"ret": 0})
        self.assertTrue(wait_until(lambda: self.pid_of(1) != 0, timeout=5))
        pid = self.pid_of(1)

        # The closed pipes read as end of file at every pass: that must cost
        # next to nothing and must not be taken for the child's end.
        cpu0 = cpu_seconds(self.wd.proc.pid)
        time.sleep(2.0)
        used = cpu_seconds(self.wd.proc.pid) - cpu0
        self.assertLess(used, 0.5, "supervisor busy with %.2f s of CPU in 2 s" % used)
        self.assertEqual(self.pid_of(1), pid)
        self.assertTrue(pid_alive(pid))
        self.assertLess(p99(latencies(wd.GetStatus, count=50)), PROMPT_P99_S)

        self.assertEqual(wd.SetField(1, "", "t_term", ""), {"ret": 0})
        self.assertTrue(wait_until(lambda: self.pid_of(1) == 0, timeout=20))
        self.assertTrue(wait_until(lambda: not pid_alive(pid), timeout=5), "the child was reaped")
        self.assertEqual(self.wd.stop(), 0)


def post(port, body, timeout=5.0):
    """Sends a raw request body; the HTTP status, or None when the connection died."""
    conn = http.client.HTTPConnection(HOST, port, timeout=timeout)
    try:
        conn.request("POST", "/RPC2", body, {"Content-Type": "text/xml"})
        response = conn.getresponse()
        response.read()
        return response.status
    except (OSError, http.client.HTTPException):
        return None
    finally:
        conn.close()


def call(method, *values):
    return ("<?xml version='1.0'?><methodCall><methodName>%s</methodName><params>%s</params></methodCall>"
            % (method, "".join("<param><value>%s</value></param>" % v for v in values)))


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class HostileRequests(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.write_conf(["--lib=/cfg/lib.xml", "--alias=Library"])
        env = dict(os.environ, VANTREL_WATCHDOG_FAKE_SYSTEM=self.wd.path("system.txt"))
        self.wd.start(env=env)
        self.wd.wait_port()

    def still_serves(self):
        rpc = self.wd.rpc()
        try:
            return rpc.VantrelWatchdog.GetStatus()["list"][0]["alias"] == "Library"
        finally:
            rpc("close")()

    def test_malformed_documents_get_an_answer_and_change_nothing(self):
        bodies = [
            "", "<", "not xml at all", "<?xml version='1.0'?><methodCall>",
            call("VantrelWatchdog.GetItem", "<int>0</int>", "<string>" + "A" * 200000 + "</string>"),
            call("VantrelWatchdog.SetItem", "<int>0</int>") ,
            call("VantrelWatchdog.SetField", "<int>0</int>", "<string></string>", "<string>t_del</string>"),
            call("VantrelWatchdog.SetField", "<array><data><value>1</value></data></array>",
                 "<string></string>", "<string>t_del</string>", "<string></string>"),
            call("VantrelWatchdog.GetStdXXXBuf", "<int>0</int>", "<string></string>", "<double>1e308</double>",
                 "<int>1</int>"),
            call("VantrelWatchdog.GetStdXXXBuf", "<int>0</int>", "<string></string>", "<string>-99999999999999999999</string>",
                 "<int>2147483647</int>"),
            call("VantrelWatchdog.GetAuth", "<struct></struct>", "<base64>////</base64>"),
            call("VantrelWatchdog.NoSuchMethod"), call("system.shutdown"), call("system.listMethods"),
            "<?xml version='1.0'?><!DOCTYPE a [<!ENTITY b '" + "c" * 1000 + "'>]><methodCall><methodName>&b;"
            "</methodName></methodCall>",
            call("VantrelWatchdog.GetItem", "<array><data>" + "<value><array><data>" * 200
                 + "</data></array></value>" * 200 + "</data></array>", "<string></string>"),
        ]
        for body in bodies:
            status = post(self.wd.port, body)
            self.assertIsNotNone(status, "no answer to %r" % body[:120])
            self.assertTrue(self.still_serves(), "after %r" % body[:120])
        self.assertFalse(os.path.exists(self.wd.path("system.txt")), "no machine command was asked for")



@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class MalformedI8(unittest.TestCase):
    """The installed XML-RPC library builds its fault for an <i8> that is not a
    plain number from a missing argument and dies of it in the request thread;
    the supervisor replaces that one fault text, so such a request only gets a
    fault and the supervisor serves on."""

    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.write_conf(["--lib=/cfg/lib.xml", "--alias=Library"])
        self.wd.start()
        self.wd.wait_port()

    def test_malformed_i8_does_not_take_the_supervisor_down(self):
        for text in ("5x", "-", "99999999999999999999", "5 "):
            post(self.wd.port, call("VantrelWatchdog.GetAuth", "<i8>%s</i8>" % text))
            wait_until(lambda: self.wd.proc.poll() is not None, timeout=0.5)
            self.assertIsNone(self.wd.proc.poll(), "supervisor died on <i8>%s</i8>" % text)
            rpc = self.wd.rpc()
            try:
                self.assertEqual(rpc.VantrelWatchdog.GetStatus()["list"][0]["alias"], "Library")
            finally:
                rpc("close")()

if __name__ == "__main__":
    unittest.main()
