"""The commands in docs/operations.md."""

import pathlib

import pytest
from support.doc_runner import blocks

OPERATIONS = pathlib.Path(__file__).resolve().parents[2] / "docs/operations.md"


def block_with(language, text):
    """The only block of this language that contains the text."""
    [block] = [b for b in blocks(OPERATIONS, language) if text in b.text]
    return block.text


@pytest.mark.native  # the commands find the launcher by its name
def test_the_documented_commands_apply_a_changed_file_only_if_it_is_valid(shell):
    def wait_until_running(node):
        shell.type(f"until vornctl status {node} | grep running; do sleep 0.05; done")
        # Before a new node executes its program, it has the launcher's name.
        shell.type("until [ $(pidof vornlaunch | wc -w) = 1 ]; do sleep 0.05; done")

    def pid():
        return shell.run("pidof vornlaunch")[1]

    shell.type("echo 'vornnode: {stay: {path: /bin/sleep, argv: 1000}}' >launch.yaml")
    shell.run("vornlaunch launch.yaml >>nodes.log 2>>launch.log &")
    wait_until_running("stay")
    first = pid()
    commands = block_with("sh", "vornctl check launch.yaml")
    shell.type("echo 'vornnode: [' >launch.yaml")
    shell.run(commands)
    assert pid() == first

    shell.type("echo 'vornnode: {new: {path: /bin/sleep, argv: 2000}}' >launch.yaml")
    shell.run(commands)
    wait_until_running("new")
    assert pid() != first
