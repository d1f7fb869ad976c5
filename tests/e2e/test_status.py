"""GetStatus, GetElements and GetApps through the running binary: empty and
populated listings, run times, element ports, and faults for bad parameters."""

import os
import re
import time
import unittest
import xmlrpc.client

from watchdog_harness import BIN, Watchdog, wait_until

# Stays up for at most 60 s; short sleeps so SIGINT ends it promptly.
SLEEPER = "i=0\nwhile [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done\n"
# Ignores SIGINT, so a termination request stays pending; the marker file
# tells that the trap is in place.
STUBBORN = "trap '' INT\ntouch \"$0.ready\"\n" + SLEEPER


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
        # Parameters of the listings are ignored.
        for reply in (self.rpc.VantrelWatchdog.GetStatus(), self.rpc.VantrelWatchdog.GetElements(1, "x")):
            self.assertEqual(list(reply), ["amend", "list", "version", "instance_name"])
            self.assertEqual((reply["list"], reply["instance_name"]), ([], "Studio A"))
            self.assertRegex(reply["version"], r"^\d+\.\d+")
            # Supervision stamps the counter with its start time.
            self.assertLess(abs(reply["amend"] - time.time()), 60)
        apps = self.rpc.VantrelWatchdog.GetApps()["apps"]
        self.assertEqual((len(apps), len(set(apps)), apps[0], apps[-1]), (45, 45, "filetranscoder", "elem_clock"))
        self.assertNotIn("none", apps)

@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class PopulatedInstance(unittest.TestCase):
    ALIASES = ["Mix plain", "Mix raw", "Flash", "SDI out", "NDI in", "JPEG", "Idle matrix", "Stubborn DVE"]

    def setUp(self):
        self.wd = Watchdog(self)
        exe = self.wd.bin_dir
        for name in ("VantrelElementsMixer", "VantrelElementsFlash", "VantrelElementsIODecklinkOutput",
                     "VantrelElementsIONDIInput", "VantrelElementsIOJPEGOutput"):
            self.wd.add_script(name, SLEEPER)
        self.wd.add_script("VantrelElementsDVE", STUBBORN)
        self.wd.write_conf(
            running(exe, "elem_mixer", "Mix plain", "--thumb=mix.png")
            + running(exe, "elem_mixer", "Mix raw", "--raw=--port=0", "--raw=--port=4711")
            + running(exe, "elem_flash", "Flash", "--raw=--port=5000", "--raw=--xmlrpc-port=6100")
            + running(exe, "elem_io_decklink_out", "SDI out", "--raw=--port=7000")
            + running(exe, "elem_io_ndi_in", "NDI in")
            + running(exe, "elem_io_jpeg_out", "JPEG")
            + ["--elem_matrix=/cfg/idle", "--alias=Idle matrix", "--bin-path=" + exe]
            + running(exe, "elem_dve", "Stubborn DVE"))
        self.wd.start()
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))
        ok = wait_until(lambda: sum(1 for e in self.listing() if e["pid"]) == len(self.ALIASES) - 1, 15)
        self.assertTrue(ok, "not every autorun application started; log:\n" + self.wd.log())

    def listing(self):
        return self.rpc.VantrelWatchdog.GetStatus()["list"]

    def test_status_lists_every_slot_with_its_run_state(self):
        first = self.listing()
        self.assertEqual([e["alias"] for e in first], self.ALIASES)
        for entry in first:
            self.assertRegex(entry["ptr"], r"^[1-9a-f][0-9a-f]*$")
        self.assertEqual(len({e["ptr"] for e in first}), len(first))
        self.assertEqual((first[0]["app_name"], first[0]["thumb"], first[0]["f_autorun"]), ("elem_mixer", "mix.png", 1))
        idle = first[6]
        self.assertEqual([idle[k] for k in ("pid", "started", "terminated", "f_autorun", "f_respawn")], [0] * 5)

        time.sleep(2.2)
        later = self.listing()[0]
        self.assertEqual(later["pid"], first[0]["pid"])
        self.assertGreaterEqual(later["started"] - first[0]["started"], 2)
        self.assertEqual(later["terminated"], 0)

    def test_terminated_counts_while_a_termination_is_pending(self):
        ready = self.wd.path("bin", "VantrelElementsDVE.ready")
        self.assertTrue(wait_until(lambda: os.path.exists(ready), 10), "the DVE never set its trap")
        dve = self.listing()[7]
        self.assertEqual(self.rpc.VantrelWatchdog.SetField(7, dve["ptr"], "t_term", "")["ret"], 0)
        time.sleep(2.2)
        entry = self.listing()[7]
        self.assertEqual(entry["pid"], dve["pid"])   # it ignores SIGINT
        self.assertGreaterEqual(entry["terminated"], 2)

    def test_elements_lists_running_elements_with_their_ports(self):
        def elements():
            return [(e["id"], e["port"], e["alias"], e["thumb"], e["app_name"])
                    for e in self.rpc.VantrelWatchdog.GetElements()["list"]]
        self.assertEqual(elements(), [
            (21, 36001, "Mix plain", "mix.png", "elem_mixer"),
            (21, 4711, "Mix raw", "", "elem_mixer"),
            (23, 6100, "Flash", "", "elem_flash"),
            (32, 35001, "Stubborn DVE", "", "elem_dve"),
        ])
        # A stopped element leaves the listing.
        ptr = self.listing()[0]["ptr"]
        self.assertEqual(self.rpc.VantrelWatchdog.SetField(0, ptr, "f_respawn", "0")["ret"], 0)
        self.assertEqual(self.rpc.VantrelWatchdog.SetField(0, ptr, "t_term", "")["ret"], 0)
        self.assertTrue(wait_until(lambda: self.listing()[0]["pid"] == 0, 10))
        self.assertEqual([self.listing()[0][k] for k in ("started", "terminated")], [0, 0])
        self.assertEqual([e[2] for e in elements()], ["Mix raw", "Flash", "Stubborn DVE"])


if __name__ == "__main__":
    unittest.main()
