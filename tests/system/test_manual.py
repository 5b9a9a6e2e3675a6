"""The manual pages, and the agreement of the reference of vornctl with its help and
with the completions."""

import pathlib
import re
import subprocess

import pytest

pytestmark = pytest.mark.plain  # it tests the documents

ROOT = pathlib.Path(__file__).resolve().parents[2]
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
    """The spellings of each option."""
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


def test_the_reference_of_vornrun_has_the_options_of_its_help(program):
    text = (ROOT / "docs/vornrun.md").read_text(encoding="utf-8")
    terms = re.findall(r"^\| (`-.*?`) \|", text, re.M)
    documented = [term.strip("`").replace("`, `", ", ").replace("\\|", "|")
                  for term in terms]
    shown = re.findall(r"^  (-\S.*?)(?:  |$)",
                       run(str(program.with_name("vornrun")), "--help"), re.M)
    assert documented == shown


def section(title):
    """The text below a heading of the reference of vornctl."""
    text = (ROOT / "docs/vornctl.md").read_text(encoding="utf-8")
    return re.split(f"^#+ {title}\n", text, flags=re.M)[1].split("\n#")[0]


def terms_of(title):
    """The first column of the table below a heading, a list of words for each row."""
    rows = re.findall(r"^\| (`.*?) \|", section(title), re.M)
    return [re.findall("`([^` ]+)[^`]*`", row) for row in rows]


def words(names_of_options):
    return sorted(word for names in names_of_options for word in names)


@pytest.mark.parametrize("name", [
    "vornctl.1", "vornlaunch.yaml.5", "vornlaunch-control.7", "vornlaunch.8",
    "vornrun.8"])
def test_a_manual_page_is_well_formed(name, program):
    page = program.parents[1] / "man" / name
    assert page.exists(), "the build needs lowdown"
    # Other pages and the database of this machine's pages do not matter.
    ignored = ("referenced manual not found", "mandoc.db")
    assert [line for line in run("mandoc", "-T", "lint", str(page)).splitlines()
            if not any(text in line for text in ignored)] == []


def test_a_bracket_outside_of_a_link_remains_in_a_manual_page(tmp_path):
    document, page = tmp_path / "x.md", tmp_path / "x.1"
    document.write_text("# X\n\nx - y\n\n## Description\n\n`##[` and [text](x.md)\n",
                        encoding="utf-8")
    assert run(ROOT / "scripts/man_page.sh", document, page) == ""
    assert "##[</b> and text" in run("mandoc", "-T", "html", page)


def test_the_reference_has_the_commands_of_the_help(help_of):
    assert set(words(terms_of("Commands"))) == commands_of(help_of())


def test_the_reference_has_the_options_of_the_help(options):
    assert words(terms_of("Options of every command")) == words(options[""])
    own = {names for command in options if command for names in options[command]}
    assert words(terms_of("Options of single commands")) == words(own)


def test_the_synopsis_has_each_command_with_its_options(options):
    names_of = {command: {word: names for names in own for word in names}
                for command, own in options.items()}
    found = {}
    for use in section("Synopsis").split("\nvornctl ")[1:]:
        for command in use.split()[0].split("|"):
            found[command] = {names_of[command][word] for word in
                              re.findall(r"(?<![\w-])--?\w[\w-]*", use)}
    assert found == {command: own for command, own in options.items() if command}


# Prints the completions after a dash, for each given command and for none; and the
# completions of a command.
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
    # With an empty word before the command.
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
    return dict(re.findall(r"^  (\d+)  (.*)$", help_text.split("Exit status:\n")[1], re.M))


def test_the_exit_statuses_of_the_reference_are_those_of_the_help(help_of):
    explained = re.findall(r"^\| (\d+) \| (.*) \|$", section("Exit status"), re.M)
    assert dict(explained) == exit_statuses(help_of())


def test_a_command_shows_only_its_own_exit_statuses(help_of):
    shown = {name: "".join(exit_statuses(help_of(name)))
             for name in commands_of(help_of())}
    asking = dict.fromkeys(
        ["start", "stop", "restart", "enable", "disable", "monitor", "top",
         "logs", "why", "history"],
        "012456789")
    assert shown == asking | {
        "status": "0123456789", "ps": "0123456789", "wait": "0123456789",
        "ping": "01256789", "doctor": "012",
        "names": "01256789", "metrics": "01256789", "diff": "01256789", "apply": "01221", "health": "012", "orphans": "012", "report": "012", "check": "012", "graph": "012",
        "import": "012", "completion": "012",
        "help": "012"}


def test_the_help_lists_the_values_of_options(help_of):
    for words in (["--color", "auto", "always", "never"],
                  ["--format", "text", "json", "sarif", "github"],
                  ["--fail-on", "error", "warning", "note"],
                  ["--print", "resolved", "timeline", "stop-timeout"],
                  ["--format", "dot", "mermaid", "svg"],
                  ["--format", "prometheus", "openmetrics"],
                  ["--format", "plain", "json", "nagios"],
                  ["--state", "running", "ready", "stopped", "disabled", "restarted"]):
        text = help_of() + help_of("check") + help_of("graph") + help_of("wait")
        text += help_of("metrics") + help_of("health")
        assert f"  {words[0]} {'|'.join(words[1:])}" in text


def test_the_help_of_status_describes_each_column(help_of):
    block = help_of("status").split("Columns:\n")[1].split("\n\n")[0]
    assert re.findall(r"^  (\w+) +\w.*$", block, re.M) == [
        "node", "state", "pid", "uptime", "started", "policy", "required", "executable",
        "restarts", "last_exit", "cpu", "memory", "stale", "ready"]


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
            # Without a launcher and a terminal, the command line itself is accepted.
            assert "--help" not in done.stderr, line
