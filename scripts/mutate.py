"""Puts small faults into the shipped sources, one at a time, and checks that the
tests catch them.

A mutant is one source file with one fault, such as a swapped comparison or a
dropped call. It is built in a copy of the tree and tested in namespaces of its
own, because it runs as the user of this script, and a fault can be a kill(-1).
A mutant is caught if a test fails or exceeds a time limit. The unit tests of
the mutant's area come first, then all unit tests, then the whole-program tests
of its component, until one fails.

mutants_equivalent.txt, next to this file, lists the mutants that no test can catch,
with the reasons. Exit status: 1 if fewer than 95 % of the others are caught.
"""

import argparse
import ast
import collections
import concurrent.futures
import dataclasses
import io
import itertools
import os
import pathlib
import queue
import random
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import threading
import time
import tokenize

ROOT = pathlib.Path(__file__).resolve().parent.parent
EQUIVALENT = ROOT / "scripts/mutants_equivalent.txt"
SOURCES = (
    "include/vorn/*.h",
    "libvornlib/src/*.cpp",
    "libvornlib/include/vornlib/*.h",
    "libvornclient/src/*",
    "libvornclient/vornctl.py",
    "libvornrun/src/*",
    "tools/*/src/**/*.cpp",
    "tools/*/src/**/*.h",
)
PYTEST = ["/usr/bin/python3", "-B", "-m", "pytest", "-p", "no:cacheprovider"]
# In percent. Mutants that no test can catch do not count.
WANTED = 95
BUILD_LIMIT = 3600.0  # seconds


# ---- The faults.


@dataclasses.dataclass(frozen=True)
class Token:
    kind: str
    text: str
    start: int

    @property
    def end(self):
        return self.start + len(self.text)


@dataclasses.dataclass(frozen=True)
class Mutant:
    """A source file with one fault."""

    path: str  # below ROOT
    start: int  # of the fault
    text: str  # the whole file
    what: str  # the category of the fault
    fault: str  # the exact change
    place: str  # the source lines, spaces between words single
    line: int
    number: int = 1  # the number among equal faults in equal lines, from 1

    @property
    def key(self):
        """Identifies it as long as the line is unchanged."""
        return (self.path, self.place, self.fault, self.number)

    def __str__(self):
        number = f" #{self.number}" if self.number > 1 else ""
        return f"{self.path}:{self.line}: {self.fault}{number}: {self.place}"


TOKEN = re.compile(
    r"""(?P<space>\s+)
    |(?P<comment>//[^\n]*)
    |(?P<directive>^[ ]*\#(?:[^\n]*\\\n)*[^\n]*)
    |(?P<string>"(?:[^"\\]|\\.)*")
    |(?P<char>'(?:[^'\\]|\\.)*')
    |(?P<number>(?:0x[0-9a-fA-F']+|[0-9][0-9']*)[uUlL]*)
    |(?P<name>[A-Za-z_]\w*)
    |(?P<sign><<|>>|<=|>=|==|!=|&&|\|\||\+\+|--|\+=|-=|->|::|.)""",
    re.VERBOSE | re.MULTILINE,
)


def tokens_of(text):
    """The tokens of the text without space, comments and directives."""
    return [
        Token(match.lastgroup, match[0], match.start())
        for match in TOKEN.finditer(text)
        if match.lastgroup not in ("space", "comment", "directive")
    ]


# Between spaces these are comparisons; otherwise angle brackets contain types.
COMPARISONS = {
    "==": ["!="],
    "!=": ["=="],
    "<": ["<=", ">="],
    "<=": ["<", ">"],
    ">": [">=", "<="],
    ">=": [">", "<"],
}
OPERATORS = {
    "&&": "||",
    "||": "&&",
    "++": "--",
    "--": "++",
    "+=": "-=",
    "-=": "+=",
    "+": "-",
    "-": "+",
    "*": "/",
    "/": "*",
    "%": "/",
    "&": "|",
    ">>": "<<",
}
# Names of numbers and choices, and their replacements.
NAMES = {
    "true": "false",
    "false": "true",
    "kInfo": "kWarn",
    "kWarn": "kError",
    "kError": "kInfo",
    "kEvent": "kPlain",
    "kPlain": "kEvent",
    "STOPPED": "DISABLED",
    "RUNNING": "STOPPED",
    "RESTARTING": "RUNNING",
    "DISABLED": "STOPPED",
    "SUCCESS": "FAILED",
    "NOT_FOUND": "FAILED",
    "FAILED": "NOT_FOUND",
    "nodeStart": "nodeRestart",
    "nodeStop": "nodeDisable",
    "nodeRestart": "nodeStart",
    "nodeStatus": "nodeEnable",
    "nodeDisable": "nodeStop",
    "nodeEnable": "nodeStatus",
    "EPOLL_CLOEXEC": "0",
    "SFD_CLOEXEC": "0",
    "FD_CLOEXEC": "0",
    "O_NONBLOCK": "0",
    "SA_NOCLDSTOP": "0",
    "WNOHANG": "0",
    "WNOWAIT": "0",
    "EPOLLIN": "EPOLLOUT",
    "EPOLL_CTL_ADD": "EPOLL_CTL_MOD",
    "EPOLL_CTL_DEL": "EPOLL_CTL_MOD",
    "SOCK_STREAM": "SOCK_SEQPACKET",
    "POLLHUP": "POLLIN",
    "SIG_BLOCK": "SIG_UNBLOCK",
    "SIG_UNBLOCK": "SIG_BLOCK",
    "SIG_SETMASK": "SIG_BLOCK",
    "SIG_DFL": "SIG_IGN",
    "SIGTERM": "SIGHUP",
    "SIGKILL": "SIGTERM",
    "SIGCHLD": "SIGUSR1",
    "SIGPIPE": "SIGUSR1",
    "SIGQUIT": "SIGUSR1",
    "SIGHUP": "SIGUSR1",
    "SIGSEGV": "SIGUSR1",
    "SIGBUS": "SIGUSR1",
    "SIGABRT": "SIGUSR1",
    "SIGILL": "SIGUSR1",
    "SIGFPE": "SIGUSR1",
    "SIGINT": "SIGUSR1",
    "SIGTRAP": "SIGUSR1",
    "SIGXFSZ": "SIGUSR1",
    "CLD_EXITED": "CLD_KILLED",
    "CLD_KILLED": "CLD_EXITED",
    "ENOENT": "EACCES",
    "EINTR": "EAGAIN",
    "STDERR_FILENO": "STDOUT_FILENO",
    "steady_clock": "system_clock",
    "continue": "break",
}
# The first words of declarations, and of parts of other statements.
NO_STATEMENT = {
    "const", "constexpr", "static", "static_assert", "auto", "using", "return",
    "if", "else", "while", "for", "switch", "case", "default", "break",
    "continue", "namespace", "class", "struct", "enum", "template", "public",
    "private", "explicit", "inline", "throw", "try", "catch",
}  # fmt: skip


class File:
    """The mutants of one source file, which a subclass collects."""

    comment = None  # the sign before a comment at the end of a line

    def __init__(self, path):
        self.path = path
        self.text = (ROOT / path).read_text(encoding="utf-8")
        self.mutants = []
        self._collect()
        self._number()

    def _collect(self):
        raise NotImplementedError

    def _lines(self, start, end):
        """The source lines from `start` to `end`, as one, without comments."""
        begin = self.text.rfind("\n", 0, start) + 1
        stop = self.text.find("\n", max(start, end - 1))
        lines = re.sub(f" +{self.comment}.*", "", self.text[begin:stop])
        return " ".join(lines.split())

    def _add(self, what, fault, start, end, replacement):
        line = self.text.count("\n", 0, start) + 1
        place = self._lines(start, end)
        text = self.text[:start] + replacement + self.text[end:]
        self.mutants.append(Mutant(self.path, start, text, what, fault, place, line))

    def _replace(self, what, token, text):
        self._add(what, f"{token.text} -> {text}", token.start, token.end, text)

    def _number(self):
        self.mutants.sort(key=lambda mutant: mutant.start)
        seen = collections.Counter()
        for index, mutant in enumerate(self.mutants):
            seen[mutant.key] += 1
            self.mutants[index] = dataclasses.replace(
                mutant, number=seen[mutant.key]
            )


class PythonFile(File):
    """The mutants of a Python module, whose text is ASCII."""

    comment = "#"
    WORDS = {"and": "or", "or": "and", "not": "", "True": "False", "False": "True",
             "is": "is not", "in": "not in", "+": "-", "-": "+", "*": "+", "+=": "-=",
             "continue": "break"}  # fmt: skip
    DROPPED = (ast.Expr, ast.Assign, ast.AugAssign, ast.Return, ast.Raise)

    def _collect(self):
        lengths = map(len, self.text.splitlines(keepends=True))
        self.starts = [0, *itertools.accumulate(lengths)]
        self.documentation = set()
        for node in ast.walk(ast.parse(self.text)):
            if isinstance(node, ast.Expr) and isinstance(node.value, ast.Constant):
                self.documentation.add(self._offset(node.lineno, node.col_offset))
            elif isinstance(node, self.DROPPED) and node.col_offset > 0:
                start = self._offset(node.lineno, node.col_offset)
                end = self._offset(node.end_lineno, node.end_col_offset)
                self._add("statement", "dropped", start, end, "pass")
        for token in tokenize.generate_tokens(io.StringIO(self.text).readline):
            self._change(token)

    def _offset(self, line, column):
        return self.starts[line - 1] + column

    def _change(self, found):
        token = Token("", found.string, self._offset(*found.start))
        if found.string in COMPARISONS:
            for other in COMPARISONS[found.string]:
                self._replace("comparison", token, other)
        elif found.string in self.WORDS and "import" not in found.line:
            self._replace("logic", token, self.WORDS[found.string])
        elif found.type == tokenize.NUMBER:
            self._replace("constant", token, f"1 + {found.string}")
        elif found.type == tokenize.STRING and token.start not in self.documentation:
            quote = found.string.index('"')
            changed = f"{found.string[:quote]}\"~{found.string[quote + 1:]}"
            self._replace("text", token, changed)


class CppFile(File):
    """The mutants of a C++ source."""

    comment = "//"

    def __init__(self, path):
        self.tokens = tokens_of((ROOT / path).read_text(encoding="utf-8"))
        self.partner = self._pair_brackets()
        self.exempt = self._exempt_tokens()
        super().__init__(path)

    # -- The text.

    def _pair_brackets(self):
        """The index of the matching bracket for each bracket."""
        partner, open_ones = {}, []
        for index, token in enumerate(self.tokens):
            if token.kind != "sign":
                continue
            if token.text in "([{":
                open_ones.append(index)
            elif token.text in ")]}":
                begin = open_ones.pop()
                partner[begin], partner[index] = index, begin
        return partner

    def _exempt_tokens(self):
        """Tokens that the compiler checks, or that are only names: static_assert(),
        attributes, using declarations."""
        exempt = set()
        for index, token in enumerate(self.tokens):
            if token.text in ("static_assert", "__attribute__"):
                exempt.update(range(index, self.partner[index + 1] + 1))
            elif token.text == "using":
                end = index
                while self.tokens[end].text != ";":
                    end += 1
                exempt.update(range(index, end))
        return exempt

    # -- The faults.

    def _collect(self):
        for index, token in enumerate(self.tokens):
            if index in self.exempt:
                continue
            if token.kind == "sign":
                self._change_sign(index, token)
            elif token.kind == "name":
                self._change_name(index, token)
            elif token.kind == "number":
                self._change_number(token)
            elif token.kind in ("string", "char"):
                self._change_text(token)
        statements = list(self._statements())
        for statement in statements:
            self._drop(*statement)
        for first, second in zip(statements, statements[1:]):
            self._swap(first, second)

    def _is_spaced(self, token):
        return (
            self.text[token.start - 1].isspace() and self.text[token.end].isspace()
        )

    def _change_sign(self, index, token):
        if token.text in COMPARISONS and self._is_spaced(token):
            for other in COMPARISONS[token.text]:
                self._replace("comparison", token, other)
        elif token.text in ("++", "--"):
            self._replace("arithmetic", token, OPERATORS[token.text])
        elif token.text in OPERATORS and self._is_spaced(token):
            what = "logic" if token.text in ("&&", "||") else "arithmetic"
            self._replace(what, token, OPERATORS[token.text])
        elif token.text == "|" and self._is_spaced(token):
            flag = self.tokens[index + 1]
            self._add("flag", f"no {flag.text}", token.start, flag.end, "")
        elif token.text == "!" and self.text[token.end] != "=":
            self._add("negation", "no !", token.start, token.end, "")

    def _change_name(self, index, token):
        following = self.tokens[index + 1].text if index + 1 < len(self.tokens) else ""
        declares = following == "=" and self.tokens[index - 1].text in (
            "bool", "int", "{", ",")
        is_member = token.text.startswith("node")
        if is_member and self.tokens[index - 3].text != "&":
            return  # not its use in the table of commands
        if token.text in NAMES and not declares:
            what = {"true": "constant", "false": "constant", "kInfo": "level",
                    "kWarn": "level", "kError": "level"}  # fmt: skip
            self._replace(what.get(token.text, "flag"), token, NAMES[token.text])
        elif token.text in ("if", "while") and following == "(":
            self._negate(index + 1)
        elif token.text == "return":
            self._drop_return(index)

    def _negate(self, begin):
        """Negates a condition without a comparison to swap."""
        end = self.partner[begin]
        inside = self.tokens[begin + 1 : end]
        signs = {token.text for token in inside if token.kind == "sign"}
        if signs & {"==", "!=", "="} or any(
            token.text in COMPARISONS and self._is_spaced(token) for token in inside
        ):
            return
        if inside[0].text == "!" and not signs & {"&&", "||"}:
            return  # dropping the ! is the same
        start, stop = inside[0].start, inside[-1].end
        self._add("negation", "negated", start, stop, f"!({self.text[start:stop]})")

    def _drop_return(self, index):
        """Drops a return that is not at the end of its function."""
        end = index
        while self.tokens[end].text != ";":
            end = self.partner.get(end, end) + 1
        is_last = self.tokens[end + 1].text == "}" and self._is_function(
            self.partner[end + 1]
        )
        if not is_last:
            stop = self.tokens[end].end
            self._add("return", "no return", self.tokens[index].start, stop, ";")

    def _change_number(self, token):
        digits = token.text.replace("'", "").rstrip("uUlL")
        octal = len(digits) > 1 and digits.startswith("0") and digits[1] != "x"
        number = int(digits, 8) if octal else int(digits, 0)
        self._replace("constant", token, f"0{number + 1:o}" if octal else f"{number + 1}")

    def _change_text(self, token):
        quote = token.text[0]
        if token.kind == "char":
            self._replace("text", token, "'~'")
        else:
            self._replace("text", token, f"{quote}~{token.text[1:]}")

    def _statements(self):
        """Every simple statement, as the indexes of its first and last token,
        and whether it declares something."""
        begin = 0
        index = 0
        while index < len(self.tokens):
            text = self.tokens[index].text
            if text in "{}:" or text == "else":
                begin = index + 1
            elif text in ("if", "while", "for", "switch") and index == begin:
                # The brackets contain no separate statement.
                is_constexpr = self.tokens[index + 1].text == "constexpr"
                index = self.partner[index + 1 + is_constexpr]
                begin = index + 1
            elif text == "(" or text == "[":
                # Lambdas inside an argument list belong to it.
                index = self.partner[index]
            elif text == ";":
                if index > begin and begin not in self.exempt:
                    yield begin, index
                begin = index + 1
            index += 1

    def _is_plain(self, begin, end):
        """Whether the statement is a call or an assignment."""
        first, second = self.tokens[begin : begin + 2]
        if first.text in NO_STATEMENT or begin == 0:
            return False
        if self.tokens[end - 1].text in ("const", "override", "delete", "default"):
            return False
        if first.text == "(" and second.text == ")":
            return False  # the end of an immediately called lambda
        index = begin
        if first.text == "(":
            index = self.partner[begin] + 1  # (void)
        while index < end:
            text = self.tokens[index].text
            if text in ("(", "=", "++", "--", "+=", "-="):
                return True
            if text in "<&*" and index > begin:
                return False  # a declaration, of a type of more than a name
            if self.tokens[index].kind == self.tokens[index + 1].kind == "name":
                return False  # a declaration
            index += 1
        return first.text == "("

    def _is_function(self, brace):
        """Whether this brace begins a function or a lambda."""
        before = self.tokens[brace - 1]
        if before.text == ")":
            keyword = self.tokens[self.partner[brace - 1] - 1].text
            return keyword not in ("if", "while", "for", "switch", "catch")
        return before.text in ("const", "noexcept", "]", "Command")

    def _is_in_code(self, index):
        """Whether it is in a function's body, not in a class or a namespace."""
        while index >= 0:
            text = self.tokens[index].text
            if text in ")]}" and index in self.partner:
                index = self.partner[index]
            elif text == "{":
                before = self.tokens[index - 1].text
                return before in (")", "else", "try", "const", "noexcept", "]", "}")
            index -= 1
        return False

    def _drop(self, begin, end):
        start, stop = self.tokens[begin].start, self.tokens[end].end
        texts = [token.text for token in self.tokens[begin:end]]
        if "scoped_lock" in texts:
            self._add("lock", "no lock", start, stop, "")
        elif self._is_plain(begin, end) and self._is_in_code(begin - 1):
            self._add("statement", "dropped", start, stop, ";")

    def _swap(self, first, second):
        """Exchanges two consecutive statements of a block."""
        if first[1] + 1 != second[0]:
            return
        if self.tokens[first[0] - 1].text == ")":
            return  # the body of an if
        if not all(self._is_plain(*s) and self._is_in_code(s[0] - 1) for s in (first, second)):
            return
        spans = [
            (self.tokens[begin].start, self.tokens[end].end)
            for begin, end in (first, second)
        ]
        if not any("(" in self.text[start:stop] for start, stop in spans):
            return  # two assignments of values, whose order has no effect
        (start, middle), (resume, stop) = spans
        text = self.text
        swapped = text[resume:stop] + text[middle:resume] + text[start:middle]
        # A comment at the end of a line must not hide the following statement.
        self._add("order", "swapped with the next", start, stop, swapped)


def file_of(path):
    return (PythonFile if path.suffix == ".py" else CppFile)(str(path))


def all_mutants():
    paths = sorted(path for pattern in SOURCES for path in ROOT.glob(pattern))
    return [
        mutant
        for path in paths
        for mutant in file_of(path.relative_to(ROOT)).mutants
    ]


def read_equivalent():
    """The reason of each mutant that no test can catch, by its key. An entry is
    four lines: file, source line, fault (with " #2" for the second equal one on
    equal lines), reason; a blank line ends it."""
    reasons = {}
    if not EQUIVALENT.exists():
        return reasons
    text = re.sub(r"^#.*\n", "", EQUIVALENT.read_text(encoding="utf-8"), flags=re.M)
    for entry in filter(None, re.split(r"\n\s*\n", text.strip())):
        lines = [line.strip() for line in entry.splitlines()]
        if len(lines) < 4:
            sys.exit(f"{EQUIVALENT.name}: an entry has four lines: {entry}")
        path, place, fault = lines[:3]
        match = re.fullmatch(r"(.*?)(?: #(\d+))?", fault)
        key = (path, place, match[1], int(match[2] or 1))
        reasons[key] = " ".join(lines[3:])
    return reasons


def in_turns(groups):
    """The first element of each group, then the second of each, and so on."""
    for turn in itertools.zip_longest(*groups):
        yield from filter(None, turn)


def sample(mutants, size, seed):
    """`size` of the mutants, of every file as far as possible, and of every kind in
    a file."""
    chooser = random.Random(seed)
    files = collections.defaultdict(lambda: collections.defaultdict(list))
    for mutant in mutants:
        files[mutant.path][mutant.what].append(mutant)
    queues = []
    for kinds in files.values():
        groups = list(kinds.values())
        for group in [groups, *groups]:
            chooser.shuffle(group)
        queues.append(in_turns(groups))
    chosen = itertools.islice(in_turns(queues), size)
    return sorted(chosen, key=lambda mutant: (mutant.path, mutant.start))


# ---- Building and testing.

# Process 1 of the namespaces. Only the mutant's own directory is writable; /tmp and
# /run are empty, in memory, and disappear with the namespaces.
SANDBOX = """
set -e
ip link set lo up
mount --make-rprivate /
mount --bind "$1" "$2"
mount -o remount,bind,ro /
mount -t tmpfs -o size=2g tmpfs /tmp
mount -t tmpfs tmpfs /run
ulimit -v 8000000
cd "$2"
shift 2
"$@"
"""


class TimedOut(Exception):
    """A command took longer than its limit."""


class Workplace:
    """A copy of the tree with a build of its own, and the namespaces in which
    commands run there. Every copy sees itself at the same path, so that a
    finished build can be copied."""

    def __init__(self, directory, seen_as):
        self.directory = directory
        self.seen_as = seen_as
        self.changed = None  # the path of the mutant and its text without fault

    def run(self, *command, limit):
        """The exit status and the output of the command."""
        # Its processes terminate with this program, even if it is killed.
        unshare = ["setpriv", "--pdeathsig", "KILL", "unshare", "--mount", "--pid",
                   "--net", "--fork", "--kill-child", "--mount-proc"]  # fmt: skip
        if os.geteuid() != 0:
            unshare += ["--user", "--map-root-user"]
        with tempfile.TemporaryFile() as output:
            process = subprocess.Popen(
                [*unshare, "sh", "-c", SANDBOX, "sandbox", self.directory, self.seen_as,
                 *command],
                stdin=subprocess.DEVNULL, stdout=output, stderr=subprocess.STDOUT,
                env={**os.environ, "CCACHE_DIR": f"{self.seen_as}/build/ccache"},
            )
            try:
                process.wait(limit)
            except subprocess.TimeoutExpired:
                raise TimedOut from None
            finally:
                process.send_signal(signal.SIGKILL)
                process.wait()
            output.seek(0)
            return process.returncode, output.read().decode(errors="replace")

    def put(self, mutant):
        """Puts this mutant into the tree, and removes the previous one."""
        if self.changed is not None and self.changed[0] != mutant.path:
            path, text = self.changed
            (self.directory / path).write_text(text, encoding="utf-8")
            self.changed = None
        file = self.directory / mutant.path
        if self.changed is None:
            self.changed = (mutant.path, file.read_text(encoding="utf-8"))
        file.write_text(mutant.text, encoding="utf-8")

    def build(self, *targets):
        status, said = self.run(
            "make", "-s", "-C", "build", "-j2", *targets, limit=BUILD_LIMIT
        )
        return status == 0, said


@dataclasses.dataclass(frozen=True)
class Component:
    """The tests of the sources in a directory."""

    directory: str  # with `tests`, the unit tests; or one source
    unit: str  # the program of the unit tests; empty: none
    program: str  # that the whole-program tests run
    system: tuple  # the names of those tests


LAUNCHER = ("startup", "startup_signals", "signals", "control", "nodes", "required",
            "launch_file", "log", "memory")  # fmt: skip
# Of the sources of vornctl that have no whole-program tests of their own.
VORNCTL = ("vornctl_status", "vornctl_act", "vornctl_history", "vornctl_usage")
# The words in the names of their tests, for other words in the names of sources.
OTHER_WORDS = {"cli": "usage", "exit": "failures", "graph": "check", "log": "logs",
               "names": "completion", "ping": "failures", "records": "act",
               "start": "act", "why": "history"}  # fmt: skip
VORNRUN = ("vornrun", "vornrun_monitor")
CHECK = ("vornctl_check", "check_examples", "check_agrees")
# The tests of a source are those of the first one whose directory contains it.
COMPONENTS = (
    Component("libvornclient/vornctl.py", "", "vornlaunch", ("python_client",)),
    Component("libvornclient", "vornctl_client_tests", "vornctl", VORNCTL),
    Component("libvornrun", "vornrun_options_tests", "vornrun", VORNRUN),
    Component("libvornlib", "vornlib_tests", "vornlaunch", LAUNCHER),
    Component("include", "vornlib_tests", "vornlaunch", LAUNCHER),
    Component("tools/vornlaunch", "vornlaunch_tests", "vornlaunch", LAUNCHER),
    Component("tools/vornrun", "vornrun_tests", "vornrun", VORNRUN),
    Component("tools/vornctl/src/check", "vornctl_tests", "vornctl", CHECK),
    Component("tools/vornctl/src/launchfile", "vornctl_tests", "vornctl", CHECK),
    Component("tools/vornctl", "vornctl_tests", "vornctl", VORNCTL),
)


def component_of(path):
    return next(c for c in COMPONENTS if (path + "/").startswith(c.directory + "/"))


def unit_directory(component):
    """The directory of the component's unit tests below the tree or a build."""
    return "/".join(component.directory.split("/")[:2]) + "/tests"


def suites_of(path):
    """A pattern for the names of the unit tests of a source file's area."""
    stem = pathlib.PurePath(path).stem
    directory = ROOT / unit_directory(component_of(path))
    suites = {
        suite
        for file in directory.glob(f"*{stem}*_test.cpp")
        for suite in re.findall(
            r"^TEST(?:_F|_P)?\((\w+),", file.read_text(encoding="utf-8"), re.M
        )
    }
    return r"(^|/)(" + "|".join(sorted(suites)) + r")\." if suites else None


def system_tests(path):
    """The names of the whole-program tests of a source file: those of its component
    or, in vornctl, those with a word of its name or its directory's."""
    component = component_of(path)
    if component.system is not VORNCTL:
        return component.system
    words = set(re.split(r"\W+|_", path))
    words.update(OTHER_WORDS[word] for word in words & OTHER_WORDS.keys())
    tests = sorted((ROOT / "tests/system").glob("test_vornctl_*.py"))
    names = [file.stem.removeprefix("test_") for file in tests]
    return [
        name for name in names
        if words & set(name.split("_")[1:]) and "browser" not in name
    ] or VORNCTL  # fmt: skip


class Tester:
    """Builds and tests mutants, several at a time."""

    def __init__(self, work, jobs, mutants):
        components = list(dict.fromkeys(component_of(m.path) for m in mutants))
        self.work = work
        self.seen_as = work / "tree"
        self.seen_as.mkdir()
        self.free = queue.Queue()
        first = self._new_workplace(0)
        self._first_build(first, components)
        self.durations = self._measure(first, components, mutants)
        for number in range(1, jobs):
            directory = work / str(number)
            shutil.copytree(first.directory, directory, symlinks=True)
            # copytree preserves the times, so nothing is rebuilt.
            self.free.put(Workplace(directory, self.seen_as))
        self.free.put(first)

    def _new_workplace(self, number):
        directory = self.work / str(number)
        shutil.copytree(
            ROOT, directory, symlinks=True,
            ignore=shutil.ignore_patterns(".git", "build*", "__pycache__"),
        )
        return Workplace(directory, self.seen_as)

    def _first_build(self, place, components):
        # Sources without their fault again are not compiled again.
        cache = ["-DCMAKE_CXX_COMPILER_LAUNCHER=ccache"] if shutil.which("ccache") else []
        status, said = place.run(
            "cmake", "-S", ".", "-B", "build", "-DCMAKE_BUILD_TYPE=None",
            "-DCMAKE_CXX_FLAGS=-O0 -w", "-DVORN_REQUIRE_TESTS=ON", *cache,
            limit=BUILD_LIMIT,
        )
        targets = {"vornlaunch"} | {self._unit_target(c) for c in components}
        if any(c.program != "vornlaunch" for c in components):
            # Their tests also run the others.
            targets |= {"vornctl", "vornrun", "parse_launch_files"}
        built = status == 0
        if built:
            built, said = place.build(*targets - {""})
        if not built:
            sys.exit("the sources without a fault cannot be built:\n" + said)

    def _measure(self, place, components, mutants):
        """The durations without a fault: of the unit tests of each component, and
        of each file of whole-program tests that a mutant can need."""
        files = sorted({name for m in mutants for name in system_tests(m.path)})
        commands = {c.unit: self._unit(c) for c in components if c.unit}
        commands.update((name, self._system([name])) for name in files)
        durations = {}
        for name, command in commands.items():
            begin = time.monotonic()
            status, said = place.run(*command, limit=1800)
            if status != 0:
                sys.exit(f"tests fail without a fault: {command}\n{said}")
            durations[name] = time.monotonic() - begin
            print(f"{durations[name]:.0f} s without a fault: {name}", flush=True)
        return durations

    def _limit(self, names):
        """The time limit of these tests."""
        return max(30.0, 4 * sum(self.durations[name] for name in names))

    @staticmethod
    def _unit_target(component):
        """All unit tests for the sources that every program uses."""
        return "all" if component.unit == "vornlib_tests" else component.unit

    @staticmethod
    def _unit(component, *options):
        directory = "build"
        if Tester._unit_target(component) != "all":
            directory += "/" + unit_directory(component)
        return [
            "ctest", "--test-dir", directory, "--quiet", "--stop-on-failure", "-j4",
            *options,
        ]  # fmt: skip

    @staticmethod
    def _system(names):
        tests = [f"tests/system/test_{name}.py" for name in names]
        return [*PYTEST, "-q", "-x", "-n8", "--tb=no", "--build=build", *tests]

    def _suites(self, mutant):
        """The steps of a test, in this order: name, target, command, time limit."""
        path = pathlib.PurePath(mutant.path)
        component = component_of(mutant.path)
        names = system_tests(mutant.path)
        system = ("system", component.program, self._system(names), self._limit(names))
        if not component.unit or path.name in ("vornlaunch.cpp", "main.cpp"):
            return [system]  # the entry of a program is in no unit test
        limit = self._limit([component.unit])
        unit = ("unit", self._unit_target(component), self._unit(component), limit)
        suites = suites_of(mutant.path)
        if suites is None:
            return [unit, system]
        area = ("area", component.unit, self._unit(component, "-R", suites), limit)
        return [area, unit, system]

    def test(self, mutant):
        """The suite that caught the mutant, "build" if it does not compile, None if it
        survived."""
        place = self.free.get()
        try:
            place.put(mutant)
            for suite, target, command, limit in self._suites(mutant):
                try:
                    if not place.build(target)[0]:
                        return "build"
                    if place.run(*command, limit=limit)[0] != 0:
                        return suite
                except TimedOut:
                    return suite + ", time"
            return None
        finally:
            self.free.put(place)


# ---- The report.


def print_table(title, results, key):
    """The counts by `key` of the mutant."""
    columns = ["area", "unit", "system", "time", "survived"]
    counts = collections.defaultdict(collections.Counter)
    for mutant, caught in results:
        column = "survived" if caught is None else caught.split(", ")[-1]
        for name in (key(mutant), "all"):
            counts[name][column] += 1
    print(f"\n{title:40}" + "".join(f"{column:>10}" for column in columns))
    names = sorted(name for name in counts if name != "all") + ["all"]
    for name in names:
        row = "".join(f"{counts[name][column]:10}" for column in columns)
        print(f"{name:40}{row}")


def report(results, reasons):
    """Prints the outcome; returns whether enough were caught."""
    refused = [mutant for mutant, caught in results if caught == "build"]
    results = [result for result in results if result[1] != "build"]
    known = [m for m, caught in results if caught is None and m.key in reasons]
    survivors = [m for m, caught in results if caught is None and m.key not in reasons]
    counted = [result for result in results if result[0] not in known]
    if counted:
        print_table("fault", counted, lambda mutant: mutant.what)
        print_table("file", counted, lambda mutant: mutant.path)
    for mutant in survivors:
        print(f"SURVIVED {mutant}")
    for mutant, caught in results:
        if caught is not None and mutant.key in reasons:
            print(f"CAUGHT, although listed as equivalent: {mutant}")
    caught = len(counted) - len(survivors)
    percentage = 100 * caught / len(counted) if counted else 100.0
    print(
        f"\n{caught} of {len(counted)} mutants caught, {percentage:.1f} %; "
        f"{len(refused)} more do not compile; "
        f"{len(reasons)} are listed as equivalent"
    )
    return percentage >= WANTED


def parse_arguments():
    parser = argparse.ArgumentParser(description=__doc__.split("\n\n", 1)[0])
    parser.add_argument("--list", action="store_true", help="only list the mutants")
    parser.add_argument(
        "--only", metavar="PATTERN", type=re.compile,
        help="only the mutants in whose line in --list this expression is found",
    )
    parser.add_argument(
        "--sample", metavar="N", type=int, help="N mutants, of every kind and file"
    )
    parser.add_argument("--seed", metavar="S", type=int, default=1, help="for --sample")
    parser.add_argument(
        "--equivalent", action="store_true",
        help="also those that are listed as equivalent, which are left out else",
    )
    parser.add_argument("--jobs", type=int, default=os.cpu_count(), help="at a time")
    parser.add_argument(
        "--work", type=pathlib.Path, default="/var/tmp",
        help="where to put the copies of the tree; not below /tmp",
    )
    return parser.parse_args()


def main():
    arguments = parse_arguments()
    reasons = read_equivalent()
    mutants = all_mutants()
    keys = {mutant.key for mutant in mutants}
    for key in reasons:
        if key not in keys:
            sys.exit(f"{EQUIVALENT.name}: no such mutant: {key}")
    if not arguments.equivalent:
        mutants = [mutant for mutant in mutants if mutant.key not in reasons]
    if arguments.only:
        mutants = [m for m in mutants if arguments.only.search(str(m))]
    if arguments.sample:
        mutants = sample(mutants, arguments.sample, arguments.seed)
    if arguments.list:
        for mutant in mutants:
            print(mutant)
        print(f"{len(mutants)} mutants")
        return 0

    with tempfile.TemporaryDirectory(prefix="mutants-", dir=arguments.work) as work:
        tester = Tester(pathlib.Path(work), arguments.jobs, mutants)
        printing = threading.Lock()
        done = []

        def run(mutant):
            caught = tester.test(mutant)
            with printing:
                done.append(mutant)
                where = caught or "SURVIVED"
                print(f"{len(done)}/{len(mutants)} {where}: {mutant}", flush=True)
            return mutant, caught

        with concurrent.futures.ThreadPoolExecutor(arguments.jobs) as pool:
            results = list(pool.map(run, mutants))
    return 0 if report(results, reasons) else 1


if __name__ == "__main__":
    sys.exit(main())
