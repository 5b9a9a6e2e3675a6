"""A plot of the results."""


def _start(axis, found):
    for subject in found["10"]["subjects"]:
        counts = [n for n in found if subject in found[n]["subjects"]]
        axis.plot([int(n) for n in counts],
                  [found[n]["subjects"][subject]["ratio"]["median"] for n in counts],
                  marker="o", label=subject)
    axis.set_ylabel("start, ratio to the floor")


def _memory(axis, found):
    counts = found["counts"]
    for subject in counts["10"]["subjects"]:
        of = [n for n in counts if subject in counts[n]["subjects"]]
        axis.plot([int(n) for n in of],
                  [counts[n]["subjects"][subject]["pss"]["median"] for n in of],
                  marker="o", label=subject)
    axis.set_ylabel("PSS, KiB")


def _status(axis, found):
    for subject in found["10"]["rate"]["subjects"]:
        counts = [n for n in found if subject in found[n]["rate"]["subjects"]]
        axis.plot([int(n) for n in counts],
                  [found[n]["rate"]["subjects"][subject]["median"] for n in counts],
                  marker="o", label=subject)
    axis.set_ylabel("STATUS, requests/s")


def _load(axis, found):
    counts = found["counts"]
    axis.plot([int(n) for n in counts], [counts[n]["median"] for n in counts],
              marker="o", label="vornlaunch")
    axis.set_ylabel("load, s")


def draw(measurements, path):
    """Draws the available results of start, memory, status and load as SVG."""
    import matplotlib  # a slow import, therefore late

    matplotlib.use("svg")
    matplotlib.rcParams["svg.hashsalt"] = "bench"
    matplotlib.rcParams["svg.fonttype"] = "none"  # keep text as text, not as outlines
    from matplotlib import pyplot

    forms = {"start": _start, "memory": _memory, "status": _status, "load": _load}
    drawn = [name for name in forms if name in measurements]
    if not drawn:
        return
    figure, axes = pyplot.subplots(len(drawn), 1, figsize=(8, 4 * len(drawn)),
                                   squeeze=False)
    for axis, name in zip(axes.flat, drawn):
        counts = {key: value for key, value in measurements[name].items()
                  if key.isdigit() or key in ("counts",)}
        forms[name](axis, counts)
        axis.set_xscale("log")
        axis.set_yscale("log")
        axis.set_xlabel("nodes")
        axis.legend(fontsize="small")
        axis.grid(True, which="major", linewidth=0.3)
    figure.tight_layout()
    figure.savefig(path, metadata={"Date": None})
