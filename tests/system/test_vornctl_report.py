"""vornctl report writes one HTML file about a launcher, its nodes and its host."""

import base64
import hashlib
import os
import re
import signal
import stat
import time

import pytest

from support.report_page import HIDDEN, HOSTILE, Page
from support.vornctl import VORNCTL, on_terminal, running
from support.waiting import eventually

SECRETS = ["hunter-two", "of-camera", "old-password", "in-an-argument", "/a/secret"]
LAUNCH_FILE = """\
configure:
  environment:
    TOKEN: hunter-two  # not old-password
    KEY_FILE: /a/secret
vornnode:
  camera:
    path: /tmp/bin/stay
    argv: --password 'in-an-argument'
    required: [lidar]
    environment: {KEY: of-camera}
  lidar: {path: /tmp/bin/stay}
  flaky: {path: /tmp/bin/flaky}
  segv: {path: /tmp/bin/segv}
  gone: {path: /tmp/bin/gone}
"""


def add_programs(machine):
    machine.script("stay", "exec sleep 1000")
    machine.script("flaky", "echo connecting to hunter-two >&2; exit 3")
    machine.script("segv", "ulimit -c 0; kill -SEGV $$")


@pytest.fixture(name="night")
def fixture_night(machine):
    """A machine with a launcher of which some nodes have failed, and others were
    stopped and started by commands."""
    add_programs(machine)
    machine.start(LAUNCH_FILE)
    machine.wait_for_log("'flaky' exited with status: 3.")
    machine.wait_for_log("'segv' receive signal: 11.")
    machine.vornctl("stop", "lidar", "--reason", "clean the <b>lens</b>")
    machine.vornctl("start", "lidar")
    return machine


def report(machine, *arguments, **options):
    """The page that `vornctl report` prints."""
    done = machine.vornctl("report", "-o", "-", *arguments, **options)
    assert (done.returncode, done.stderr) == (0, "")
    return Page(done.stdout)


def test_the_nodes_have_the_columns_of_status(night):
    header, *rows = report(night).rows("nodes")
    assert header[:3] == ["node", "state", "pid"]
    found = {row[0]: dict(zip(header, row)) for row in rows}
    assert list(found) == ["camera", "lidar", "flaky", "segv", "gone"]
    assert found["camera"]["state"].endswith("running")
    assert "restarting in" in found["flaky"]["state"]
    assert found["gone"]["state"].endswith("disabled")
    assert found["flaky"]["last exit"] == "3"
    assert found["segv"]["last exit"] == "SIGSEGV"


def test_each_failing_node_is_a_problem(night):
    section = report(night).section("problems")
    problems = {article[0][0].text: "".join(article.itertext())
                for article in section.iter("article")}
    assert list(problems) == ["flaky", "segv", "gone"]
    assert "exited with status 3" in problems["flaky"]
    assert f"connecting to {HIDDEN}" in problems["flaky"]
    assert "SIGSEGV" in problems["segv"]
    assert "/tmp/bin/gone" in problems["gone"]


def test_the_timeline_has_the_runs_exits_and_commands_of_each_node(night):
    page = report(night)
    lidar = "\n".join(page.titles("lidar"))
    assert "killed by SIGTERM" in lidar
    assert "command stop by root: clean the <b>lens</b>" in lidar
    assert "command start by root" in lidar
    assert any(title.endswith("still running") for title in page.titles("lidar"))
    assert "exited with status 3" in "\n".join(page.titles("flaky"))
    assert "killed by SIGSEGV" in "\n".join(page.titles("segv"))


def test_the_table_of_events_is_in_the_order_of_their_times(night):
    page = report(night)
    _, *rows = page.rows("timeline")
    assert rows and [row[0] for row in rows] == sorted(row[0] for row in rows)
    assert ["lidar", "command start by root"] in [row[1:] for row in rows]


def test_diagnostics_follow_the_lines_of_the_launch_file(night):
    lines = list(report(night).section("file").iter("li"))
    assert [line[0].text for line in lines] == [
        line for line in masked_launch_file()]
    marked = [line for line in lines if line.get("class") == "marked"]
    assert [line[0].text.strip()[:5] for line in marked] == ["argv:", "gone:"]
    assert f"argument ''{HIDDEN}''" in "".join(marked[0].itertext())
    assert "[missing-executable]" in "".join(marked[1].itertext())


def masked_launch_file():
    """The lines of the launch file as the report shows them."""
    text = LAUNCH_FILE.replace("hunter-two  # not old-password", HIDDEN)
    text = text.replace("/a/secret", HIDDEN).replace("of-camera}", HIDDEN)
    return text.replace("in-an-argument", HIDDEN).splitlines()


def test_the_host_and_the_launcher_are_described(night):
    facts = dict(report(night).rows("host"))
    assert facts["Launcher"].startswith(f"process {night.pid}, since 2")
    assert facts["Launch file"] == "/tmp/launch.yaml"
    assert facts["Control socket"].startswith("/tmp/vornlaunch/vornlaunch.sock: s")
    assert facts["Kernel"].startswith("Linux ")
    assert re.fullmatch(r"\S+ of \S+ free", facts["Disk of the log"])


def test_the_findings_about_the_installation_are_those_of_doctor(night):
    printed = night.vornctl("doctor").stdout.splitlines()
    found = [row[:2] for row in report(night).rows("installation")[1:]]
    assert found and [line.split()[:2] for line in printed[:-1]] == [
        [verdict, name] for name, verdict in found]


def test_the_processes_of_nodes_have_their_memory(night):
    header, camera, *_ = report(night).rows("nodes")
    assert re.fullmatch(r"[\d.]+[KM]", camera[header.index("memory")])


def test_secrets_are_in_no_part_of_the_page(night):
    text = report(night).text
    assert [secret for secret in SECRETS if secret in text] == []
    assert f"connecting to {HIDDEN}" in text


def test_with_environment_the_values_of_variables_are_shown(night):
    page = report(night, "--with-environment")
    assert [secret for secret in SECRETS if secret not in page.text] == []
    assert HIDDEN not in page.text_of("file") + page.text_of("log")


def test_the_page_refers_to_no_other_file(night):
    page = report(night)
    identifiers = {each.get("id") for each in page.root.iter()}
    links = [each.get(name) for each in page.root.iter()
             for name in ("href", "src", "action", "data") if each.get(name)]
    assert links and {link[0] for link in links} == {"#"}
    assert {link[1:] for link in links} <= identifiers
    assert set(re.findall(r"url\(([^)]*)\)", page.text)) <= {
        "#plot", "#head", "#cyclic-head"}


def test_the_policy_allows_only_the_style_and_the_script_of_the_page(night):
    page = report(night)
    policy = next(meta.get("content") for meta in page.all("meta")
                  if meta.get("http-equiv") == "Content-Security-Policy")

    def hash_of(tag):
        [element] = page.all(tag)
        digest = hashlib.sha256(element.text.encode()).digest()
        return base64.b64encode(digest).decode()

    assert policy == (
        f"default-src 'none'; style-src 'sha256-{hash_of('style')}'; "
        f"script-src 'sha256-{hash_of('script')}'; base-uri 'none'; "
        "form-action 'none'")


def test_hostile_names_and_log_lines_do_not_become_markup(machine):
    stay = machine.script("stay", "printf '%s\\n' \"$1\" >&2; exec sleep 1000")
    machine.start({"vornnode": {
        HOSTILE: {"path": stay, "argv": HOSTILE, "required": ["other"]},
        "other": {"path": stay}}})
    eventually(lambda: f"\n{HOSTILE}\n" in machine.stderr(), "a node wrote a line")
    machine.vornctl("stop", HOSTILE)
    page = report(machine)
    assert [len(page.all(tag)) for tag in ("script", "style", "b")] == [1, 1, 0]
    assert not re.search("[\x00-\x08\x0b-\x1f\x7f-\x9f\u202a-\u202e]", page.text)
    assert page.rows("nodes")[1][0] == HOSTILE.replace(
        "\u202e", r"\xe2\x80\xae").replace("\x1b", r"\x1b").replace("\x07", r"\x07")


def test_the_log_begins_at_the_time_since(night):
    shown = report(night, "--since", "1970-01-01T00:00:00Z").text_of("log")
    assert "Created socket" in shown
    page = report(night, "--since", "0")
    assert "Created socket" not in page.text_of("log")
    assert "exited with status 3" not in page.text_of("timeline")


def test_without_a_launcher_the_files_are_reported(machine):
    machine.start_without_launcher()
    add_programs(machine)
    machine.launch_file(LAUNCH_FILE)
    log = machine.file("old.log", (
        "2026-11-20T12:00:00.000000Z *INFO  vornlaunch[9] node.cpp:88 "
        "startInternal: Node start 'camera' ok\n"))
    page = report(machine, "--launch-file", "/tmp/launch.yaml", "--log", log,
                  "--since", "2026-11-20T00:00:00Z")
    assert ["no launcher is running" in notice for notice in page.notices] == [True]
    assert [title[:20] for title in page.titles("camera")] == ["2026-11-20 12:00:00Z"]
    assert "[missing-executable]" in page.text_of("file")
    assert "startInternal" in page.text_of("log")


def test_without_any_file_the_host_is_reported(machine):
    machine.start_without_launcher()
    page = report(machine)
    assert [notice.split("; ")[-1] for notice in page.notices[1:2]] == [
        "name it with --launch-file"]
    assert "Kernel" in dict(page.rows("host"))


def test_a_launcher_that_does_not_answer_is_reported_with_the_reason(night):
    night.signal(signal.SIGSTOP)
    page = report(night, "--timeout", "100ms")
    night.signal(signal.SIGCONT)
    assert f"launcher {night.pid} is suspended" in page.notices[0]
    assert "required: [lidar]" in page.text_of("file")
    assert "exited with status 3" in page.text_of("timeline")


def test_a_launch_file_that_became_invalid_is_shown_with_its_errors(night):
    night.launch_file(LAUNCH_FILE.replace("lidar: {", "lidar: [{"))
    # A file counts as changed from 50 ms after the start on.
    later = time.time() + 5
    os.utime(night.tmp / "launch.yaml", (later, later))
    page = report(night)
    assert "error: " in page.text_of("file")
    assert [secret for secret in SECRETS if secret in page.text] == []
    assert any("was changed after the launcher started" in notice
               for notice in page.notices)


def test_by_default_a_new_file_is_named_after_the_host_and_the_time(night):
    shown = night.run("sh", "-c", f"umask 0; cd /tmp && mkdir out && cd out && "
                      f"{VORNCTL} report").rstrip("\n")
    assert re.fullmatch(r"vornlaunch-report-\S+-\d{8}T\d{6}Z\.html", shown)
    [file] = (night.tmp / "out").iterdir()
    assert file.name == shown
    assert stat.S_IMODE(file.stat().st_mode) == 0o600
    assert Page(file.read_text(encoding="utf-8")).notices == []


def test_the_option_o_replaces_a_file(night):
    night.file("report.html", "old")
    done = night.vornctl("report", "-o", "/tmp/report.html")
    assert (done.returncode, done.stdout) == (0, "/tmp/report.html\n")
    replaced = night.tmp / "report.html"
    assert stat.S_IMODE(replaced.stat().st_mode) == 0o600
    assert Page(replaced.read_text(encoding="utf-8"))
    assert list(night.tmp.glob("report.html?*")) == []


def test_a_file_that_is_not_regular_is_not_replaced(night):
    night.run("mkfifo", "/tmp/fifo")
    done = night.vornctl("report", "-o", "/tmp/fifo")
    assert done.returncode == 1
    assert done.stderr == ("vornctl: cannot write /tmp/fifo: it is not a regular file; "
                           "-o - writes to standard output\n")
    assert (night.tmp / "fifo").is_fifo()


def test_on_a_full_disk_no_part_of_a_file_is_left(night):
    night.run("sh", "-c", "mkdir /tmp/small && mount -t tmpfs -o size=16k none "
              "/tmp/small")
    done = night.vornctl("report", "-o", "/tmp/small/report.html")
    assert done.returncode == 1
    assert done.stderr == ("vornctl: cannot write /tmp/small/report.html: "
                           "No space left on device\n")
    assert night.run("ls", "-A", "/tmp/small") == ""


def test_a_report_that_cannot_be_printed_is_an_error(night):
    done = night.execute("sh", "-c", f"{VORNCTL} report -o - >/dev/full")
    assert (done.returncode, done.stderr) == (
        1, "vornctl: cannot write the report: No space left on device\n")


def test_an_interrupted_report_is_not_written(night):
    night.signal(signal.SIGSTOP)
    with running(night, "report", "-o", "/tmp/report.html") as client:
        client.wait_until_polling()
        client.signal(signal.SIGINT)
        assert client.end() == (
            1, "", "vornctl: interrupted; no report was written\n")
    night.signal(signal.SIGCONT)
    assert list(night.tmp.glob("report.html*")) == []


def test_a_report_is_not_printed_on_a_terminal(machine):
    machine.start_without_launcher()
    status, shown = on_terminal(machine, "report", "-o", "-")
    assert status == 2
    assert "refusing to write a report to a terminal" in shown
