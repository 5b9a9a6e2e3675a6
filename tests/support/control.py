"""A raw client of the control socket."""

import dataclasses
import enum
import os
import socket
import struct

REQUEST = struct.Struct("=I128s")
RESPONSE = struct.Struct("=iIiiq")
assert REQUEST.size == 132 and RESPONSE.size == 24

# A stop may take ten seconds per node, and more on a machine under load.
TIMEOUT = 120


class Cmd(enum.IntEnum):
    START = 0
    STOP = 1
    RESTART = 2
    STATUS = 3
    DISABLE = 4
    ENABLE = 5


class Result(enum.IntEnum):
    SUCCESS = 0
    NOT_FOUND = 1
    FAILED = 2


class State(enum.IntEnum):
    STOPPED = 0
    RUNNING = 1
    RESTARTING = 2
    DISABLED = 3


@dataclasses.dataclass(frozen=True)
class Response:
    result: Result
    padding: int
    pid: int
    state: State
    start_seconds: int


def pack_request(cmd, name):
    """The 132 bytes; `name` is text or bytes."""
    raw = name.encode() if isinstance(name, str) else name
    return REQUEST.pack(cmd, raw)


def unpack_response(data):
    result, padding, pid, state, start_seconds = RESPONSE.unpack(data)
    return Response(Result(result), padding, pid, State(state), start_seconds)


def connect(directory):
    """A connection to the socket in `directory`, whose path can be of any length."""
    directory_fd = os.open(directory, os.O_PATH)
    try:
        client = socket.socket(socket.AF_UNIX, socket.SOCK_STREAM)
        # Not settimeout(): a non-blocking connect fails while the backlog is
        # full instead of waiting.
        for option in (socket.SO_SNDTIMEO, socket.SO_RCVTIMEO):
            timeval = struct.pack("=qq", TIMEOUT, 0)
            client.setsockopt(socket.SOL_SOCKET, option, timeval)
        client.connect(f"/proc/self/fd/{directory_fd}/vornlaunch.sock")
        return client
    finally:
        os.close(directory_fd)


def read_exactly(client, count):
    """`count` bytes, or fewer if the stream ends."""
    data = b""
    while len(data) < count:
        piece = client.recv(count - len(data))
        if not piece:
            break
        data += piece
    return data


def read_until_end(client):
    """Everything up to the end of the stream, which for a connection closed
    with unread data in it is a reset."""
    data = b""
    try:
        while piece := client.recv(4096):
            data += piece
    except ConnectionResetError:
        pass
    return data


def exchange(directory, cmd, name):
    """One request and its reply, as a well-behaved client exchanges them."""
    with connect(directory) as client:
        client.sendall(pack_request(cmd, name))
        return unpack_response(read_exactly(client, RESPONSE.size))
