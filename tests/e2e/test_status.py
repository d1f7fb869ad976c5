# The control methods on a running binary: GetStatus, GetElements, GetApps
# and GetAuth over several applications (listings, run times, element ports);
# GetStdXXXBuf paging through more than a ring's worth of output, stderr apart
# from stdout; GetAuth's secret.

import time
import unittest
import xmlrpc.client

from watchdog_harness import SLEEPER, entries, launch, set_field, wait_until

RING, CHUNK, LINES = 32768, 1024, 5000   # 9 bytes a line: more than the ring holds
FIRST_RUN = b"".join(b"L%07d\n" % i for i in range(LINES))
# Writes LINES numbered lines and one stderr line, then waits (bounded).
CHATTY = "i=0; while [ $i -lt 5000 ]; do printf 'L%07d\\n' $i; i=$((i+1)); done\nprintf 'err-line\\n' >&2\n" + SLEEPER


class I8(int):   # an offset sent as <i8>, which the plain client never produces
    pass


xmlrpc.client.Marshaller.dispatch[I8] = lambda _, value, write: write("<value><i8>%d</i8></value>" % int(value))


class ControlMethods(unittest.TestCase):
    def test_listings_of_a_populated_instance(self):
        scripts = {"VantrelElements" + n: SLEEPER for n in ("Mixer", "Flash", "IODecklinkOutput", "DVE")}
        app = lambda wd, t, alias, *more: wd.app_lines(t, alias, "--alias=" + alias, "--autorun=1", *more)
        wd = launch(self, lambda wd: ["--instance-name=Studio A"] + app(wd, "elem_mixer", "Mix plain", "--thumb=mix.png")
                    + app(wd, "elem_mixer", "Mix raw", "--raw=--port=0", "--raw=--port=4711")
                    + app(wd, "elem_flash", "Flash", "--raw=--port=5000", "--raw=--xmlrpc-port=6100")
                    + app(wd, "elem_io_decklink_out", "SDI out", "--raw=--port=7000")
                    + ["--elem_matrix=/cfg/idle", "--alias=Idle matrix"] + app(wd, "elem_dve", "DVE"), scripts)
        rpc = wd.rpc(self)
        self.assertTrue(wait_until(lambda: sum(1 for e in entries(rpc) if e["pid"]) == 5, 20), wd.log())

        # GetStatus and GetElements frame.
        for reply in (rpc.VantrelWatchdog.GetStatus(), rpc.VantrelWatchdog.GetElements(1, "x")):
            self.assertEqual((list(reply), reply["instance_name"]), (["amend", "list", "version", "instance_name"], "Studio A"))
            self.assertRegex(reply["version"], r"^\d+\.\d+")
            self.assertLess(abs(reply["amend"] - time.time()), 60, "stamped with the start time")
        # GetApps.
        apps = rpc.VantrelWatchdog.GetApps()["apps"]
        self.assertEqual((len(set(apps) - {"none"}), len(apps), apps[0], apps[-1]), (45, 45, "filetranscoder", "elem_clock"))
        # GetAuth without a secret.
        token = rpc.VantrelWatchdog.GetAuth("", "")["session"]
        self.assertTrue(token.startswith("VantrelWatchdog "), token)
        self.assertEqual(rpc.VantrelWatchdog.GetAuth("anything", "junk"), {"ret": 1, "session": token})
        # GetElements lists running elements with their ports.
        self.assertEqual([(e["id"], e["port"], e["alias"], e["thumb"], e["app_name"]) for e in rpc.VantrelWatchdog.GetElements()["list"]],
                         [(21, 36001, "Mix plain", "mix.png", "elem_mixer"), (21, 4711, "Mix raw", "", "elem_mixer"),
                          (23, 6100, "Flash", "", "elem_flash"), (32, 35001, "DVE", "", "elem_dve")])
        # A stopped application has no run times.
        self.assertEqual([set_field(rpc, 0, "f_respawn", "0"), set_field(rpc, 0, "t_term")], [0, 0])
        self.assertTrue(wait_until(lambda: entries(rpc)[0]["pid"] == 0, 20))
        self.assertEqual([entries(rpc)[0][k] for k in ("started", "terminated")], [0, 0])

    def buf(self, off, file_no=1):
        return self.rpc.VantrelWatchdog.GetStdXXXBuf(-1, self.ptr, off, file_no)

    def page_from(self, off):
        # Follows the stream from off to its current end; (bytes, last reply).
        data = b""
        for _ in range(200):
            reply = self.buf(I8(off))
            self.assertLessEqual(len(reply["buf"].data), CHUNK)
            data, off = data + reply["buf"].data, reply["off"]
            if off == reply["tail"]:
                return data, reply
        self.fail("stream did not end within 200 pages")

    def test_paging_across_a_full_ring_then_auth(self):
        self.wd = launch(self, lambda wd: ["--web-auth-secret=Open Sesame"] + wd.app_lines("lib", "lib", "--autorun=1")
                         + wd.app_lines("elem_mixer", "mix", "--autorun=1"),
                         {"VantrelLib": SLEEPER, "VantrelElementsMixer": CHATTY})
        self.rpc = self.wd.rpc(self)
        self.ptr = entries(self.rpc)[1]["ptr"]
        total = len(FIRST_RUN)
        self.assertTrue(wait_until(lambda: self.buf(I8(0))["tail"] == total, 20), "tail never reached %d" % total)
        first = self.buf(I8(0))   # offset 0 has fallen out of the ring: the reply starts at head
        head = first["head"]
        self.assertEqual(head, total - RING)
        # "ret" is the slot index, though the request addressed the handle.
        self.assertEqual((first["ret"], first["ptr"], first["off"]), (1, self.ptr, head + CHUNK))
        data, last = self.page_from(0)
        self.assertEqual((data, last["off"]), (FIRST_RUN[head:], total))
        self.assertEqual(self.buf(str(head + 5000)), self.buf(I8(head + 5000)), "decimal text as i8")
        self.assertEqual(self.buf(" %d" % (total - 100))["buf"].data, FIRST_RUN[-100:])
        err = self.buf(I8(0), file_no=2)
        self.assertEqual((err["head"], err["tail"], err["buf"].data), (0, 9, b"err-line\n"))

        # With a secret, only the exact secret or the session token is accepted.
        auth = self.rpc.VantrelWatchdog.GetAuth
        token = auth("Open Sesame", "")["session"]
        self.assertTrue(token.startswith("VantrelWatchdog "), token)
        for secret, session in (("open Sesame", ""), ("", ""), ("Open Sesame ", ""), ("wrong", token + "x")):
            self.assertEqual(auth(secret, session), {"ret": 0, "session": ""}, (secret, session))
        self.assertEqual(auth("wrong", token), {"ret": 1, "session": token})
