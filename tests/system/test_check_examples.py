"""The diagnostics of the examples in tests/check, one example for each check, and the
documentation of all checks."""

import functools
import json
import os
import pathlib
import re
import shutil
import subprocess

import pytest

ROOT = pathlib.Path(__file__).resolve().parents[2]
EXAMPLES = ROOT / "tests/check"
NAMES = sorted(path.stem for path in EXAMPLES.glob("*.yaml"))
# Environments and rights that an example needs besides its file.
PATHS = {"missing-tool": "/nonexistent"}
NEEDS_ROOT = {"writable-by-others"}
# A filter of system calls like that of a container engine.
FILTERED = {"clone-refused": ["strace", "-o", "/dev/null", "-e", "trace=clone3",
                              "-e", "inject=clone3:error=EPERM"]}
CASES = [pytest.param(name, marks=[pytest.mark.native] if name in FILTERED else [])
         for name in NAMES]


@pytest.fixture(name="vornctl", scope="session")
def fixture_vornctl(program):
    return program.with_name("vornctl")


def as_root():
    """The prefix that runs a command as root, if necessary in a user namespace."""
    return [] if os.geteuid() == 0 else ["unshare", "--user", "--map-root-user"]


def options_of(text):
    """The options in an example's first line; most need only the file."""
    match = re.match(r"# options: (.*)\n", text)
    return match.group(1).split() if match else ["--no-host"]


def run(vornctl, name, *options, directory=EXAMPLES, text=None):
    """Checks an example, or `text` in its place."""
    shown = (EXAMPLES / f"{name}.yaml").read_text(encoding="utf-8")
    environment = {
        **os.environ,
        "VORN_ROOT": "/opt/robot",
        "PATH": PATHS.get(name, "/usr/sbin:/usr/bin:/sbin:/bin"),
    }
    environment.pop("VORN_BIN_PATH", None)
    if name in FILTERED:  # the leak check cannot work under another tracer
        environment["ASAN_OPTIONS"] = "detect_leaks=0"
    prefix = as_root() if name in NEEDS_ROOT else FILTERED.get(name, [])
    command = [*prefix, vornctl, "check", *options_of(shown), *options]
    if prefix:
        command[0] = shutil.which(command[0])
    return subprocess.run(
        [*command, "-" if text is not None else f"{name}.yaml"], cwd=directory,
        env=environment, input=text, capture_output=True, check=False,
        encoding="utf-8", timeout=60,
    )


@pytest.fixture(name="directory")
def fixture_directory(tmp_path, request):
    """A copy of the examples with permissions that git does not store."""
    directory = tmp_path / "check"
    shutil.copytree(EXAMPLES, directory)
    if request.node.callspec.params["name"] in NEEDS_ROOT:
        (directory / "programs/good").chmod(0o777)
    return directory


@functools.lru_cache
def listed(vornctl):
    """The checks: name, severity and summary."""
    printed = subprocess.run(
        [vornctl, "check", "--list"], capture_output=True, check=True,
        encoding="utf-8",
    ).stdout
    return [tuple(line.split("\t")) for line in printed.splitlines()]


def test_every_check_has_an_example_with_its_output(vornctl):
    assert sorted(name for name, _, _ in listed(vornctl)) == NAMES
    assert sorted(path.stem for path in EXAMPLES.glob("*.txt")) == NAMES


def test_the_names_of_checks_are_words_with_hyphens(vornctl):
    for name, _, summary in listed(vornctl):
        assert re.fullmatch(r"[a-z]+(-[a-z]+)*", name)
        assert summary


def test_every_check_is_documented_with_its_severity(vornctl):
    text = (ROOT / "docs/checks.md").read_text(encoding="utf-8")
    headings = re.findall(r"^### ([a-z-]+)\n\n(Error|Warning|Note)\. ", text, re.M)
    assert headings == [
        (name, severity.capitalize()) for name, severity, _ in listed(vornctl)
    ]


@pytest.mark.parametrize("name", CASES)
def test_an_example_has_exactly_the_expected_output(vornctl, directory, name):
    finished = run(vornctl, name, directory=directory)
    expected = (EXAMPLES / f"{name}.txt").read_text(encoding="utf-8")
    assert finished.stdout.replace(str(directory), "DIRECTORY") == expected
    assert finished.stderr == ""
    assert finished.returncode == (1 if ": error: " in expected else 0)


@pytest.mark.parametrize("name", CASES)
def test_an_example_has_the_diagnostic_of_its_name(vornctl, name):
    expected = (EXAMPLES / f"{name}.txt").read_text(encoding="utf-8")
    severity = dict((each[0], each[1]) for each in listed(vornctl))[name]
    pattern = rf"^{name}\.yaml:\d+:\d+: {severity}: .* \[{name}\]$"
    assert re.search(pattern, expected, re.M)


@pytest.mark.parametrize("name", CASES)
def test_an_option_silences_a_diagnostic(vornctl, directory, name):
    finished = run(vornctl, name, f"--ignore={name}", directory=directory)
    assert f"[{name}]" not in finished.stdout
    assert finished.stderr == ""


@pytest.mark.parametrize("name", CASES)
def test_a_comment_silences_a_diagnostic_on_its_line(vornctl, directory, name):
    path = directory / f"{name}.yaml"
    printed = run(vornctl, name, "--format=json", directory=directory).stdout
    findings = json.loads(printed)["files"][0]["findings"]
    found = [finding["line"] for finding in findings if finding["name"] == name]
    lines = path.read_text(encoding="utf-8").splitlines()
    lines[found[0] - 1] += f"  # vornctl: ignore={name} as a test"
    path.write_text("\n".join(lines) + "\n", encoding="utf-8")
    printed = run(vornctl, name, "--format=json", directory=directory).stdout
    findings = json.loads(printed)["files"][0]["findings"]
    left = [finding["line"] for finding in findings if finding["name"] == name]
    assert left == [line for line in found if line != found[0]]
