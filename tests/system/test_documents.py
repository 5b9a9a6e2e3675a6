"""The examples of the documents work. scripts/site.sh checks the links."""

import html
import pathlib
import re
import shlex
import subprocess

import pytest

from support.doc_runner import blocks

pytestmark = pytest.mark.plain  # it tests the documents

ROOT = pathlib.Path(__file__).resolve().parents[2]
TUTORIALS = ROOT / "docs/tutorials"
DOCUMENTS = sorted([
    *ROOT.glob("*.md"),
    *(path for directory in ("bench", "docs", "examples", "packaging", "tests", "tools")
      for path in (ROOT / directory).rglob("*.md")),
])


def name(path):
    return str(path.relative_to(ROOT))


@pytest.mark.usefixtures("shell")  # which makes the installation
def test_an_installation_has_the_documents(machine):
    directory = machine.install / "share/doc/vornlaunch"
    assert {path.relative_to(directory) for path in directory.rglob("*.md")} == {
        path.relative_to(ROOT) for path in DOCUMENTS}


def launch_files(path):
    """The YAML blocks of a document, all of which are launch files, and the launch
    files that its commands write."""
    yield from (block.text for block in blocks(path, "yaml"))
    written = {}
    for block in blocks(path, "sh"):
        here_documents = re.findall(
            r"^cat (>>?) ?(\S+\.yaml) <<'EOF'\n(.*?)^EOF$", block.text, re.M | re.S)
        for how, file, text in here_documents:
            written[file] = (written[file] if how == ">>" else "") + text
            if re.search("^(vornnode|configure):", written[file], re.M):
                yield written[file]


LAUNCH_FILES = [
    pytest.param(text, id=f"{name(path)}-{i}")
    for path in DOCUMENTS for i, text in enumerate(launch_files(path))
]


@pytest.mark.parametrize("text", LAUNCH_FILES)
def test_a_launch_file_in_a_document_is_valid_for_checker_and_launcher(text, machine,
                                                                       program):
    checked = subprocess.run(
        [program.with_name("vornctl"), "check", "--fail-on", "warning", "-"],
        input=text, encoding="utf-8", capture_output=True, check=False,
    )
    assert (checked.returncode, checked.stdout) == (0, "")
    # The programs are not part of the document; without them no node starts.
    machine.start(text)
    assert not machine.has_ended


def test_there_are_launch_files_in_the_documents():
    assert len(LAUNCH_FILES) >= 9


# -- Blocks for the shell. Those of the tutorials are run by test_tutorials.py.

# Preparations that a document assumes; they are typed before its commands.
CAMERA_RUNS = """
mkdir share && touch calibration.bin
cat >robot.yaml <<'EOF'
vornnode:
  camera: {path: /bin/sleep, argv: infinity}
  planner: {path: /bin/sleep, argv: infinity}
  monitor: {path: /bin/sleep, argv: infinity, autostart: false}
EOF
vornlaunch robot.yaml 2>launch.log &
"""
PREPARATIONS = {
    "docs/vornctl.md": [CAMERA_RUNS],
    "docs/control-protocol.md": [CAMERA_RUNS],
    "docs/vornlaunch.md": [CAMERA_RUNS.rpartition("vornlaunch")[0]],
    "docs/checks.md": ["""
cat >launch.yaml <<'EOF'
configure:
  environment:
    MODE: fast
vornnode:
  prepare:
    path: /bin/true
    oneshot: true
  planner:
    path: /bin/true
    argv: --speed 2
    sleep: 500
    autostart: true
    environment:
        MAPS:
EOF
"""],
}

LANGUAGES = {"", "console", "cpp", "dockerfile", "ini", "python", "sh", "yaml"}


@pytest.mark.parametrize("path", DOCUMENTS, ids=name)
def test_a_block_in_which_a_command_is_typed_is_a_console(path):
    for block in blocks(path):
        assert block.language in LANGUAGES, block.place
        if block.language not in ("console", "sh"):
            assert not re.search(r"^\$ ", block.text, re.M), block.place


@pytest.mark.native  # their programs are for this machine
@pytest.mark.parametrize("path", [
    path for path in DOCUMENTS
    if TUTORIALS not in path.parents and blocks(path, "console")
], ids=name)
def test_a_document_prints_what_it_shows(path, shell):
    for text in PREPARATIONS.get(name(path), []):
        shell.type(text)
    shell.follow(path, "console")
    # The launcher does not complain about a documented client.
    assert shell.run("grep -sE 'poll timeout|received:|send fail' launch.log")[1] == []


def screen_of(picture):
    """The lines of the screen that scripts/screenshot.py has drawn."""
    text = picture.read_text(encoding="utf-8")
    lines = {}
    for y, part in re.findall(r'<text [^>]*\by="(\d+)"[^>]*>([^<]*)<', text):
        lines[y] = lines.get(y, "") + html.unescape(part)
    return list(lines.values())


def test_the_picture_in_the_readme_shows_the_demo(shell):
    shell.type("""
cp -r /tmp/install/share/doc/vornlaunch/examples/demo . && cd demo
mkdir build && ln -s /tmp/install/bin build/bin
VORN_ROOT=$PWD vornlaunch launch.yaml >nodes.log 2>launch.log &
""")
    # Any number of lines in place of the node whose restarts are counted.
    shell.shows("vornctl top", ["..." if line.startswith("lamp ") else line
                                for line in screen_of(ROOT / "docs/top.svg")])


WRONG = {
    "another output": "```console\n$ echo 7\n8\n```\n",
    "too little output": "```console\n$ printf '1\\n2\\n'\n1\n```\n",
    "too much output": "```console\n$ true\n1\n```\n",
    "a command that fails": "```sh\nfalse\n```\n",
    "a command that fails before another": "```sh\nfalse\ntrue\n```\n",
    "no command": "```console\n1\n```\n",
}
RIGHT = """
```sh
cd /tmp && number=12
```

```console
$ echo $number in $PWD; (exit 3)
12 in /tmp
$ echo "status $?, pid $$"
status 3, pid 4711
$ for i in 1 2 3; do
>   echo $i
> done
1
...
```
"""


def test_a_correct_document_is_followed_in_one_shell(shell, tmp_path):
    document = tmp_path / "right.md"
    document.write_text(RIGHT, encoding="utf-8")
    shell.follow(document, "console", "sh")
    assert shell.run("echo $number") == (0, ["12"])


def test_an_incorrect_document_is_detected(shell, tmp_path):
    for what, text in WRONG.items():
        document = tmp_path / "wrong.md"
        document.write_text(text, encoding="utf-8")
        with pytest.raises(AssertionError, match="wrong.md:2"):
            shell.follow(document, "console", "sh")
            pytest.fail(f"{what} is not found")


# Programs in documents that are the reader's own, or that no test needs.
NOT_HERE = {"docker", "podman", "robot-config"}

# Words that a command can follow.
KEYWORDS = {"!", "{", "}", "do", "done", "else", "fi", "if", "sudo", "then", "until",
            "while"}


def simple_commands(text):
    """The words of each simple command in a text of the shell, roughly."""
    text = re.sub(r"<<-?'?(\w+)'?(.*\n)(?:.*\n)*?\s*\1$", r"\2", text, flags=re.M)
    text = re.sub(r"(^|\s)#.*$", r"\1", text.replace("\\\n", " "), flags=re.M)
    lexer = shlex.shlex(text, posix=True, punctuation_chars="();<>|&\n")
    lexer.whitespace = " \t"
    lexer.whitespace_split = True
    lexer.commenters = ""
    words = []
    for word in [*lexer, ";"]:
        if word == "" or word[0] not in "();|&\n":
            words.append(word)
            continue
        while words and (words[0] in KEYWORDS or re.match(r"\w+=", words[0])):
            words.pop(0)
        if words and words[0] not in ("for", "case"):
            yield words
        words = []


def is_known(program_name):
    """Whether the shell finds a program or a builtin of this name."""
    path = {"PATH": "/usr/sbin:/usr/bin:/sbin:/bin"}
    done = subprocess.run(["bash", "-c", 'type -- "$1"', "bash", program_name],
                          env=path, capture_output=True, check=False)
    return done.returncode == 0


def help_of(words, program):
    """The help of this project's programs for this command; None for other programs."""

    def said(*call):
        return subprocess.run(
            call, stdout=subprocess.PIPE, encoding="utf-8", check=True).stdout

    if pathlib.Path(words[0]).name == "vornctl":
        vornctl = program.with_name("vornctl")
        general = said(vornctl, "help")
        commands = re.findall(r"^  ([a-z]+) ", general, re.M)
        command = [word for word in words[1:] if word in commands][:1]
        return general + said(vornctl, "help", *command)
    if re.fullmatch(r"\./\w+\.sh", words[0]):
        return said(ROOT / words[0], "--help")
    return None


def is_there(word, program):
    """Whether a word does not name a file of this project, or an existing one."""
    if word.startswith("build/bin/"):
        return program.with_name(word.rpartition("/")[2]).exists()
    directory, _, rest = word.partition("/")
    if directory in ("", ".") or not rest or not (ROOT / directory).is_dir():
        return True  # such as /tmp/x, or ./x in a directory of the reader's
    return any(ROOT.glob(word))


def check_command(words, program):
    """Fails if the program, a file of this project or an option does not exist."""
    for word in words:
        assert is_there(word, program), word
    if words[0].startswith("./"):
        assert (ROOT / words[0]).exists(), words
    elif "/" not in words[0] and words[0] not in NOT_HERE:
        assert program.with_name(words[0]).exists() or is_known(words[0]), words
    text = help_of(words, program)
    for word in words[1:]:
        if text is not None and re.match("--?[a-z]", word):
            assert re.search(rf"(^|[\s,]){word}\b", text, re.M), f"{words}: {word}"


@pytest.mark.parametrize("path", [
    path for path in DOCUMENTS
    if TUTORIALS not in path.parents and blocks(path, "sh")
], ids=name)
def test_the_commands_files_and_options_in_a_document_exist(path, program):
    for block in blocks(path, "sh"):
        subprocess.run(["bash", "-n"], input=block.text, encoding="utf-8", check=True)
        found = list(simple_commands(block.text))
        assert found, block.place
        for words in found:
            check_command(words, program)
