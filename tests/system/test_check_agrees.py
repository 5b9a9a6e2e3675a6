"""vornctl check reads a launch file exactly as the launcher does: the same
nodes, arguments, environments and flags, or the same exception."""

import json
import os
import pathlib
import re
import subprocess

import pytest

import support
from support import log_texts
from support.launch_files import generated, hand_made
from support.log import parse_log
from support.machine import PYTHON

ROOT = pathlib.Path(__file__).resolve().parents[2]
SEED = 20261121
GENERATED = 240
CHUNKS = 4  # the number of groups of files, each for one test
INSTALL_ROOT = "/tmp"
ABORTED = -6


def existing():
    """Files that have other purposes as well."""
    files = [*(ROOT / "fuzz/seeds/launch_file").iterdir(),
             *(ROOT / "tests/check").glob("*.yaml"),
             *(ROOT / "examples").glob("**/*.yaml")]
    return [(f"existing-{path.stem}", path.read_bytes()) for path in sorted(files)]


def all_files(seed=SEED, count=GENERATED):
    return [*hand_made(), *existing(), *generated(seed, count)]


def write(directory, files):
    """Writes the files; returns their paths."""
    directory.mkdir(parents=True)
    paths = []
    for name, text in files:
        path = directory / f"{name}.yaml"
        path.write_bytes(text if isinstance(text, bytes) else text.encode())
        paths.append(path)
    return paths


RESOLVE = ["check", "--no-host", "--quiet", "--print=resolved", "--format=json"]


def resolved(vornctl, paths, environment):
    """The checker's reading of each file."""
    finished = subprocess.run(
        [vornctl, *RESOLVE, *paths], env=environment, stdout=subprocess.PIPE,
        check=False, encoding="utf-8", timeout=300,
    )
    assert finished.returncode in (0, 1)
    return json.loads(finished.stdout)["files"]


def bare(reading):
    """The result of the launcher's own parser, which has no locations."""
    def pairs(variables, *sources):
        return [[each["name"], each["value"]] for each in variables
                if not sources or each["from"] in sources]

    return {
        "exception": reading["exception"],
        "configure": pairs(reading["configure"]),
        "nodes": [
            {
                "name": node["name"],
                "argv": [argument["value"] for argument in node["argv"]],
                "environment": pairs(node["environment"], "launcher", "node"),
                **{flag: node[flag]["value"]
                   for flag in ("disabled", "oneshot", "autostart", "sleepMs")},
                "required": [name["value"] for name in node["required"]],
            }
            for node in reading["nodes"]
        ],
    }


def until_fault(reading, parsed):
    """The part of a file that the launcher has read when the file aborts it: the
    checker reads the rest as well."""
    if reading["exception"] is None:
        return reading
    return {
        "exception": reading["exception"],
        "configure": reading["configure"][:len(parsed["configure"])],
        "nodes": reading["nodes"][:len(parsed["nodes"])],
    }


def disagreements(program, paths, base):
    """The differences between the launcher's parser and the checker."""
    environment = {**base, "VORN_ROOT": INSTALL_ROOT}
    parser = program.with_name("parse_launch_files")
    printed = subprocess.run(
        [parser, *paths], env=environment, stdout=subprocess.PIPE,
        stderr=subprocess.DEVNULL, check=True, timeout=300,
    ).stdout.splitlines()
    readings = resolved(program.with_name("vornctl"), paths, environment)
    assert len(printed) == len(readings) == len(paths)
    found = []
    for path, line, reading in zip(paths, printed, readings):
        parsed = json.loads(line)
        parsed.pop("file")
        reading = until_fault(bare(reading), parsed)
        if parsed != reading:
            found.append((path.read_bytes(), parsed, reading))
    return found


@pytest.fixture(name="base")
def fixture_base(program):
    base = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin", "LC_ALL": "C.UTF-8"}
    if b"__asan_init" in program.read_bytes():
        base["ASAN_OPTIONS"] = "detect_leaks=0"
    return base


def test_there_are_enough_files_and_most_kinds_of_outcomes(program, tmp_path, base):
    paths = write(tmp_path / "files", all_files())
    assert len(paths) >= 500
    readings = resolved(program.with_name("vornctl"), paths, base)
    ends = [each["exception"] for each in readings if not each["loads"]]
    assert len(paths) / 5 < len(ends) < len(paths) * 4 / 5
    assert sum(len(each["nodes"]) for each in readings) > len(paths)
    for text in ["bad conversion", "operator[] call on a scalar", "invalid node",
                 "end of map", "illegal"]:
        assert any(text in end for end in ends), text


def test_the_checker_and_the_launchers_parser_read_the_same(program, tmp_path, base):
    paths = write(tmp_path / "files", all_files())
    assert disagreements(program, paths, base) == []


@pytest.mark.long
def test_the_checker_and_the_parser_read_the_same_from_very_many_files(
    program, tmp_path, base
):
    for seed in range(200):
        paths = write(tmp_path / str(seed), generated(seed, 500))
        assert disagreements(program, paths, base) == [], f"seed {seed}"


# -- The launcher itself.


def escaped(text):
    """The text as the log shows it: up to a NUL, without control characters."""
    text = text.split("\0")[0]
    for letter, shown in {"\n": "\\n", "\r": "\\r", "\t": "\\t"}.items():
        text = text.replace(letter, shown)
    return re.sub(r"[\x00-\x1f\x7f]", lambda each: f"\\x{ord(each[0]):02x}", text)


def is_set(name):
    """Whether setenv() accepts the name."""
    return name.split("\0")[0] not in ("",) and "=" not in name.split("\0")[0]


def environment_for(reading, node, base):
    """The arguments and the environment of the node's process."""
    environment = dict(base)
    for variable in [*reading["configure"], *node["environment"]]:
        if is_set(variable["name"]):
            name, value = variable["name"], variable["value"]
            environment[name.split("\0")[0]] = value.split("\0")[0]
    return sorted(f"{name}={value}" for name, value in environment.items())


def expected_starts(reading):
    """Patterns of the log lines of the start of all nodes, in order."""
    patterns = []
    for node in reading["nodes"]:
        name = re.escape(escaped(node["name"]))
        path = re.escape(escaped(node["argv"][0]["value"]))
        if node["disabled"]["value"]:
            continue
        if not node["autostart"]["value"]:
            patterns.append(log_texts.not_autostart(name))
            continue
        slept = ""
        if node["sleepMs"]["value"]:
            slept = f"{name} sleep {node['sleepMs']['value']}ms\n"
        patterns.append(f"(?:Can't find file: {path}|{slept}Node start '{name}' ok)")
    return "\n".join(patterns)


def expected_children(reading, base):
    """Arguments and environments of the workers that are started, sorted."""
    return sorted(
        (["/bin/sh", *(each["value"].split("\0")[0] for each in node["argv"])],
         environment_for(reading, node, base))
        for node in reading["nodes"]
        if not node["disabled"]["value"] and node["autostart"]["value"]
        and os.path.normpath(node["argv"][0]["value"].split("\0")[0])
        == "/tmp/bin/worker"
    )


def check_outcome(reading, outcome, base):
    lines = [line for line in parse_log(outcome["log"])
             if line.pid == outcome["pid"]]
    texts = {function: [line.text for line in lines if line.func == function]
             for function in ("parseSetenv", "parseNode", "addNode", "startInternal")}
    ends = reading["exception"] is not None
    setenvs = [f"setenv {escaped(each['name'])}: {escaped(each['value'])}"
               for each in reading["configure"]]
    names = [f"name: {escaped(node['name'])}" for node in reading["nodes"]]
    if ends:
        assert outcome["status"] == ABORTED
        assert f"what():  {reading['exception']}\n" in outcome["log"]
        assert texts["parseSetenv"] == setenvs[:len(texts["parseSetenv"])]
        assert texts["addNode"] == names[:len(texts["addNode"])]
        assert texts["startInternal"] == []
        return
    assert outcome["status"] is None
    assert texts["parseSetenv"] == setenvs
    assert texts["addNode"] == names
    assert texts["parseNode"] == ["No node's path!"] * len(reading["dropped"])
    assert re.fullmatch(expected_starts(reading), "\n".join(texts["startInternal"]))
    workers = [each for each in outcome["children"]
               if os.path.normpath(each["argv"][1:2] and each["argv"][1] or "")
               == "/tmp/bin/worker"]
    assert sorted(
        (each["argv"], sorted(each["environment"])) for each in workers
    ) == expected_children(reading, base)


def outcomes(machine, paths, environment):
    """The outcome of the launcher with each file."""
    helpers = pathlib.Path(support.__file__).parent
    for name in ("launch_many.py", "control.py"):
        machine.file(name, (helpers / name).read_bytes())
    machine.script("worker", "kill -STOP $$")
    machine.file("bin/plain", "no program\n")
    machine.start(
        arguments=[f"/tmp/files/{path.name}" for path in paths],
        wrapper=[PYTHON, "-I", "/tmp/launch_many.py", "/tmp/outcomes"],
        environment=environment, wait_until_up=False,
    )
    assert machine.wait(timeout=300) == 0, machine.stderr()
    text = (machine.tmp / "outcomes").read_text(encoding="utf-8")
    return [json.loads(line) for line in text.splitlines()]


def check_against_launcher(machine, files):
    paths = write(machine.tmp / "files", files)
    environment = {"VORN_ROOT": INSTALL_ROOT}
    if machine.sanitized:
        environment["ASAN_OPTIONS"] = "detect_leaks=0"  # for all programs
    told = outcomes(machine, paths, environment)
    # Next to the launcher, for the root of the installation.
    printed = machine.vornctl(*RESOLVE, *(each["file"] for each in told),
                              environment=environment).stdout
    readings = json.loads(printed)["files"]
    base = machine.environment(environment)
    for path, reading, outcome in zip(paths, readings, told, strict=True):
        try:
            check_outcome(reading, outcome, base)
        except AssertionError as error:
            raise AssertionError(f"{path.read_bytes()!r}\n{reading}\n{outcome}"
                                 ) from error


@pytest.mark.parametrize("chunk", range(CHUNKS))
def test_the_launcher_does_what_the_checker_predicts(machine, chunk):
    check_against_launcher(machine, all_files()[chunk::CHUNKS])


@pytest.mark.long
@pytest.mark.parametrize("seed", range(1000, 1020))
def test_the_launcher_does_what_the_checker_predicts_for_many_files(machine, seed):
    check_against_launcher(machine, generated(seed, 250))
