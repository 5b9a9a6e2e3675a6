"""The JSON Schema of launch files accepts valid files and refuses invalid ones, as far
as a schema can detect them."""

import json
import pathlib
import subprocess

import jsonschema
import pytest
import yaml

from support.launch_files import generated, hand_made

pytestmark = pytest.mark.plain  # it tests the schema

ROOT = pathlib.Path(__file__).resolve().parents[2]
SCHEMA = json.loads(
    (ROOT / "tools/vornctl/schema/launch.schema.json").read_text(encoding="utf-8")
)
EXAMPLES = sorted((ROOT / "tests/check").glob("*.yaml"))
# Checks that a schema cannot make: references between nodes, details that are lost when
# YAML is read, and the state of the machine.
BEYOND_A_SCHEMA = {
    "clone-refused", "daemonizes", "disabled-autostart", "duplicate-node",
    "executable-directory", "install-misspelt", "install-not-expanded", "interrupted-apply",
    "launcher-library",
    "launcher-path", "long-sleep", "long-stop", "missing-executable",
    "missing-interpreter", "missing-tool", "name-like-option", "no-nodes", "node-name-replaced",
    "not-executable", "nul-in-text", "quote-in-argv", "relative-path", "repeated-key",
    "repeated-section", "required-cycle", "required-oneshot", "required-self",
    "required-unknown", "shell-in-argv", "shell-in-path", "short-sleep", "sleep-wraps",
    "space-in-argument", "unknown-ignore", "variable-not-expanded",
    "writable-by-others", "wrong-format",
    "vornrun-file", "vornrun-option", "vornrun-privileges", "vornrun-user",
}
# Invalid YAML, or more than one document: an editor reports it by itself.
NOT_LOADED = {"syntax", "second-document", "not-a-key"}


class Loader(yaml.SafeLoader):
    """Reads YAML like editors: with the words of YAML 1.2 and without merge keys."""


Loader.yaml_implicit_resolvers = {
    letter: [(tag, pattern) for tag, pattern in resolvers
             if tag.rsplit(":", 1)[1] in ("null", "int", "float")]
    for letter, resolvers in yaml.SafeLoader.yaml_implicit_resolvers.items()
}


def errors_in(text):
    validator = jsonschema.Draft202012Validator(SCHEMA)
    return list(validator.iter_errors(yaml.load(text, Loader)))


def test_the_schema_is_a_valid_schema():
    jsonschema.Draft202012Validator.check_schema(SCHEMA)


def test_every_key_is_described():
    nodes = SCHEMA["$defs"]["node"]["properties"]
    assert set(nodes) == {"path", "argv", "environment", "sleep", "autostart",
                          "disabled", "oneshot", "required"}
    for key in [*nodes.values(), *SCHEMA["properties"].values()]:
        assert key["description"].endswith(".")


@pytest.mark.parametrize("path", EXAMPLES, ids=lambda path: path.stem)
def test_a_bad_example_is_refused_if_a_schema_can_detect_it(path):
    text = path.read_text(encoding="utf-8")
    if path.stem in NOT_LOADED:
        with pytest.raises(yaml.YAMLError):
            yaml.load(text, Loader)
        return
    assert bool(errors_in(text)) == (path.stem not in BEYOND_A_SCHEMA)


GOOD_NODES = {
    "plain": "{path: /a}",
    "full": "{path: a, argv: -x, disabled: no, oneshot: Yes, autostart: OFF, "
            "sleep: 0x10, environment: {A: b, C: 3, D: ''}, required: [b, 7]}",
    "numbers": "{path: 3, argv: 4.5, sleep: 4294967295, required: []}",
    "quoted": "{path: 'null', sleep: '7', disabled: 'true'}",
    "octal": "{path: a, sleep: 010}",
    "empty": "{path: '', argv: '', environment: }",
}
BAD_NODES = {
    "nothing": "", "null": "~", "scalar": "x", "list": "[path]", "no-path": "{argv: x}",
    "null-path": "{path: }", "list-path": "{path: [a]}", "null-argv": "{path: a, argv: }",
    "list-argv": "{path: a, argv: [b]}", "number-flag": "{path: a, disabled: 1}",
    "word-flag": "{path: a, oneshot: maybe}", "odd-flag": "{path: a, oneshot: tRue}",
    "null-flag": "{path: a, autostart: }", "unit": "{path: a, sleep: 10ms}",
    "negative": "{path: a, sleep: -1}", "fraction": "{path: a, sleep: 1.5}",
    "large": "{path: a, sleep: 4294967296}", "null-sleep": "{path: a, sleep: }",
    "scalar-required": "{path: a, required: b}", "null-required": "{path: a, required: }",
    "null-element": "{path: a, required: [~]}", "unknown": "{path: a, args: b}",
    "list-environment": "{path: a, environment: [A]}",
    "null-variable": "{path: a, environment: {A: }}",
    "list-variable": "{path: a, environment: {A: [b]}}",
    "equals-sign": "{path: a, environment: {A=B: c}}",
}


@pytest.mark.parametrize("node", GOOD_NODES.values(), ids=GOOD_NODES.keys())
def test_a_valid_node_is_accepted(node):
    assert errors_in(f"vornnode:\n  a: {node}\n") == []


@pytest.mark.parametrize("node", BAD_NODES.values(), ids=BAD_NODES.keys())
def test_an_invalid_node_is_refused(node):
    assert errors_in(f"vornnode:\n  a: {node}\n")


@pytest.mark.parametrize("path", [
    *(ROOT / "examples").glob("**/*.yaml"), *(ROOT / "docs").glob("launch-file.md"),
], ids=lambda path: path.name)
def test_the_examples_of_the_documentation_are_accepted(path):
    text = path.read_text(encoding="utf-8")
    if path.suffix == ".md":
        text = text.split("```yaml\n")[1].split("```")[0]
    assert "vornnode:" in text
    assert errors_in(text) == []


def test_launch_files_without_diagnostics_are_accepted(program, tmp_path):
    files = {name: text for name, text in [*hand_made(), *generated(7, 300)]}
    for name, text in files.items():
        (tmp_path / name).write_bytes(text.encode())
    checked = subprocess.run(
        [program.with_name("vornctl"), "check", "--no-host", "--format=json",
         "--ignore=short-sleep", *files],
        cwd=tmp_path, stdout=subprocess.PIPE, check=False, timeout=60,
    )
    clean = [each["file"] for each in json.loads(checked.stdout)["files"]
             if not each["findings"]]
    # PyYAML is stricter with tags, and has no text for "!!str 7".
    common = [files[name] for name in clean if "!" not in files[name]]
    assert len(common) > 50
    assert [text for text in common if errors_in(text)] == []
