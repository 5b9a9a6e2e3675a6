"""vornctl doctor finds what is wrong with an installation."""

import json
import os
import shutil
import signal
import subprocess

import pytest

from support.blocking import held
from support.machine import PYTHON
from support.vornctl import VORNCTL
from support.waiting import eventually

AS_NOBODY = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
needs_root = pytest.mark.skipif(
    os.geteuid() != 0, reason="no right to become another user")
SOCKET = "/tmp/vornlaunch/vornlaunch.sock"
CHECKS = ["launcher", "socket", "answer", "activity", "launch-file", "log", "journal",
          "tools", "pids", "nodes", "programs", "orphans", "tmp-cleaning"]


def launch_file(machine):
    path = machine.script("stay", "exec sleep 1000")
    return {"vornnode": {"camera": {"path": path}}}


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with a running node."""
    return machine.start(launch_file(machine))


def examined(machine, *arguments, wrapper=()):
    """The findings of doctor by the name of their check."""
    done = machine.execute(*wrapper, VORNCTL, "doctor", "--json", *arguments)
    assert done.stderr == ""
    document = json.loads(done.stdout)
    assert document["schema"] == 1
    findings = {each.pop("check"): each for each in document["checks"]}
    assert list(findings) == CHECKS
    verdicts = {each["verdict"] for each in findings.values()}
    assert done.returncode == (1 if verdicts & {"error", "warning"} else 0)
    return findings


def problems(machine, *arguments, **options):
    """The verdicts of the checks that are not "ok"."""
    return {name: finding["verdict"]
            for name, finding in examined(machine, *arguments, **options).items()
            if finding["verdict"] != "ok"}


# -- The report.


def test_a_healthy_launcher_has_no_problem(robot):
    assert problems(robot) == {}
    done = robot.vornctl("doctor")
    assert (done.returncode, done.stderr) == (0, "")
    lines = done.stdout.splitlines()
    assert lines[0] == f"ok  launcher      launcher {robot.pid} runs"
    assert lines[-1] == f"{len(CHECKS)} ok"
    assert robot.vornctl("doctor", "-q").stdout == ""


def test_a_problem_is_printed_with_its_remedy(robot):
    (robot.tmp / "vornlaunch/vornlaunch.sock").chmod(0o600)
    done = robot.vornctl("doctor", "--quiet")
    assert (done.returncode, done.stdout) == (
        1, f"warning  socket  not every user can connect: {SOCKET} has the mode 0600; "
           f"chmod 666 {SOCKET}; to restrict the users, restrict its directory\n")
    assert robot.vornctl("doctor").stdout.splitlines()[-1] == (
        f"1 warning, {len(CHECKS) - 1} ok")


def test_doctor_needs_no_launcher(machine):
    machine.start_without_launcher()
    findings = examined(machine)
    assert findings["launcher"]["verdict"] == "error"
    assert findings["socket"]["verdict"] == "ok"
    assert findings["activity"]["verdict"] == "unknown"


@needs_root
def test_without_permission_a_check_is_unknown(robot):
    robot.tmp.chmod(0o1777)
    assert problems(robot, wrapper=AS_NOBODY) == {
        "log": "unknown", "journal": "unknown", "tools": "unknown", "nodes": "unknown",
        "programs": "unknown", "orphans": "unknown"}


# -- The launcher.


def test_a_suspended_launcher_is_found(robot):
    robot.signal(signal.SIGSTOP)
    findings = examined(robot, "--connect-timeout", "200ms")
    assert findings["answer"]["verdict"] == "error"
    assert findings["activity"] == {
        "verdict": "error", "finding": f"launcher {robot.pid} is suspended (state T)",
        "remedy": f"kill -CONT {robot.pid}"}


def test_the_client_that_blocks_the_launcher_is_found(robot):
    with held(robot):
        findings = examined(robot, "--connect-timeout", "200ms")
    assert findings["answer"]["verdict"] == "error"
    assert "waits for the request of another client" in findings["answer"]["finding"]


def test_several_launchers_are_found(robot):
    first = robot.pid
    robot.start_again()
    finding = examined(robot)["launcher"]
    assert finding["verdict"] == "error"
    assert finding["finding"] == (
        f"launchers {first} and {robot.pid} run; only {robot.pid} can be controlled")
    assert finding["remedy"].endswith(f"kill {first}")


@pytest.mark.plain  # a sanitizer terminates the launcher by itself
def test_a_process_1_with_an_invalid_file_is_found(machine):
    machine.file("launch.yaml", "vornnode: [\n")
    machine.start_without_launcher()
    script = (f"(until grep -q vornlaunch /proc/1/comm; do :; done; {VORNCTL} doctor "
              "--json >/tmp/result; mv /tmp/result /tmp/findings) & "
              "exec /tmp/install/bin/vornlaunch /tmp/launch.yaml 2>/tmp/log")
    with subprocess.Popen(machine.enter(
            "unshare", "--pid", "--fork", "--kill-child", "--mount-proc", "sh", "-c",
            script)) as container:
        try:
            eventually((machine.tmp / "findings").exists, "doctor has finished")
        finally:
            container.kill()
    checks = json.loads((machine.tmp / "findings").read_text())["checks"]
    [activity] = [each for each in checks if each["check"] == "activity"]
    assert activity["verdict"] == "error"
    assert "invalid launch file" in activity["finding"]


def test_a_changed_launch_file_is_found(robot):
    path = robot.tmp / "launch.yaml"
    future = robot.tmp.stat().st_mtime + 1000
    os.utime(path, (future, future))
    assert problems(robot) == {"launch-file": "warning"}


def test_missing_programs_of_a_stop_are_found(machine):
    machine.start(launch_file(machine), wrapper=["env", "PATH=/tmp"])
    finding = examined(machine)["tools"]
    assert finding["verdict"] == "error"
    assert "PATH is '/tmp', cannot find ps and grep:" in finding["finding"]


def test_the_path_of_the_launch_file_counts(machine):
    content = launch_file(machine)
    content["configure"] = {"environment": {"PATH": "/nowhere"}}
    machine.start(content)
    assert "'/nowhere'" in examined(machine)["tools"]["finding"]


def test_a_zombie_with_the_digits_of_a_node_is_found(robot):
    pid = robot.status("camera").pid
    script = ("import os, time\n"
              "with open('/proc/sys/kernel/ns_last_pid', 'w') as file:\n"
              f"    file.write('{pid}0')\n"
              "os.fork() or os._exit(0)\n"
              "time.sleep(1000)\n")
    robot.execute("sh", "-c", f'{PYTHON} -c "$0" >/dev/null 2>&1 &', script)
    eventually(lambda: any(p.state == "Z" for p in robot.processes()), "a zombie")
    finding = examined(robot)["pids"]
    assert finding["verdict"] == "error"
    assert f"pid {pid} of camera is a part of the pid of the zombie {pid}" in (
        finding["finding"])


@needs_root
def test_the_launcher_of_another_user_is_not_examined(machine):
    machine.tmp.chmod(0o1777)
    machine.start(launch_file(machine), wrapper=AS_NOBODY)
    findings = examined(machine)
    assert findings["answer"]["verdict"] == "error"
    assert "belongs to user 65534" in findings["answer"]["finding"]
    assert findings["launch-file"]["verdict"] == "unknown"
    trusting = examined(machine, "--trust-any-user")
    assert trusting["answer"]["verdict"] == trusting["launch-file"]["verdict"] == "ok"


# -- The nodes.


def test_a_crash_loop_is_found_in_the_log(machine):
    machine.start({"vornnode": {"crasher": {"path": machine.script("c", "exit 3")}}})
    machine.wait_for_log("'crasher' exited with status: 3.", count=3)
    finding = examined(machine)["nodes"]
    assert finding["verdict"] == "error"
    assert finding["finding"].startswith("crasher is in a crash loop")


def test_a_missing_executable_is_found(machine):
    machine.start({"vornnode": {"camera": {"path": "/tmp/none"}}})
    assert examined(machine)["nodes"]["finding"] == (
        "camera is disabled because its executable /tmp/none is missing")


def test_a_replaced_program_is_found(machine):
    for name in ("sleep", "new"):
        shutil.copy("/bin/sleep", machine.tmp / name)
    machine.start({"vornnode": {"camera": {"path": "/tmp/sleep", "argv": "1000"}}})
    machine.child("camera", ["/tmp/sleep", "1000"])
    (machine.tmp / "new").rename(machine.tmp / "sleep")
    finding = examined(machine)["programs"]
    assert finding["verdict"] == "warning"
    assert finding["remedy"] == "vornctl restart camera"


def test_processes_of_an_earlier_launcher_are_found(robot):
    robot.signal(signal.SIGKILL)
    robot.wait()
    robot.start_again()
    assert problems(robot) == {"orphans": "warning"}


# -- The socket.


def test_a_removed_socket_is_found(robot):
    (robot.tmp / "vornlaunch/vornlaunch.sock").unlink()
    findings = examined(robot)
    assert findings["socket"]["verdict"] == findings["answer"]["verdict"] == "error"
    assert f"although launcher {robot.pid} runs" in findings["socket"]["finding"]


def test_a_stale_socket_is_found(robot):
    first = robot.pid
    robot.start_again()
    robot.signal(signal.SIGKILL)
    robot.wait()
    finding = examined(robot)["socket"]
    assert finding["verdict"] == "error"
    assert f"launcher {first} does not listen on it" in finding["finding"]


# -- The log.


def test_a_deleted_log_is_found(robot):
    (robot.tmp / "stderr").unlink()
    assert problems(robot) == {"log": "warning"}


def test_a_full_file_system_of_the_log_is_found(machine):
    machine.file("launch.yaml", json.dumps(launch_file(machine)))
    machine.start(arguments=["/tmp/launch.yaml"], wrapper=[
        "sh", "-c", "mkdir /tmp/logs; mount -t tmpfs -o size=64k none /tmp/logs; "
        'exec "$@" 2>/tmp/logs/log', "sh"], stderr=subprocess.DEVNULL)
    assert problems(machine) == {}
    machine.execute("sh", "-c", "cat /dev/zero >/tmp/logs/zeros")
    finding = examined(machine)["log"]
    assert (finding["verdict"], finding["finding"]) == (
        "error", "the file system of the log /tmp/logs/log is full: new lines are lost")


def piped(machine):
    """A launcher whose log cat(1) reads; returns the reader."""
    machine.file("launch.yaml", json.dumps(launch_file(machine)))
    machine.start(arguments=["/tmp/launch.yaml"], wrapper=[
        "sh", "-c", "mkfifo /tmp/pipe; cat /tmp/pipe >/tmp/log & "
        'exec "$@" 2>/tmp/pipe', "sh"])
    return next(process for process in machine.processes() if process.name == "cat")


def test_a_suspended_reader_of_the_log_is_found(machine):
    reader = piped(machine)
    assert problems(machine, "--log", "/tmp/log") == {}
    reader.signal(signal.SIGSTOP)
    eventually(lambda: machine.find_process(reader.pid).state == "T", "it is suspended")
    finding = examined(machine)["log"]
    assert finding["verdict"] == "error"
    assert finding["remedy"] == f"kill -CONT {reader.pid}"


def test_a_pipe_without_a_reader_is_found(machine):
    reader = piped(machine)
    reader.signal(signal.SIGSTOP)
    eventually(lambda: machine.find_process(reader.pid).state == "T", "it is suspended")
    reader.signal(signal.SIGKILL)
    eventually(lambda: not machine.is_alive(reader.pid), "it has exited")
    assert examined(machine)["log"]["verdict"] == "error"


@pytest.mark.parametrize("redirection, text", [
    ("2>/dev/null", "/dev/null"), ("2>&-", "has closed its standard error")])
def test_a_launcher_without_a_log_is_found(machine, redirection, text):
    machine.file("launch.yaml", json.dumps(launch_file(machine)))
    machine.start(arguments=["/tmp/launch.yaml"], wrapper=[
        "sh", "-c", f'exec "$@" {redirection}', "sh"])
    finding = examined(machine)["log"]
    assert finding["verdict"] == "warning"
    assert text in finding["finding"]
