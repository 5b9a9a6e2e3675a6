"""The measured programs: lower bounds, the launcher, and other supervisors from
Debian."""

import dataclasses
import os

from harness.sandbox import NODE

NODE_PATH = f"/tmp/bench/{NODE}"


def node_name(index):
    return f"node{index:05d}"


@dataclasses.dataclass(frozen=True)
class Subject:
    """A supervisor. `prepare` writes its files for a number of nodes into the directory
    bench of a sandbox and returns its command; `programs` are the programs of the build
    that it needs there; it supports at most `limit` nodes, for the reason
    `limit_reason`."""

    name: str
    prepare: object
    programs: tuple = ()
    limit: int = 1_000_000
    limit_reason: str = ""


def launch_file_text(count, keys=""):
    """`keys` are additional lines of each node."""
    nodes = [f"  {node_name(i)}:\n    path: {NODE_PATH}\n{keys}" for i in range(count)]
    return "vornnode:\n" + "".join(nodes)


def launcher(program="vornlaunch", name=None, keys=""):
    def prepare(bench, count):
        text = launch_file_text(count, keys)
        (bench / "launch.yaml").write_text(text, encoding="ascii")
        return [f"/tmp/bench/{program}", "/tmp/bench/launch.yaml"]

    return Subject(name or program, prepare, (program,))


def floor(name, program, *arguments):
    """A small C program; its arguments are the number of nodes and their program."""
    def prepare(_bench, count):
        return [f"/tmp/bench/{program}", count, NODE_PATH, *arguments]

    return Subject(name, prepare, (program,))


def _supervisord(bench, count):
    lines = [
        "[supervisord]", "nodaemon=true", "user=root", f"minfds={5 * count + 1024}",
        f"minprocs={count + 200}", "pidfile=/tmp/bench/pid",
        "logfile=/tmp/bench/supervisord.log", "childlogdir=/tmp/bench",
        "[unix_http_server]", "file=/tmp/bench/socket",
        "[rpcinterface:supervisor]",
        "supervisor.rpcinterface_factory="
        "supervisor.rpcinterface:make_main_rpcinterface",
    ]
    for i in range(count):
        lines += [f"[program:{node_name(i)}]", f"command={NODE_PATH}",
                  "startsecs=0", "stdout_logfile=NONE", "stderr_logfile=NONE"]
    (bench / "conf").write_text("\n".join(lines) + "\n", encoding="ascii")
    return ["supervisord", "-c", "/tmp/bench/conf"]


def _service_directories(bench, count):
    # The node runs without a shell.
    services = bench / "services"
    services.mkdir()
    for i in range(count):
        (services / node_name(i)).mkdir()
        os.symlink(NODE_PATH, services / node_name(i) / "run")
    return "/tmp/bench/services"


def _runit(bench, count):
    return ["runsvdir", _service_directories(bench, count)]


def _s6(bench, count):
    directory = _service_directories(bench, count)
    return ["s6-svscan", "-c", max(500, count + 10), directory]


def _daemontools(bench, count):
    return ["svscan", _service_directories(bench, count)]


START_FLOOR = floor("floor", "bench-start-floor")
LAUNCHER = launcher()
LAUNCHER_DYNAMIC = launcher("vornlaunch-dynamic", "vornlaunch, dynamic")
SUPERVISORD = Subject("supervisord", _supervisord, (), 1000,
                      "takes 10 s to start 1000 nodes, minutes for 5000")
RUNIT = Subject("runit", _runit, (), 1000, "runsvdir has 1000 services at most")
S6 = Subject("s6", _s6)
DAEMONTOOLS = Subject("daemontools", _daemontools, (), 1000,
                      "svscan has 1000 services at most")
PEERS = (SUPERVISORD, RUNIT, S6, DAEMONTOOLS)
