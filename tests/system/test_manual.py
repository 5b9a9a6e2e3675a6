"""The manual pages: well-formed, and the same as what the programs take."""

import dataclasses
import pathlib
import re
import subprocess

import pytest

from support.document import commands, displays

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "docs/man").iterdir())
COMPLETION = ROOT / "tools/vornctl/completion"


def run(*command):
    finished = subprocess.run(command, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, encoding="utf-8", check=False)
    return finished.stdout


@pytest.fixture(name="help_of", scope="module")
def fixture_help_of(program):
    """Returns the help text of a command of vornctl, or its own."""
    vornctl = program.with_name("vornctl")
    return lambda *command: run(str(vornctl), *command, "--help")


def commands_of(help_text):
    block = help_text.split("Subcommands:\n")[1].split("\n\n")[0]
    return set(re.findall(r"^  (\w+)", block, re.M))


def options_of(help_text):
    """Of each option all that can be typed for it."""
    block = help_text.split("Options:\n")[1].split("\n\n")[0]
    return {tuple(names.split(",")) for names in re.findall(r"^  (-\S+)", block, re.M)}


@pytest.fixture(name="options", scope="module")
def fixture_options(help_of):
    """The options by command, those of all commands under ""."""
    general = options_of(help_of())
    own = {name: options_of(help_of(name)) for name in commands_of(help_of())}
    return {"": general, **{name: own[name] - general for name in own}}


def long_ones(options):
    return {names[-1] for names in options}


def page(name):
    return (ROOT / "docs/man" / name).read_text(encoding="utf-8")


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.name)
def test_a_manual_page_is_well_formed(path):
    said = run("mandoc", "-T", "lint", "-W", "style", str(path))
    # Which other pages are installed here is no matter.
    ignored = ("referenced manual not found", "outdated mandoc.db", "mandoc.db")
    assert [line for line in said.splitlines()
            if not any(text in line for text in ignored)] == []


def test_every_manual_page_has_what_an_operator_looks_for():
    wanted = {"EXIT STATUS", "SIGNALS", "FILES", "ENVIRONMENT", "EXAMPLES", "BUGS"}
    assert len(PAGES) == 4
    for path in PAGES:
        assert wanted <= set(re.findall(r"^\.Sh (.*)$", page(path.name), re.M)), path


# The machine that the examples take for granted.
ROBOT = """
mkdir share && touch calibration.bin
cat >robot.yaml <<'EOF'
vornnode:
  camera: {path: /bin/sleep, argv: infinity}
  planner: {path: /bin/sleep, argv: infinity}
  monitor: {path: /bin/sleep, argv: infinity, autostart: false}
EOF
"""
LAUNCHED = ROBOT + "vornlaunch robot.yaml 2>LOG &"
PREPARATIONS = {
    "vornctl.1": LAUNCHED,
    "vornlaunch-control.7": LAUNCHED,
    # In the foreground it would keep the shell from the next example.
    "vornlaunch.8": ROBOT + """
vornlaunch() {
  command vornlaunch "$@" 2>LOG &
  until grep -q autostart LOG; do sleep 0.1; done
}""",
}


@pytest.mark.parametrize("path", PAGES, ids=lambda path: path.name)
def test_the_examples_of_a_manual_page_work(path, shell):
    found = displays(path)
    shell.type(PREPARATIONS.get(path.name, "true"))
    for display in found:
        if display.language != "console":
            # The page on launch files has one, and commands for it.
            shell.type(f"cat >launch.yaml <<'EOF'\n{display.text}EOF\n"
                       "vornctl check --no-host --fail-on warning launch.yaml")
    typed = [command for display in found if display.language == "console"
             for command in commands(display)]
    assert typed
    for command in typed:
        if not command.output:  # then it is not shown
            command = dataclasses.replace(command, output=None)
        shell.perform(command)
    # What a page tells to do is nothing that the launcher complains about.
    assert shell.run("grep -sE 'poll timeout|received:|send fail' LOG")[1] == []


def test_the_manual_page_has_the_commands_of_the_help(help_of):
    text = page("vornctl.1")
    block = text.split(".Ss Commands\n")[1].split("\n.Ss")[0]
    names = re.findall(r"\bCm (\w+)", " ".join(re.findall(r"^\.It (.*)$", block, re.M)))
    assert set(names) == commands_of(help_of())


def options_in(roff):
    """The options that a part of a manual page names, as they are typed."""
    return {"-" + name for name in re.findall(r"\bFl (-?\w[\w-]*)", roff)}


def test_the_manual_page_explains_the_options_of_the_help(options):
    text = page("vornctl.1").split(".Ss Options of every command\n")[1]
    text = "\n".join(re.findall(r"^\.(?:It|S[hs]) .*$", text, re.M))
    general, own = text.split(".Sh ")[0].split(".Ss Options of single commands\n")
    assert options_in(general) == {word for names in options[""] for word in names}
    assert options_in(own) == {
        word for command in options if command for names in options[command]
        for word in names}


def test_the_synopsis_has_each_command_with_its_options(options):
    names_of = {word: names for command in options for names in options[command]
                for word in names}
    synopsis = page("vornctl.1").split(".Sh SYNOPSIS\n")[1].split("\n.Sh")[0]
    found = {}
    for use in synopsis.split(".Nm\n")[1:]:
        commands_line = re.search(r"^\.Cm (.*)$", use, re.M)
        for command in commands_line[1].split(" | ") if commands_line else []:
            found[command] = {names_of.get(word, word) for word in options_in(use)}
    assert found == {command: options[command] for command in options if command}


# Prints, for each command given and for none, what the tab key offers behind a dash;
# and what it offers for a command.
BASH_OFFERS = r"""
source "$1"
shift
offer() {
  COMP_WORDS=("$@")
  COMP_CWORD=$(($# - 1)) COMP_LINE=$* COMP_POINT=${#COMP_LINE}
  _vornctl vornctl "${!#}" "${COMP_WORDS[-2]}"
  echo "${COMPREPLY[@]}"
}
for command; do offer vornctl $command -; done
offer vornctl ""
"""


def test_bash_offers_each_command_with_its_options(options):
    # With an empty word for what stands before a command.
    said = run("bash", "-c", BASH_OFFERS, "bash", str(COMPLETION / "vornctl.bash"),
               *options).splitlines()
    offered = [set(line.split()) for line in said]
    general = long_ones(options[""])
    assert offered.pop() == set(options) - {""}
    assert dict(zip(options, offered, strict=True)) == {
        command: (general | long_ones(own)) - ({"--version"} if command else set())
        for command, own in options.items()}


def options_for_zsh():
    text = (COMPLETION / "_vornctl").read_text(encoding="utf-8")
    common, text = text.split("  commands=(\n")
    named, text = text.split("  )\n", 1)
    found = {name: set() for name in re.findall(r"^    '(\w+):", named, re.M)}
    for names, block in re.findall(r"^        ([\w| ]+)\)(.*?);;", text, re.M | re.S):
        for name in names.split(" | "):
            found[name] = set(re.findall(r"--[\w-]+", block))
    common = common.split("  common=(\n")[1]
    return {"": set(re.findall(r"--[\w-]+", common)) | {"--version"}, **found}


def options_for_fish():
    text = (COMPLETION / "vornctl.fish").read_text(encoding="utf-8")
    names = re.findall(r"__vornctl_needs_command -a (\w+)", text)
    assert set(names) == set(re.search(r"not __fish_seen_\w+ (.*)", text)[1].split())
    found = {name: set() for name in names}
    found[""] = set()
    for condition, option in re.findall(
            r"^complete -c vornctl (?:-n ('.*?'|\w+) )?.*?-l ([\w-]+)", text, re.M):
        seen = condition.strip("'").split()[1:] or [""]
        for name in seen:
            found[name].add("--" + option)
    return found


@pytest.mark.parametrize("found", [options_for_zsh, options_for_fish])
def test_other_shells_know_each_command_with_its_options(found, options):
    assert found() == {command: long_ones(own) for command, own in options.items()}


def exit_statuses(help_text):
    """The meaning of each exit status in a help text."""
    return dict(re.findall(r"^  (\d)  (.*)$", help_text.split("Exit status:\n")[1], re.M))


def test_the_exit_statuses_of_the_documents_are_those_of_the_help(help_of):
    shown = exit_statuses(help_of())
    block = page("vornctl.1").split(".Sh EXIT STATUS\n")[1].split(".El")[0]
    explained = re.findall(r"^\.It (\d)\n([^.].*?)\.\n(?=\.)", block + ".", re.M | re.S)
    assert {status: text[0].lower() + text[1:].replace("\n", " ")
            for status, text in explained} == shown
    guide = (ROOT / "docs/vornctl.md").read_text(encoding="utf-8")
    block = guide.split("## Exit status\n")[1].split("\n\n")[0]
    assert dict(re.findall(r"^\| (\d) \| (.*) \|$", block, re.M)) == shown


def test_a_command_shows_only_its_own_exit_statuses(help_of):
    shown = {name: "".join(exit_statuses(help_of(name)))
             for name in commands_of(help_of())}
    asking = dict.fromkeys(
        ["start", "stop", "restart", "enable", "disable", "monitor", "top"],
        "012456789")
    assert shown == asking | {
        "status": "0123456789", "wait": "0123456789", "ping": "01256789",
        "names": "01256789", "check": "012", "graph": "012", "completion": "012",
        "help": "012"}


def test_the_help_lists_the_values_of_options(help_of):
    for words in (["--color", "auto", "always", "never"],
                  ["--format", "text", "json", "sarif", "github"],
                  ["--fail-on", "error", "warning", "note"],
                  ["--print", "resolved", "timeline", "stop-timeout"],
                  ["--format", "dot", "mermaid", "svg"],
                  ["--state", "running", "stopped", "disabled", "restarted"]):
        text = help_of() + help_of("check") + help_of("graph") + help_of("wait")
        assert f"  {words[0]} {'|'.join(words[1:])}" in text


def test_the_help_of_status_describes_each_column(help_of):
    block = help_of("status").split("Columns:\n")[1].split("\n\n")[0]
    assert re.findall(r"^  (\w+) +\w.*$", block, re.M) == [
        "node", "state", "pid", "uptime", "started", "policy", "required", "executable"]


def test_each_command_has_two_examples_that_can_be_typed(help_of, machine):
    machine.start_without_launcher()
    machine.launch_file({"vornnode": {"camera": {"path": "/bin/true"}}})
    for name in commands_of(help_of()):
        block = help_of(name).split("Examples:\n")[1].split("\n\n")[0]
        lines = block.splitlines()
        assert len(lines) == 2
        for line in lines:
            assert line.startswith(f"  vornctl {name}")
            done = machine.execute(
                "sh", "-c", f"cd /tmp && PATH=/tmp/install/bin:$PATH && {line}")
            # Without a launcher and a terminal, the command line itself is right.
            assert "--help" not in done.stderr, line
