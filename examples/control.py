#!/usr/bin/env python3
"""Controls one node of a running launcher.

usage: control.py start|stop|restart|status|disable|enable NODE

Exit status: 0 success, 1 the operation failed (the launcher's log has the reason),
2 wrong usage, 3 no such node, 4 no launcher or no reply.
"""

import os
import socket
import struct
import sys
import time

SOCKET = "/tmp/vornlaunch/vornlaunch.sock"
COMMANDS = ("start", "stop", "restart", "status", "disable", "enable")
STATES = ("stopped", "running", "restarting", "disabled")
REQUEST = struct.Struct("=I128s")  # command, name ending with a NUL
REPLY = struct.Struct("=i4xiiq")  # result, pid, state, seconds since 1970
PATIENCE = 300  # seconds; a stop can take more than ten


def exchange(request):
    """Sends the request in one piece and returns the reply's bytes."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
        limit = struct.pack("@ll", PATIENCE, 0)
        client.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, limit)
        client.setsockopt(socket.SOL_SOCKET, socket.SO_RCVTIMEO, limit)
        client.connect(SOCKET)
        client.send(request)
        reply = b""
        # Not until the end of the stream: a started node keeps it open.
        while len(reply) < REPLY.size:
            piece = client.recv(REPLY.size - len(reply))
            if not piece:
                raise ConnectionError("closed without a reply")
            reply += piece
        return reply


def main(arguments):
    if len(arguments) != 2 or arguments[0] not in COMMANDS:
        print(__doc__.split("\n\n")[1], file=sys.stderr)
        return 2
    command, node = arguments
    name = os.fsencode(node)
    if len(name) > 127:
        return fail(2, "a node's name has at most 127 bytes")
    try:
        reply = exchange(REQUEST.pack(COMMANDS.index(command), name))
    except BlockingIOError:
        return fail(4, f"no answer from the launcher within {PATIENCE} s")
    except OSError as error:
        return fail(4, f"cannot talk to the launcher at {SOCKET}: {error}")
    result, pid, state, since = REPLY.unpack(reply)
    if result == 1:
        return fail(3, f"{node}: no such node")
    if result != 0:
        return fail(1, f"{node}: {command} failed, see the launcher's log")
    if command != "status":
        print(f"{node}: {command} done")
        return 0
    started = time.strftime("%F %T", time.localtime(since)) if since else "never"
    print(f"{node}: {STATES[state]}, pid {pid}, last started {started}")
    return 0


def fail(status, text):
    print(f"control.py: {text}", file=sys.stderr)
    return status


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
