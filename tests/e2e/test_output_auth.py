"""GetStdXXXBuf and GetAuth through the running binary: paging through more
than a ring's worth of child output, offsets across a restart of the child,
both request forms, and the secret and session checks."""

import os
import unittest
import xmlrpc.client

from watchdog_harness import BIN, Watchdog, wait_until

RING = 32768
CHUNK = 1024
LINES = 5000          # 9 bytes each: 45000 bytes, more than the ring holds


class I8(int):
    """An offset sent as <i8>, which the plain client never produces."""


def _dump_i8(marshaller, value, write):
    write("<value><i8>%d</i8></value>" % int(value))


xmlrpc.client.Marshaller.dispatch[I8] = _dump_i8


def first_run_bytes():
    return b"".join(b"L%07d\n" % i for i in range(LINES))


SECOND_RUN = b"second run\n" * 10

# The first run writes LINES numbered lines and waits for the file "go"; the
# second writes a short marker text. Every wait is bounded.
CHATTY = """\
n=$(cat "{dir}/runs" 2>/dev/null || echo 0)
n=$((n+1))
echo $n > "{dir}/runs"
if [ $n -eq 1 ]; then
    i=0
    while [ $i -lt {lines} ]; do printf 'L%07d\\n' $i; i=$((i+1)); done
    printf 'err-line\\n' >&2
    j=0
    while [ ! -e "{dir}/go" ] && [ $j -lt 300 ]; do sleep 0.1; j=$((j+1)); done
    exit 0
fi
k=0
while [ $k -lt 10 ]; do printf 'second run\\n'; k=$((k+1)); done
j=0
while [ $j -lt 600 ]; do sleep 0.1; j=$((j+1)); done
"""


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class OutputPaging(unittest.TestCase):
    def setUp(self):
        self.wd = Watchdog(self)
        self.wd.add_script("VantrelLib", "i=0\nwhile [ $i -lt 600 ]; do sleep 0.1; i=$((i+1)); done\n")
        self.wd.add_script("VantrelElementsMixer", CHATTY.format(dir=self.wd.dir, lines=LINES))
        self.wd.write_conf(["--lib=/cfg/lib", "--alias=Quiet", "--bin-path=" + self.wd.bin_dir,
                            "--env=PATH=/usr/bin:/bin", "--autorun=1",
                            "--elem_mixer=/cfg/mix", "--alias=Chatty", "--bin-path=" + self.wd.bin_dir,
                            "--env=PATH=/usr/bin:/bin", "--respawn=1"])
        self.wd.start()
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))
        self.ptr = self.rpc.VantrelWatchdog.GetStatus()["list"][1]["ptr"]

    def buf(self, off, file_no=1):
        return self.rpc.VantrelWatchdog.GetStdXXXBuf(-1, self.ptr, off, file_no)

    def tail(self):
        return self.buf(I8(0))["tail"]

    def page_from(self, off, limit=200):
        """Follows the stream from off to its current end; (bytes, last reply)."""
        data = b""
        for _ in range(limit):
            reply = self.buf(I8(off))
            chunk = reply["buf"].data
            self.assertLessEqual(len(chunk), CHUNK)
            data += chunk
            off = reply["off"]
            if off == reply["tail"]:
                return data, reply
        self.fail("stream did not end within %d pages" % limit)

    def test_paging_across_a_full_ring_and_a_restart(self):
        total = len(first_run_bytes())
        self.assertTrue(wait_until(lambda: self.tail() == total, 15), "tail never reached %d" % total)

        # Offset 0 has fallen out of the ring: the reply starts at head.
        first = self.buf(I8(0))
        head = first["head"]
        self.assertEqual(head, total - RING)
        # "ret" is the slot index, though the request addressed the handle.
        self.assertEqual((first["ret"], first["ptr"], first["off"]), (1, self.ptr, head + CHUNK))

        data, last = self.page_from(0)
        self.assertEqual(data, first_run_bytes()[head:])
        self.assertEqual(last["off"], total)

        # The offset as decimal text gives the same reply as the i8 form.
        self.assertEqual(self.buf(str(head + 5000)), self.buf(I8(head + 5000)))
        self.assertEqual(self.buf(" %d" % (total - 100))["buf"].data, first_run_bytes()[-100:])
        err = self.buf(I8(0), file_no=2)
        self.assertEqual((err["head"], err["tail"], err["buf"].data), (0, 9, b"err-line\n"))

        # A restarted child continues the same stream positions.
        pid = self.rpc.VantrelWatchdog.GetStatus()["list"][1]["pid"]
        open(os.path.join(self.wd.dir, "go"), "w").close()
        grown = total + len(SECOND_RUN)
        self.assertTrue(wait_until(lambda: self.tail() == grown, 15), "second run's output never arrived")
        self.assertNotEqual(self.rpc.VantrelWatchdog.GetStatus()["list"][1]["pid"], pid)
        data, last = self.page_from(total)
        self.assertEqual(data, SECOND_RUN)
        self.assertEqual(last["head"], grown - RING)


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class Auth(unittest.TestCase):
    def start(self, secret=None):
        self.wd = Watchdog(self)
        self.wd.write_conf(["--web-auth-secret=" + secret] if secret else [])
        self.wd.start()
        self.wd.wait_port()
        self.rpc = self.wd.rpc()
        self.addCleanup(self.rpc("close"))

    def auth(self, secret, session):
        return self.rpc.VantrelWatchdog.GetAuth(secret, session)

    def test_without_secret_everything_is_accepted(self):
        self.start()
        token = self.auth("", "")["session"]
        self.assertTrue(token.startswith("VantrelWatchdog "), token)
        self.assertEqual(self.auth("anything", "junk"), {"ret": 1, "session": token})

    def test_with_secret_only_the_exact_secret_or_the_token_is_accepted(self):
        self.start("Open Sesame")
        token = self.auth("Open Sesame", "")["session"]
        self.assertTrue(token.startswith("VantrelWatchdog "), token)
        for secret, session in (("open Sesame", ""), ("", ""), ("Open Sesame ", ""), ("wrong", token + "x")):
            self.assertEqual(self.auth(secret, session), {"ret": 0, "session": ""}, (secret, session))
        self.assertEqual(self.auth("wrong", token), {"ret": 1, "session": token})


if __name__ == "__main__":
    unittest.main()
