"""The service on a booted Debian: its unit, the packages and the journal."""

import json

import pytest

UNIT = "vornlaunch.service"
FILE = "/etc/vornlaunch/launch.yaml"
WRONG_FILE = "vornnode: {camera: {path: /opt/robot/camera, oneshot: perhaps}}"


@pytest.fixture(autouse=True)
def fixture_restore(robot):
    """Each test begins with the usual launch file, the service and its nodes."""
    yield
    robot.run(f"rm -f /full; cp /root/launch.yaml {FILE}; systemctl reset-failed; "
              f"systemctl start {UNIT}")
    robot.wait_until_running("camera", "planner")


def states(robot):
    """The state of each node by its name."""
    nodes = json.loads(robot.output("vornctl status --json"))["nodes"]
    return {node["name"]: node["state"] for node in nodes}


def node_processes(robot):
    """The pids of the processes that run a node's program."""
    return set(robot.output("pgrep -f '^sleep 100000'").split())


def wait_for_another_launcher(robot, before):
    pid = f"$(systemctl show -P MainPID {UNIT})"
    robot.wait_for(f"test {pid} -ne 0 -a {pid} -ne {before}", "another launcher runs")


def test_the_nodes_run_again_after_a_reboot(robot):
    robot.reboot()
    robot.wait_until_running("camera", "planner")
    assert states(robot) == {"camera": "running", "planner": "running"}


@pytest.mark.parametrize("signal", ["KILL", "INT", "SEGV"])
def test_a_launcher_that_ends_is_restarted_without_leftover_processes(robot, signal):
    before = robot.launcher_pid()
    old = node_processes(robot)
    robot.run(f"kill -{signal} {before}")
    wait_for_another_launcher(robot, before)
    robot.wait_until_running("camera", "planner")
    assert not old & node_processes(robot)
    assert robot.run("vornctl orphans").returncode == 0


def test_an_update_of_the_packages_keeps_the_launcher_running(robot):
    before = robot.launcher_pid()
    robot.run("cd /root/packages && apt-get install -y --reinstall "
              "./vornlaunch_*.deb ./vornctl_*.deb")
    assert robot.launcher_pid() == before


def test_the_socket_survives_the_cleaning_of_temporary_files(robot):
    robot.run("touch --date '30 days ago' /tmp/vornlaunch /tmp/vornlaunch/*")
    robot.run("SYSTEMD_LOG_LEVEL=info systemd-tmpfiles --clean")
    robot.run("vornctl ping")


@pytest.mark.parametrize("jump", ["+1 hour", "-1 hour"])
def test_nodes_survive_a_jump_of_the_clock(robot, jump):
    before = node_processes(robot)
    robot.run(f"date --set '{jump}'")
    assert states(robot) == {"camera": "running", "planner": "running"}
    assert node_processes(robot) == before
    robot.run("vornctl restart camera")
    robot.wait_until_running("camera", "planner")


def test_a_node_restarts_although_the_clock_was_set_back(robot):
    robot.run("date --set '-1 hour'")
    robot.run("pkill -KILL -f -o '^sleep 100000'")
    robot.wait_until_running("camera", "planner")
    robot.run("date --set '+1 hour'")


def test_the_journal_has_the_levels_of_the_log(robot):
    robot.run("pkill -KILL -f -o '^sleep 100000'")
    robot.wait_for("vornctl history | grep -q SIGKILL", "the death is in the journal")
    lines = robot.output(f"journalctl -u {UNIT} -o json --output-fields=PRIORITY,MESSAGE "
                         "-t vornlaunch").splitlines()
    entries = [json.loads(line) for line in lines]
    assert {entry["PRIORITY"] for entry in entries
            if "receive signal: 9" in entry["MESSAGE"]} == {"6"}
    assert not [entry for entry in entries if entry["MESSAGE"].startswith("<")]


@pytest.mark.parametrize("replace, reason", [
    (f"rm {FILE}", "No such file or directory"),
    (f"echo '{WRONG_FILE}' >{FILE}", "oneshot"),
], ids=["missing", "wrong"])
def test_without_a_valid_file_the_unit_fails_once(robot, replace, reason):
    begin = robot.output("date +%s").strip()
    robot.run(f"{replace}; systemctl restart {UNIT}", check=False)
    robot.wait_for(f"systemctl is-failed {UNIT}", "the service has failed")
    errors = robot.output(f"journalctl -u {UNIT} -p err --since @{begin} -o cat")
    assert reason in errors and "Start request repeated" not in errors
    shown = robot.output(f"systemctl show -p ExecMainStatus,NRestarts {UNIT}")
    assert set(shown.split()) == {"ExecMainStatus=78", "NRestarts=0"}


def test_an_interrupted_apply_is_reported_once_at_the_next_start(robot):
    file = json.loads(robot.output(f"cat {FILE}"))
    file["vornnode"]["camera"]["argv"] = "--new"
    robot.write("/root/new.yaml", json.dumps(file))
    begin = robot.output("date +%s").strip()

    def number_of_reports():
        return robot.output(f"journalctl -u {UNIT} -p warning --since @{begin} "
                            "-o cat").count("[interrupted-apply]")

    before = robot.launcher_pid()
    robot.run("systemd-run --unit=applied vornctl apply --for 1h /root/new.yaml")
    wait_for_another_launcher(robot, before)
    robot.wait_until_running("camera", "planner")
    assert number_of_reports() == 0
    robot.run(f"systemctl kill --signal=KILL applied; systemctl restart {UNIT}")
    robot.wait_until_running("camera", "planner")
    assert number_of_reports() == 1
    robot.run("vornctl apply --for 1s /root/launch.yaml")
    assert robot.run("test -e /etc/vornlaunch/launch.yaml.apply",
                     check=False).returncode == 1


def test_only_one_of_the_units_runs(robot):
    robot.run(f"cp {FILE} /etc/vornlaunch/other.yaml")
    robot.run("systemctl start vornlaunch@other.service")
    active = robot.output("systemctl list-units --state=active --plain --no-legend "
                          "'vornlaunch*.service'")
    assert [line.split()[0] for line in active.splitlines()] == [
        "vornlaunch@other.service"]
    robot.run(f"cp {FILE} /etc/vornlaunch/third.yaml")
    robot.run("systemctl start vornlaunch@third.service")
    robot.wait_for("systemctl is-failed vornlaunch@third.service", "it is refused")
    assert "another launcher answers" in robot.output(
        "journalctl -u vornlaunch@third.service -p err -o cat")
    robot.run("systemctl stop vornlaunch@other.service")


def test_a_node_killed_for_lack_of_memory_is_explained(robot):
    robot.write("/opt/robot/hungry", "#!/usr/bin/python3\n"
                "x = b'x' * (900 << 20)\n", "755")
    file = json.loads(robot.output(f"cat {FILE}"))
    file["vornnode"]["hungry"] = {"path": "/opt/robot/hungry"}
    robot.write(FILE, json.dumps(file))
    robot.run(f"systemctl set-property --runtime {UNIT} MemoryMax=200M MemorySwapMax=0")
    robot.run(f"systemctl restart {UNIT}")
    robot.wait_for("vornctl why hungry | head -1 | grep 'for lack of memory'",
                   "why names the lack of memory")
    assert states(robot)["camera"] == "running"
    robot.run(f"systemctl set-property --runtime {UNIT} MemoryMax=infinity")
    robot.run(f"systemctl stop {UNIT}")


def test_the_service_runs_on_a_full_disk(robot):
    robot.run("cat /dev/zero >/full || true")
    robot.run(f"systemctl restart {UNIT}")
    robot.wait_until_running("camera", "planner")


def test_a_purge_leaves_neither_processes_nor_the_socket(robot):
    before = robot.launcher_pid()
    robot.run("apt-get purge -y vornlaunch vornctl")
    assert robot.run(f"kill -0 {before}", check=False).returncode != 0
    assert robot.output("ls /tmp/vornlaunch") == ""
    assert robot.output("pgrep -f '^sleep 100000' || true") == ""
    robot.run("cd /root/packages && apt-get install -y ./vornlaunch_*.deb "
              "./vornctl_*.deb")


def test_the_service_runs_on_a_read_only_file_system(guest):
    guest.run("sed -i 's|ext4 defaults|ext4 ro|' /etc/fstab; for directory in tmp var/log; "
              "do echo \"tmpfs /$directory tmpfs defaults 0 0\" >>/etc/fstab; done; sync")
    guest.reboot()
    guest.wait_until_running("camera", "planner")
    assert guest.output("findmnt -n -o OPTIONS /").startswith("ro,")
    guest.run("vornctl restart camera")
    guest.wait_until_running("camera")
    guest.wait_for("vornctl history | grep -q camera", "the restart is in the history")
    guest.run("cp /root/launch.yaml /tmp && echo >>/tmp/launch.yaml")
    done = guest.run("vornctl apply --for 1s /tmp/launch.yaml", check=False)
    assert done.returncode == 2
    assert "Read-only file system" in done.stderr
