"""Runs the commands of documents: types them into a shell of the machine as a reader
would, and compares the output with the document.

A fenced block of these languages is for the reader's shell:

    console   lines "$ COMMAND", continued by lines "> MORE", each followed by
              what it prints. A line "..." matches any number of lines
    sh        commands that succeed, without what they print
"""

import dataclasses
import errno
import fcntl
import os
import pathlib
import pty
import re
import select
import struct
import subprocess
import termios
import time

from support.terminal import Terminal
from support.waiting import PATIENCE, eventually

COLUMNS = 100

# Reads commands from the descriptor $1, a NUL after each, and prints the status of each
# between two marks. A command sees the status of the one before it. Background jobs
# have process groups of their own, as in a terminal.
_READ_AND_RUN = r"""
if [ "$1" -ne 9 ]; then
  exec 9<&"$1"
  eval "exec $1<&-"
fi
cd
set -m
last=0
while IFS= read -r -d "" command <&9; do
  eval "(exit $last)"$'\n'"$command" 9<&-
  last=$?
  printf '\036%d\036' "$last"
done
"""
_MARKED_STATUS = re.compile("\x1e(\\d+)\x1e")

# The reader's home directory in documents.
SHOWN_HOME = "/home/you"

# A reader types so slowly that a launcher is running before the next command.
_STARTS_LAUNCHER = re.compile(r"^(\w+=\S+ )?vornlaunch .*&$", re.M)
_WAIT_FOR_LAUNCHER = r"""
while kill -0 $! && ! grep -q ' 00010000 .*/vornlaunch.sock$' /proc/net/unix; do
  sleep 0.05
done 2>/dev/null
"""

# The shell's messages about background jobs, which documents omit because the time at
# which they appear varies.
_JOB_NOTICE = re.compile(r"^(\[\d+\]|bash: line \d+: +\d+ ).*\n", re.M)

_WHOLE_SCREEN = re.compile(r"(\S*/)?vornctl top\b")
_CONTROL_SEQUENCE = re.compile(r"\x1b\[[0-9;?]*[A-Za-z]")


@dataclasses.dataclass(frozen=True)
class Block:
    """A fenced block; `line` is the number of the first line in it."""

    path: pathlib.Path
    line: int
    language: str
    text: str

    @property
    def place(self):
        return f"{self.path}:{self.line}"


@dataclasses.dataclass(frozen=True)
class Command:
    """A command of a block. `output` is the text below it in a `console` block; None
    for a `sh` block, all of which must succeed."""

    place: str
    text: str
    output: "list[str] | None"


def blocks(path, *languages):
    """The fenced blocks of these languages in a document, or all."""
    text = path.read_text(encoding="utf-8")
    found = re.finditer(r"^( *)```(\S*)\n(.*?)^\1```$", text, re.M | re.S)
    return [
        Block(path, text.count("\n", 0, match.start(3)) + 1, match[2],
              re.sub(f"^{match[1]}", "", match[3], flags=re.M))
        for match in found if not languages or match[2] in languages
    ]


def commands(block):
    """The commands of a block for the shell."""
    if block.language == "sh":
        return [Command(block.place, block.text, None)]
    found = []
    for i, line in enumerate(block.text.splitlines()):
        if line.startswith("$ "):
            place = f"{block.path}:{block.line + i}"
            found.append(Command(place, line[2:], []))
        elif not found:
            raise AssertionError(f"{block.place}: does not begin with a command")
        elif line.startswith(">") and not found[-1].output:
            text = found[-1].text + "\n" + line[2:]
            found[-1] = dataclasses.replace(found[-1], text=text)
        else:
            found[-1].output.append(line)
    return found


# Text that differs from run to run, and its replacement. The width of a column is that
# of its widest value.
_DIFFERING = [
    (r"\d{4}-\d\d-\d\d", "DATE"),
    (r"\d\d:\d\d:\d\d(\.\d+Z?)?", "TIME"),
    (r"\b\d{4,}\b", "NUMBER"),                     # pids
    (r"\b(\d+(\.\d+)?(ms|s|m|h|d)( (?=\d))?)+(?=\W|$)", "DURATION"),
    (r"\b\d+(\.\d+)?[KMG]\b", "SIZE"),
    (r"(?<= )\d+\.\d(?= )", "PERCENT"),
    (r"(?<=\.cpp:)\d+", "LINE"),
    (r" {2,}", "  "),
]


def without_differences(lines):
    """The lines without text that differs from run to run."""
    text = "\n".join(line.rstrip() for line in lines)
    for pattern, word in _DIFFERING:
        text = re.sub(pattern, word, text)
    return text.split("\n") if text else []


def agree(shown, printed):
    """Whether the output of a command agrees with the document."""
    shown, printed = without_differences(shown), without_differences(printed)
    pattern = "".join(
        r"(?:.*\n)*" if line == "..." else re.escape(line) + r"\n" for line in shown
    )
    return re.fullmatch(pattern, "".join(line + "\n" for line in printed)) is not None


class Shell:
    """A bash in the machine, which must have been started: a terminal, one
    directory and one set of variables for all commands that it is given."""

    def __init__(self, machine, directory, environment):
        self._machine = machine
        self._directory = directory
        self._environment = {"HOME": directory, "NO_COLOR": "1", "TERM": "xterm",
                             **environment}
        self._terminal, other_end = pty.openpty()
        fcntl.ioctl(other_end, termios.TIOCSWINSZ,
                    struct.pack("HHHH", 50, COLUMNS, 0, 0))
        reading_end, self._commands = os.pipe()
        self._bash = subprocess.Popen(
            machine.enter("bash", "--norc", "-c", _READ_AND_RUN, "bash",
                          str(reading_end)),
            stdin=other_end, stdout=other_end, stderr=other_end,
            pass_fds=[reading_end],
            env=machine.environment(self._environment),
        )
        os.close(reading_end)
        os.close(other_end)

    def close(self):
        """Closes the terminal. Programs in it run until the machine is shut down."""
        self._bash.kill()
        self._bash.wait()
        os.close(self._commands)
        os.close(self._terminal)

    def run(self, command):
        """Runs a command to its end, and waits for a launcher that it starts. Returns
        the exit status and the printed lines."""
        status, text = self._run(command)
        if _STARTS_LAUNCHER.search(command):
            self._run(_WAIT_FOR_LAUNCHER)
        text = _CONTROL_SEQUENCE.sub("", text.replace("\r\n", "\n"))
        text = _JOB_NOTICE.sub("", text.replace(self._directory, SHOWN_HOME))
        # Of an overwritten line, only the last text remains.
        lines = text.removesuffix("\n").split("\n") if text else []
        return status, [line.split("\r")[-1] for line in lines]

    def _run(self, command):
        os.write(self._commands, command.encode() + b"\0")
        text = self._read_until_status(command)
        return int(_MARKED_STATUS.search(text)[1]), _MARKED_STATUS.sub("", text)

    def _read_until_status(self, command):
        text = b""
        deadline = time.monotonic() + PATIENCE
        while not _MARKED_STATUS.search(text.decode(errors="replace")):
            left = deadline - time.monotonic()
            ready, _, _ = select.select([self._terminal], [], [], max(left, 0))
            if not ready:
                raise AssertionError(f"{command!r} has not ended: {text!r}")
            try:
                text += os.read(self._terminal, 4096)
            except OSError as error:
                if error.errno != errno.EIO:
                    raise
                raise AssertionError(f"{command!r} ended the shell") from None
        return text.decode(errors="replace")

    def shows(self, command, screen):
        """Runs a full-screen command until the terminal agrees with `screen`."""
        directory = self._run("pwd")[1].strip()
        terminal = Terminal(
            self._machine, "sh", "-c", f"cd {directory} && exec {command}",
            columns=COLUMNS, rows=len(screen), environment=self._environment,
        )

        def is_shown(lines):
            text = "\n".join(lines).replace(self._directory, SHOWN_HOME)
            return agree(screen, text.split("\n"))

        terminal.wait_for(is_shown, "\n".join(screen))
        terminal.press("q")
        eventually(terminal.is_closed, f"the key q ends {command!r}")

    def type(self, text, place="typed"):
        """Runs commands, each of which must succeed."""
        status, printed = self.run(
            f"failed=\ntrap failed=1 ERR\n{text}\ntrap - ERR\ntest -z \"$failed\"")
        said = "\n".join([f"{place}: {text}", *printed])
        assert status == 0, f"{said}\nstatus {status}"

    def follow(self, path, *languages):
        """Types the commands of the document's blocks in these languages, in their
        order."""
        for block in blocks(path, *languages):
            for command in commands(block):
                self.perform(command)

    def perform(self, command):
        """Types one command, and compares its output."""
        if command.output is None:
            self.type(command.text, command.place)
        elif command.output and _WHOLE_SCREEN.match(command.text):
            self.shows(command.text, command.output)
        else:
            self._compare(command)

    def _compare(self, command):
        _, printed = self.run(command.text)
        said = "\n".join([f"{command.place}: {command.text}", *printed])
        assert agree(command.output, printed), said
