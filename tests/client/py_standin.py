#!/usr/bin/env python3
"""A stand-in for the suite's services built on Python's own XML-RPC server,
so that the client library is also checked against an implementation that
shares no code with it.

Usage: py_standin.py <port-file>. Listens on 127.0.0.1 only, writes its port
into <port-file> once it accepts calls, and exits on SIGTERM or after a fixed
lifetime, whichever comes first.
"""
import os
import signal
import sys
import threading
from xmlrpc.client import Binary
from xmlrpc.server import SimpleXMLRPCRequestHandler, SimpleXMLRPCServer

LIFETIME_SECONDS = 60


class QuietHandler(SimpleXMLRPCRequestHandler):
    rpc_paths = ("/RPC2", "/")

    def log_message(self, *args):
        pass


def get_status():
    return {
        "result": 1, "status": 2, "name": "clip \u00e9", "cookie": "<&>",
        "loop": 1, "clip_length": 100, "clip_in": 10, "clip_dur": 80,
        "clip_pos": 40, "clip_start": 5, "clip_idx": 3, "playlist_gen": 7,
        "playlist_dur": 900, "playlist_pos": 450, "playlist_count": 4,
        "playlist_speed": -2.5, "rec_paused": 0, "tc_frames": 25, "tc_src": 1,
    }


def playlist_append(name, in_, dur, overlay_name, overlay_pos, cookie):
    ok = (isinstance(name, str) and isinstance(in_, int) and isinstance(dur, int)
          and (overlay_name, overlay_pos, cookie) == ("", "", ""))
    return {"result": in_ + dur if ok else -22}


def insert_template(at, name, p1, p2, items, variables, last):
    ok = (isinstance(items, list) and isinstance(variables, dict)
          and all(isinstance(v, str) for v in variables.values()))
    return {"result": len(variables) * 10 + len(items) if ok else -22}


def list_templates():
    return {"result": 0, "list": [["first"], ["second"]]}


def template_get(name):
    return {"result": 0, "list": [[Binary(b"<layer name='" + name.encode() + b"'/>")]]}


def template_set(name, layers):
    ok = all(isinstance(row, list) and len(row) == 1 and isinstance(row[0], Binary)
             for row in layers)
    return {"result": sum(len(row[0].data) for row in layers) if ok else -22}


def settings_get():
    return {"result": 0, "list": [{"name": "keyer", "value": "2"},
                                  {"name": "enc", "value": "h264"}]}


def main():
    port_file = sys.argv[1]
    server = SimpleXMLRPCServer(("127.0.0.1", 0), requestHandler=QuietHandler,
                                logRequests=False, allow_none=False)
    server.register_function(get_status, "VantrelIO.GetStatus")
    server.register_function(playlist_append, "VantrelIO.PlaylistAppend")
    server.register_function(insert_template, "VantrelIO.PlaylistInsertTemplate")
    server.register_function(list_templates, "VantrelLib.LibListTemplates")
    server.register_function(template_get, "VantrelLib.LibTemplateGet")
    server.register_function(template_set, "VantrelLib.LibTemplateSet")
    server.register_function(settings_get, "VantrelIO.SettingsGet")

    def stop(*_):
        threading.Thread(target=server.shutdown, daemon=True).start()

    signal.signal(signal.SIGTERM, stop)
    threading.Timer(LIFETIME_SECONDS, stop).start()

    tmp = port_file + ".tmp"
    with open(tmp, "w") as f:
        f.write(str(server.server_address[1]))
    os.rename(tmp, port_file)   # the reader never sees a half-written port
    try:
        server.serve_forever(poll_interval=0.1)
    finally:
        server.server_close()
    os._exit(0)   # do not wait for the lifetime timer


if __name__ == "__main__":
    main()
