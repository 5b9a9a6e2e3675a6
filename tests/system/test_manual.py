"""The manual pages: well-formed, and the same as what the programs take."""

import pathlib
import re
import subprocess

import pytest

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
    wanted = {
        "vornlaunch.8": "EXIT STATUS,SIGNALS,FILES,ENVIRONMENT,EXAMPLES,BUGS",
        "vornctl.1": "EXIT STATUS,SIGNALS,FILES,ENVIRONMENT,EXAMPLES,BUGS",
        "vornlaunch.yaml.5": "EXAMPLES,DIAGNOSTICS,BUGS",
        "vornlaunch-control.7": "FILES,EXAMPLES,DIAGNOSTICS,BUGS",
    }
    assert [path.name for path in PAGES] == sorted(wanted)
    for name, sections in wanted.items():
        found = set(re.findall(r"^\.Sh (.*)$", page(name), re.M))
        assert set(sections.split(",")) <= found, name


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
