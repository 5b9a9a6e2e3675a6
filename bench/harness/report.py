"""The results as tables in Markdown."""


def _number(value):
    if value is None:
        return "-"
    if isinstance(value, int) or abs(value) >= 1000:
        return f"{value:.0f}"
    return f"{value:.3g}"


def _range(found, scale=1.0):
    """A summary: the median and the range."""
    return (f"{_number(found['median'] * scale)} "
            f"({_number(found['min'] * scale)} to {_number(found['max'] * scale)})")


def _table(heads, rows):
    lines = ["| " + " | ".join(heads) + " |", "|---" * len(heads) + "|"]
    lines += ["| " + " | ".join(map(str, row)) + " |" for row in rows]
    return "\n".join(lines) + "\n"


def _timed(found, unit, scale):
    """Values with their ratios to the base."""
    rows = [
        (name, _range(one, scale), _range(one["ratio"]),
         _number(one["ratio of medians"]),
         _number(one["ratio to vornlaunch"]["median"]))
        for name, one in found["subjects"].items()
    ]
    return _table(("", unit, f"ratio to {found['base']}", "of the medians",
                   "ratio to vornlaunch"), rows)


def _start(found):
    text = ""
    for count, one in found.items():
        text += f"\n{count} nodes\n\n" + _timed(one, "ms", 1e3)
        text += "".join(f"{n}: left out, {why}\n" for n, why in one["capped"].items())
    return text


def _memory(found):
    kinds = ("processes", "pss", "private", "private_dirty")
    rows = [(name, *(_number(one[kind]["median"]) for kind in kinds))
            for name, one in found["floors"].items()]
    text = "\n" + _table(("KiB", *kinds), rows)
    for count, one in found["counts"].items():
        rows = [(name, *(_number(memory[kind]["median"]) for kind in kinds))
                for name, memory in one["subjects"].items()]
        text += f"\n{count} nodes\n\n" + _table(("KiB", *kinds), rows)
        text += "".join(f"{n}: left out, {why}\n" for n, why in one["capped"].items())
    rows = [(name, *(_number(one[kind]) for kind in kinds[1:]))
            for name, one in found["bytes_per_node"].items()]
    return text + "\n" + _table(("bytes a node", *kinds[1:]), rows)


def _idle(found):
    kinds = ("system calls", "wake-ups", "processor seconds")
    rows = [(name, *(_number(one[kind]) for kind in kinds))
            for name, one in found["subjects"].items()]
    return (f"\n{found['nodes']} nodes, {found['seconds']} s\n\n"
            + _table(("", *kinds), rows))


def _status(found):
    text = ""
    for count, one in found.items():
        rows = []
        for name, rate in one["rate"]["subjects"].items():
            median, latency = one["p50 of a round"], one["latency_ns"][name]
            rows.append((name, _range(rate),
                         _number(rate["ratio to vornlaunch"]["median"]),
                         _range(median["subjects"][name]["ratio"]),
                         _number(median["subjects"][name]["ratio of medians"]),
                         _number(latency["p50"] / 1e3), _number(latency["p99"] / 1e3)))
        text += f"\n{count} nodes\n\n" + _table(
            ("", "requests/s", "ratio to vornlaunch", "p50, ratio to floor",
             "of the medians", "p50, us", "p99, us"), rows)
        text += "".join(f"{n}: left out, {why}\n" for n, why in one["capped"].items())
    return text


def _deaths(found):
    text = ""
    for name, scale, unit in (("death to collection", 1e6, "us"),
                              ("death to collection, same calls", 1e6, "us"),
                              ("200 deaths", 1e3, "ms")):
        text += f"\n{name}\n\n" + _timed(found[name], unit, scale)
    own = found["200 deaths, own share of the time"]
    return text + f"\n200 deaths, the launcher's own share: {_range(own)}\n"


def _stops(found):
    rows = [(name, *(_range(one[kind]) for kind in one)) for name, one in found.items()]
    return "\n" + _table(("", *next(iter(found.values()))), rows)


def _load(found):
    rows = [(count, _range(one, 1e3), _number(one["median"] * 1e6 / int(count)))
            for count, one in found["counts"].items()]
    text = "\n" + _table(("nodes", "ms", "us a node"), rows)
    profile = found["profile"]
    return text + "\n" + "".join(f"{k}: {_number(v)}\n" for k, v in profile.items())


def _queries(found):
    rows = [(name, *(_range(one[kind], 1e3) for kind in one))
            for name, one in found["queries"].items()]
    return (f"\n{found['nodes']} nodes, {found['processes']} processes, a log of "
            f"{found['log bytes'] >> 20} MiB\n\n"
            + _table(("", "processor, ms", "duration, ms"), rows))


def _clients(found):
    def table(one):
        return _table(("", "ms", f"ratio to {one['base']}"),
                      [(name, _range(subject, 1e3), _number(subject["ratio of medians"]))
                       for name, subject in one["subjects"].items()])

    return ("\nstart\n\n" + table(found["starts"])
            + "".join(f"\nstatus of {count} nodes\n\n" + table(one)
                      for count, one in found["status"].items()))


def _wrapper(found):
    rows = [(name, *(_range(one[kind], 1e3) for kind in one))
            for name, one in found.items()]
    return "\n" + _table(("", "processor, ms", "duration, ms"), rows)


def _logs(found):
    rows = [(name, _range(one), _range(one["ratio"]))
            for name, one in found["rate"]["subjects"].items()]
    text = f"\n{found['bytes'] // 1_000_000} MB\n\n" + _table(
        ("", "MB/s", f"ratio to {found['rate']['base']}"), rows)
    kinds = ("pss", "private", "private_dirty")
    rows = [(name, *(one[kind] for kind in kinds))
            for name, one in found["memory"].items()]
    return text + "\n" + _table(("KiB", *kinds), rows)


_FORMS = {"start": _start, "memory": _memory, "idle": _idle, "status": _status,
          "deaths": _deaths, "stops": _stops, "load": _load,
          "queries": _queries, "clients": _clients, "wrapper": _wrapper, "logs": _logs}


def text(name, found):
    """A measurement's results."""
    return f"\n== {name}\n" + _FORMS[name](found)
