"""Prometheus with the metrics of a thousand robots: writes build-lab/scale.json."""

import contextlib
import http.server
import json
import re
import statistics
import threading
import time

import pytest

from guest import ROOT
from monitoring import LIMIT, Prometheus, rule_expressions
from support.waiting import eventually

NODES = 20
INTERVAL = 60  # seconds, as that of the timer
SCRAPES = 4
MTIME = 'node_textfile_mtime_seconds{file="vornlaunch.prom"}'


class Robots(http.server.ThreadingHTTPServer):
    """Serves the metrics of each robot at /NUMBER. The processor times and the memory
    change with each request; the launcher of robot 0 is down."""

    daemon_threads = True
    request_queue_size = 1000

    def __init__(self, metrics):
        super().__init__(("127.0.0.1", 0), Handler)
        self._metrics = re.sub(
            r"^(vornlaunch_node_(?:cpu|resident)\S+) .*", r"\1 @", metrics, flags=re.M)

    def metrics_of(self, path):
        text = self._metrics.replace("@", f"{time.time() * 1000:.0f}")
        if path == "/0":
            text = text.replace("\nvornlaunch_up 1\n", "\nvornlaunch_up 0\n")
        return f"{text}{MTIME} {time.time():.0f}\n"


class Handler(http.server.BaseHTTPRequestHandler):
    """Answers one request."""

    protocol_version = "HTTP/1.1"

    def do_GET(self):  # pylint: disable=invalid-name
        body = self.server.metrics_of(self.path).encode()
        self.send_response(200)
        self.send_header("Content-Type", "text/plain; version=0.0.4")
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        self.wfile.write(body)

    def log_message(self, *_):  # pylint: disable=arguments-differ
        pass


@pytest.fixture(name="metrics")
def fixture_metrics(machine):
    """The metrics of a real launcher."""
    path = machine.script("node", "exec sleep 1001")
    machine.start({"vornnode": {f"node{number}": {"path": path}
                                for number in range(NODES)}})
    machine.child(f"node{NODES - 1}", ["sleep", "1001"])
    return machine.vornctl("metrics", check=True).stdout


@contextlib.contextmanager
def serving(metrics):
    robots = Robots(metrics)
    threading.Thread(target=robots.serve_forever, daemon=True).start()
    yield robots
    robots.shutdown()


def milliseconds(action, times=5):
    """The median duration."""
    durations = []
    for _ in range(times):
        begin = time.monotonic()
        action()
        durations.append((time.monotonic() - begin) * 1000)
    return round(statistics.median(durations), 1)


def figures(prometheus):
    own = prometheus.own_metrics()
    seconds = time.time() - own["process_start_time_seconds"]
    samples = own['prometheus_tsdb_head_samples_appended_total{type="float"}']
    size = sum(path.stat().st_size for path in prometheus.data.rglob("*")
               if path.is_file())
    [rules] = [value for name, value in own.items()
               if name.startswith("prometheus_rule_group_last_duration_seconds")]
    return {
        "series": own["prometheus_tsdb_head_series"],
        "samples of a scrape": prometheus.value("max(scrape_samples_scraped)"),
        "resident MB": round(own["process_resident_memory_bytes"] / 1e6),
        "processor percent": round(own["process_cpu_seconds_total"] / seconds * 100, 1),
        "log bytes per sample": round(size / samples, 1),
        "scrape ms": {name: round(prometheus.value(expression) * 1000, 1)
                      for name, expression in (
                          ("median", "quantile(0.5, scrape_duration_seconds)"),
                          ("maximum", "max(scrape_duration_seconds)"))},
        "rule group ms": round(rules * 1000, 1),
        "query ms": {name: milliseconds(lambda e=expression: prometheus.query(e))
                     for name, expression in rule_expressions().items()},
    }


def is_scraped(prometheus, count):
    time.sleep(5)  # more queries would use more processor time than the scrapes
    found = prometheus.query(f"count_over_time(vornlaunch_up[1h]) >= {SCRAPES}")
    return len(found) == count


def test_one_prometheus_watches_a_thousand_robots(metrics, pytestconfig,
                                                  tmp_path_factory):
    count = pytestconfig.getoption("--robots")
    directory = tmp_path_factory.mktemp("scale")
    with serving(metrics) as robots:
        address = f"127.0.0.1:{robots.server_address[1]}"
        targets = [{"targets": [address], "labels": {
            "__metrics_path__": f"/{number}", "instance": f"robot{number}"}}
            for number in range(count)]
        prometheus = Prometheus(directory, targets, f"{INTERVAL}s")
        try:
            eventually(lambda: is_scraped(prometheus, count),
                       f"{SCRAPES} scrapes of each robot",
                       (SCRAPES + 2) * INTERVAL + LIMIT)
            assert prometheus.query("up == 0") == {}
            assert prometheus.firing() == {("VornlaunchDown", None)}
            found = {"robots": count, "nodes": NODES, "interval s": INTERVAL,
                     **figures(prometheus)}
        finally:
            prometheus.close()
    (ROOT / "build-lab/scale.json").write_text(json.dumps(found, indent=1), "utf-8")
