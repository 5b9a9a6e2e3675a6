"""The launcher's log lines."""

import dataclasses
import datetime
import re

_LINE = re.compile(
    r"(?P<time>\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z) "
    r"(?P<event>\*?)(?P<level>INFO|WARN|ERROR|\d+) +"
    r"(?P<name>\S+)\[(?P<pid>\d+)\] "
    r"(?P<file>\S+):(?P<line>\d+) (?P<func>\S+): (?P<text>.*)"
)


@dataclasses.dataclass(frozen=True)
class LogLine:
    """One parsed line. `event` is whether it has the star."""

    time: str
    event: bool
    level: str
    name: str
    pid: int  # as the writing process sees itself
    file: str
    line: int
    func: str
    text: str

    @property
    def head(self):
        """The fields that tests usually compare."""
        return (self.level, self.event, self.func, self.text)

    @property
    def seconds(self):
        """The time of the line, in seconds since 1970."""
        return datetime.datetime.fromisoformat(self.time[:-1] + "+00:00").timestamp()


def parse_log(text):
    """The log lines in `text`; other lines, such as the nodes' own output, are
    left out."""
    lines = []
    for raw in text.split("\n"):
        match = _LINE.fullmatch(raw)
        if match:
            lines.append(
                LogLine(
                    time=match["time"],
                    event=match["event"] == "*",
                    level=match["level"],
                    name=match["name"],
                    pid=int(match["pid"]),
                    file=match["file"],
                    line=int(match["line"]),
                    func=match["func"],
                    text=match["text"],
                )
            )
    return lines
