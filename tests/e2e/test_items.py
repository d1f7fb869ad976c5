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
