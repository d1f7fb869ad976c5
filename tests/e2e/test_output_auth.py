# GetStdXXXBuf and GetAuth with a secret on the running binary: paging through
# more than a ring's worth of output, stderr apart from stdout, offsets across a
# crash and restart of the child, both offset forms, and the secret checks.

import os
import unittest
import xmlrpc.client

from watchdog_harness import BIN, SLEEPER, Watchdog, entries, wait_until

RING, CHUNK, LINES = 32768, 1024, 5000   # 9 bytes a line: more than the ring holds
FIRST_RUN = b"".join(b"L%07d\n" % i for i in range(LINES))
SECOND_RUN = b"second run\n" * 10
# The first run writes LINES numbered lines and one stderr line, then ends once
# the file "go" appears; the respawned second run writes SECOND_RUN. Bounded.
CHATTY = """\
n=$(cat "{dir}/runs" 2>/dev/null || echo 0); n=$((n+1)); echo $n > "{dir}/runs"
if [ $n -eq 1 ]; then
    i=0; while [ $i -lt {lines} ]; do printf 'L%07d\\n' $i; i=$((i+1)); done
    printf 'err-line\\n' >&2
    j=0; while [ ! -e "{dir}/go" ] && [ $j -lt 300 ]; do sleep 0.1; j=$((j+1)); done
    exit 0
fi
k=0; while [ $k -lt 10 ]; do printf 'second run\\n'; k=$((k+1)); done
""" + SLEEPER


class I8(int):   # an offset sent as <i8>, which the plain client never produces
    pass


xmlrpc.client.Marshaller.dispatch[I8] = lambda _, value, write: write("<value><i8>%d</i8></value>" % int(value))


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class OutputAndAuth(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.add_script("VantrelLib", SLEEPER)
        self.wd.add_script("VantrelElementsMixer", CHATTY.format(dir=self.wd.dir, lines=LINES))
        self.wd.write_conf(["--web-auth-secret=Open Sesame"] + self.wd.app_lines("lib", "lib", "--autorun=1")
                           + self.wd.app_lines("elem_mixer", "mix", "--respawn=1"))
        self.wd.start()
        self.wd.wait_port()
        self.rpc = self.wd.rpc(self)
        self.ptr = entries(self.rpc)[1]["ptr"]

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

    def test_paging_across_a_full_ring_and_a_restart_then_auth(self):
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

        pid = entries(self.rpc)[1]["pid"]
        open(self.wd.path("go"), "w").close()   # the child ends and is respawned
        grown = total + len(SECOND_RUN)
        self.assertTrue(wait_until(lambda: self.buf(I8(0))["tail"] == grown, 20), "second run never arrived")
        self.assertNotIn(entries(self.rpc)[1]["pid"], (0, pid))
        data, last = self.page_from(total)
        self.assertEqual((data, last["head"]), (SECOND_RUN, grown - RING))

        # With a secret, only the exact secret or the session token is accepted.
        auth = self.rpc.VantrelWatchdog.GetAuth
        token = auth("Open Sesame", "")["session"]
        self.assertTrue(token.startswith("VantrelWatchdog "), token)
        for secret, session in (("open Sesame", ""), ("", ""), ("Open Sesame ", ""), ("wrong", token + "x")):
            self.assertEqual(auth(secret, session), {"ret": 0, "session": ""}, (secret, session))
        self.assertEqual(auth("wrong", token), {"ret": 1, "session": token})


if __name__ == "__main__":
    unittest.main()
