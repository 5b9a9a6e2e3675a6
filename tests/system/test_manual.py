"""The manual pages: well-formed, and the same as what the programs take."""

import dataclasses
import pathlib
import re
import subprocess

import pytest

from support.document import commands, displays

ROOT = pathlib.Path(__file__).resolve().parents[2]
PAGES = sorted((ROOT / "docs/man").iterdir())
COMPLETIONS = sorted((ROOT / "tools/vornctl/completion").iterdir())


def run(*command):
    finished = subprocess.run(command, stdout=subprocess.PIPE,
                              stderr=subprocess.STDOUT, encoding="utf-8", check=False)
    return finished.stdout


@pytest.fixture(name="help_of")
def fixture_help_of(program):
    """Returns the help text of a command of vornctl, or its own."""
    vornctl = program.with_name("vornctl")
    return lambda *command: run(str(vornctl), *command, "--help")


def commands_of(help_text):
    block = help_text.split("Subcommands:\n")[1].split("\n\n")[0]
    return set(re.findall(r"^  (\w+)", block, re.M))


def options_of(help_text):
    """The long and the short options, as they are typed."""
    block = help_text.split("Options:\n")[1].split("\n\n")[0]
    lines = re.findall(r"^  (-\S+)", block, re.M)
    return {option for line in lines for option in line.split(",")}


def all_options(help_of):
    commands = commands_of(help_of())
    return options_of(help_of()).union(*(options_of(help_of(c)) for c in commands))


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


def test_the_manual_page_has_the_options_of_the_help(help_of):
    text = page("vornctl.1").split(".Sh DESCRIPTION\n")[1]
    items = " ".join(re.findall(r"^\.It (.*)$", text, re.M))
    found = {"-" + name for name in re.findall(r"\bFl (-?\w[\w-]*)", items)}
    assert found == all_options(help_of)


@pytest.mark.parametrize("path", COMPLETIONS, ids=lambda path: path.name)
def test_tab_completion_knows_the_commands_and_options_of_the_help(path, help_of):
    text = path.read_text(encoding="utf-8")
    words = set(re.findall(r"--?[\w-]+|\w+", text))
    # fish names long options by "-l NAME".
    words |= {"--" + name for name in re.findall(r"-l ([\w-]+)", text)}
    options = {option for option in all_options(help_of) if option.startswith("--")}
    assert commands_of(help_of()) | options <= words


def test_the_exit_statuses_are_those_of_the_help(help_of):
    shown = set(re.findall(r"^  (\d) ", help_of().split("Exit status:\n")[1], re.M))
    block = page("vornctl.1").split(".Sh EXIT STATUS\n")[1].split("\n.Sh")[0]
    assert set(re.findall(r"^\.It (\d)$", block, re.M)) == shown
