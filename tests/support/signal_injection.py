"""Runs vornctl in a machine and signals it at every system call.

    signal_injection.py stop SIGNAL LAUNCHER COMMAND [ARGUMENT...]
    signal_injection.py end SIGNAL STEP COMMAND [ARGUMENT...]

With "stop" the signal arrives at each call of one run. Each time it has stopped
vornctl, the launcher must answer another client; then the run continues. SIGSTOP, which
cannot be blocked, also stops vornctl between connect and send: there the launcher must
wait for it.

With "end" the signal arrives once in each run, at each STEP-th call from the first
socket() on. After the run, the launcher must answer.

Prints the results as a JSON document.
"""

import collections
import json
import os
import re
import signal
import socket
import struct
import subprocess
import sys
import time

SOCKET = "/tmp/vornlaunch/vornlaunch.sock"
TRACE = "/tmp/signal_injection.trace"
PATIENCE = 60


def ask():
    """Sends a status request. A blocked launcher never answers."""
    with socket.socket(socket.AF_UNIX, socket.SOCK_STREAM) as client:
        client.settimeout(PATIENCE)
        client.connect(SOCKET)
        client.sendall(struct.pack("=I128s", 3, b"another client"))
        assert len(client.recv(24, socket.MSG_WAITALL)) == 24


def wait_for(condition):
    deadline = time.monotonic() + PATIENCE
    while not condition():
        assert time.monotonic() < deadline, "it does not come"
        time.sleep(0.001)


def traced(command, options):
    """The command under strace, in a process group of its own that is not orphaned: in
    an orphaned one, SIGTSTP has no effect."""
    with open(TRACE, "w", encoding="ascii"):
        pass  # strace creates it later
    return subprocess.Popen(
        ["strace", "-o", TRACE, *options, *command], process_group=0,
        stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.PIPE,
        encoding="utf-8")


def read_trace():
    with open(TRACE, encoding="utf-8", errors="replace") as file:
        return file.read().splitlines()


def name_of(line):
    """The name of the call in a line of the trace, or None."""
    match = re.match(r"(\w+)\(", line)
    return match and match[1]


def is_in_window(lines):
    """Whether the last call is one between connecting and sending."""
    for line in reversed(lines):
        if name_of(line) in ("sendto", "close", "socket"):
            return None
        if name_of(line) == "connect":
            return line.endswith(" = 0") or " = 0 " in line
    return False


def stop_everywhere(number, launcher, command):
    name = signal.Signals(number).name
    # A stopped poll() continues as restart_syscall(), which must not be stopped again
    # and again.
    process = traced(command, ["-e", f"inject=!restart_syscall:signal={name}"])
    children = f"/proc/{process.pid}/task/{process.pid}/children"
    stops = 0
    blocked = []  # the calls at which the launcher waited
    mark = f"--- stopped by {name} ---"
    while True:
        wait_for(lambda: process.poll() is not None
                 or sum(mark in line for line in read_trace()) > stops)
        if process.poll() is not None:
            break
        stops += 1
        calls = [line for line in read_trace() if name_of(line)]
        if number == signal.SIGSTOP and is_in_window(calls):
            def is_held():
                with open(f"/proc/{launcher}/wchan", encoding="ascii") as wchan:
                    return "unix_stream" in wchan.read()
            wait_for(is_held)
            blocked.append(name_of(calls[-1]))
        else:
            ask()
        with open(children, encoding="ascii") as file:
            os.kill(int(file.read().split()[0]), signal.SIGCONT)
    out, errors = process.communicate()
    return {"status": process.returncode, "out": out, "errors": errors,
            "stops": stops, "blocked": blocked}


def came_as_meant(name):
    """Whether the signal arrived after the first socket(). The calls of two runs can
    differ, so that it can arrive earlier or not at all."""
    has_socket = False
    for line in read_trace():
        has_socket = has_socket or name_of(line) == "socket"
        if line.startswith((f"--- {name} ", f"+++ killed by {name} ")):
            return has_socket
    return False


def end_everywhere(number, step, command):
    name = signal.Signals(number).name
    # One run without a signal, to find the calls.
    traced(command, []).communicate(timeout=PATIENCE)
    counts = collections.Counter()
    points = []
    for line in read_trace():
        call = name_of(line)
        if call is None or call.startswith("exit"):
            continue
        counts[call] += 1
        if counts["socket"]:
            points.append((call, counts[call]))
    statuses = collections.Counter()
    for call, count in points[::step]:
        process = traced(command, [
            "-e", f"trace=socket,{call}",
            "-e", f"inject={call}:signal={name}:when={count}"])
        _, errors = process.communicate(timeout=PATIENCE)
        ask()
        if not came_as_meant(name):
            continue
        statuses[process.returncode] += 1
        if process.returncode in (6, 7):
            asked = "; nothing was changed"
            expected = {
                6: ("before the request was sent", asked),
                7: ("the request was delivered and may still take effect", asked)}
            assert any(text in errors for text in expected[process.returncode])
    return {"points": len(points[::step]), "statuses": statuses}


def main():
    how, signal_name, argument, *command = sys.argv[1:]
    number = signal.Signals[signal_name]
    if how == "stop":
        found = stop_everywhere(number, int(argument), command)
    else:
        found = end_everywhere(number, int(argument), command)
    print(json.dumps(found))


if __name__ == "__main__":
    main()
