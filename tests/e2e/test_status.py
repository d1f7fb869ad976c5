"""GetStatus, GetElements and GetApps through the running binary: empty and
populated listings, run times, element ports, and faults for bad parameters."""

import time
import unittest
import xmlrpc.client

from watchdog_harness import BIN, Watchdog, wait_until

# Stays up for at most 60 s; short sleeps so SIGINT ends it promptly.
SLEEPER = """\
i=0
while [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done
"""

# Ignores SIGINT, so a termination request stays pending.
STUBBORN = "trap '' INT\n" + SLEEPER

OUTER_KEYS = ["amend", "list", "version", "instance_name"]
STATUS_KEYS = ["amend", "ptr", "pid", "started", "terminated", "f_autorun", "f_respawn", "err", "alias", "thumb",
               "app_name"]
ELEMENT_KEYS = ["id", "port", "alias", "thumb", "app_name"]


def running(exe_dir, type_name, alias, *extra):
    return ["--%s=/cfg/%s" % (type_name, alias), "--alias=" + alias, "--bin-path=" + exe_dir,
            "--env=PATH=/usr/bin:/bin", "--autorun=1"] + list(extra)


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class EmptyInstance(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.write_conf(["--instance-name=Studio A"])
        self.wd.start()
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))

    def test_listings_are_empty_but_complete(self):
        for method in (self.rpc.VantrelWatchdog.GetStatus, self.rpc.VantrelWatchdog.GetElements):
            reply = method()
            self.assertEqual(list(reply), OUTER_KEYS)
            self.assertEqual(reply["list"], [])
            self.assertEqual(reply["instance_name"], "Studio A")
            self.assertRegex(reply["version"], r"^\d+\.\d+")
            # Supervision stamps the counter with its start time.
            self.assertLess(abs(reply["amend"] - time.time()), 60)

    def test_apps_lists_the_45_configurable_types(self):
        apps = self.rpc.VantrelWatchdog.GetApps()["apps"]
        self.assertEqual(len(apps), 45)
        self.assertEqual((apps[0], apps[-1]), ("filetranscoder", "elem_clock"))
        self.assertNotIn("none", apps)
        self.assertEqual(len(set(apps)), 45)
        self.assertEqual(self.rpc.VantrelWatchdog.GetApps(), {"apps": apps})

    def test_parameters_of_listings_are_ignored(self):
        self.assertEqual(self.rpc.VantrelWatchdog.GetStatus(1, "x")["list"], [])
        self.assertEqual(len(self.rpc.VantrelWatchdog.GetApps([1])["apps"]), 45)

    def test_wrongly_typed_parameters_get_a_fault(self):
        calls = [
            lambda: self.rpc.VantrelWatchdog.GetStdXXXBuf("0", "", "0", 1),
            lambda: self.rpc.VantrelWatchdog.GetStdXXXBuf(0, "", "0"),
            lambda: self.rpc.VantrelWatchdog.GetStdXXXBuf(0, 5, "0", 1),
            lambda: self.rpc.VantrelWatchdog.GetAuth("secret"),
            lambda: self.rpc.VantrelWatchdog.GetAuth(1, 2),
        ]
        for call in calls:
            with self.assertRaises(xmlrpc.client.Fault):
                call()
        self.assertIn("xmlrpc_decompose_value('secret', 'session') failed", self.wd.log())
        self.assertIn("xmlrpc_decompose_value('idx', 'ptr', 'off', 'file_no') failed", self.wd.log())


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class PopulatedInstance(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        exe = self.wd.bin_dir
        for name in ("VantrelElementsMixer", "VantrelElementsFlash", "VantrelElementsIODecklinkOutput",
                     "VantrelElementsIONDIInput", "VantrelElementsIOJPEGOutput", "VantrelLib"):
            self.wd.add_script(name, SLEEPER)
        self.wd.add_script("VantrelElementsDVE", STUBBORN)
        self.wd.write_conf(
            running(exe, "elem_mixer", "Mix plain", "--thumb=mix.png")
            + running(exe, "elem_mixer", "Mix raw", "--raw=--other=1", "--raw=--port=0", "--raw=--port=4711")
            + running(exe, "elem_flash", "Flash", "--raw=--port=5000", "--raw=--xmlrpc-port=6100")
            + running(exe, "elem_flash", "Flash bare", "--raw=--port=5000")
            + running(exe, "elem_io_decklink_out", "SDI out", "--raw=--port=7000")
            + running(exe, "elem_io_ndi_in", "NDI in")
            + running(exe, "elem_io_jpeg_out", "JPEG")
            + running(exe, "lib", "Library")
            + ["--elem_matrix=/cfg/idle", "--alias=Idle matrix", "--bin-path=" + exe]
            + running(exe, "elem_dve", "Stubborn DVE"))
        self.wd.start()
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))
        self.expected_running = 10 - 1   # all but the idle matrix
        ok = wait_until(lambda: sum(1 for e in self.status()["list"] if e["pid"]) == self.expected_running, 15)
        self.assertTrue(ok, "not every autorun application started; log:\n" + self.wd.log())

    def status(self):
        return self.rpc.VantrelWatchdog.GetStatus()

    def test_status_lists_every_slot_in_order_with_run_state(self):
        listing = self.status()["list"]
        self.assertEqual([e["alias"] for e in listing],
                         ["Mix plain", "Mix raw", "Flash", "Flash bare", "SDI out", "NDI in", "JPEG", "Library",
                          "Idle matrix", "Stubborn DVE"])
        for entry in listing:
            self.assertEqual(list(entry), STATUS_KEYS)
            self.assertRegex(entry["ptr"], r"^[1-9a-f][0-9a-f]*$")
        self.assertEqual(len({e["ptr"] for e in listing}), len(listing))
        self.assertEqual(listing[0]["app_name"], "elem_mixer")
        self.assertEqual(listing[0]["thumb"], "mix.png")
        self.assertEqual(listing[7]["app_name"], "lib")

        idle = listing[8]
        self.assertEqual((idle["pid"], idle["started"], idle["terminated"]), (0, 0, 0))
        self.assertEqual((idle["f_autorun"], idle["f_respawn"]), (0, 0))
        self.assertEqual(listing[0]["f_autorun"], 1)

    def test_started_counts_up_while_running(self):
        first = self.status()["list"][0]
        self.assertGreater(first["pid"], 0)
        time.sleep(2.2)
        later = self.status()["list"][0]
        self.assertEqual(later["pid"], first["pid"])
        self.assertGreaterEqual(later["started"] - first["started"], 2)
        self.assertEqual(later["terminated"], 0)

    def test_terminated_counts_while_a_termination_is_pending(self):
        dve = self.status()["list"][9]
        ret = self.rpc.VantrelWatchdog.SetField(9, dve["ptr"], "t_term", "")
        self.assertEqual(ret["ret"], 0)
        time.sleep(2.2)
        entry = self.status()["list"][9]
        self.assertEqual(entry["pid"], dve["pid"])   # it ignores SIGINT
        self.assertGreaterEqual(entry["terminated"], 2)

    def test_elements_lists_running_elements_with_their_ports(self):
        reply = self.rpc.VantrelWatchdog.GetElements()
        self.assertEqual(list(reply), OUTER_KEYS)
        listing = reply["list"]
        for entry in listing:
            self.assertEqual(list(entry), ELEMENT_KEYS)
        got = [(e["id"], e["port"], e["alias"], e["app_name"]) for e in listing]
        self.assertEqual(got, [
            (21, 36001, "Mix plain", "elem_mixer"),
            (21, 4711, "Mix raw", "elem_mixer"),
            (23, 6100, "Flash", "elem_flash"),
            (23, 0, "Flash bare", "elem_flash"),
            (32, 35001, "Stubborn DVE", "elem_dve"),
        ])
        self.assertEqual(listing[0]["thumb"], "mix.png")

    def test_stopped_element_leaves_the_element_listing(self):
        mixer = self.status()["list"][0]
        self.assertEqual(self.rpc.VantrelWatchdog.SetField(0, mixer["ptr"], "f_respawn", "0")["ret"], 0)
        self.assertEqual(self.rpc.VantrelWatchdog.SetField(0, mixer["ptr"], "t_term", "")["ret"], 0)
        self.assertTrue(wait_until(lambda: self.status()["list"][0]["pid"] == 0, 10))
        entry = self.status()["list"][0]
        self.assertEqual((entry["started"], entry["terminated"]), (0, 0))
        aliases = [e["alias"] for e in self.rpc.VantrelWatchdog.GetElements()["list"]]
        self.assertNotIn("Mix plain", aliases)
        self.assertIn("Mix raw", aliases)


if __name__ == "__main__":
    unittest.main()
