# The control port under attack from the network: hostile bodies, connection
# floods, refused peers and a request during shutdown. After each the supervisor
# must still be alive and answering (or, for the shutdown, end on time).

import http.client
import os
import signal
import socket
import threading
import time
import unittest
import xmlrpc.client

from watchdog_harness import BIN, HOST, Watchdog, pid_alive

SLOW_BUILD = "TSAN_OPTIONS" in os.environ or "ASAN_OPTIONS" in os.environ
ANSWER_S = 5.0 if SLOW_BUILD else 1.0
# Ignores SIGINT for a while, so the shutdown lasts long enough to be probed.
SLOW_TO_STOP = "trap '' INT\nsleep 3\n"


# (seconds, decoded reply or Fault) of one POST; raises on a dropped connection.
def post(port, body, timeout=10.0):
    conn = http.client.HTTPConnection(HOST, port, timeout=timeout)
    started = time.monotonic()
    try:
        conn.request("POST", "/RPC2", body.encode(), {"Content-Type": "text/xml"})
        data = conn.getresponse().read()
    finally:
        conn.close()
    try:
        reply = xmlrpc.client.loads(data)[0][0]
    except xmlrpc.client.Fault as fault:
        reply = fault
    return time.monotonic() - started, reply


def call(port, method, *params):
    return post(port, xmlrpc.client.dumps(params, method))


def cpu_seconds(pid):
    with open("/proc/%d/stat" % pid) as f:
        fields = f.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


# A body answered with a fault at once, leaving no work behind.
def refuse_body(body):
    def attack(test, wd):
        took, reply = post(wd.port, body)
        test.assertTrue(isinstance(reply, xmlrpc.client.Fault), "refused")
        test.assertLess(took, ANSWER_S)
        before = cpu_seconds(wd.proc.pid)
        time.sleep(1.0)
        test.assertLess(cpu_seconds(wd.proc.pid) - before, 0.3, "CPU back to idle")
    return attack


NESTED = ("<?xml version='1.0'?><methodCall><methodName>VantrelWatchdog.GetItem</methodName><params><param>"
          "<value>" + "<array><data><value>" * 5000 + "</value></data></array>" * 5000 + "</value></param>"
          "</params></methodCall>")
LAUGHS = ("<?xml version='1.0'?><!DOCTYPE m [<!ENTITY l0 'ha'>"
          + "".join("<!ENTITY l%d '%s'>" % (n, "&l%d;" % (n - 1) * 10) for n in range(1, 10))
          + "]><methodCall><methodName>VantrelWatchdog.GetStatus</methodName><params><param><value>&l9;"
          "</value></param></params></methodCall>")
MULTICALL = xmlrpc.client.dumps(([{"methodName": "VantrelWatchdog.GetStatus", "params": []}] * 2000,),
                                "system.multicall")


# Sends a request a byte at a time and reconnects whenever it is dropped.
def slow_sender(port, stop):
    while not stop.is_set():
        try:
            with socket.create_connection((HOST, port), timeout=2) as s:
                for byte in b"POST /RPC2 HTTP/1.1\r\nContent-Length: 99\r\n\r\n":
                    if stop.wait(0.3):
                        return
                    s.send(bytes([byte]))
        except OSError:
            stop.wait(0.05)


def survive_connection_flood(test, wd):
    idle = [socket.create_connection((HOST, wd.port)) for _ in range(100)]
    stop = threading.Event()
    senders = [threading.Thread(target=slow_sender, args=(wd.port, stop)) for _ in range(60)]
    try:
        [t.start() for t in senders]
        time.sleep(1.0)
        # Longer than the first-byte and read timeouts, so drops and reconnects happen.
        latencies = [call(wd.port, "VantrelWatchdog.GetStatus")[0] for _ in range(14) if not time.sleep(0.5)]
    finally:
        stop.set()
        [t.join(10) for t in senders] + [s.close() for s in idle]
    test.assertLess(max(latencies), ANSWER_S, latencies)


def cut_alias_inside_character(test, wd):
    _, reply = call(wd.port, "VantrelWatchdog.SetItem", -1, "", "script", "a" * 4094 + "\u00e9", "", "/c", "",
                    "", [], [])
    test.assertEqual(reply, {"ret": 0})
    _, status = call(wd.port, "VantrelWatchdog.GetStatus")
    test.assertEqual(status["list"][-1]["alias"], "a" * 4094)


def refuse_other_network(test, wd):
    with socket.create_connection((HOST, wd.port), timeout=ANSWER_S) as s:
        try:   # closed unread: a reset when the request bytes came first
            test.assertEqual(s.sendall(b"POST /RPC2 HTTP/1.0\r\n\r\n") or s.recv(100), b"")
        except ConnectionResetError:
            pass
    with open(wd.conf_path) as f:
        test.assertIn("--allow=10.0.0.0/8,192.168.1.7\n", f.read())


def request_during_shutdown(test, wd):
    wd.idle = socket.create_connection((HOST, wd.port))   # kept open through the shutdown
    wd.wait_log(r"forker's pid=\d+")
    stopping_since = time.monotonic()
    wd.send(signal.SIGTERM)
    wd.wait_log("catched 15")
    asked = time.monotonic()
    try:
        call(wd.port, "VantrelWatchdog.GetStatus")
    except ConnectionError:   # refused, or reset while queued for a closing port
        pass
    test.assertLess(time.monotonic() - asked, ANSWER_S, "refused or answered at once")
    test.assertEqual(wd.wait_exit(30), 0)
    test.assertLess(time.monotonic() - stopping_since, 3 + 2 * ANSWER_S + 2, "the idle client did not hold the exit")


# name: (extra option lines, attack, whether it still answers 127.0.0.1 afterwards)
CASES = {
    "5000 nested arrays": ([], refuse_body(NESTED), True),
    "billion laughs": ([], refuse_body(LAUGHS), True),
    "100 idle and 60 slow connections": ([], survive_connection_flood, True),
    "multicall of GetStatus": ([], refuse_body(MULTICALL), True),
    "alias cut inside a character": ([], cut_alias_inside_character, True),
    "--allow without 127.0.0.1": (["--allow=10.0.0.0/8,192.168.1.7", "--script=/c"], refuse_other_network, False),
    "request during shutdown": ([], request_during_shutdown, False),
}


@unittest.skipUnless(BIN, "WATCHDOG_BIN not set")
class ControlPortUnderAttack(unittest.TestCase):
    def test_supervisor_survives_every_attack(self):
        for name, (extra, attack, answers_after) in CASES.items():
            with self.subTest(name):
                wd = Watchdog(self)
                wd.add_script("VantrelElementsMixer", SLOW_TO_STOP)
                wd.write_conf(extra or wd.app_lines("elem_mixer", "c", "--autorun=1"))
                wd.start()
                wd.wait_port()
                attack(self, wd)
                if attack is not request_during_shutdown:
                    self.assertTrue(pid_alive(wd.proc.pid), "supervisor alive after the attack")
                if answers_after:
                    took, status = call(wd.port, "VantrelWatchdog.GetStatus")
                    self.assertIn("list", status)
                    self.assertLess(took, ANSWER_S)
