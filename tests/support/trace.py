"""What strace saw, call by call."""

import dataclasses
import re

_ENTRY = re.compile(r"(?P<pid>\d+) +(?P<rest>.*)")
_CALL = re.compile(r"(?P<name>\w+)\((?P<arguments>.*)\) += (?P<result>.*)")
_UNFINISHED = re.compile(r"(?P<begin>(?P<name>\w+)\(.*?) <unfinished \.\.\.>")
_RESUMED = re.compile(r"<\.\.\. \w+ resumed>(?P<end>.*)")
_END = re.compile(r"\+\+\+ (?P<how>.*) \+\+\+")


@dataclasses.dataclass
class Call:
    """A system call. The end of a process is a call "end" whose arguments say
    how, for example "exited with 0"."""

    pid: int
    name: str
    arguments: str
    result: str = None  # None as long as it lasts

    @property
    def text(self):
        return f"{self.name}({self.arguments})"

    @property
    def number(self):
        """The result as a number, such as a descriptor."""
        return int(self.result.split()[0])

    @property
    def was_injected(self):
        return self.result is not None and self.result.endswith("(INJECTED)")


def parse_trace(text):
    """The calls in the output of `strace -f -o`, in the order of their
    beginning, those that were cut in two by others put together."""
    calls = []
    open_calls = {}  # by pid: the call and its text so far
    # A last line without its end is still being written.
    for line in text.split("\n")[:-1]:
        entry = _ENTRY.fullmatch(line)
        if not entry:
            continue
        pid, rest = int(entry["pid"]), entry["rest"]
        if match := _UNFINISHED.fullmatch(rest):
            call = Call(pid, match["name"], match["begin"].split("(", 1)[1])
            open_calls[pid] = (call, match["begin"])
            calls.append(call)
        elif (match := _RESUMED.fullmatch(rest)) and pid in open_calls:
            call, begin = open_calls.pop(pid)
            if whole := _CALL.fullmatch(begin + match["end"]):
                call.arguments, call.result = whole["arguments"], whole["result"]
        elif match := _CALL.fullmatch(rest):
            calls.append(Call(pid, match["name"], match["arguments"], match["result"]))
        elif match := _END.fullmatch(rest):
            calls.append(Call(pid, "end", match["how"], ""))
    return calls


def read_trace(machine):
    """Every call of every process of the machine so far."""
    path = machine.tmp / "strace.log"
    return parse_trace(path.read_text(encoding="utf-8", errors="replace"))


def launcher_calls(machine):
    """The launcher's own calls so far."""
    return [call for call in read_trace(machine) if call.pid == machine.pid]


def calls(machine, *names):
    """The calls that the launcher itself has completed, as "name(arguments) =
    result"; of these names only, if any are given."""
    return [
        f"{call.text} = {call.result}"
        for call in launcher_calls(machine)
        if call.result and (not names or call.name in names)
    ]


# Fewer stops of the traced processes than without it.
QUICK = "--seccomp-bpf"


def injected(*faults, also=""):
    """strace's options for these faults, each "call:what=...", and for tracing
    their calls and the ones in `also`, a list with commas."""
    names = [fault.split(":")[0] for fault in faults]
    options = [QUICK, "-e", "trace=" + ",".join(names + [also] * bool(also))]
    for fault in faults:
        options += ["-e", f"inject={fault}"]
    return options
