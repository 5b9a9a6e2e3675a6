"""The Containerfile, parsed as far as the tests need it."""

import dataclasses
import json
import pathlib
import re

ROOT = pathlib.Path(__file__).resolve().parents[2]
CONTAINERFILE = ROOT / "packaging/container/Containerfile"


@dataclasses.dataclass(frozen=True)
class Stage:
    base: str
    instructions: tuple  # pairs: the word, the rest on one line

    def all(self, word):
        """The arguments of each instruction with this keyword."""
        return [rest for instruction, rest in self.instructions if instruction == word]

    def one(self, word):
        """The arguments of the only instruction with this keyword."""
        [rest] = self.all(word)
        return rest

    @property
    def packages(self):
        """The packages that apt-get installs."""
        commands = re.split("&&|;", " && ".join(self.all("RUN")))
        words = [word for command in commands
                 if re.match(r"\s*apt-get install ", command)
                 for word in command.split()[2:]]
        return [word for word in words if not word.startswith("-")]

    @property
    def copies(self):
        """Triples: the stage to copy from or None, the sources, the target."""
        found = []
        for rest in self.all("COPY"):
            words = rest.split()
            stage = words.pop(0)[len("--from="):] if words[0].startswith("--") else None
            found.append((stage, words[:-1], words[-1]))
        return found

    @property
    def command(self):
        """The command of process 1; both parts are in exec form."""
        return json.loads(self.one("ENTRYPOINT")) + json.loads(self.one("CMD"))

    @property
    def health_command(self):
        """The command in shell form."""
        return self.one("HEALTHCHECK").partition(" CMD ")[2]


def read_stages():
    """The stages of the Containerfile, in its order."""
    text = CONTAINERFILE.read_text(encoding="utf-8")
    text = re.sub(r"^\s*#.*\n", "", text, flags=re.M).replace("\\\n", " ")
    stages = []
    for line in filter(str.strip, text.splitlines()):
        word, rest = line.split(maxsplit=1)
        if word == "FROM":
            stages.append(Stage(rest, ()))
        else:
            stage = stages[-1]
            stages[-1] = Stage(stage.base,
                               (*stage.instructions, (word, " ".join(rest.split()))))
    return stages
