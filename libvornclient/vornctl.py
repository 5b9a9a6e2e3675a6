"""Controls a running vornlaunch: one call per command, no dependencies.

    import vornctl

    launcher = vornctl.Launcher()
    if launcher.status("camera").state is vornctl.State.STOPPED:
        launcher.start("camera")

Every call opens a connection of its own. Errors are exceptions derived from
vornctl.Error; the class says whether the request can have had an effect. A program
with several threads must block SIGTSTP itself: a client that is suspended between
connecting and sending blocks the launcher, and a call can block only the signals
of its own thread.

Python 3.9 or later, Linux. The file can be copied next to a program that uses it.
"""

import dataclasses
import enum
import os
import signal
import socket
import stat
import struct
import time

__all__ = [
    "Error", "Failed", "InvalidName", "Launcher", "NoLauncher", "NotFound",
    "NotSent", "ProtocolError", "State", "Status", "UnknownOutcome", "Untrusted",
]

SOCKET = "/tmp/vornlaunch/vornlaunch.sock"

_REQUEST = struct.Struct("=I128s")  # command, name ending with a NUL
_REPLY = struct.Struct("=i4xiiq")  # result, pid, state, seconds since 1970
_CREDENTIALS = struct.Struct("=iII")  # pid, uid, gid
_START, _STOP, _RESTART, _STATUS, _DISABLE, _ENABLE = range(6)
_SUCCESS, _NOT_FOUND, _FAILED = range(3)
_MAY_TAKE_EFFECT = "; the request was delivered and may still take effect"


class Error(Exception):
    """Any failure of a call."""


class InvalidName(Error, ValueError):
    """Not a name that can be sent: over 127 bytes, with a NUL in it, or one that
    cannot be encoded."""


class NoLauncher(Error):
    """Nobody listens, or we may not connect. Nothing was sent."""


class Untrusted(Error):
    """The listener, or a symbolic link at the socket's path, belongs to another
    user than root and ourselves. Nothing was sent."""


class NotSent(Error):
    """Given up before the request was sent. It has no effect."""


class NotFound(Error):
    """The launcher has no node of that name."""


class Failed(Error):
    """The launcher could not do it; its log says why."""


class UnknownOutcome(Error):
    """Sent, but no reply came: it may have taken effect, or still do so."""


class ProtocolError(UnknownOutcome):
    """The reply makes no sense."""


class State(enum.IntEnum):
    """What the launcher wants of a node and knows of its process."""

    STOPPED = 0
    RUNNING = 1
    RESTARTING = 2
    DISABLED = 3


@dataclasses.dataclass(frozen=True)
class Status:
    """How a node is: its state, the pid of its process in the launcher's pid
    namespace or 0, and its last start in seconds since 1970 or 0."""

    state: State
    pid: int
    start_seconds: int


class _Connection(socket.socket):
    """To the launcher. Knows whether the request was sent, whatever has been
    raised since."""

    is_delivered = False


class Launcher:
    """A launcher on this machine. `connect_limit` and `reply_limit` are in
    seconds: the launcher serves one request at a time, and a stop lasts up to
    10 s and more. A launcher, or a symbolic link to its socket, of another user
    than root and ourselves is refused unless `trust_any_user` is set, since any
    user can create the socket's directory."""

    def __init__(self, path=SOCKET, *, connect_limit=30.0, reply_limit=300.0,
                 trust_any_user=False):
        self.path = path
        self.connect_limit = connect_limit
        self.reply_limit = reply_limit
        self.trust_any_user = trust_any_user

    def start(self, name):
        """Starts the node; a running one is left alone."""
        self._request(_START, name)

    def stop(self, name):
        """Stops the node; it stays down. Restarts the running nodes that it
        requires."""
        self._request(_STOP, name)

    def restart(self, name):
        """Stops the node if it runs, and starts it."""
        self._request(_RESTART, name)

    def disable(self, name):
        """Stops the node and refuses its starts from then on. Failed is about
        the stop; the node is disabled in any case."""
        self._request(_DISABLE, name)

    def enable(self, name):
        """Allows starts again; starts nothing."""
        self._request(_ENABLE, name)

    def status(self, name):
        """The Status of the node."""
        pid, state, start_seconds = self._request(_STATUS, name)
        if state not in list(State) or pid < 0 or start_seconds < 0:
            raise ProtocolError(
                f"the reply has the state {state}, the pid {pid} and the start "
                f"{start_seconds}"
            )
        return Status(State(state), pid, start_seconds)

    def _request(self, command, name):
        try:
            raw = os.fsencode(name)
        except UnicodeEncodeError as error:
            raise InvalidName(f"a node's name cannot be encoded: {error}") from error
        if len(raw) > 127:
            raise InvalidName(
                f"a node's name has at most 127 bytes; this one has {len(raw)}"
            )
        if b"\0" in raw:
            raise InvalidName("a node's name has no NUL byte")
        request = _REQUEST.pack(command, raw)
        with _Connection(socket.AF_UNIX, socket.SOCK_STREAM) as client:
            client.setblocking(False)
            try:
                self._deliver(client, request)
                reply = self._read_reply(client)
            except KeyboardInterrupt:
                if not client.is_delivered:
                    raise
                raise KeyboardInterrupt(
                    "given up waiting for the reply" + _MAY_TAKE_EFFECT
                ) from None
        result, pid, state, start_seconds = _REPLY.unpack(reply)
        if result == _NOT_FOUND:
            raise NotFound(f"no node {name!r}")
        if result == _FAILED:
            raise Failed(f"{name!r}: see the launcher's log")
        if result != _SUCCESS:
            raise ProtocolError(f"unknown result {result}" + _MAY_TAKE_EFFECT)
        return pid, state, start_seconds

    def _deliver(self, client, request):
        deadline = time.monotonic() + self.connect_limit
        pause = 0.001
        while not self._connect_and_send(client, request):
            left = deadline - time.monotonic()
            if left <= 0:
                raise NotSent(
                    "the launcher is busy: it accepted no connection within "
                    f"{self.connect_limit:g} s; nothing was sent"
                )
            time.sleep(min(pause, left))
            pause = min(2 * pause, 0.1)

    def _connect_and_send(self, client, request):
        """One try; false if others wait before us, as many as may wait."""
        self._check_path()
        # The launcher accepts a connection and reads, without a time limit.
        # If this process were suspended here, the launcher would be blocked.
        before = signal.pthread_sigmask(signal.SIG_BLOCK, ())
        try:
            # A handler can raise an exception here, after the signals are blocked.
            signal.pthread_sigmask(signal.SIG_BLOCK, signal.valid_signals())
            client.connect(self.path)
            self._check_user(client)
            if client.send(request, socket.MSG_NOSIGNAL) != len(request):
                raise NoLauncher("the request could not be sent in one piece")
            client.is_delivered = True
            return True
        except BlockingIOError:
            return False
        except OSError as error:
            raise NoLauncher(f"{self.path}: {error.strerror or error}") from error
        finally:
            signal.pthread_sigmask(signal.SIG_SETMASK, before)

    def _is_trusted(self, uid):
        return self.trust_any_user or uid in (0, os.geteuid())

    def _check_path(self):
        # Another user's symbolic link could lead to a socket of another program,
        # which _check_user() accepts if that program runs as root.
        try:
            status = os.lstat(self.path)
        except (OSError, ValueError):  # an abstract address contains a NUL
            return  # connect() reports a path that cannot be examined
        if stat.S_ISLNK(status.st_mode) and not self._is_trusted(status.st_uid):
            raise Untrusted(
                f"{self.path} is a symbolic link that belongs to user "
                f"{status.st_uid}, neither root nor you; remove it, or use the path "
                "of the launcher's own socket"
            )

    def _check_user(self, client):
        credentials = client.getsockopt(
            socket.SOL_SOCKET, socket.SO_PEERCRED, _CREDENTIALS.size
        )
        uid = _CREDENTIALS.unpack(credentials)[1]
        if not self._is_trusted(uid):
            raise Untrusted(
                f"the launcher on {self.path} belongs to user {uid}, neither root "
                "nor you"
            )

    def _read_reply(self, client):
        """Exactly 24 bytes: processes that the launcher starts meanwhile keep the
        connection open for as long as they live."""
        deadline = time.monotonic() + self.reply_limit
        reply = b""
        while len(reply) < _REPLY.size:
            left = deadline - time.monotonic()
            if left <= 0:
                raise UnknownOutcome(
                    f"no reply within {self.reply_limit:g} s" + _MAY_TAKE_EFFECT
                )
            client.settimeout(left)
            try:
                piece = client.recv(_REPLY.size - len(reply))
            except socket.timeout:
                continue
            except OSError as error:
                raise UnknownOutcome(
                    f"no reply: {error.strerror}" + _MAY_TAKE_EFFECT
                ) from error
            if not piece and reply:
                raise ProtocolError(
                    f"the reply ended after {len(reply)} of 24 bytes"
                    + _MAY_TAKE_EFFECT
                )
            if not piece:
                raise UnknownOutcome(
                    "the launcher hung up without a reply" + _MAY_TAKE_EFFECT
                )
            reply += piece
        return reply
