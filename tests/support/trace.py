"""The calls in the output of strace.

arm64 has newer calls in place of some that x86-64 has. Tests use the names of x86-64 on
both machines."""

import dataclasses
import itertools
import platform
import re

_ENTRY = re.compile(r"(?P<pid>\d+) +(?P<rest>.*)")
_CALL = re.compile(r"(?P<name>\w+)\((?P<arguments>.*)\) += (?P<result>.*)")
_UNFINISHED = re.compile(r"(?P<begin>(?P<name>\w+)\(.*?) <unfinished \.\.\.>")
_RESUMED = re.compile(r"<\.\.\. \w+ resumed>(?P<end>.*)")
_END = re.compile(r"\+\+\+ (?P<how>.*) \+\+\+")

# The names in tests, and all equivalent calls; strace knows some of them on only one
# architecture.
_NAMES = {
    "accept": ("accept", "accept4"),
    "chmod": ("chmod", "fchmodat"),
    "epoll_create": ("epoll_create",),
    "epoll_wait": ("epoll_wait", "epoll_pwait"),
    "mkdir": ("mkdir", "mkdirat"),
    "poll": ("poll", "ppoll"),
    "readlink": ("readlink", "readlinkat"),
    "signalfd": ("signalfd",),
    "unlink": ("unlink", "unlinkat"),
}

# The older call for a newer one, and which of its arguments that has.
_OLDER = {
    "accept4": ("accept", re.compile(r"(?P<kept>.*), 0")),
    "epoll_pwait": ("epoll_wait", re.compile(r"(?P<kept>.*), NULL, \d+")),
    "fchmodat": ("chmod", re.compile(r"AT_FDCWD, (?P<kept>.*)")),
    "mkdirat": ("mkdir", re.compile(r"AT_FDCWD, (?P<kept>.*)")),
    "ppoll": ("poll", re.compile(
        r"(?P<kept>.*), (NULL|\{tv_sec=(?P<seconds>\d+), "
        r"tv_nsec=(?P<nanoseconds>\d+)\}), NULL, \d+")),
    "readlinkat": ("readlink", re.compile(r"AT_FDCWD, (?P<kept>.*)")),
    "unlinkat": ("unlink", re.compile(r"AT_FDCWD, (?P<kept>.*), 0")),
}


def on_every_machine(options):
    """These options of strace, with each call under all its names."""

    def all_names(option):
        kind, separator, rest = option.partition("=")
        if not separator or kind not in ("trace", "inject"):
            return option
        calls, colon, what = rest.partition(":")
        names = [f"?{name}" if call in _NAMES else name for call in calls.split(",")
                 for name in _NAMES.get(call, (call,))]
        return f"{kind}={','.join(names)}{colon}{what}"

    return [all_names(option) for option in options]


def sa_flags():
    """A pattern for the flags of a sigaction() call without flags. On x86-64 the C
    library adds SA_RESTORER and a function."""
    if platform.machine() == "x86_64":
        return r"sa_flags=SA_RESTORER, sa_restorer=0x[0-9a-f]+"
    return "sa_flags=0"


@dataclasses.dataclass
class Call:
    """A system call. The exit of a process is a call "end" whose arguments describe it,
    for example "exited with 0"."""

    pid: int
    name: str
    arguments: str
    result: str = None  # None until it returns
    kernel_name: str = ""  # if `name` is that of an older call

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
    """The calls in the output of `strace -f -o` in the order in which they began. Calls
    that are split by others are joined."""
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
    for call in calls:
        _rename(call)
    return calls


def _rename(call):
    """Replaces the call by the equivalent older one, if there is one."""
    if call.name not in _OLDER:
        return
    name, form = _OLDER[call.name]
    if call.result is not None:  # otherwise arguments are missing
        match = form.fullmatch(call.arguments)
        if not match:
            return
        call.arguments = match["kept"]
        if call.name == "ppoll":
            call.arguments += f", {_milliseconds(match)}"
            call.result = re.sub(r", left \{[^}]*\}", "", call.result)
    call.kernel_name, call.name = call.name, name


def _milliseconds(limit):
    if limit["seconds"] is None:
        return -1
    return int(limit["seconds"]) * 1000 + int(limit["nanoseconds"]) // 1_000_000


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


def without_counters(calls):
    """The calls of a process before the first that writes the counters of the coverage
    build, which must not fail."""
    begins = "prlimit64(0, RLIMIT_FSIZE, NULL"
    return list(itertools.takewhile(lambda call: not call.text.startswith(begins),
                                    calls))


def injected(fault):
    """strace's options for this fault, "call:error", and for tracing its calls."""
    call = fault.partition(":")[0]
    return [QUICK, "-e", f"trace={call}", "-e", f"inject={fault}"]
