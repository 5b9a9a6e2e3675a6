"""Measures the launcher, lower bounds and other supervisors; ./bench.sh runs it.

Writes the results to a JSON file, and the ratios to a plot next to it.
"""

import argparse
import datetime
import importlib
import json
import os
import pathlib
import platform
import re
import signal
import sys
import time

sys.path.insert(0, str(pathlib.Path(__file__).parent))

from harness.sandbox import ROOT  # noqa: E402

from harness import plot, report  # noqa: E402

MEASUREMENTS = ("start", "memory", "idle", "status", "deaths", "stops", "load",
                "queries", "clients", "wrapper", "logs")


def machine():
    """The conditions of the measurement."""
    processor = re.search(r"^model name\s*: (.*)$",
                          pathlib.Path("/proc/cpuinfo").read_text("utf-8"), re.M)
    return {
        "processor": processor[1] if processor else platform.machine(),
        "processors": os.cpu_count(),
        "kernel": platform.release(),
        "system": platform.freedesktop_os_release().get("PRETTY_NAME"),
    }


def parse_arguments():
    parser = argparse.ArgumentParser(prog="./bench.sh", description=__doc__)
    parser.add_argument("--quick", action="store_true",
                        help="fewer rounds and nodes, within 2 minutes")
    parser.add_argument("--only", action="append", choices=MEASUREMENTS,
                        help="this measurement; may be repeated")
    parser.add_argument("--build", type=pathlib.Path, default=ROOT / "build")
    parser.add_argument("--output", type=pathlib.Path, metavar="DIRECTORY",
                        default=ROOT / "build" / "bench",
                        help="for results.json and plot.svg (default: %(default)s)")
    return parser.parse_args()


def main():
    options = parse_arguments()
    if os.geteuid() == 0:
        # A higher priority for everything that is measured, to reduce the effect of
        # other work.
        os.setpriority(os.PRIO_PROCESS, 0, -15)
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(1))  # with a clean-up
    options.output.mkdir(parents=True, exist_ok=True)
    path = options.output / "results.json"
    results = {"machine": machine(), "quick": options.quick, "measurements": {},
               "begin": datetime.datetime.now(datetime.timezone.utc).isoformat()}
    for name in options.only or MEASUREMENTS:
        begin, load = time.monotonic(), os.getloadavg()
        found = importlib.import_module(name).measure(
            options.build.resolve(), options.quick)
        results["measurements"][name] = {
            "load before": load, "load after": os.getloadavg(),
            "took": round(time.monotonic() - begin), **found}
        path.write_text(json.dumps(results, indent=1) + "\n", encoding="utf-8")
        print(report.text(name, found), flush=True)
    plot.draw(results["measurements"], options.output / "plot.svg")
    print(f"written: {path}")


if __name__ == "__main__":
    main()
