"""Real servers under the launcher, queried by their own clients."""

import dataclasses
import os
import shutil
import signal

import pytest

from support import log_texts
from support.control import Cmd, Result, State
from support.start_time import RESTART_TICKS, wait_for_start
from support.waiting import eventually

REDIS = """\
bind 127.0.0.1
port 6379
dir /tmp
save ""
appendonly no
"""

# Without a master: its workers would outlive a master that is killed and keep
# the port, since the launcher does not follow what its children fork.
NGINX = """\
daemon off;
master_process off;
pid /tmp/nginx.pid;
error_log stderr;
events {}
http {
  access_log off;
  client_body_temp_path /tmp/nginx-body;
  proxy_temp_path /tmp/nginx-proxy;
  fastcgi_temp_path /tmp/nginx-fastcgi;
  scgi_temp_path /tmp/nginx-scgi;
  uwsgi_temp_path /tmp/nginx-uwsgi;
  server {
    listen 127.0.0.1:80;
    location / { return 200 "Hello from nginx\\n"; }
  }
}
"""

MOSQUITTO = """\
listener 1883 127.0.0.1
allow_anonymous true
persistence false
user root
"""


@dataclasses.dataclass(frozen=True)
class Server:
    """A server, its configuration, and the command of its client."""

    name: str
    packages: str
    program: str
    argv: str
    config: str
    client: str
    ask: str  # a shell command
    answer: str
    needs_root: bool = False

    def node(self):
        """Its node in the launch file."""
        return {"path": self.program, "argv": self.argv}


SERVERS = [
    Server(
        name="redis",
        packages="redis-server",
        program="/usr/bin/redis-server",
        argv="/tmp/redis.conf",
        config=REDIS,
        client="redis-cli",
        ask="redis-cli -h 127.0.0.1 set greeting hello"
        " && redis-cli -h 127.0.0.1 get greeting",
        answer="OK\nhello\n",
    ),
    Server(
        name="nginx",
        packages="nginx and curl",
        program="/usr/sbin/nginx",
        argv="-e stderr -p /tmp -c /tmp/nginx.conf",
        config=NGINX,
        client="curl",
        ask="curl --silent --max-time 20 http://127.0.0.1/",
        answer="Hello from nginx\n",
        needs_root=True,
    ),
    Server(
        name="mosquitto",
        packages="mosquitto and mosquitto-clients",
        program="/usr/sbin/mosquitto",
        argv="-c /tmp/mosquitto.conf",
        config=MOSQUITTO,
        client="mosquitto_sub",
        ask="mosquitto_pub -h 127.0.0.1 -t greeting -m hello -r"
        " && mosquitto_sub -h 127.0.0.1 -t greeting -C 1 -W 20",
        answer="hello\n",
    ),
]
each_server = pytest.mark.parametrize("server", SERVERS, ids=lambda s: s.name)


def launch(machine, *servers):
    """Starts the launcher on the servers and on a node that keeps crashing, and
    waits until the servers answer."""
    nodes = {}
    for server in servers:
        for program in (server.program, server.client):
            if shutil.which(program) is None:
                pytest.skip(f"{program} is missing; install {server.packages}")
        if server.needs_root and os.geteuid() != 0:
            pytest.skip(f"{server.name} sets its groups, which takes a real root")
        machine.file(f"{server.name}.conf", server.config)
        nodes[server.name] = server.node()
    nodes["crasher"] = {"path": machine.script("crasher", "exit 1")}
    machine.start({"vornnode": nodes})
    for server in servers:
        wait_for_answer(machine, server)


def answers(machine, server):
    """Whether the server's client gets the expected reply."""
    return machine.run("sh", "-c", server.ask, check=False) == server.answer


def wait_for_answer(machine, server):
    eventually(lambda: answers(machine, server), f"{server.name} answers")


def wait_for_two_restarts_of_the_crasher(machine):
    """Waits until two rounds of restarts have passed. The crasher is the last node:
    other nodes are restarted before it."""
    text = log_texts.started("crasher")
    machine.wait_for_log(text, len(machine.log_lines(text)) + 2)


def kill(machine, pid):
    machine.find_process(pid).signal(signal.SIGKILL)


@each_server
def test_it_answers_its_client(machine, server):
    launch(machine, server)
    status = machine.status(server.name)
    assert status.state == State.RUNNING
    assert machine.find_process(status.pid).argv[0].startswith(
        (server.program, "nginx: ")
    )


@each_server
def test_after_a_kill_it_restarts_5_s_after_its_start_and_answers(machine, server):
    launch(machine, server)
    killed, first_start = wait_for_start(machine, server.name)
    kill(machine, killed)
    machine.wait_for_log(log_texts.killed(server.name, 9))
    _, next_start = wait_for_start(machine, server.name, other_than=killed)
    assert next_start - first_start >= RESTART_TICKS
    wait_for_answer(machine, server)


@each_server
def test_after_a_stop_it_stays_down_and_after_a_start_it_answers(machine, server):
    launch(machine, server)
    pid = machine.status(server.name).pid
    assert machine.request(Cmd.STOP, server.name).result == Result.SUCCESS
    eventually(lambda: not machine.is_alive(pid), "the process is gone")
    wait_for_two_restarts_of_the_crasher(machine)
    status = machine.status(server.name)
    assert (status.state, status.pid) == (State.STOPPED, 0)
    assert not answers(machine, server)
    assert machine.request(Cmd.START, server.name).result == Result.SUCCESS
    wait_for_answer(machine, server)


@each_server
def test_after_a_restart_it_answers_as_another_process(machine, server):
    launch(machine, server)
    pid = machine.status(server.name).pid
    assert machine.request(Cmd.RESTART, server.name).result == Result.SUCCESS
    assert machine.status(server.name).pid != pid
    eventually(lambda: not machine.is_alive(pid), "the old process is gone")
    wait_for_answer(machine, server)


@each_server
def test_killing_it_does_not_affect_the_other_servers(machine, server):
    launch(machine, *SERVERS)
    others = [other for other in SERVERS if other is not server]
    pids = {other.name: machine.status(other.name).pid for other in others}
    killed = machine.status(server.name).pid
    kill(machine, killed)
    wait_for_start(machine, server.name, other_than=killed)
    for other in SERVERS:
        wait_for_answer(machine, other)
    assert {other.name: machine.status(other.name).pid for other in others} == pids


def test_sigterm_terminates_all_servers_and_then_the_launcher(machine):
    launch(machine, *SERVERS)
    pids = [machine.status(server.name).pid for server in SERVERS]
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0
    eventually(
        lambda: not any(machine.is_alive(pid) for pid in pids),
        "the servers are gone",
    )
    assert not any(answers(machine, server) for server in SERVERS)
