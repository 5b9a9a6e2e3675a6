"""vornctl diff compares launch files with each other and with running processes."""

import json


def test_diff_compares_files_and_running_processes(machine):
    def text(time):
        return json.dumps({"vornnode": {
            "camera": {"path": "/usr/bin/env", "argv": f"sleep {time}",
                       "environment": {"SPEED": str(time)}}}})

    machine.start(text(1001))
    machine.child("camera", ["sleep", "1001"])
    same = machine.file("same.yaml", text(1001))
    new = machine.file("new.yaml", text(1002))
    done = machine.vornctl("diff", "/tmp/launch.yaml", new)
    assert (done.returncode, done.stdout, done.stderr) == (
        1, "camera: changed; restarts\n"
        "  argv: /usr/bin/env sleep 1001 -> /usr/bin/env sleep 1002\n"
        "  environment SPEED: 1001 -> 1002\n", "")
    done = machine.vornctl("diff", "--running", same)
    assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
    done = machine.vornctl("diff", "--running", "--json", new)
    assert done.returncode == 1
    [camera] = json.loads(done.stdout)["nodes"]
    assert (camera["difference"], camera["effect"]) == ("changed", "restarts")
    assert camera["parts"] == [
        {"part": "argv", "old": "sleep 1001", "new": "/usr/bin/env sleep 1002"},
        {"part": "environment SPEED", "old": "1001", "new": "1002"}]
    assert machine.vornctl("diff", same, "/tmp/missing").returncode == 2


def test_diff_shows_added_and_removed_nodes(machine):
    camera = {"camera": {"path": "/usr/bin/env"}}
    old = machine.file("old.yaml", json.dumps({
        "vornnode": {**camera, "old": {"path": "/bin/true"}}}))
    new = machine.file("new.yaml", json.dumps({
        "configure": {"environment": {"A": "1"}},
        "vornnode": {**camera, "lidar": {"path": "/bin/true"}}}))
    machine.start_without_launcher()
    assert machine.vornctl("diff", old, new).stdout == (
        "configure: changed\n  environment A: (none) -> 1\n"
        "lidar: added; starts\nold: removed; stops\n"
        "A restart of the launcher also restarts the unchanged nodes: 1\n")
    difference = json.loads(machine.vornctl("diff", "--json", old, new).stdout)
    assert difference["configure"] == [{"part": "environment A", "old": None, "new": "1"}]
    assert [node["difference"] for node in difference["nodes"]] == ["added", "removed"]
    for options, said in ((["--running"], "name one launch file with --running"),
                          ([], "name two launch files, or one with --running")):
        files = [old, new, new][:3 - len(options)]
        done = machine.vornctl("diff", *options, *files)
        assert (done.returncode, done.stderr) == (2, f"vornctl: {said}\n")
