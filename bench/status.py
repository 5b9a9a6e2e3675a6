"""STATUS: requests per second and latencies, measured by a raw client."""

import array
import contextlib
import subprocess

from harness.figures import Table, percentile
from harness.subjects import LAUNCHER, LAUNCHER_DYNAMIC, SUPERVISORD, Subject
from harness.subjects import node_name
from harness.sandbox import NEXT_TO_SANDBOX, Sandbox
from support.control import REQUEST, RESPONSE, Cmd, pack_request
from support.waiting import eventually

COUNTS = (10, 1000, 5000)
ROUNDS, QUICK_ROUNDS = 41, 5
REQUESTS, REQUESTS_OF_SUPERVISORD = 500, 40

FLOOR = Subject("floor", lambda bench, count: ["/tmp/bench/bench-status-floor"],
                ("bench-status-floor",))


def asked_nodes(count):
    """All nodes, in a mixed order."""
    return [node_name(i * 7919 % count) for i in range(count)]


def launcher_requests(names):
    return b"".join(pack_request(Cmd.STATUS, name) for name in names)


def supervisord_requests(names):
    def request(name):
        body = (
            "<?xml version='1.0'?><methodCall><methodName>supervisor.getProcessInfo"
            "</methodName><params><param><value><string>" + name +
            "</string></value></param></params></methodCall>"
        )
        return ("POST /RPC2 HTTP/1.0\r\nContent-Type: text/xml\r\n"
                f"Content-Length: {len(body)}\r\n\r\n{body}").encode("ascii")

    return b"".join(request(name) for name in names)


class Served:
    """A sandbox with a program that answers requests."""

    def __init__(self, build, sandbox, subject, names):
        self._build, self._sandbox = build, sandbox
        if subject is SUPERVISORD:
            self.socket, self.count = "bench/socket", REQUESTS_OF_SUPERVISORD
            self.requests, self.reply_size = supervisord_requests(names), 0
            self.record_size = len(self.requests) // len(names)
        else:
            self.socket, self.count = "vornlaunch/vornlaunch.sock", REQUESTS
            self.requests = launcher_requests(names)
            self.reply_size = RESPONSE.size
            self.record_size = REQUEST.size
        eventually((sandbox.tmp / self.socket).exists, "the socket is there")
        sandbox.pin()

    def ask(self, count=None):
        """The nanoseconds of all requests together, then of each."""
        client = subprocess.run(
            [*NEXT_TO_SANDBOX, self._build / "bin/bench-client", self.socket,
             str(self.record_size), str(self.reply_size), str(count or self.count)],
            cwd=self._sandbox.tmp, input=self.requests, stdout=subprocess.PIPE,
            check=True)
        times = array.array("q", client.stdout)
        return times[0], list(times[1:])


def measure_count(build, count, rounds):
    subjects = [FLOOR, LAUNCHER, LAUNCHER_DYNAMIC, SUPERVISORD]
    subjects = [subject for subject in subjects if count <= subject.limit]
    rates, medians = Table("requests/s"), Table("ns")
    latencies = {}
    with contextlib.ExitStack() as stack:
        served = {}
        for subject in subjects:
            sandbox = stack.enter_context(Sandbox(build, subject, count))
            sandbox.start(0 if subject is FLOOR else None)
            served[subject.name] = Served(build, sandbox, subject, asked_nodes(count))
            served[subject.name].ask()  # the first ones find cold caches
        for _ in range(rounds):
            for name, one in served.items():
                whole, each = one.ask()
                rates.add(name, 1e9 * len(each) / whole)
                medians.add(name, percentile(each, 50))
                latencies.setdefault(name, []).extend(each)
    return {
        "rate": rates.as_json(FLOOR.name),
        "p50 of a round": medians.as_json(FLOOR.name),
        "latency_ns": {
            name: {"p50": percentile(values, 50), "p99": percentile(values, 99)}
            for name, values in latencies.items()
        },
        "capped": {} if SUPERVISORD in subjects
        else {SUPERVISORD.name: SUPERVISORD.limit_reason},
    }


def measure(build, quick):
    """Rates and latencies by number of nodes, and their ratios to the lower bound."""
    rounds = QUICK_ROUNDS if quick else ROUNDS
    return {str(count): measure_count(build, count, rounds)
            for count in (COUNTS[:2] if quick else COUNTS)}
