"""A terminal in the machine: a window of tmux with a program in it."""

import shutil
import time

import pytest

from support.waiting import PATIENCE

SOCKET = "/tmp/tmux"
PAUSE = 0.03  # between two reads, each of which starts a process


class Terminal:
    """A window of tmux in which `command` runs, with methods to type and to read the
    screen. The machine must have been started."""

    def __init__(self, machine, *command, columns=80, rows=24, environment=None):
        if shutil.which("tmux") is None:
            pytest.skip("tmux is missing")
        self.machine = machine
        self._environment = {"HOME": "/tmp", "TERM": "xterm",
                             **(environment or {})}
        self.tmux("-f", "/dev/null", "new-session", "-d", "-x", str(columns),
                  "-y", str(rows), "--", *command)

    def tmux(self, *arguments):
        """Runs a command of tmux; returns what it prints."""
        done = self.machine.execute("tmux", "-S", SOCKET, *arguments,
                                    environment=self._environment)
        assert done.returncode == 0, done.stderr
        return done.stdout

    def type(self, text):
        """Types this text unchanged."""
        self.tmux("send-keys", "-l", "--", text)

    def press(self, *keys):
        """Presses keys by their names: Enter, Tab, Up, C-c."""
        self.tmux("send-keys", *keys)

    def run(self, line):
        """Types a line of the shell."""
        self.type(line)
        self.press("Enter")

    def resize(self, columns, rows):
        self.tmux("resize-window", "-x", str(columns), "-y", str(rows))

    def get(self, variable):
        """A variable of tmux's about the window."""
        return self.tmux("display-message", "-p", f"#{{{variable}}}").strip()

    def is_closed(self):
        """Whether the program has exited and the window is closed."""
        done = self.machine.execute("tmux", "-S", SOCKET, "has-session")
        return done.returncode != 0

    def screen(self, *options):
        """The lines of the screen, without the blanks at their ends."""
        text = self.tmux("capture-pane", "-p", *options)
        return [line.rstrip() for line in text.split("\n")[:-1]]

    def wait_for(self, condition, what):
        """Returns the first screen of which the condition is true."""
        deadline = time.monotonic() + PATIENCE
        while True:
            screen = self.screen()
            if condition(screen):
                return screen
            if time.monotonic() > deadline:
                shown = "\n".join(screen)
                raise AssertionError(f"not seen: {what}; but:\n{shown}")
            time.sleep(PAUSE)

    def wait_for_text(self, text):
        """Returns the first screen with this text in one of its lines."""
        return self.wait_for(lambda screen: any(text in line for line in screen),
                             repr(text))
