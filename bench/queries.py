"""Queries of an operator: the processor time of vornctl on a large machine, with a
large log."""

import datetime
import resource
import subprocess
import time

from harness.figures import Table, summary
from harness.sandbox import NODE, Sandbox
from harness.subjects import Subject, node_name
from support.process_tree import children_of

NODES, PROCESSES_OF_A_NODE = 1000, 5
LOG_SIZE, QUICK_LOG_SIZE = 1 << 30, 1 << 26
LOG_SECONDS = 7 * 86400
ROUNDS, QUICK_ROUNDS = 7, 2
QUERIES = {
    "why": ["why", node_name(5)],
    "status -o wide": ["status", "-o", "wide"],
    "status --failed": ["status", "--failed"],
    "ps": ["ps"],
    "history, of a day": ["history", "--since", "24h", node_name(5)],
    "logs -n 10": ["logs", "-q", "-n", "10", node_name(5)],
}


def _exit(time_text, name, pid):
    """The launcher's lines about an exit and the restart of the node."""
    head = "vornlaunch[100] node.cpp:100 f: "
    return "".join(f"{time_text} {level:5} {head}{text}\n" for level, text in (
        ("INFO", "ssi_signo: 17"),
        ("INFO", f"si_pid: {pid}, si_code: 1, si_status: 3"),
        ("INFO", f"'{name}' exited with status: 3."),
        ("*INFO", f"Node '{name}' ready to restarting"),
        ("*INFO", f"Node start '{name}' ok")))


def write_log(path, size):
    """A log of the last days, until now: the output of the nodes, and their exits in
    between."""
    output = "".join(f"[INFO] [{node_name(i)}]: frame {i * 7919} published, queue 3, "
                     "latency 12.5 ms\n" for i in range(200))
    step = len(output) + len(_exit("2026-11-20T12:34:56.789012Z", node_name(0), 10000))
    now = time.time()
    with open(path, "w", encoding="ascii") as log:
        for i in range(size // step):
            seconds = now - LOG_SECONDS + LOG_SECONDS * i * step / size
            moment = datetime.datetime.fromtimestamp(seconds, datetime.timezone.utc)
            log.write(_exit(f"{moment:%Y-%m-%dT%H:%M:%S.%fZ}",
                            node_name(i * 7919 % NODES), 10000 + i))
            log.write(output)


def _subject(log_size):
    def prepare(bench, count):
        write_log(bench / "launch.log", log_size)
        node = f"/tmp/bench/{NODE}"
        several = bench / "several"
        several.write_text("#!/bin/sh\n" + f"{node} &\n" * (PROCESSES_OF_A_NODE - 1)
                           + f"exec {node}\n", encoding="ascii")
        several.chmod(0o755)
        (bench / "launch.yaml").write_text("vornnode:\n" + "".join(
            f"  {node_name(i)}:\n    path: /tmp/bench/several\n" for i in range(count)),
            encoding="ascii")
        return ["/bin/sh", "-c", "exec /tmp/bench/vornlaunch /tmp/bench/launch.yaml"
                " 2>>/tmp/bench/launch.log"]

    return Subject("vornctl", prepare, ("vornlaunch", "vornctl"))


def _processor_seconds(command):
    """Those of the command, and its duration."""
    def used():
        usage = resource.getrusage(resource.RUSAGE_CHILDREN)
        return usage.ru_utime + usage.ru_stime

    before, begin = used(), time.monotonic()
    done = subprocess.run(command, stdout=subprocess.PIPE, check=False)
    assert done.stdout, command
    return used() - before, time.monotonic() - begin


def measure(build, quick):
    """The processor time and the duration of each query, in seconds."""
    size = QUICK_LOG_SIZE if quick else LOG_SIZE
    used, lasted = Table("s"), Table("s")
    with Sandbox(build, _subject(size), NODES) as sandbox:
        sandbox.start(expected=NODES * PROCESSES_OF_A_NODE)
        [init] = children_of(sandbox.process_id)
        enter = ["nsenter", f"--target={init}", "--mount", "--root", "--pid", "--net",
                 "/tmp/bench/vornctl"]
        for _ in range(QUICK_ROUNDS if quick else ROUNDS):
            for name, arguments in QUERIES.items():
                processor, whole = _processor_seconds([*enter, *arguments])
                used.add(name, processor)
                lasted.add(name, whole)
    return {"nodes": NODES, "processes": NODES * PROCESSES_OF_A_NODE, "log bytes": size,
            "queries": {name: {"processor seconds": summary(used.values[name]),
                               "seconds": summary(lasted.values[name])}
                        for name in QUERIES}}
