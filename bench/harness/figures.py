"""Medians, ratios and tables."""

import statistics


def summary(values):
    """Median, minimum and maximum of a list of numbers."""
    return {"median": statistics.median(values), "min": min(values),
            "max": max(values), "values": list(values)}


def percentile(values, percent):
    ordered = sorted(values)
    return ordered[min(len(ordered) - 1, len(ordered) * percent // 100)]


def ratios(values, base):
    """The summary of the ratios in each round."""
    return summary([value / other for value, other in zip(values, base)])


class Table:
    """Rounds of values by subject: the values of a round have the same conditions."""

    def __init__(self, unit):
        self.unit = unit
        self.values = {}

    def add(self, subject, value):
        self.values.setdefault(subject, []).append(value)

    def as_json(self, base, other="vornlaunch"):
        """Every subject's summary, with its ratios to `base` and to `other`, and the
        ratio of the medians to `base`, which is less sensitive to a disturbed round."""
        medians = {name: statistics.median(values)
                   for name, values in self.values.items()}
        return {
            "unit": self.unit,
            "base": base,
            "subjects": {
                name: {
                    **summary(values),
                    "ratio": ratios(values, self.values[base]),
                    "ratio of medians": medians[name] / medians[base],
                    f"ratio to {other}": ratios(values, self.values[other]),
                }
                for name, values in self.values.items()
            },
        }
