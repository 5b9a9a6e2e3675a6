"""A Prometheus with the shipped alert rules, and a node-exporter."""

import json
import pathlib
import re
import subprocess
import urllib.error
import urllib.parse
import urllib.request

import yaml

from guest import free_port
from support.waiting import eventually

RULES = (pathlib.Path(__file__).resolve().parents[2]
         / "packaging/prometheus/vornlaunch.rules.yml")
LIMIT = 300


class Server:
    """A program with an HTTP server at a free port of this machine."""

    READY = "/metrics"  # answers with success when the server is ready

    def __init__(self, directory, *command):
        self.address = f"127.0.0.1:{free_port()}"
        self._log = directory / f"{command[0]}.log"
        with self._log.open("wb") as log:
            # pylint: disable-next=consider-using-with
            self._process = subprocess.Popen(
                [*command, f"--web.listen-address={self.address}"],
                stdin=subprocess.DEVNULL, stdout=log, stderr=log)
        eventually(self._answers, f"{command[0]} answers; see {self._log}", LIMIT)

    def _answers(self):
        assert self._process.poll() is None, self._log.read_text("utf-8")
        try:
            self.get(self.READY)
            return True
        except urllib.error.URLError:
            return False

    def get(self, path):
        with urllib.request.urlopen(f"http://{self.address}{path}",
                                    timeout=LIMIT) as reply:
            return reply.read().decode()

    def own_metrics(self):
        """The values of its own metrics by series."""
        lines = self.get("/metrics").splitlines()
        return {name: float(value) for name, value in (
            line.rsplit(" ", 1) for line in lines if not line.startswith("#"))}

    def close(self):
        self._process.terminate()
        self._process.wait()


def node_exporter(directory, textfiles):
    return Server(directory, "prometheus-node-exporter", "--collector.disable-defaults",
                  "--collector.textfile", f"--collector.textfile.directory={textfiles}")


class Prometheus(Server):
    """Scrapes targets at an interval, and evaluates the alert rules as often. `targets`
    is a list of file_sd. `shorten` replaces the duration `for` of each rule."""

    READY = "/-/ready"

    def __init__(self, directory, targets, interval, shorten=False):
        self.data = directory / "data"
        rules = RULES.read_text(encoding="utf-8")
        if shorten:
            rules = re.sub(r"^( *for:).*", rf"\1 {interval}", rules, flags=re.M)
        (directory / "rules.yml").write_text(rules, "utf-8")
        (directory / "targets.json").write_text(json.dumps(targets), "utf-8")
        config = directory / "prometheus.yml"
        config.write_text(json.dumps({
            "global": {"scrape_interval": interval, "scrape_timeout": interval,
                       "evaluation_interval": interval},
            "rule_files": ["rules.yml"],
            "scrape_configs": [{"job_name": "robots", "file_sd_configs": [
                {"files": ["targets.json"]}]}]}), "utf-8")
        super().__init__(directory, "prometheus", f"--config.file={config}",
                         f"--storage.tsdb.path={self.data}", "--log.level=warn")

    def _data(self, path):
        return json.loads(self.get(path))["data"]

    def query(self, expression):
        """The values of an expression by their labels."""
        found = self._data("/api/v1/query?"
                           + urllib.parse.urlencode({"query": expression}))["result"]
        return {tuple(sorted(series["metric"].items())): float(series["value"][1])
                for series in found}

    def value(self, expression):
        """The only value of an expression; None without a value."""
        values = list(self.query(expression).values())
        assert len(values) < 2, expression
        return values[0] if values else None

    def firing(self):
        """The names of the alerts that fire, each with its node or None."""
        return {(alert["labels"]["alertname"], alert["labels"].get("node"))
                for alert in self._data("/api/v1/alerts")["alerts"]
                if alert["state"] == "firing"}


def rule_expressions():
    """The expressions of the shipped rules by the names of the alerts."""
    [group] = yaml.safe_load(RULES.read_text(encoding="utf-8"))["groups"]
    return {rule["alert"]: rule["expr"] for rule in group["rules"]}
