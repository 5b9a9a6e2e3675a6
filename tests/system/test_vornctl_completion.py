"""Tab completion of vornctl, in the shells themselves."""

import pathlib
import re
import shutil
import signal

import pytest

from support.control import State
from support.blocking import held
from support.terminal import Terminal
from support.vornctl import VORNCTL

pytestmark = pytest.mark.plain  # it tests the scripts of the shells

SCRIPTS = pathlib.Path(__file__).resolve().parents[2] / "tools/vornctl/completion"
BASH_COMPLETION = "/usr/share/bash-completion/bash_completion"
PROMPT = "ready> "
# How to load the completion in each shell, and where the shell searches for it.
BASH = f"PS1='{PROMPT}'; PATH=/tmp/install/bin:$PATH; bind 'set bell-style none'\n"
ZSH = (f"PS1='{PROMPT}'; PATH=/tmp/install/bin:$PATH; setopt no_beep\n"
       "fpath=(/tmp/functions $fpath); autoload -U compinit; compinit -u -D\n")
FISH = (f"function fish_prompt; echo -n '{PROMPT}'; end; set fish_greeting\n"
        "set -g fish_autosuggestion_enabled 0; fish_add_path -P /tmp/install/bin\n")
WAYS = {
    "bash": BASH + "source <(vornctl completion bash)\n",
    "bash-completion": f". {BASH_COMPLETION}\n" + BASH,
    "zsh": ZSH + "source <(vornctl completion zsh)\n",
    "zsh-fpath": ZSH,
    "fish": FISH + "vornctl completion fish | source\n",
    "fish-autoload": FISH,
}
SHELLS = ["bash", "zsh", "fish"]
# Names with all special characters of shells, each with a different first letter.
NAMES = [
    "a space", "b'quote", 'c"quotes"', "d$HOME", "e*", "f?[x]", "g;h", "i\\j",
    "k:l", "m@n", "o=p", "q&r|s", "t{u,v}", "w!x", "y(z)", "A~", "B#",
    "E<F>", "G--h", "日本語", "J^K", "Lé", "M%", "N:O:P", "Q=R@S:T",
    "C`D`",  # the last: bash itself completes no word after it
]


class Shell(Terminal):
    """A terminal with a shell whose completion of vornctl is loaded in this way."""

    def __init__(self, machine, way):
        self.name = way.split("-")[0]
        if shutil.which(self.name) is None:
            pytest.skip(f"{self.name} is missing")
        if way == "bash-completion" and not pathlib.Path(BASH_COMPLETION).exists():
            pytest.skip("bash-completion is missing")
        machine.file("completions/completions/vornctl",
                     (SCRIPTS / "vornctl.bash").read_bytes())
        machine.file("functions/_vornctl", (SCRIPTS / "_vornctl").read_bytes())
        machine.file(".config/fish/completions/vornctl.fish",
                     (SCRIPTS / "vornctl.fish").read_bytes())
        # Without it, fish reads all manual pages meanwhile.
        (machine.tmp / ".local/share/fish/generated_completions").mkdir(
            parents=True, exist_ok=True)
        for file in "bashrc", ".zshrc", ".config/fish/config.fish":
            machine.file(file, WAYS[way])
        command = {"bash": ["bash", "--rcfile", "/tmp/bashrc"],
                   "zsh": ["zsh", "-o", "no_global_rcs"], "fish": ["fish"]}[self.name]
        super().__init__(
            machine, *command, "-i", columns=120, rows=80,
            environment={"ZDOTDIR": "/tmp", "INPUTRC": "/dev/null",
                         "BASH_COMPLETION_USER_DIR": "/tmp/completions"})
        self.wait_for(lambda screen: screen[0] == PROMPT.rstrip(), "a prompt")

    def wait_for_prompt(self):
        """Waits for an empty line: while a command runs, the terminal itself shows what
        is typed, and the shell may show it again."""
        self.wait_for(lambda screen: self.line(screen) == "", "a prompt")

    def complete(self, line, completed):
        """Types `line`, presses the tab key, and waits for the line `completed`,
        to which zsh may append a = or a comma."""
        self.type(line + "\t")
        possible = [completed, *[completed + mark for mark in "=,"]]
        self.wait_for(lambda screen: self.line(screen) in possible, completed)

    def _complete_and_type_x(self, line):
        """Types a line, the tab key and X, and returns the screen with the X, which the
        shell reads after the completion."""
        self.type(line)
        self.press("Tab", "X")
        return self.wait_for(lambda screen: self.typed(screen).endswith("X"), "an X")

    def completes_to_nothing(self, line):
        """Whether the tab key neither changes this line nor shows words."""
        screen = self._complete_and_type_x(line)
        return [text for text in screen if text] == [PROMPT + line + "X"]

    def completed(self, line):
        """Types a line and the tab key, and returns the completed line without trailing
        blanks."""
        completed = self.typed(self._complete_and_type_x(line))[:-1].rstrip()
        self.press("BSpace")
        self.wait_for(lambda screen: self.typed(screen) == completed, completed)
        return completed

    def offers(self, line, words):
        """The words shown below this line after the tab key, once these are there."""
        self.type(line)
        # bash lists the words at the second key.
        self.press(*["Tab"] * (2 if self.name == "bash" else 1))
        screen = self.wait_for(lambda screen: words <= self._listed(screen), words)
        return self._listed(screen)

    @staticmethod
    def _listed(screen):
        # fish shows descriptions too, in parentheses.
        text = re.sub(r"\([^)]*\)", "", "\n".join(screen[1:]))
        return set(text.partition(PROMPT)[0].split())

    @staticmethod
    def line(screen):
        """The text after the last prompt."""
        lines = [line for line in screen if line.startswith(PROMPT.rstrip())]
        return lines[-1][len(PROMPT):] if lines else ""

    @staticmethod
    def typed(screen):
        """The text after the last prompt, which can have several lines."""
        return "\n".join(screen).rpartition(PROMPT)[2].rstrip()


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with four nodes that do not run."""
    node = {"path": machine.script("stay", "exec sleep 1000"), "disabled": True}
    return machine.start(
        {"vornnode": dict.fromkeys(["lidar", "camera1", "camera2", "radar"], node)})


@pytest.fixture(name="shell", params=SHELLS)
def fixture_shell(request, robot):
    return Shell(robot, request.param)


# -- Loading.


@pytest.mark.parametrize("way", WAYS)
def test_a_name_is_completed_however_the_script_is_loaded(robot, way):
    Shell(robot, way).complete("vornctl restart li", "vornctl restart lidar")


@pytest.mark.parametrize("shell_name, file", [
    ("bash", "vornctl.bash"), ("zsh", "_vornctl"), ("fish", "vornctl.fish")])
def test_the_script_is_printed(robot, shell_name, file):
    done = robot.vornctl("completion", shell_name)
    assert done.stdout == (SCRIPTS / file).read_text(encoding="utf-8")


# -- Words other than names.


BEGUN = [
    ("vornctl mon", "vornctl monitor"),
    ("vornctl --vers", "vornctl --version"),
    ("vornctl wait --st", "vornctl wait --state"),
    ("vornctl enable --n", "vornctl enable --now"),
    ("vornctl stop --y", "vornctl stop --yes"),
    ("vornctl start lidar --launch", "vornctl start lidar --launch-file"),
    ("vornctl wait lidar --state dis", "vornctl wait lidar --state disabled"),
    ("vornctl --color ne", "vornctl --color never"),
    ("vornctl --color=ne", "vornctl --color=never"),
    ("vornctl completion f", "vornctl completion fish"),
    ("vornctl --color never stat", "vornctl --color never status"),
    ("vornctl --color=never stat", "vornctl --color=never status"),
    ("vornctl status -o pol", "vornctl status -o policy"),
    ("vornctl status -o node,pol", "vornctl status -o node,policy"),
]


def test_a_partial_word_is_completed(shell):
    for line, completed in BEGUN:
        shell.complete(line, completed)
        shell.press("C-u")


@pytest.mark.parametrize("line, offered", [
    ("vornctl ", {"status", "start", "stop", "restart", "enable", "disable", "wait",
                  "monitor", "top", "ps", "orphans", "ping", "names", "completion", "help"}),
    ("vornctl wait --state ", {"running", "stopped", "disabled", "restarted"}),
    ("vornctl completion ", {"bash", "zsh", "fish"}),
    ("vornctl --color ", {"auto", "always", "never"}),
    ("vornctl status ", {"lidar", "camera1", "camera2", "radar"}),
    ("vornctl stop camera1 lidar ", {"camera2", "radar"}),
])
def test_every_possible_word_is_offered(shell, line, offered):
    possible = shell.offers(line, offered)
    everything = {"status", "lidar", "camera1", "camera2", "radar", "running", "bash",
                  "never", "launch.yaml", "bin/"}
    assert not (everything - offered) & possible


# -- Names.


def test_every_command_about_nodes_completes_their_names(shell):
    for command in ("status", "start", "stop", "restart", "enable", "disable", "wait",
                    "monitor", "top", "logs"):
        shell.complete(f"vornctl {command} rad", f"vornctl {command} radar")
        shell.press("C-u")


def test_a_given_name_is_not_offered_again(shell):
    shell.complete("vornctl stop camera1 cam", "vornctl stop camera1 camera2")


@pytest.mark.parametrize("shell_name", SHELLS)
def test_every_name_is_completed_unchanged(machine, shell_name):
    node = {"path": "/bin/true", "disabled": True}
    machine.start({"vornnode": dict.fromkeys(NAMES, node)})
    shell = Shell(machine, shell_name)
    shell.type("vornctl disable ")
    for name in NAMES:
        shell.type(name[0] + "\t")
    shell.type("; echo done")
    shell.press("Enter")
    screen = shell.wait_for(lambda screen: "done" in screen, "the end")
    # It stops in the reverse order.
    end = screen.index("done")
    assert screen[end - len(NAMES):end] == [
        f"{name}: disabled" for name in reversed(NAMES)]


@pytest.mark.parametrize("shell_name", SHELLS)
def test_a_name_is_completed_after_characters_that_break_words(machine, shell_name):
    node = {"path": "/bin/true", "disabled": True}
    machine.start({"vornnode": dict.fromkeys(NAMES, node)})
    shell = Shell(machine, shell_name)
    for begun, name in [
        ("k:", "k:l"), ("k", "k:l"), ("N:O", "N:O:P"), ("m@", "m@n"), ("o=", "o=p"),
        ("Q=R@", "Q=R@S:T"), ("a\\ s", "a\\ space"),
    ]:
        shell.complete(f"vornctl stop {begun}", f"vornctl stop {name}")
        shell.press("C-u")


@pytest.mark.parametrize("quote", ['"', "'"])
@pytest.mark.parametrize("name", ["one two", "$x `y` \\z", "a\"b"])
@pytest.mark.parametrize("shell_name", SHELLS)
def test_a_name_in_quotes_is_completed(machine, shell_name, quote, name):
    machine.start({"vornnode": {name: {"path": "/bin/true", "disabled": True}}})
    shell = Shell(machine, shell_name)
    shell.type(f"vornctl disable {quote}")
    shell.press("Tab", "Enter")
    shell.wait_for_text(f"{name}: disabled")


HOSTILE = [
    "a!!:1:h;touch /tmp/x;#", "b$(touch /tmp/x)", "c`touch /tmp/x`", "d;touch /tmp/x",
    "e&touch /tmp/x", "f|touch /tmp/x", "g\ntouch /tmp/x", "h'\";touch /tmp/x;#",
    "i\\';touch /tmp/x;#", "j\n'!!:1;touch /tmp/x;#", "k<(touch /tmp/x)",
    "l\\\";touch /tmp/x;#", "m>/tmp/x", "n\x1b';touch /tmp/x;#!!:1", "o\\!!:1",
]


@pytest.mark.parametrize("quote", ["", '"', "'"])
@pytest.mark.parametrize("shell_name", SHELLS)
def test_no_completed_name_executes_anything(machine, shell_name, quote):
    node = {"path": "/bin/true", "disabled": True}
    machine.start({"vornnode": dict.fromkeys(HOSTILE, node)})
    shell = Shell(machine, shell_name)
    executed = 0
    for name in HOSTILE:
        # An argument that history expansion can insert.
        shell.run("true \"';touch /tmp/x;#\"")
        shell.wait_for_prompt()
        begun = f"vornctl status {quote}{name[0]}"
        if shell.completed(begun) == begun:
            shell.press("C-c")
        else:
            shell.press("Enter")
            executed += 1
        shell.wait_for_prompt()
        shell.run(f"echo end-of-{name[0]}")
        shell.wait_for(lambda screen: f"end-of-{name[0]}" in screen, "the end")
        shell.wait_for_prompt()
        assert not (machine.tmp / "x").exists(), name
    # A shell does not complete some of the names in some of the quotes.
    assert executed >= 10


@pytest.mark.parametrize("shell_name", ["bash", "zsh"])
def test_dashes_precede_a_name_that_looks_like_an_option(machine, shell_name):
    machine.start({"vornnode": {"--all": {"path": "/bin/true", "disabled": True}}})
    shell = Shell(machine, shell_name)
    shell.complete("vornctl stop ", "vornctl stop -- --all")


def test_a_name_that_looks_like_an_option_is_completed_after_dashes(machine):
    machine.start({"vornnode": {"--all": {"path": "/bin/true", "disabled": True}}})
    for name in SHELLS:
        Shell(machine, name).complete("vornctl stop -- --a", "vornctl stop -- --all")


@pytest.mark.parametrize("quote", ["", '"', "'"])
def test_fish_offers_no_name_that_looks_like_an_option(machine, quote):
    machine.start({"vornnode": {"--all": {"path": "/bin/true", "disabled": True}}})
    assert Shell(machine, "fish").completes_to_nothing(f"vornctl stop {quote}")


def test_the_names_are_those_of_the_given_file(shell):
    shell.machine.file("my other.yaml", "vornnode: {other: {path: x}}\n")
    shell.complete("vornctl --launch-file /tmp/my\\ other.yaml start o",
                   "vornctl --launch-file /tmp/my\\ other.yaml start other")


@pytest.mark.parametrize("option", ["--launch-file ", "--launch-file="])
def test_files_are_completed_where_one_is_expected(shell, option):
    shell.machine.file("some directory/file.yaml", "")
    shell.complete(f"vornctl {option}/tmp/some",
                   f"vornctl {option}/tmp/some\\ directory/")
    shell.complete("fi", f"vornctl {option}/tmp/some\\ directory/file.yaml")


def test_the_named_program_is_called(robot, shell):
    shell.run("PATH=/usr/bin:/bin" if shell.name != "fish" else "set PATH /usr/bin")
    shell.complete(f"{VORNCTL} start li", f"{VORNCTL} start lidar")


# -- Without a reply.


def test_nothing_happens_without_a_launcher(shell):
    shell.machine.signal(signal.SIGKILL)
    shell.machine.wait()
    assert shell.completes_to_nothing("vornctl start li")


def test_a_busy_launcher_is_not_waited_for(shell):
    with held(shell.machine):
        assert shell.completes_to_nothing("vornctl start li")
    assert shell.machine.status("lidar").state is State.STOPPED
