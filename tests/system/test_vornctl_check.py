"""vornctl check: its options, output formats and exit statuses. test_check_examples.py
tests the diagnostics."""

import fcntl
import json
import os
import pathlib
import pty
import re
import signal
import subprocess
import termios

import pytest

from support.waiting import PATIENCE, eventually

CLEAN = "vornnode:\n  shell:\n    path: /bin/sh\n"
ERROR = "vornnode:\n  shell:\n    path:\n"
WARNING = "vornnode:\n  shell:\n    path: /bin/sh\n    args: -x\n"
NOTE = "configure: {}\n"
ERROR_LINE = (
    "3:11: error: null value for 'path'; write \"\" for an empty value [null-value]\n"
)


@pytest.fixture(name="vornctl")
def fixture_vornctl(program, tmp_path):
    """Runs vornctl in a directory of its own."""

    def run(*arguments, text=None, environment=None, command="check", wrapper=(),
            **options):
        bare = {name: value for name, value in os.environ.items()
                if not name.startswith("VORN")}
        return subprocess.run(
            [*wrapper, program.with_name("vornctl"), command, *arguments],
            cwd=tmp_path, env={**bare, **(environment or {})}, input=text,
            capture_output=True, check=False, encoding="utf-8", timeout=60, **options,
        )

    run.directory = tmp_path
    return run


def write(vornctl, text, name="launch.yaml"):
    path = vornctl.directory / name
    path.write_text(text, encoding="utf-8")
    return name


def names_in(finished):
    """The diagnostics in JSON, as (line, name)."""
    files = json.loads(finished.stdout)["files"]
    return [(each["line"], each["name"]) for file in files
            for each in file["findings"]]


@pytest.mark.native  # its programs are for this machine
def test_a_valid_file_prints_nothing(vornctl):
    finished = vornctl(write(vornctl, CLEAN), "--ignore=writable-by-others")
    assert (finished.returncode, finished.stdout, finished.stderr) == (0, "", "")


@pytest.mark.parametrize("text, severity, fails_on", [
    (ERROR, "error", ["error", "warning", "note"]),
    (WARNING, "warning", ["warning", "note"]),
    (NOTE, "note", ["note"]),
], ids=["error", "warning", "note"])
def test_the_exit_status_is_1_from_the_chosen_severity_on(
    vornctl, text, severity, fails_on
):
    for limit in ("error", "warning", "note"):
        finished = vornctl("-", f"--fail-on={limit}", text=text)
        assert finished.returncode == (1 if limit in fails_on else 0)
        assert f": {severity}: " in finished.stdout
    assert vornctl("-", text=text).returncode == (1 if severity == "error" else 0)


def test_a_diagnostic_is_a_line_that_editors_understand(vornctl):
    finished = vornctl(write(vornctl, ERROR), "--no-host")
    assert finished.stdout == "launch.yaml:" + ERROR_LINE


def test_standard_input_is_named_stdin(vornctl):
    assert vornctl("-", text=ERROR).stdout == "<stdin>:" + ERROR_LINE


def test_an_unreadable_file_exits_with_2_and_the_others_are_checked(vornctl):
    (vornctl.directory / "directory").mkdir()
    finished = vornctl("missing.yaml", "directory", write(vornctl, ERROR))
    assert finished.returncode == 2
    assert finished.stdout == "launch.yaml:" + ERROR_LINE
    assert finished.stderr == (
        "vornctl: cannot read missing.yaml: No such file or directory\n"
        "vornctl: cannot read directory: Is a directory\n"
    )


def failure_of(vornctl, *arguments, **options):
    """The message about the only file, which cannot be checked."""
    finished = vornctl(*arguments, **options)
    assert (finished.returncode, finished.stdout) == (2, "")
    return finished.stderr


def test_a_read_error_at_the_beginning_is_reported(vornctl):
    assert failure_of(vornctl, "/proc/self/mem") == (
        "vornctl: cannot read /proc/self/mem: Input/output error\n")


def test_a_read_error_of_standard_input_is_reported(vornctl):
    directory = os.open("/etc", os.O_RDONLY)
    try:
        assert failure_of(vornctl, "-", stdin=directory) == (
            "vornctl: cannot read <stdin>: Is a directory\n")
    finally:
        os.close(directory)


# Several pieces of 64 KiB with an error in the last line.
LARGE = CLEAN + "# a comment\n" * 20_000 + "["


@pytest.mark.native  # strace would count the emulator's calls
@pytest.mark.parametrize("injected, reason", [
    ("error=EIO:when=2", "Input/output error"),
    ("retval=0:when=2", "the file ended before its size was reached"),
], ids=["error", "end"])
def test_a_partly_read_file_does_not_pass(vornctl, injected, reason):
    name = write(vornctl, LARGE)
    strace = ["strace", "-o", "/dev/null", "-P", vornctl.directory / name,
              "-e", "trace=read", "-e", f"inject=read:{injected}"]
    assert failure_of(vornctl, name, wrapper=strace,
                      environment={"ASAN_OPTIONS": "detect_leaks=0"}) == (
        f"vornctl: cannot read {name}: {reason}\n")


def test_an_interrupted_read_is_repeated(vornctl):
    name = write(vornctl, LARGE)
    strace = ["strace", "-o", "/dev/null", "-P", vornctl.directory / name,
              "-e", "trace=read", "-e", "inject=read:error=EINTR:when=2"]
    finished = vornctl(name, "--no-host", wrapper=strace,
                       environment={"ASAN_OPTIONS": "detect_leaks=0"})
    assert f"{name}:20004:" in finished.stdout and finished.returncode == 1


@pytest.mark.plain  # a sanitizer needs more addresses
def test_a_file_that_does_not_fit_into_memory_does_not_pass(vornctl):
    name = write(vornctl, "a: [" + "b, " * 1_000_000)
    for command in ("check", "graph"):
        message = failure_of(vornctl, name, command=command,
                             wrapper=["prlimit", f"--as={80 << 20}"])
        assert message.startswith("vornctl: not enough memory to ")


@pytest.mark.parametrize("arguments", [
    [], ["--format=xml", "-"], ["--fail-on=never", "-"], ["--print=all", "-"],
    ["--ignore=nonsense", "-"],
])
def test_wrong_usage_exits_with_2(vornctl, arguments):
    finished = vornctl(*arguments, text=CLEAN)
    assert finished.returncode == 2
    assert finished.stdout == ""
    assert finished.stderr.startswith("vornctl: ")


def test_several_checks_are_ignored_with_commas_between_them(vornctl):
    text = WARNING + "    argv: \"'a'\"\n    sleep: 20000\n"
    finished = vornctl("--ignore=unknown-key,long-sleep", "-", text=text)
    assert finished.stdout.count("\n") == 1
    assert "[quote-in-argv]" in finished.stdout


def test_the_machine_is_checked_only_for_files_by_default(vornctl):
    text = "vornnode:\n  a:\n    path: /nonexistent/a\n"
    name = write(vornctl, text)
    finding = (3, "missing-executable")
    options = ["--format=json", "--ignore=writable-by-others"]
    assert finding in names_in(vornctl(*options, name))
    assert finding not in names_in(vornctl(*options, "--no-host", name))
    assert finding not in names_in(vornctl(*options, "-", text=text))
    assert finding in names_in(vornctl(*options, "--host", "-", text=text))


@pytest.mark.native  # as above
def test_programs_are_found_by_the_variables_of_the_launcher(
    vornctl,
):
    text = "vornnode:\n  a:\n    path: sh\n"
    options = ["--format=json", "--host", "--ignore=writable-by-others", "-"]
    assert names_in(vornctl(*options, text=text)) == [
        (3, "missing-executable"), (3, "relative-path")]
    found = vornctl(*options, text=text, environment={"VORN_BIN_PATH": "/bin"})
    assert names_in(found) == []
    text += "configure: {environment: {VORN_BIN_PATH: 'install://bin'}}\n"
    found = vornctl(*options, text=text, environment={"VORN_ROOT": "/usr"})
    assert names_in(found) == []
    found = vornctl(*options, text=text, environment={"VORN_ROOT": "/nonexistent"})
    assert names_in(found) == [(3, "missing-executable")]


@pytest.mark.parametrize("text, line", [
    (" vornnode: {a: {path: /a}}\nconfigure: {}\n", 2),
    ("{vornnode: {a: {path: /a}}}\nconfigure: {}\n", 2),
    ("vornnode: {a: {path: /a}}\n...\n[\n", 3),
    ("# why\n---\nvornnode: {a: {path: /a}}\n--- # another\n", 4),
    ("# why\n---\nvornnode: {a: {path: /a}}\n...\n# the end\n", None),
    ("%YAML 1.2\n---\nvornnode: {a: {path: /a, argv: a --- b ...}}\n", None),
], ids=["indented", "flow", "wrong", "second", "end", "directive"])
def test_text_after_the_first_document_is_reported(vornctl, text, line):
    expected = [] if line is None else [(line, "second-document")]
    assert names_in(vornctl("--format=json", "-", text=text)) == expected


INVISIBLE = (
    "\x1b\r\n\t\x7f\u0085\u009b\u061c\u200b\u200d\u200e\u200f\u2028\u2029\u202a\u202e"
    "\u2060\u2066\u2069\ufeff\U000e0041"
)


@pytest.mark.parametrize("arguments", [
    "check", "check --format=json", "check --format=sarif", "check --format=github",
    "check --print=resolved", "check --print=resolved --format=json",
    "check --print=timeline", "graph", "graph --format=mermaid",
])
def test_no_text_of_a_file_controls_a_terminal_or_a_ci_system(vornctl, arguments):
    name = f"::set-output name=x::{INVISIBLE}##[set-output name=x]y"
    text = json.dumps({
        "configure": {"environment": {name: name}},
        "vornnode": {name: {"path": name, "argv": name, "required": [name]},
                     name + "2": {"path": name, name: name}}}, ensure_ascii=False)
    write(vornctl, text, name=name)
    command, *options = arguments.split()
    files = [name] if command == "graph" else [name, name]
    finished = vornctl(*options, *files, command=command)
    for output in (finished.stdout, finished.stderr):
        lines = output.split("\n")
        assert [line for line in lines if not line.isprintable()] == []
        assert "##[" not in output
        if "github" not in arguments:
            assert [line for line in lines if line.lstrip().startswith("::")] == []
    assert finished.stdout


@pytest.mark.parametrize("text, what, line", [
    ("; nodes\n[program:a]\ncommand=/a\n", "an INI or TOML file", 2),
    ("[Service]\nExecStart=/a -x\n", "an INI or TOML file", 1),
    ("\n[[nodes]]\npath = \"/a\"\n", "an INI or TOML file", 2),
    ("<?xml version=\"1.0\"?>\n<launch/>\n", "an XML file", 1),
    ("{\n  // nodes\n  \"vornnode\": {}\n}\n", "JSON with comments", 1),
    ("/* nodes */\n{\"vornnode\": {}}\n", "JSON with comments", 1),
    ("A=1\nB=2\n", "a file of NAME=VALUE lines", 1),
])
def test_a_file_in_another_language_is_recognized(vornctl, text, what, line):
    assert vornctl("-", text=text).stdout == (
        f"<stdin>:{line}:1: error: this looks like {what}; a launch file is YAML with "
        "nodes in 'vornnode' [other-language]\n")


@pytest.mark.parametrize("text", [
    '{"vornnode": {"a": {"path": "/a"}}}', "[a, b]\n", "[a]\n", "a=b: c\n",
    "- a=b\n", "text\n", "", "vornnode: {a: {path: /a}}\n# a = b\n",
])
def test_yaml_is_not_mistaken_for_another_language(vornctl, text):
    assert "other-language" not in vornctl("-", text=text).stdout


@pytest.mark.parametrize("text", [
    "", "[", "[a, b]\n", "[0]\n", "- a\n", "text\n", "[section]\na=b\n",
    "configure: [a]\n", "configure: []\nvornnode: []\n", "~\n", "vornnode: {~: 1}\n",
])
def test_every_diagnostic_has_a_line_of_the_file(vornctl, text):
    assert "line=0" not in vornctl("-", "--format=github", text=text).stdout
    for line, name in names_in(vornctl("-", "--format=json", text=text)):
        assert line >= 1, name


@pytest.mark.parametrize("text, line", [
    ("vornnode:\n\tcamera:\n\t\tpath: /x\n", 2),
    ("vornnode:\n  a:\n\tpath: /x\n", 3),
    ("vornnode:\n  a:\n    path: /x\n\targv: b\n", 4),
])
def test_a_tab_in_the_indentation_is_named(vornctl, text, line):
    assert vornctl("-", text=text).stdout == (
        f"<stdin>:{line}:1: error: this line is indented with a tab; indent with "
        "spaces only [syntax]\n")


@pytest.mark.parametrize("text, line", [
    ('{\n\t"vornnode": {\n\t\t"a": {"path": "/x"}\n\t\t"b": {"path": "/y"}\n\t}\n}\n', 4),
    ('vornnode:\n  a: {\n\tpath: /x\n', 4),
    ('vornnode:\n  a: {path: /x,\n\targv: ]}\n', 3),
])
def test_a_valid_tab_is_not_reported_as_the_cause_of_another_error(vornctl, text, line):
    stdout = vornctl("-", text=text).stdout
    assert stdout.startswith(f"<stdin>:{line}:"), stdout
    assert "tab" not in stdout


@pytest.mark.parametrize("program_and_arguments", [
    "nginx -c /a", "nginx -p /a", "sshd -D", "sshd -eD", "lighttpd -D -f /a",
    "mosquitto -c /a", "redis-server --daemonize no", "other -d", "cron -f",
])
def test_a_server_in_the_foreground_is_not_reported(vornctl, program_and_arguments):
    path, argv = program_and_arguments.split(" ", 1)
    text = f"vornnode:\n  a:\n    path: /usr/sbin/{path}\n    argv: {argv}\n"
    assert vornctl("-", text=text).stdout == ""


def test_a_file_name_can_begin_with_a_bracket(vornctl):
    name = write(vornctl, CLEAN, "[x].yaml")
    assert vornctl("--no-host", name).returncode == 0
    assert vornctl(name, command="graph").returncode == 0


def test_quiet_does_not_change_the_exit_status(vornctl):
    finished = vornctl("-q", "-", text=ERROR)
    assert (finished.returncode, finished.stdout, finished.stderr) == (1, "", "")


def test_a_file_of_5000_nodes_is_checked(vornctl):
    nodes = "".join(f"  n{i}:\n    path: /bin/sh\n    required: [n{i + 1}]\n"
                    for i in range(5000))
    finished = vornctl("--format=json", "-", text=f"vornnode:\n{nodes}")
    assert names_in(finished) == [
        (4, "long-stop"), (15001, "required-unknown")]


def on_terminal(program, path, *options):
    """The output of check on a terminal."""
    terminal, other_end = pty.openpty()
    process = subprocess.Popen(
        [program.with_name("vornctl"), "check", "--no-host", *options, path.name],
        cwd=path.parent, stdin=subprocess.DEVNULL, stdout=other_end,
        stderr=other_end, env={**os.environ, "TERM": "xterm"},
    )
    os.close(other_end)
    shown = b""
    try:
        while piece := os.read(terminal, 4096):
            shown += piece
    except OSError:
        pass  # EIO: the other end is closed
    os.close(terminal)
    assert process.wait(timeout=60) == 1
    return shown.decode().replace("\r\n", "\n")


def test_a_terminal_is_shown_the_source_and_a_caret(vornctl, program):
    text = "vornnode:\n  größe: {\tsleep: x, path: /bin/sh}\n"
    path = vornctl.directory / write(vornctl, text)
    assert on_terminal(program, path, "--color=never") == (
        "launch.yaml:2:21: error: 'sleep' is 'x', not a whole number of "
        "milliseconds from 0 to 4294967295 [not-a-number]\n"
        "    größe: { sleep: x, path: /bin/sh}\n"
        "                    ^\n"
    )


def test_a_terminal_is_shown_colours(vornctl, program):
    path = vornctl.directory / write(vornctl, ERROR)
    shown = on_terminal(program, path)
    assert shown.startswith("\x1b[1mlaunch.yaml:3:11:\x1b[0m \x1b[31merror:\x1b[0m ")


# -- Limits.


def test_a_file_that_is_too_large_is_not_read(vornctl):
    assert failure_of(vornctl, "/dev/zero") == (
        "vornctl: cannot read /dev/zero: it is larger than 16 MiB, the limit for a "
        "launch file\n")


SHARED_LIST = (
    "x-list: &r [" + "x, " * 2000 + "x]\nvornnode:\n"
    + "".join(f"  n{i}: {{path: /bin/sh, required: *r}}\n" for i in range(2000)))
SHARED_TEXT = (
    "x-text: &t " + "x" * 100_000 + "\nvornnode:\n"
    + "".join(f"  n{i}: {{path: *t}}\n" for i in range(2000)))
EXPANDED = (
    "configure: {environment: {VORN_ROOT: /" + "x" * 100_000 + ", V: "
    + "install://" * 2000 + "}}\n")


@pytest.mark.parametrize("text", [SHARED_LIST, SHARED_TEXT, EXPANDED],
                         ids=["list", "text", "install"])
def test_a_file_that_expands_too_far_is_not_checked(vornctl, text):
    reason = ("with its aliases expanded, it has more than 1000000 values or 64 MiB "
              "of text\n")
    assert failure_of(vornctl, "-", text=text) == f"vornctl: cannot check -: {reason}"
    assert failure_of(vornctl, "-", text=text, command="graph") == (
        f"vornctl: cannot draw -: {reason}")


def test_too_many_global_variables_for_all_nodes_are_not_resolved(vornctl):
    variables = "".join(f"    V{i}: x\n" for i in range(2000))
    nodes = "".join(f"  n{i}: {{path: /bin/sh}}\n" for i in range(2000))
    text = f"configure:\n  environment:\n{variables}vornnode:\n{nodes}"
    assert failure_of(vornctl, "-", "--print=resolved", text=text) == (
        "vornctl: cannot print the results: the global variables of all nodes "
        "together are more than 1000000 values or 64 MiB of text\n")


def test_of_many_diagnostics_of_a_kind_100_are_shown(vornctl):
    keys = "".join(f"    k{i}: 1\n" for i in range(150))
    finished = vornctl("-", text=CLEAN + keys + "    sleep: 20000\n")
    lines = finished.stdout.splitlines()
    assert len([line for line in lines if "unknown key" in line]) == 100
    assert lines[100] == (
        "<stdin>:104:5: warning: only the first 100 diagnostics of this kind are shown [unknown-key]")
    assert "[long-sleep]" in lines[101] and len(lines) == 102


def test_silenced_diagnostics_do_not_count_towards_the_limit(vornctl):
    keys = "".join(f"    k{i}: 1  # vornctl: ignore=unknown-key\n" for i in range(150))
    assert vornctl("-", text=CLEAN + keys).stdout == ""


def test_a_long_source_line_is_shown_in_part(vornctl):
    text = "vornnode: {a: {path: /a, " + "k: ä, " * 10_000 + "sleep: x}}\n"
    lines = vornctl("-", "--color=always", "--ignore=unknown-key",
                    text=text).stdout.splitlines()
    assert len(lines) == 3
    assert lines[1].startswith("  …") and lines[1].endswith(" ä, sleep: x}}")
    assert lines[1][lines[2].index("^")] == "x"
    assert max(map(len, lines)) < 200


def test_a_long_message_loses_its_middle(vornctl):
    text = "vornnode:\n  a:\n    path: " + "ä" * 40_000
    line = vornctl("-", text=text).stdout
    assert line.startswith("<stdin>:3:11: warning: path 'ä")
    assert "ää…ää" in line and "an absolute path [relative-path]" in line
    assert len(line) < 1000


def test_a_cycle_of_many_nodes_has_few_notes(vornctl):
    nodes = "".join(f"  n{i}: {{path: /bin/sh, required: [n{(i + 1) % 500}]}}\n"
                    for i in range(500))
    lines = vornctl("-", text=f"vornnode:\n{nodes}").stdout.splitlines()
    assert len(lines) == 22
    assert lines[-1].endswith(": note: further locations are not shown")


# -- Signals.


@pytest.mark.parametrize("command", ["check", "graph"])
@pytest.mark.parametrize("number", [signal.SIGINT, signal.SIGTERM, signal.SIGHUP])
def test_a_stop_signal_terminates_it_at_once(program, command, number):
    process = subprocess.Popen([program.with_name("vornctl"), command, "-"],
                               stdin=subprocess.PIPE)
    process.stdin.write(b"vornnode:\n")
    process.stdin.flush()
    eventually(lambda: not any(fcntl.ioctl(process.stdin, termios.FIONREAD, bytes(4))),
               "the beginning of the file is read")
    process.send_signal(number)
    assert process.wait(timeout=PATIENCE) == -number
    process.stdin.close()


def test_a_stop_signal_that_the_caller_ignores_stays_ignored(program):
    process = subprocess.Popen(
        ["nohup", program.with_name("vornctl"), "check", "-"], encoding="ascii",
        stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=subprocess.PIPE)
    status = pathlib.Path(f"/proc/{process.pid}/status")
    ignored = 1 << (signal.SIGHUP - 1)
    eventually(lambda: int(re.search(r"SigIgn:\t(\w+)", status.read_text(
        encoding="ascii"))[1], 16) & ignored, "SIGHUP is ignored")
    process.send_signal(signal.SIGHUP)
    process.communicate(CLEAN)
    assert process.returncode == 0


# -- Machine-readable formats.

CYCLE = (
    "vornnode:\n"
    "  ä: {path: /bin/sh, required: [b]}\n"
    "  b: {path: /bin/sh, required: [ä]}\n"
)


def test_json_has_every_field_of_a_diagnostic(vornctl):
    name = write(vornctl, CYCLE)
    finished = vornctl("--format=json", "--no-host", name)
    assert finished.returncode == 1
    message = "cycle of 'required': ä -> b -> ä; stopping any of them blocks the "
    assert json.loads(finished.stdout) == {
        "schema": 1,
        "files": [{
            "file": name,
            "loads": True,
            "findings": [{
                "line": 2, "column": 34, "severity": "error",
                "name": "required-cycle", "message": message + "launcher forever",
                "notes": [{"line": 3, "column": 33,
                           "message": "'b' requires 'ä' here"}],
            }],
        }],
    }


def test_json_says_which_files_the_launcher_loads(vornctl):
    names = [write(vornctl, CLEAN, "a"), write(vornctl, ERROR, "b"),
             write(vornctl, "[", "c")]
    files = json.loads(vornctl("--format=json", *names).stdout)["files"]
    assert [(each["file"], each["loads"]) for each in files] == [
        ("a", True), ("b", False), ("c", False)]


def test_sarif_has_rules_results_and_related_places(vornctl):
    name = write(vornctl, CYCLE, "a b.yaml")
    printed = vornctl("--format=sarif", "--no-host", name).stdout
    log = json.loads(printed)
    assert log["version"] == "2.1.0"
    (run,) = log["runs"]
    rules = {rule["id"]: rule for rule in run["tool"]["driver"]["rules"]}
    listed = vornctl("--list").stdout.splitlines()
    assert list(rules) == [line.split("\t")[0] for line in listed]
    for rule in rules.values():
        assert "helpUri" not in rule
        assert len(rule["help"]["text"]) > 20 and "](" not in rule["help"]["text"]
        assert rule["help"]["markdown"] == rule["help"]["text"]
    assert "deadlocks the launcher" in rules["required-cycle"]["help"]["text"]
    (result,) = run["results"]
    assert result["ruleId"] == "required-cycle" and result["level"] == "error"
    (place,) = result["locations"]
    assert place["physicalLocation"] == {
        "artifactLocation": {"uri": "a%20b.yaml"},
        "region": {"startLine": 2, "startColumn": 33},  # in characters
    }
    assert run["columnKind"] == "unicodeCodePoints"
    (related,) = result["relatedLocations"]
    assert related["physicalLocation"]["region"]["startLine"] == 3
    assert related["message"]["text"] == "'b' requires 'ä' here"


def test_github_gets_a_command_per_diagnostic(vornctl):
    name = write(vornctl, CYCLE + "  100%: {path: x, pid: 1}\n", "a,b.yaml")
    lines = vornctl("--format=github", "--no-host", name).stdout.splitlines()
    assert lines[0] == (
        "::error file=a%2Cb.yaml,line=2,col=34,title=required-cycle::cycle of "
        "'required': ä -> b -> ä; stopping any of them blocks the launcher forever"
        "%0Aline 3: 'b' requires 'ä' here"
    )
    assert lines[-1].startswith("::warning file=a%2Cb.yaml,line=4,col=19,title=")
    assert "'100%25'" in lines[-1]
    noted = vornctl("--format=github", "-", text=NOTE).stdout
    assert noted.startswith("::notice file=<stdin>,line=1,col=1,title=no-nodes::")


# -- Other output.

SEVERAL = """\
configure:
  environment:
    LIMIT: "7"
    VORN_BIN_PATH: install://bin
vornnode:
  prepare:
    path: prepare
    oneshot: true
  camera:
    path: /opt/camera
    argv: --rate 30
    sleep: 1500
    environment:
      LIMIT: "8"
    required: [detector]
  detector:
    path: detector
    sleep: 300
  spare:
    path: spare
    disabled: true
    sleep: 4294968
  lamp:
    path: lamp
    autostart: false
    sleep: 50
"""
ROOT = {"VORN_ROOT": "/opt/v"}


def test_resolved_shows_the_origin_of_everything(vornctl):
    finished = vornctl("--print=resolved", "-", text=SEVERAL, environment=ROOT)
    blocks = finished.stdout.split("camera  # line 9\n")
    assert blocks[1].splitlines()[:9] == [
        "  argv         /opt/camera                            path, line 10",
        "               --rate                                 argv, line 11",
        "               30                                     argv, line 11",
        "  environment  LIMIT=7                                configure, line 3, "
        "overwritten below",
        "               VORN_BIN_PATH=/opt/v/bin               configure, line 4",
        "               __VORN_NODE_NAME__=camera(vornlaunch)  launcher",
        "               LIMIT=8                                node, line 14",
        "  required     detector                               line 15",
        "  flags        sleep 1500 (line 12)",
    ]
    assert ("  argv         /opt/v/bin/prepare                      path, line 7, "
            "below VORN_BIN_PATH, line 4\n") in blocks[0]


def test_resolved_names_the_environment_if_the_directory_comes_from_it(vornctl):
    finished = vornctl("--print=resolved", "-", text="vornnode: {a: {path: x}}\n",
                       environment={"VORN_BIN_PATH": "/b"})
    assert ("/b/x                              path, line 1, below VORN_BIN_PATH of "
            "the environment") in finished.stdout


def test_the_timeline_sums_the_delays_of_the_started_nodes(vornctl):
    finished = vornctl("--print=timeline", "-", text=SEVERAL)
    assert finished.stdout.splitlines() == [
        "START    NODE      SLEEP",
        "0.000 s  prepare   -",
        "1.500 s  camera    1.500 s",
        "1.800 s  detector  0.300 s",
        "-        spare     -        disabled",
        "-        lamp      0.050 s  not started automatically",
    ]


def test_the_stop_timeout_includes_all_stops_and_earlier_restarts(vornctl):
    # Five stops of 11 s; with camera, the detector's stop, 0.2 s and its 0.3 s.
    finished = vornctl("--print=stop-timeout", "-", text=SEVERAL)
    assert finished.stdout == "67\n"


def test_a_node_that_was_stopped_before_is_not_restarted(vornctl):
    text = "vornnode:\n  b: {path: /b}\n  a: {path: /a, required: [b]}\n"
    assert vornctl("--print=stop-timeout", "-", text=text).stdout == "22\n"


def test_a_stop_that_can_deadlock_has_no_timeout(vornctl):
    finished = vornctl("--print=stop-timeout", "-", text=CYCLE)
    assert finished.stdout == "never\n"
    assert finished.returncode == 1


def test_with_print_diagnostics_go_to_standard_error(vornctl):
    finished = vornctl("--print=timeline", "-", text=ERROR)
    assert finished.stdout == ""
    assert finished.stderr == "<stdin>:" + ERROR_LINE
    assert finished.returncode == 1


# -- The graph.

DOT = """\
digraph launch {
  rankdir=LR;
  node [shape=box];
  n0 [label="ä \\"x\\"\\noneshot\\nsleep 5 ms"];
  n1 [label="b\\ndisabled", style=dashed];
  n2 [label="c"];
  n0 -> n1;
  n1 -> n2 [color=red];
  n2 -> n1 [color=red];
}
"""
GRAPH = """\
vornnode:
  ä "x": {path: /a, oneshot: true, sleep: 5, required: [b, other]}
  b: {path: /b, disabled: true, required: [c, b]}
  c: {path: /c, required: [b]}
"""


def test_the_graph_has_policies_arrows_and_red_cycles(vornctl):
    finished = vornctl("-", text=GRAPH, command="graph")
    assert (finished.returncode, finished.stdout) == (0, DOT)


def test_the_graph_is_drawn_for_documents(vornctl):
    finished = vornctl("--format=mermaid", "-", text=GRAPH, command="graph")
    assert finished.stdout == (
        "flowchart LR\n"
        '  n0["ä #34;x#34;<br>oneshot<br>sleep 5 ms"]\n'
        '  n1["b<br>disabled"]\n'
        '  n2["c"]\n'
        "  n0 --> n1\n"
        "  n1 --> n2\n"
        "  n2 --> n1\n"
        "  linkStyle 1 stroke:red\n"
        "  linkStyle 2 stroke:red\n"
    )


def false_dot(vornctl, body):
    """A directory with a replacement for Graphviz."""
    directory = vornctl.directory / "bin"
    directory.mkdir()
    (directory / "dot").write_text(f"#!/bin/sh\n{body}\n", encoding="ascii")
    (directory / "dot").chmod(0o755)
    return {"PATH": f"{directory}:/usr/bin:/bin"}


def test_svg_is_drawn_by_graphviz(vornctl):
    path = false_dot(vornctl, 'echo "$@"; cat')
    finished = vornctl("--format=svg", "-", text=GRAPH, command="graph",
                       environment=path)
    assert (finished.returncode, finished.stdout) == (0, "-Tsvg\n" + DOT)


def test_a_graph_that_cannot_be_drawn_is_a_failure(vornctl):
    path = false_dot(vornctl, "cat >/dev/null; exit 3")
    finished = vornctl("--format=svg", "-", text=GRAPH, command="graph",
                       environment=path)
    assert finished.returncode == 1
    assert finished.stderr == "vornctl: Graphviz could not draw the graph\n"


def test_svg_without_graphviz_is_a_clear_error(vornctl):
    finished = vornctl("--format=svg", "-", text=GRAPH, command="graph",
                       environment={"PATH": "/nonexistent"})
    assert finished.returncode == 1
    assert finished.stderr == (
        "vornctl: cannot draw SVG without Graphviz; install it (Debian: graphviz) or use --format mermaid or dot\n"
    )


def test_a_file_that_does_not_load_has_no_graph(vornctl):
    finished = vornctl("-", text=ERROR, command="graph")
    assert (finished.returncode, finished.stdout) == (2, "")
    assert finished.stderr == (
        "vornctl: the launcher would not load -: yaml-cpp: error at line 4, column "
        "1: bad conversion; 'vornctl check' reports all errors\n"
    )
    assert vornctl("missing.yaml", command="graph").returncode == 2
