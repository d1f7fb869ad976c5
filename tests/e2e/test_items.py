"""GetItem and SetItem through the running binary: adding, updating, refusals,
list clearing, and persistence of the changes in the option file."""

import glob
import unittest
import xmlrpc.client

from watchdog_harness import BIN, Watchdog, handles, wait_until

ERANGE = -34
ENOENT = -2


def start_watchdog(test, lines=()):
    wd = Watchdog(test)
    wd.write_conf(list(lines))
    wd.start(env=wd.fake_system_env())
    wd.wait_port()
    return wd


def open_rpc(test, wd):
    """A proxy whose kept-alive connection is closed when the test ends."""
    rpc = wd.rpc()
    test.addCleanup(rpc("close"))
    return rpc


def set_item(rpc, idx, ptr, type_name, alias="", thumb="", config="", bin_path="", numa_bind="",
             raws=(), envs=()):
    return rpc.VantrelWatchdog.SetItem(idx, ptr, type_name, alias, thumb, config, bin_path, numa_bind,
                                       list(raws), list(envs))


def status(rpc):
    return rpc.VantrelWatchdog.GetStatus()


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class ItemEditing(unittest.TestCase):
    def setUp(self):
        self.wd = start_watchdog(self, ["--lib=/cfg/lib.xml", "--alias=Library"])
        self.rpc = open_rpc(self, self.wd)

    def test_add_with_negative_idx_and_empty_ptr(self):
        before = status(self.rpc)["amend"]
        ret = set_item(self.rpc, -1, "", "elem_mixer", alias="Mixer 1", thumb="m.png", config="/cfg/mixer.xml",
                       bin_path="/opt/vantrel", numa_bind="0", raws=["--xmlrpc-port=9101"],
                       envs=["MIXER_MODE=2", "A=1", "B=2"])
        self.assertEqual(ret, {"ret": 0})
        after = status(self.rpc)
        self.assertEqual(after["amend"], (before + 2) & 0xFFFFFFFF)
        self.assertEqual(len(after["list"]), 2)
        self.assertEqual(after["list"][1]["app_name"], "elem_mixer")
        self.assertEqual(after["list"][1]["pid"], 0, "adding starts nothing")

        item = self.rpc.VantrelWatchdog.GetItem(1, "")
        self.assertEqual(item, {
            "ret": 1, "ptr": "", "id": 21, "id_name": "elem_mixer", "alias": "Mixer 1", "thumb": "m.png",
            "config": "/cfg/mixer.xml", "bin_path": "/opt/vantrel", "numa_bind": "0",
            "raws": ["--xmlrpc-port=9101"], "envs": ["MIXER_MODE=2", "A=1", "B=2"]})

    def test_update_by_handle_in_any_spelling(self):
        ptr = handles(self.rpc)[0]
        for spelling in (ptr, "0x" + ptr.upper(), "  0X" + ptr):
            ret = set_item(self.rpc, -1, spelling, "sched", alias="by " + spelling, envs=["X=1"])
            self.assertEqual(ret, {"ret": 0}, spelling)
            item = self.rpc.VantrelWatchdog.GetItem(-1, spelling)
            self.assertEqual(item["ret"], 0)
            self.assertEqual(item["ptr"], spelling)
            self.assertEqual(item["id_name"], "sched")
            self.assertEqual(item["alias"], "by " + spelling)
        self.assertEqual(handles(self.rpc), [ptr], "updating adds nothing and keeps the handle")

    def test_requests_for_no_application_are_refused(self):
        before = status(self.rpc)["amend"]
        self.assertEqual(set_item(self.rpc, 1, "", "lib"), {"ret": ERANGE})
        self.assertEqual(set_item(self.rpc, -1, "deadbeef", "lib"), {"ret": ERANGE})
        self.assertEqual(self.rpc.VantrelWatchdog.GetItem(1, ""), {"ret": ERANGE})
        self.assertEqual(self.rpc.VantrelWatchdog.GetItem(-1, ""), {"ret": ERANGE})
        after = status(self.rpc)
        self.assertEqual(len(after["list"]), 1)
        self.assertEqual(after["amend"], before)
        self.wd.wait_log(r"ctl_method_SetItem: idx=1 out of apps range \(1\)")
        self.wd.wait_log(r"ctl_method_GetItem: ptr=\[\], p=\(nil\) not found")

    def test_refused_type_leaves_a_none_slot(self):
        for name in ("Elem_Mixer", "none"):
            self.assertEqual(set_item(self.rpc, -1, "", name, alias="x"), {"ret": ENOENT}, name)
        entries = status(self.rpc)["list"]
        self.assertEqual([e["app_name"] for e in entries], ["lib", "none", "none"])
        self.assertEqual(entries[1]["alias"], "")
        item = self.rpc.VantrelWatchdog.GetItem(2, "")
        self.assertEqual((item["id"], item["id_name"], item["raws"], item["envs"]), (0, "none", [], []))
        self.wd.wait_log(r"ctl_method_SetItem: instance_apps_lookup\(Elem_Mixer\) failed")
        # Refusing the type of an existing application changes nothing.
        self.assertEqual(set_item(self.rpc, 0, "", "LIB", alias="changed"), {"ret": ENOENT})
        self.assertEqual(self.rpc.VantrelWatchdog.GetItem(0, "")["alias"], "Library")

    def test_empty_lists_clear_both_lists(self):
        set_item(self.rpc, 0, "", "lib", alias="Library", raws=["--a=1", "--b=2"], envs=["E=1"])
        item = self.rpc.VantrelWatchdog.GetItem(0, "")
        self.assertEqual((item["raws"], item["envs"]), (["--a=1", "--b=2"], ["E=1"]))
        self.assertEqual(set_item(self.rpc, 0, "", "lib", alias="Library"), {"ret": 0})
        item = self.rpc.VantrelWatchdog.GetItem(0, "")
        self.assertEqual((item["raws"], item["envs"]), ([], []))

    def test_undecodable_requests_get_faults(self):
        with self.assertRaises(xmlrpc.client.Fault):
            self.rpc.VantrelWatchdog.GetItem("0", "")
        with self.assertRaises(xmlrpc.client.Fault):
            self.rpc.VantrelWatchdog.SetItem(-1, "", "lib")
        with self.assertRaises(xmlrpc.client.Fault):
            self.rpc.VantrelWatchdog.SetItem(-1, "", "lib", "", "", "", "", "", "not a list", [])
        self.assertEqual(len(handles(self.rpc)), 1)
        self.wd.wait_log(r"ctl_method_GetItem: xmlrpc_decompose_value\('idx', 'ptr'\) failed")
        self.wd.wait_log(r"ctl_method_SetItem:23: xmlrpc_decompose_value\(\): .* \(-?\d+\)")
        # The server is still serving after the faults.
        self.assertEqual(self.rpc.VantrelWatchdog.GetItem(0, "")["alias"], "Library")


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class ItemPersistence(unittest.TestCase):
    def test_changes_reach_the_option_file_and_survive_a_restart(self):
        wd = start_watchdog(self, ["--lib=/cfg/lib.xml", "--alias=Library"])
        rpc = open_rpc(self, wd)
        ret = set_item(rpc, -1, "", "elem_mixer", alias="Mixer 1", config="/cfg/mixer.xml",
                       raws=["--xmlrpc-port=9101"], envs=["MIXER_MODE=2"])
        self.assertEqual(ret, {"ret": 0})

        def conf_text():
            with open(wd.conf_path) as f:
                return f.read()
        self.assertTrue(wait_until(lambda: "--elem_mixer=/cfg/mixer.xml" in conf_text(), timeout=5.0),
                        conf_text())
        self.assertIn("\n--elem_mixer=/cfg/mixer.xml\n--alias=Mixer 1\n--env=MIXER_MODE=2\n"
                      "--raw=--xmlrpc-port=9101\n", conf_text())
        backups = glob.glob(wd.conf_path + "-*.*")
        self.assertTrue(backups, "the previous option file is kept as a backup")
        with open(sorted(backups)[0]) as f:
            self.assertNotIn("elem_mixer", f.read())

        before = [rpc.VantrelWatchdog.GetItem(i, "") for i in range(2)]
        self.assertEqual(wd.stop(), 0)

        wd.start(env=wd.fake_system_env())
        wd.wait_port()
        rpc = open_rpc(self, wd)
        self.assertEqual(len(handles(rpc)), 2)
        self.assertEqual([rpc.VantrelWatchdog.GetItem(i, "") for i in range(2)], before)


if __name__ == "__main__":
    unittest.main()
