"""Launch files of all kinds: valid, unusual and invalid. Their programs are in the
directory /tmp/bin, which is also install://bin where VORN_ROOT is /tmp."""

import random

GOOD = "/tmp/bin/worker"

# Errors and oddities in the description of a node.
DESCRIPTIONS = [
    "", "~", "oops", "'quoted'", "!!str", "[path, /tmp/bin/worker]", "[]", "{}",
    "{path: }", "{path: ~}", "{path: null}", "{path: [a]}", "{path: {a: b}}",
    "{path: ''}", "{path: 3}", "{path: 'null'}", "{path: !!str null}",
    "{Path: /tmp/bin/worker}", "{argv: -a, sleep: oops}", "{path: worker}",
    "{path: bin/worker}", "{path: 'install://bin/worker'}",
    "{path: /tmp/bin/missing}", "{path: /tmp/bin}", "{path: /tmp/bin/plain}",
    '{path: "/tmp/bin/worker\\0more"}', "{path: /tmp/bin/worker, path: /other}",
    "{argv: -a, path: /tmp/bin/worker}", "{path: /tmp/bin/worker, ~: a}",
    "{path: /tmp/bin/worker, [a]: b}", "{path: /tmp/bin/worker, {a: b}: c}",
    "{path: /tmp/bin/worker, <<: {argv: -a}}", "{<<: {path: /tmp/bin/worker}}",
]
# The same for one more key of a valid node.
KEYS = [
    "argv:", "argv: ~", "argv: null", "argv: NULL", "argv: Null", "argv: nuLL",
    "argv: ''", "argv: 3", "argv: true", "argv: [-a]", "argv: {a: b}",
    "argv: '  -a   -b  '", 'argv: "a\\tb c"', 'argv: "a\\nb c"',
    'argv: "a\\0b c"', 'argv: "\\0"', "argv: '\"a b\" c'", "argv: '$HOME ~ *'",
    "argv: -a, argv: -b", "argv: install://x", "argv: ä\u2028ß 漢",
    "disabled: 1", "disabled: 0", "disabled:", "disabled: ~", "disabled: tRue",
    "disabled: TRUE", "disabled: Yes", "disabled: y", "disabled: on",
    "disabled: 'yes'", "disabled: ''", "disabled: [true]", "disabled: no",
    "disabled: true, disabled: false", "oneshot: maybe", "oneshot: Off",
    "oneshot: {}", "autostart: N", "autostart: no, autostart: yes",
    "autostart: FALSE", "autostart: f", "sleep:", "sleep: 0", "sleep: 1",
    "sleep: 0x2", "sleep: 010", "sleep: 08", "sleep: +1", "sleep: -1",
    "sleep: - 1", "sleep: ' 1'", "sleep: '1 '", "sleep: 1.5", "sleep: 1e2",
    "sleep: 10ms", "sleep: 1_000", "sleep: '3'", "sleep: ''", "sleep: long",
    "sleep: 4294967295, sleep: 1", "sleep: 4294967296", "sleep: 0xffffffff, sleep: 0",
    "sleep: [1]", "sleep: .inf", "sleep: .nan", "sleep: 99999999999999999999",
    "required:", "required: ~", "required: good", "required: []", "required: [good]",
    "required: [good, good, bad, missing]", "required: [~]", "required: [[good]]",
    "required: {a: b}", "required: [good], required: [bad]", "required: ''",
    "required: [1, true, '']", "required: [good, ~], required: [good]",
    "environment:", "environment: ~", "environment: x", "environment: ''",
    "environment: []", "environment: [A]", "environment: {}",
    "environment: {A: }", "environment: {A: ~}", "environment: {A: [a]}",
    "environment: {A: {b: c}}", "environment: {~: a}", "environment: {[A]: a}",
    "environment: {A: a, A: b}", "environment: {A: a}, environment: {B: b}",
    "environment: {'': a}", "environment: {A=B: a}", "environment: {A: ''}",
    'environment: {"A\\0B": a}', 'environment: {A: "a\\0b"}',
    'environment: {"\\0": a}', "environment: {A: 'install://lib:install://x'}",
    "environment: {A: 'pre-install://x'}", "environment: {A: 'install:///x'}",
    "environment: {A: 'install:/x'}", "environment: {install://A: x}",
    "environment: {__VORN_NODE_NAME__: me}", "environment: {PATH: /nowhere}",
    "environment: {VORN_BIN_PATH: /nowhere}", "environment: {1: 2, true: yes}",
    "environment: {<<: {A: a}}", "environment: {? A : a}",
    "unknown: {a: [b]}", "args: -a", "pid: 3", "sleep : 1", "\"sleep\": 1",
    "!!str sleep: 1", "!odd argv: -a", "argv: !odd -a", "argv: !!binary aGk=",
    "argv: !!null x", "argv: &a -x, environment: {A: *a}", "argv: *nothing",
]
ENVIRONMENTS = [
    "", "~", "x", "[]", "[A]", "{}", "{A: a}", "{A: }", "{A: [a]}", "{~: a}",
    "{[A]: a}", "{A: a, A: b}", "{'': a, B=C: b}", "{VORN_BIN_PATH: /tmp/bin}",
    "{VORN_BIN_PATH: 'install://bin'}", "{VORN_BIN_PATH: /tmp/bin/}",
    "{VORN_BIN_PATH: ''}", "{VORN_BIN_PATH: /tmp, VORN_BIN_PATH: /tmp/bin}",
    '{VORN_BIN_PATH: "/tmp/bin\\0x"}', '{"VORN_BIN_PATH\\0x": /tmp/bin}',
    "{VORN_ROOT: /opt/x, A: 'install://a'}", "{A: 'install://a', VORN_ROOT: /opt/x}",
    "{VORN_ROOT: '', A: 'install://a'}", "{VORN_ROOT: /x//, A: 'install://a'}",
    "{VORN_ROOT: 'install://b', A: 'install://a'}",
    "{VORN_ROOT: '/a/install:', A: 'install:///a'}",
    "{A: a, B: , C: c}", "{PATH: /nowhere}",
]
DOCUMENTS = [
    "", "# nothing\n", "---\n", "...\n", "~\n", "just a text\n", "'quoted'\n", "3\n",
    "[]\n", "[a, b]\n", "- vornnode: {a: {path: /tmp/bin/worker}}\n", "{}\n",
    "version: 2\n", "configure:\n", "vornnode:\n", "configure:\nvornnode:\n",
    "vornnode: none\n", "vornnode: []\n", "vornnode: [good]\n", "vornnode: {}\n",
    "configure: x\n", "configure: []\n", "configure: [a]\n", "configure: {a: b}\n",
    "Vornnode: {a: {path: /tmp/bin/worker}}\n",
    "vornnode: {a: {path: /tmp/bin/worker}}\nvornnode: {b: {path: /tmp/bin/worker}}\n",
    "configure: {environment: {A: a}}\nconfigure: {environment: {B: b}}\n",
    "configure: {environment: {A: a}, environment: {B: b}}\n",
    "vornnode: {a: {path: worker}}\n"
    "configure: {environment: {VORN_BIN_PATH: /tmp/bin}}\n",
    "vornnode: {a: {path: /tmp/bin/worker}}\n"
    "---\nvornnode: {b: {path: /tmp/bin/worker}}\n",
    "vornnode: {a: {path: /tmp/bin/worker}}\n...\nnonsense: [\n",
    "vornnode: {a: {path: /tmp/bin/worker}}\n---\n[\n",
    "---\n---\nvornnode: {a: {path: /tmp/bin/worker}}\n",
    "%YAML 1.2\n---\nvornnode: {a: {path: /tmp/bin/worker}}\n",
    "%YAML 2.0\n---\nvornnode: {}\n", "%YAML 1.2\n%YAML 1.2\n---\n{}\n",
    "vornnode: {a: {path: [\n", "vornnode:\n  a: x\n b: y\n", "\tvornnode:\n",
    "vornnode:\n\ta: {path: /tmp/bin/worker}\n", "vornnode: {}}\n", "{}\n}\n", "{} x\n",
    "a: 1\n]\n", "'a' 'b'\n", "vornnode: *x\n", "vornnode: &a &b {}\n",
    "&a {vornnode: *a}\n",
    "&r {configure: *r, vornnode: {a: *r}}\n", "{a, b}\n", "? vornnode\n",
    "? [vornnode]\n: {}\n", "~: {}\n",
    "x: &v ~\nvornnode:\n  a:\n    ? path\n    : *v\n",
    "x: &v a:b\nvornnode:\n  a:\n    ? path\n    : *v\n    sleep: *v\n",
    "vornnode: &n {a: {path: /tmp/bin/worker}, b: *n}\n",
    "x-n: &n {path: /tmp/bin/worker}\nvornnode: {a: *n, b: *n}\n",
    "vornnode: {~: {path: /tmp/bin/worker}}\n",
    "vornnode: {[a]: {path: /tmp/bin/worker}}\n",
    "vornnode: {'': {path: /tmp/bin/worker}}\n",
    "vornnode: {1: {path: /tmp/bin/worker}}\n",
    'vornnode: {"a\\0b": {path: /tmp/bin/worker}}\n',
    'vornnode: {"a\\nb": {path: /tmp/bin/worker}}\n',
    "vornnode: {a: {path: /tmp/bin/worker}, a: {path: /tmp/bin/worker, argv: -2}}\n",
    "vornnode:\r\n  a:\r\n    path: /tmp/bin/worker\r\n    argv: -a\r\n",
    "vornnode:\n  a:\n    path: /tmp/bin/worker\n    argv: |\n      -a\n      -b\n",
    "vornnode:\n  a:\n    path: /tmp/bin/worker\n    argv: >-\n      -a\n      -b\n",
    "vornnode:\n  a: {path: /tmp/bin/worker}\n  b: {path: /tmp/bin/worker, sleep: x}\n",
    "\ufeffvornnode: {a: {path: /tmp/bin/worker}}\n",
    "vornnode: {" + "a" * 200 + ": {path: /tmp/bin/worker}}\n",
    "x: " + "[" * 300 + "]" * 300 + "\n", "x: " + "[" * 600 + "]" * 600 + "\n",
]


def hand_made():
    """Pairs of a name and the text of a file."""
    files = [(f"document-{i}", text) for i, text in enumerate(DOCUMENTS)]
    for i, text in enumerate(DESCRIPTIONS):
        files.append((f"description-{i}",
                      f"vornnode:\n  good: {{path: {GOOD}}}\n  bad: {text}\n"))
    for i, text in enumerate(KEYS):
        files.append((f"key-{i}", f"vornnode:\n  good: {{path: {GOOD}, {text}}}\n"))
    for i, text in enumerate(ENVIRONMENTS):
        files.append((f"environment-{i}",
                      f"vornnode:\n  good: {{path: worker, environment: "
                      f"{{L: 'install://lib'}}}}\nconfigure:\n  environment: {text}\n"))
    return files


class Generator:
    """Generates launch files with occasional errors, in all styles of YAML. Programs
    run until they are stopped, or are missing; a node that can be started has a delay
    of at most a few milliseconds."""

    def __init__(self, seed):
        self._random = random.Random(seed)
        self._anchors = []

    def file(self):
        self._anchors = []
        sections = []
        if self._chance(0.7):
            sections.append(self._entry(0, "configure", self._configure))
        sections.append(self._entry(0, "vornnode", self._nodes))
        while self._chance(0.1):
            sections.append(self._entry(0, self._pick(
                ["x-more", "version", "vornnode", "configure", "Configure"]),
                lambda indent: self._pick([" 1", " [a, b]", "", " {a: b}"])))
        self._random.shuffle(sections)
        text = self._pick(["", "", "", "---\n", "# a comment\n\n", "%YAML 1.2\n---\n"])
        text += "".join(sections)
        if self._chance(0.03):
            text += "---\nvornnode: {}\n"
        return self._damaged(text) if self._chance(0.15) else text

    def _chance(self, probability):
        return self._random.random() < probability

    def _pick(self, choices):
        return self._random.choice(choices)

    def _damaged(self, text):
        """The text with a few characters lost, doubled or changed."""
        for _ in range(self._random.randint(1, 3)):
            at = self._random.randrange(len(text) + 1)
            text = self._pick([
                text[:at] + text[at + 1:],
                text[:at] + self._pick("[]{}:,#&*!|>'\"%@`\n\t -?~") + text[at:],
                text[:at] + text[max(0, at - self._random.randrange(20)):],
            ])
        return text

    def _entry(self, indent, key, value):
        """A key and its value, which contains everything after the colon."""
        comment = self._pick(["", "", "", "  # why"])
        text = value(indent)
        if text.startswith("\n") or "\n" in text:
            return f"{' ' * indent}{key}:{text}\n"
        return f"{' ' * indent}{key}:{text}{comment}\n"

    def _block(self, entries):
        return "".join("\n" + entry.rstrip("\n") for entry in entries)

    def _wrong(self):
        """A value that is invalid in most places."""
        return self._pick(["", " ~", " null", " []", " [a]", " [~]", " {}", " {a: b}",
                           " x", " ''", " 1", " !!str", " *nothing", " - a"])

    def _configure(self, indent):
        if self._chance(0.03):
            return self._wrong()
        entries = [self._entry(indent + 2, "environment", self._environment)]
        if self._chance(0.1):
            entries.append(self._entry(indent + 2, self._pick(["environment", "env"]),
                                       self._environment))
        return self._block(entries)

    def _environment(self, indent):
        if self._chance(0.05):
            return self._wrong()
        names = ["A", "B", "LIMIT", "VORN_BIN_PATH", "VORN_BIN_PATH", "VORN_ROOT",
                 "'A'", '"B"', "ÄÖ", "A B", "X=Y", "''", "<<", "'A\nB'", "1", "yes"]
        if indent > 2:
            names += ["__VORN_NODE_NAME__", "PATH"]
        return self._block(
            self._entry(indent + 2, self._key(self._pick(names)), self._value)
            for _ in range(self._random.randint(0, 4)))

    def _key(self, name):
        if self._chance(0.01):
            return self._pick(["~", "[a]", "{a: b}", "null"])
        return name.replace("\n", " ")

    def _value(self, indent):
        if self._chance(0.03):
            return self._wrong()
        if self._anchors and self._chance(0.1):
            return f" *{self._pick(self._anchors)}"
        anchor = ""
        if self._chance(0.05):
            anchor = f" &v{len(self._anchors)}"
        text = self._pick([
            "/tmp/bin", "install://bin", "/tmp/bin/", "/tmp", "", "a", "ü",
            "install://lib:install://lib64", "x-install://y", "install:/x", "7",
            "true", "null", "~", "a b", "a: b", "a #b", "$HOME", "%", "0x10"])
        written = self._scalar(text, indent)
        if anchor:
            self._anchors.append(anchor[2:])
        return f"{anchor} {written}"

    def _scalar(self, text, indent):
        """The text in one of YAML's styles, or close to it."""
        style = self._random.randrange(8)
        if style == 0:
            return "'" + text.replace("'", "''") + "'"
        if style in (1, 2):
            return '"' + text.replace("\\", "\\\\").replace('"', '\\"') + '"'
        if style == 3 and text:
            sign = self._pick("|>") + self._pick(["", "-", "+"])
            return f"{sign}\n{' ' * (indent + 2)}{text}"
        if style == 4:
            return f"!!str {text}"
        return text if text else "''"

    def _nodes(self, indent):
        if self._chance(0.03):
            return self._wrong()
        names = ["camera", "lamp", "recorder", "'quoted'", '"d"', "7", "no", "ü",
                 "a b"]
        return self._block(
            self._entry(indent + 2, self._key(self._pick(names)), self._node)
            for _ in range(self._random.randint(0, 5)))

    def _node(self, indent):
        if self._chance(0.04):
            return self._wrong()
        if self._chance(0.2):
            return " " + self._flow_node()
        keys = {"path": self._path, "argv": self._argv, "disabled": self._flag,
                "oneshot": self._flag, "autostart": self._flag, "sleep": self._sleep,
                "environment": self._environment, "required": self._required}
        chosen = [key for key in keys if self._chance(0.35)]
        if "path" not in chosen and self._chance(0.9):
            chosen.append("path")
        if self._chance(0.1):
            chosen.append(self._pick(list(keys)))
        self._random.shuffle(chosen)
        entries = [self._entry(indent + 2, self._key(key), keys[key]) for key in chosen]
        if self._chance(0.08):
            entries.append(self._entry(indent + 2, self._pick(
                ["args", "<<", "requires", "Path", "x"]), lambda _: self._wrong()))
        return self._block(entries)

    def _flow_node(self):
        parts = [f"path: {self._pick([GOOD, 'worker', '/tmp/bin/missing'])}"]
        if self._chance(0.7):
            parts.append(self._pick(KEYS))
        self._random.shuffle(parts)
        return "{" + ", ".join(parts) + "}"

    def _path(self, indent):
        if self._chance(0.05):
            return self._wrong()
        return " " + self._scalar(self._pick(
            [GOOD, GOOD, GOOD, "worker", "worker", "bin/worker", "/tmp/bin/missing",
             "/tmp/bin", "/tmp/bin/plain", "install://bin/worker", ""]), indent)

    def _argv(self, indent):
        if self._chance(0.05):
            return self._wrong()
        return " " + self._scalar(self._pick(
            ["-a", "-a -b", "  --rate  30 ", "3", "-a 'x y'", "ä", "", "true"]),
            indent)

    def _flag(self, _):
        if self._chance(0.05):
            return self._wrong()
        return " " + self._pick(["true", "false", "yes", "no", "On", "OFF", "y", "N",
                                 "'true'", "True", "tRue"] if self._chance(0.3)
                                else ["true", "false"])

    def _sleep(self, _):
        if self._chance(0.05):
            return self._wrong()
        return " " + self._pick(["0", "1", "2", "0x1", "01", "'2'", "+1", "1.0", "1ms",
                                 "-1"] if self._chance(0.3) else ["1", "2"])

    def _required(self, indent):
        if self._chance(0.06):
            return self._wrong()
        names = [self._pick(["camera", "lamp", "nobody", "'quoted'", "7", "~"]
                            if self._chance(0.1) else ["camera", "lamp", "recorder"])
                 for _ in range(self._random.randint(0, 3))]
        if self._chance(0.5) or not names:
            return " [" + ", ".join(names) + "]"
        return "".join(f"\n{' ' * (indent + 2)}- {name}" for name in names)


def generated(seed, count):
    """Pairs of a name and the text of a file; always the same for a seed."""
    generator = Generator(seed)
    return [(f"generated-{seed}-{i}", generator.file()) for i in range(count)]
