# GetStatus, GetElements, GetApps and GetAuth without a secret on a running
# binary with several applications: listings, run times, element ports.

import os
import time
import unittest

from watchdog_harness import BIN, SLEEPER, STUBBORN, Watchdog, entries, set_field, wait_until

ALIASES = ["Mix plain", "Mix raw", "Flash", "SDI out", "NDI in", "JPEG", "Idle matrix", "Stubborn DVE"]


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class Listings(unittest.TestCase):
    def test_listings_of_a_populated_instance(self):
        wd = Watchdog(self)
        for name in ("Mixer", "Flash", "IODecklinkOutput", "IONDIInput", "IOJPEGOutput"):
            wd.add_script("VantrelElements" + name, SLEEPER)
        wd.add_script("VantrelElementsDVE", STUBBORN)

        def app(type_name, alias, *extra):
            return ["--%s=/cfg/%s" % (type_name, alias), "--alias=" + alias, "--bin-path=" + wd.bin_dir,
                    "--env=PATH=/usr/bin:/bin", "--autorun=1"] + list(extra)
        wd.write_conf(["--instance-name=Studio A"] + app("elem_mixer", "Mix plain", "--thumb=mix.png")
                      + app("elem_mixer", "Mix raw", "--raw=--port=0", "--raw=--port=4711")
                      + app("elem_flash", "Flash", "--raw=--port=5000", "--raw=--xmlrpc-port=6100")
                      + app("elem_io_decklink_out", "SDI out", "--raw=--port=7000") + app("elem_io_ndi_in", "NDI in")
                      + app("elem_io_jpeg_out", "JPEG") + ["--elem_matrix=/cfg/idle", "--alias=Idle matrix"]
                      + app("elem_dve", "Stubborn DVE"))
        wd.start()
        wd.wait_port()
        rpc = wd.rpc(self)
        self.assertTrue(wait_until(lambda: sum(1 for e in entries(rpc) if e["pid"]) == 7, 20), wd.log())

        with self.subTest("GetStatus and GetElements frame"):
            for reply in (rpc.VantrelWatchdog.GetStatus(), rpc.VantrelWatchdog.GetElements(1, "x")):
                self.assertEqual(list(reply), ["amend", "list", "version", "instance_name"])
                self.assertEqual(reply["instance_name"], "Studio A")
                self.assertRegex(reply["version"], r"^\d+\.\d+")
                self.assertLess(abs(reply["amend"] - time.time()), 60, "stamped with the start time")
        with self.subTest("GetApps"):
            apps = rpc.VantrelWatchdog.GetApps()["apps"]
            self.assertEqual((len(apps), len(set(apps)), apps[0], apps[-1]), (45, 45, "filetranscoder", "elem_clock"))
            self.assertNotIn("none", apps)
        with self.subTest("GetAuth without a secret"):
            token = rpc.VantrelWatchdog.GetAuth("", "")["session"]
            self.assertTrue(token.startswith("VantrelWatchdog "), token)
            self.assertEqual(rpc.VantrelWatchdog.GetAuth("anything", "junk"), {"ret": 1, "session": token})
        with self.subTest("GetStatus slots and run times"):
            first = entries(rpc)
            self.assertEqual([e["alias"] for e in first], ALIASES)
            [self.assertRegex(e["ptr"], r"^[1-9a-f][0-9a-f]*$") for e in first]
            self.assertEqual(len({e["ptr"] for e in first}), len(first))
            self.assertEqual([first[0][k] for k in ("app_name", "thumb", "f_autorun")], ["elem_mixer", "mix.png", 1])
            self.assertEqual([first[6][k] for k in ("pid", "started", "terminated", "f_autorun", "f_respawn")], [0] * 5)
            self.assertTrue(wait_until(lambda: entries(rpc)[0]["started"] - first[0]["started"] >= 2, 10))
            self.assertEqual([entries(rpc)[0][k] for k in ("pid", "terminated")], [first[0]["pid"], 0])
        with self.subTest("GetElements lists running elements with their ports"):
            def elements():
                return [(e["id"], e["port"], e["alias"], e["thumb"], e["app_name"])
                        for e in rpc.VantrelWatchdog.GetElements()["list"]]
            self.assertEqual(elements(), [(21, 36001, "Mix plain", "mix.png", "elem_mixer"),
                                          (21, 4711, "Mix raw", "", "elem_mixer"), (23, 6100, "Flash", "", "elem_flash"),
                                          (32, 35001, "Stubborn DVE", "", "elem_dve")])
            self.assertEqual(set_field(rpc, 0, "f_respawn", "0"), 0)
            self.assertEqual(set_field(rpc, 0, "t_term"), 0)
            self.assertTrue(wait_until(lambda: entries(rpc)[0]["pid"] == 0, 20))
            self.assertEqual([entries(rpc)[0][k] for k in ("started", "terminated")], [0, 0])
            self.assertEqual([e[2] for e in elements()], ["Mix raw", "Flash", "Stubborn DVE"])
        with self.subTest("terminated counts while a termination is pending"):
            self.assertTrue(wait_until(lambda: os.path.exists(wd.path("bin", "VantrelElementsDVE.ready")), 10))
            self.assertEqual(set_field(rpc, 7, "t_term"), 0)
            self.assertTrue(wait_until(lambda: entries(rpc)[7]["terminated"] >= 2, 10), entries(rpc)[7])
            self.assertEqual(entries(rpc)[7]["pid"], first[7]["pid"], "it ignores SIGINT")


if __name__ == "__main__":
    unittest.main()
