"""What a launch file makes of the launcher and its nodes."""

import signal

import pytest

from support.control import Cmd, Result, State
from support.waiting import eventually

# Stays, so that its arguments and environment can be looked at.
STAY = "sleep 1000 &\nwait"
NO_PATH = ("WARN", False, "parseNode", "No node's path!")

BAD_CONVERSION = ": bad conversion\n"
INVALID_NODE = (
    "invalid node; this may result from using a map iterator as a sequence "
    "iterator, or vice-versa"
)


def subscript_error(key):
    return f'operator[] call on a scalar (key: "{key}")'


def child_of(machine, name):
    """The node's process, once it runs its program."""

    def executed():
        process = machine.find_process(machine.status(name).pid)
        argv = process.argv if process else []
        return process if argv[:1] == ["/bin/sh"] else None

    return eventually(executed, f"{name} runs its program")


def arguments_of(machine, name):
    """The node's argument vector; the kernel has put the interpreter in
    front."""
    argv = child_of(machine, name).argv
    assert argv[0] == "/bin/sh"
    return argv[1:]


def texts(machine, func):
    """What the function has logged so far."""
    return [line.text for line in machine.log() if line.func == func]


def registered(machine):
    return texts(machine, "addNode")


def started(machine):
    return [text for text in texts(machine, "startInternal") if text.endswith(" ok")]


# -- Wrong files.

WRONG_DESCRIPTIONS = {
    "scalar-description": ("oops", subscript_error("path")),
    "path-null": ("{path: }", BAD_CONVERSION),
    "path-tilde": ("{path: ~}", BAD_CONVERSION),
    "path-list": ("{path: [/tmp/bin/worker]}", BAD_CONVERSION),
    "path-mapping": ("{path: {a: b}}", BAD_CONVERSION),
    "argv-null": ("{path: /tmp/bin/worker, argv: }", BAD_CONVERSION),
    "argv-null-word": ("{path: /tmp/bin/worker, argv: null}", BAD_CONVERSION),
    "argv-list": ("{path: /tmp/bin/worker, argv: [-a]}", BAD_CONVERSION),
    "sleep-word": ("{path: /tmp/bin/worker, sleep: long}", BAD_CONVERSION),
    "sleep-unit": ("{path: /tmp/bin/worker, sleep: 10ms}", BAD_CONVERSION),
    "sleep-fraction": ("{path: /tmp/bin/worker, sleep: 1.5}", BAD_CONVERSION),
    "sleep-negative": ("{path: /tmp/bin/worker, sleep: -1}", BAD_CONVERSION),
    "sleep-too-large": ("{path: /tmp/bin/worker, sleep: 4294967296}", BAD_CONVERSION),
    "sleep-null": ("{path: /tmp/bin/worker, sleep: }", BAD_CONVERSION),
    "disabled-number": ("{path: /tmp/bin/worker, disabled: 1}", BAD_CONVERSION),
    "disabled-null": ("{path: /tmp/bin/worker, disabled: }", BAD_CONVERSION),
    "oneshot-word": ("{path: /tmp/bin/worker, oneshot: maybe}", BAD_CONVERSION),
    "autostart-list": ("{path: /tmp/bin/worker, autostart: [yes]}", BAD_CONVERSION),
    "required-scalar": ("{path: /tmp/bin/worker, required: good}", BAD_CONVERSION),
    "required-null": ("{path: /tmp/bin/worker, required: }", BAD_CONVERSION),
    "required-mapping": ("{path: /tmp/bin/worker, required: {a: b}}", BAD_CONVERSION),
    "required-lists": ("{path: /tmp/bin/worker, required: [[good]]}", BAD_CONVERSION),
    "required-of-null": ("{path: /tmp/bin/worker, required: [~]}", BAD_CONVERSION),
    "environment-list": ("{path: /tmp/bin/worker, environment: [A]}", INVALID_NODE),
    "variable-name-null": (
        "{path: /tmp/bin/worker, environment: {~: a}}", BAD_CONVERSION,
    ),
    "variable-name-list": (
        "{path: /tmp/bin/worker, environment: {[A]: a}}", BAD_CONVERSION,
    ),
    "variable-null": ("{path: /tmp/bin/worker, environment: {A: }}", BAD_CONVERSION),
    "variable-list": ("{path: /tmp/bin/worker, environment: {A: [a]}}", BAD_CONVERSION),
    "variable-mapping": (
        "{path: /tmp/bin/worker, environment: {A: {b: c}}}", BAD_CONVERSION,
    ),
    "key-null": ("{path: /tmp/bin/worker, ~: a}", BAD_CONVERSION),
    "key-list": ("{path: /tmp/bin/worker, [a]: b}", BAD_CONVERSION),
}

GOOD_NODE = "vornnode:\n  good: {path: /tmp/bin/good}\n"


def assert_ends_before_any_start(machine, content, text):
    """The launcher ends by the uncaught exception with this text; the node
    "good", which would leave a file, has not been started."""
    machine.script("good", ": > /tmp/good.ran")
    machine.script("worker", STAY)
    machine.start(content, wait_until_up=False)
    assert machine.wait() == -signal.SIGABRT
    assert text in machine.stderr()
    assert not texts(machine, "startInternal")
    assert not texts(machine, "createSocket")
    assert not (machine.tmp / "good.ran").exists()


@pytest.mark.parametrize(
    "description, text", WRONG_DESCRIPTIONS.values(), ids=WRONG_DESCRIPTIONS.keys()
)
def test_a_wrong_node_ends_the_launcher_before_the_nodes_above_it_are_started(
    machine, description, text
):
    content = GOOD_NODE + f"  bad: {description}\n"
    assert_ends_before_any_start(machine, content, text)
    assert registered(machine) == ["name: good"]
    if text == BAD_CONVERSION:
        assert "yaml-cpp: error at line 3, column " in machine.stderr()


@pytest.mark.parametrize(
    "name", ["~", "[a]", "{a: b}"], ids=["null", "list", "mapping"]
)
def test_a_wrong_node_name_ends_the_launcher(machine, name):
    content = GOOD_NODE + f"  ? {name}\n  : {{path: /tmp/bin/worker}}\n"
    assert_ends_before_any_start(machine, content, BAD_CONVERSION)
    assert registered(machine) == ["name: good"]


WRONG_DOCUMENTS = {
    "syntax": (GOOD_NODE + "  bad: {path: [\n", "yaml-cpp: error at line "),
    "bad-indent": (GOOD_NODE + " bad: x\n", "yaml-cpp: error at line "),
    "root-scalar": ("just a text\n", subscript_error("configure")),
    "configure-scalar": (GOOD_NODE + "configure: x\n", subscript_error("environment")),
    "vornnode-list": ("vornnode: [good]\n", INVALID_NODE),
    "environment-list": (GOOD_NODE + "configure: {environment: [A]}\n", INVALID_NODE),
    "name-null": (GOOD_NODE + "configure: {environment: {~: a}}\n", BAD_CONVERSION),
    "name-list": (GOOD_NODE + "configure: {environment: {[A]: a}}\n", BAD_CONVERSION),
    "value-null": (GOOD_NODE + "configure: {environment: {A: }}\n", BAD_CONVERSION),
    "value-list": (GOOD_NODE + "configure: {environment: {A: [a]}}\n", BAD_CONVERSION),
}


@pytest.mark.parametrize(
    "content, text", WRONG_DOCUMENTS.values(), ids=WRONG_DOCUMENTS.keys()
)
def test_a_wrong_document_ends_the_launcher_before_any_node_is_read(
    machine, content, text
):
    assert_ends_before_any_start(machine, content, text)
    assert not registered(machine)


def test_variables_above_a_wrong_one_have_been_exported(machine):
    assert_ends_before_any_start(
        machine, "configure: {environment: {A: a, B: }}\n" + GOOD_NODE, BAD_CONVERSION
    )
    assert texts(machine, "parseSetenv") == ["setenv A: a"]


# -- What is passed over.


@pytest.mark.parametrize(
    "description",
    ["", "~", "[path, /tmp/bin/worker]", "{}", "{argv: -a, sleep: oops}", "{Path: x}"],
    ids=["nothing", "null", "list", "empty", "no-path", "misspelt-path"],
)
def test_a_node_without_a_path_is_dropped_and_the_others_run(machine, description):
    machine.script("worker", STAY)
    machine.start(
        "vornnode:\n"
        "  above: {path: /tmp/bin/worker}\n"
        f"  dropped: {description}\n"
        "  below: {path: /tmp/bin/worker}\n"
    )
    assert machine.heads().count(NO_PATH) == 1
    assert registered(machine) == ["name: above", "name: below"]
    assert machine.status("above").state == State.RUNNING
    assert machine.status("below").state == State.RUNNING
    assert machine.status("dropped").result == Result.NOT_FOUND


@pytest.mark.parametrize(
    "content",
    [
        "",
        "# nothing\n",
        "version: 2\nnodes: {a: {path: /tmp/bin/worker}}\n",
        "configure:\n",
        "vornnode:\n",
        "configure:\nvornnode:\n",
        "vornnode: none\n",
        "vornnode: {}\n",
        "configure: {log: all, path: [a]}\n",
        "configure: [environment]\n",
        "configure: {environment: }\n",
        "configure: {environment: none}\n",
        "configure: {environment: {}}\n",
    ],
    ids=[
        "empty-file", "comment", "unknown-keys", "configure-null", "vornnode-null",
        "both-null", "vornnode-scalar", "vornnode-empty", "configure-unknown-keys",
        "configure-list", "environment-null", "environment-scalar",
        "environment-empty",
    ],
)
def test_a_file_without_nodes_and_variables_gives_a_launcher_that_runs(
    machine, content
):
    machine.start(content)
    assert {line.func for line in machine.log()} == {"createSocket", "controlHandler"}
    assert {line.level for line in machine.log()} == {"INFO"}
    machine.signal(signal.SIGTERM)
    assert machine.wait() == 0


@pytest.mark.parametrize("value", ["", "~", "none", "''"])
def test_an_environment_that_is_no_mapping_gives_a_node_no_variables(machine, value):
    machine.script("worker", STAY)
    machine.start(
        f"vornnode:\n  worker:\n    path: /tmp/bin/worker\n    environment: {value}\n"
    )
    assert child_of(machine, "worker").environment == {
        **machine.process.environment,
        "__VORN_NODE_NAME__": "worker(vornlaunch)",
    }


def test_an_unknown_key_of_a_node_has_no_effect(machine):
    machine.script("worker", STAY)
    machine.start(
        "vornnode:\n"
        "  worker: {path: /tmp/bin/worker, args: -a, Sleep: [], env: {A: }}\n"
    )
    assert arguments_of(machine, "worker") == ["/tmp/bin/worker"]
    assert {line.level for line in machine.log()} == {"INFO"}


# -- A node's keys.


def start_worker(machine, keys, **options):
    """Starts the launcher with the node "worker" of these further keys, given
    as YAML text below its path."""
    machine.script("worker", STAY)
    lines = "".join(f"    {line}\n" for line in keys.splitlines())
    machine.start(
        f"vornnode:\n  worker:\n    path: /tmp/bin/worker\n{lines}", **options
    )


def test_a_node_of_a_path_alone_has_the_defaults(machine):
    start_worker(machine, "")
    assert arguments_of(machine, "worker") == ["/tmp/bin/worker"]
    assert child_of(machine, "worker").environment == {
        **machine.process.environment,
        "__VORN_NODE_NAME__": "worker(vornlaunch)",
    }
    assert texts(machine, "startInternal") == ["Node start 'worker' ok"], (
        "started at once, without a delay"
    )
    child_of(machine, "worker").signal(signal.SIGKILL)
    machine.wait_for_log("Node 'worker' ready to restarting")


@pytest.mark.parametrize(
    "argv, pieces",
    [
        ('"  -a   -b  "', ["-a", "-b"]),
        ('"one\\ttwo three"', ["one\ttwo", "three"]),
        ('"one\\ntwo"', ["one\ntwo"]),
        ('""', []),
        ('"   "', []),
        ("--rate 500 --log-level 2", ["--rate", "500", "--log-level", "2"]),
        ("""'"a b" \\c $HOME *'""", ['"a', 'b"', "\\c", "$HOME", "*"]),
        ("42", ["42"]),
        ('"null"', ["null"]),
        ("install://x", ["install://x"]),
    ],
    ids=[
        "runs-of-spaces", "tab", "line-end", "empty", "only-spaces", "options",
        "no-quoting", "number", "quoted-null", "no-expansion",
    ],
)
def test_argv_is_cut_at_spaces_and_nowhere_else(machine, argv, pieces):
    start_worker(machine, f"argv: {argv}")
    assert arguments_of(machine, "worker") == ["/tmp/bin/worker", *pieces]


def test_a_path_below_the_other_keys_is_still_the_first_argument(machine):
    machine.script("worker", STAY)
    machine.start("vornnode: {worker: {argv: -a -b, path: /tmp/bin/worker}}")
    assert arguments_of(machine, "worker") == ["/tmp/bin/worker", "-a", "-b"]


def test_repeated_keys_add_or_replace_and_the_first_path_stays(machine):
    start_worker(
        machine,
        "argv: -a -b\nenvironment: {A: first, B: first}\nsleep: 3\n"
        "argv: -c\nenvironment: {B: second}\nsleep: 2\n"
        "path: /tmp/bin/other\n"
        "disabled: true\ndisabled: false\nautostart: false\nautostart: true\n"
        "oneshot: false\noneshot: true",
    )
    assert arguments_of(machine, "worker") == ["/tmp/bin/worker", "-a", "-b", "-c"]
    environment = child_of(machine, "worker").environment
    assert (environment["A"], environment["B"]) == ("first", "second")
    assert texts(machine, "startInternal") == [
        "worker sleep 2ms", "Node start 'worker' ok",
    ]
    child_of(machine, "worker").signal(signal.SIGKILL)
    machine.wait_for_log("Node 'worker' disabled - oneshot!")


@pytest.mark.parametrize(
    "sleep, milliseconds", [("0x10", 16), ("010", 8), ("25", 25), ('"7"', 7)]
)
def test_sleep_takes_its_base_from_the_prefix(machine, sleep, milliseconds):
    start_worker(machine, f"sleep: {sleep}")
    assert texts(machine, "startInternal") == [
        f"worker sleep {milliseconds}ms", "Node start 'worker' ok",
    ]


def test_a_sleep_of_0_is_no_delay(machine):
    start_worker(machine, "sleep: 0")
    assert texts(machine, "startInternal") == ["Node start 'worker' ok"]


TRUE_WORDS = ["true", "True", "TRUE", "yes", "Yes", "YES", "on", "On", "ON", "y"]
FALSE_WORDS = ["false", "False", "FALSE", "no", "No", "NO", "off", "Off", "OFF", "n"]


@pytest.mark.parametrize("key", ["disabled", "oneshot", "autostart"])
def test_every_word_for_a_truth_value_is_understood(machine, key):
    machine.script("once", "exit 0")
    machine.start(
        "vornnode:\n"
        + "".join(
            f"  is-{word}: {{path: /tmp/bin/once, {key}: {word}}}\n"
            for word in TRUE_WORDS + FALSE_WORDS
        )
    )
    true_nodes = [f"is-{word}" for word in TRUE_WORDS]
    false_nodes = [f"is-{word}" for word in FALSE_WORDS]
    if key == "disabled":
        assert started(machine) == [f"Node start '{node}' ok" for node in false_nodes]
    elif key == "autostart":
        assert texts(machine, "startInternal") == [
            *(f"Node start '{node}' ok" for node in true_nodes),
            *(f"Node '{node}' is not autostart" for node in false_nodes),
        ]
    else:
        for node in true_nodes:
            machine.wait_for_log(f"Node '{node}' disabled - oneshot!")
        for node in false_nodes:
            machine.wait_for_log(f"Node '{node}' ready to restarting")


def test_the_last_of_two_required_lists_remains(machine):
    machine.script("worker", STAY)
    machine.start(
        "vornnode:\n"
        "  first: {path: /tmp/bin/worker}\n"
        "  second: {path: /tmp/bin/worker}\n"
        "  boss: {path: /tmp/bin/worker, required: [first], required: [second]}\n"
    )
    assert machine.request(Cmd.STOP, "boss").result == Result.SUCCESS
    assert started(machine)[3:] == ["Node start 'second' ok"]


def test_required_names_are_not_looked_up_when_the_file_is_read(machine):
    machine.script("worker", STAY)
    machine.start(
        "vornnode:\n"
        "  boss: {path: /tmp/bin/worker, required: [nobody, boss, later]}\n"
        "  later: {path: /tmp/bin/worker}\n"
    )
    assert {line.level for line in machine.log()} == {"INFO"}
    assert machine.request(Cmd.STOP, "boss").result == Result.SUCCESS
    assert started(machine)[2:] == ["Node start 'later' ok"]
    assert machine.status("boss").state == State.STOPPED


def test_a_node_named_twice_is_registered_twice(machine):
    machine.script("worker", STAY)
    machine.start(
        "vornnode:\n"
        "  twin: {path: /tmp/bin/worker, argv: elder}\n"
        "  twin: {path: /tmp/bin/worker, argv: younger}\n"
    )
    assert registered(machine) == ["name: twin", "name: twin"]
    assert started(machine) == 2 * ["Node start 'twin' ok"]
    assert arguments_of(machine, "twin") == ["/tmp/bin/worker", "elder"]
    eventually(
        lambda: ["/bin/sh", "/tmp/bin/worker", "younger"]
        in [process.argv for process in machine.processes()],
        "the younger twin runs",
    )


@pytest.mark.parametrize(
    "name", ["42", "a b", "näme", "yes", "''", "'null'", "a/b(c)"]
)
def test_a_node_name_is_used_as_it_stands(machine, name):
    machine.script("worker", STAY)
    machine.start(f"vornnode:\n  {name}: {{path: /tmp/bin/worker}}\n")
    bare = name.strip("'")
    assert registered(machine) == [f"name: {bare}"]
    environment = child_of(machine, bare).environment
    assert environment["__VORN_NODE_NAME__"] == f"{bare}(vornlaunch)"


def test_a_changed_file_takes_effect_only_at_the_next_start(machine):
    start_worker(machine, "")
    machine.launch_file("vornnode: {other: {path: /tmp/bin/worker}}")
    machine.request(Cmd.RESTART, "worker")
    assert machine.status("worker").state == State.RUNNING
    assert machine.status("other").result == Result.NOT_FOUND


# -- Paths.


@pytest.mark.parametrize(
    "directory, path, resolved",
    [
        (None, "x", "x"),
        ("", "x", "x"),
        ("", "sub/x", "sub/x"),
        (None, '""', ""),
        ("/opt/b", "x", "/opt/b/x"),
        ("/opt/b/", "x", "/opt/b//x"),
        ("/opt/b", "./x", "/opt/b/./x"),
        ("/opt/b", '""', "/opt/b/"),
        ("/opt/b", "/opt/x", "/opt/x"),
        ("opt", "x", "opt/x"),
        (None, "install://x", "install://x"),
        ("/opt/b", "install://x", "/opt/b/install://x"),
    ],
    ids=[
        "unset", "empty", "empty-with-folder", "unset-empty-path", "joined",
        "trailing-slash", "not-normalised", "empty-path", "absolute-path",
        "relative-directory", "no-expansion", "no-expansion-joined",
    ],
)
@pytest.mark.parametrize("source", ["inherited", "configured"])
def test_a_relative_path_is_joined_to_vorn_bin_path(
    machine, source, directory, path, resolved
):
    content = f"vornnode: {{worker: {{path: {path}}}}}\n"
    environment = {"VORN_BIN_PATH": "/wrong"}
    if source == "inherited" or directory is None:
        environment = {"VORN_BIN_PATH": directory}
    else:
        # Below the nodes, and yet it is read before them.
        content += f'configure: {{environment: {{VORN_BIN_PATH: "{directory}"}}}}\n'
    machine.start(content, environment=environment)
    assert texts(machine, "startInternal") == [f"Can't find file: {resolved}"]


def test_a_relative_path_is_found_from_the_working_directory(machine):
    machine.script("worker", STAY)
    machine.start({"vornnode": {"worker": {"path": "bin/worker"}}})
    assert arguments_of(machine, "worker") == ["bin/worker"]


def test_a_node_s_own_vorn_bin_path_does_not_resolve_its_path(machine):
    machine.script("worker", STAY)
    machine.start(
        {
            "vornnode": {
                "worker": {
                    "environment": {"VORN_BIN_PATH": "/wrong"},
                    "path": "bin/worker",
                }
            }
        }
    )
    assert arguments_of(machine, "worker") == ["bin/worker"]


def test_vorn_bin_path_below_the_installation_root_resolves_the_nodes(machine):
    machine.script("../install/bin/worker", STAY)
    machine.start(
        "vornnode: {worker: {path: worker}}\n"
        "configure: {environment: {VORN_BIN_PATH: install://bin}}\n"
    )
    assert arguments_of(machine, "worker") == ["/tmp/install/bin/worker"]


# -- Environments.


@pytest.mark.parametrize(
    "value, expanded",
    [
        ("install://lib", "/tmp/install/lib"),
        ("install://", "/tmp/install/"),
        ("pre-install://x", "pre-/tmp/install/x"),
        ("install://lib:install://lib64", "/tmp/install/lib:/tmp/install/lib64"),
        ("install:///x", "/tmp/install//x"),
        ("install:/lib", "install:/lib"),
        ("INSTALL://lib", "INSTALL://lib"),
        ("iinstall://nstall://x", "i/tmp/install/nstall://x"),
    ],
)
def test_install_prefixes_are_expanded_in_both_environments(machine, value, expanded):
    machine.script("worker", STAY)
    machine.start(
        {
            "configure": {"environment": {"GLOBAL": value}},
            "vornnode": {
                "worker": {"path": "/tmp/bin/worker", "environment": {"OWN": value}}
            },
        }
    )
    assert texts(machine, "parseSetenv") == [f"setenv GLOBAL: {expanded}"]
    environment = child_of(machine, "worker").environment
    assert environment["GLOBAL"] == expanded
    assert environment["OWN"] == expanded


def test_install_prefixes_in_variable_names_stay(machine):
    machine.script("worker", STAY)
    machine.start(
        {
            "configure": {"environment": {"install://a": "global"}},
            "vornnode": {
                "worker": {
                    "path": "/tmp/bin/worker",
                    "environment": {"install://b": "own"},
                }
            },
        }
    )
    environment = child_of(machine, "worker").environment
    assert environment["install://a"] == "global"
    assert environment["install://b"] == "own"


REFUSED_ROOT = (
    "VORN_ROOT '/a/install://b' contains install:, using the executable's root"
)


@pytest.mark.parametrize(
    "root, expanded, warnings",
    [
        (None, "/tmp/install/lib", []),
        ("", "/tmp/install/lib", []),
        ("/opt/y", "/opt/y/lib", []),
        ("/opt/y//", "/opt/y/lib", []),
        ("/", "/lib", []),
        ("relative", "relative/lib", []),
        ("/a/install://b", "/tmp/install/lib", [REFUSED_ROOT]),
    ],
    ids=[
        "unset", "empty", "set", "trailing-slashes", "root-directory", "relative",
        "refused",
    ],
)
def test_the_installation_root_is_vorn_root_or_the_executable_s(
    machine, root, expanded, warnings
):
    machine.start(
        {"configure": {"environment": {"LIB": "install://lib"}}},
        environment={"VORN_ROOT": root},
    )
    assert texts(machine, "parseSetenv") == [f"setenv LIB: {expanded}"]
    assert [line.text for line in machine.log() if line.level != "INFO"] == warnings


def test_the_root_above_a_folder_of_the_root_directory_is_empty(machine):
    machine.start(
        {"configure": {"environment": {"LIB": "install://lib"}}},
        wrapper=["sh", "-c", 'cp "$1" /tmp/copy && shift && exec /tmp/copy "$@"', "sh"],
    )
    assert texts(machine, "parseSetenv") == ["setenv LIB: /lib"]


def test_the_installation_root_is_fixed_at_its_first_use(machine):
    machine.start(
        "configure:\n"
        "  environment:\n"
        "    VORN_ROOT: /opt/y\n"
        "    A: install://a\n"
        "    VORN_ROOT: /opt/z\n"
        "    B: install://b\n"
    )
    assert texts(machine, "parseSetenv") == [
        "setenv VORN_ROOT: /opt/y",
        "setenv A: /opt/y/a",
        "setenv VORN_ROOT: /opt/z",
        "setenv B: /opt/y/b",
    ]


def test_a_node_s_variable_wins_over_a_global_one_in_its_child_alone(machine):
    machine.script("worker", STAY)
    machine.start(
        {
            "configure": {"environment": {"MODE": "global", "INHERITED": "global"}},
            "vornnode": {
                "own": {"path": "/tmp/bin/worker", "environment": {"MODE": "own"}},
                "other": {"path": "/tmp/bin/worker"},
            },
        },
        environment={"INHERITED": "from outside"},
    )
    own = child_of(machine, "own").environment
    other = child_of(machine, "other").environment
    assert (own["MODE"], own["INHERITED"]) == ("own", "global")
    assert (other["MODE"], other["INHERITED"]) == ("global", "global")


def test_the_later_of_two_global_values_wins_everywhere(machine):
    machine.script("worker", STAY)
    machine.start(
        "configure:\n"
        "  environment: {A: '1', A: '2', VORN_BIN_PATH: /wrong, VORN_BIN_PATH: bin}\n"
        "vornnode: {worker: {path: worker}}\n"
    )
    assert texts(machine, "parseSetenv") == [
        "setenv A: 1", "setenv A: 2",
        "setenv VORN_BIN_PATH: /wrong", "setenv VORN_BIN_PATH: bin",
    ]
    assert arguments_of(machine, "worker") == ["bin/worker"]
    assert child_of(machine, "worker").environment["A"] == "2"


def test_the_later_of_two_values_of_a_node_wins(machine):
    start_worker(machine, "environment: {A: first, A: second, B: ''}")
    environment = child_of(machine, "worker").environment
    assert (environment["A"], environment["B"]) == ("second", "")


def test_a_node_may_replace_its_built_in_name_variable(machine):
    start_worker(machine, "environment: {__VORN_NODE_NAME__: mine}")
    environment = child_of(machine, "worker").environment
    assert environment["__VORN_NODE_NAME__"] == "mine"


def test_a_global_name_variable_does_not_hide_the_built_in_one(machine):
    machine.script("worker", STAY)
    machine.start(
        "configure: {environment: {__VORN_NODE_NAME__: global}}\n"
        "vornnode: {worker: {path: /tmp/bin/worker}}\n"
    )
    environment = child_of(machine, "worker").environment
    assert environment["__VORN_NODE_NAME__"] == "worker(vornlaunch)"


def test_names_that_no_variable_can_have_are_passed_over(machine):
    machine.script("worker", STAY)
    machine.start(
        {
            "configure": {"environment": {"A=B": "x", "": "x", "C": "kept"}},
            "vornnode": {
                "worker": {
                    "path": "/tmp/bin/worker",
                    "environment": {"D=E": "x", "": "x", "F": "kept"},
                }
            },
        }
    )
    assert texts(machine, "parseSetenv") == [
        "setenv A=B: x", "setenv : x", "setenv C: kept",
    ]
    assert child_of(machine, "worker").environment == {
        **machine.process.environment,
        "__VORN_NODE_NAME__": "worker(vornlaunch)",
        "C": "kept",
        "F": "kept",
    }


def test_a_global_path_changes_which_ps_and_grep_a_stop_runs(machine):
    for tool in ("ps", "grep"):
        machine.script(
            f"tools/{tool}",
            f'echo {tool} >> /tmp/tools.ran\nexec /usr/bin/{tool} "$@"',
        )
    machine.script("worker", STAY)
    machine.start(
        {
            "configure": {"environment": {"PATH": "/tmp/bin/tools:/usr/bin:/bin"}},
            "vornnode": {"worker": {"path": "/tmp/bin/worker"}},
        }
    )
    assert not (machine.tmp / "tools.ran").exists()
    assert machine.request(Cmd.STOP, "worker").result == Result.SUCCESS
    ran = (machine.tmp / "tools.ran").read_text(encoding="ascii").split()
    assert set(ran) == {"ps", "grep"}


# -- All together.

COMPLETE_EXAMPLE = """\
configure:
  environment:
    VORN_BIN_PATH: install://bin
    LD_LIBRARY_PATH: install://lib:/usr/local/lib
vornnode:
  controller:
    path: /tmp/local/controller
    argv: --rate 500 --log-level 2
    required: [planner, monitor]
  planner:
    path: planner
    sleep: 1500
    environment:
      PLANNER_MAPS: install://share/maps
      PLANNER_MODE: fast
  monitor:
    path: monitor
    autostart: false
  calibrate:
    path: calibrate
    oneshot: true
    disabled: false
"""


@pytest.fixture(name="example")
def fixture_example(machine):
    """A machine that runs the complete example."""
    machine.script("../local/controller", STAY)
    for name in ("planner", "monitor"):
        machine.script(f"../install/bin/{name}", STAY)
    machine.script("../install/bin/calibrate", "exit 0")
    machine.start(COMPLETE_EXAMPLE)
    return machine


def test_the_complete_example_starts_as_it_says(example):
    assert texts(example, "startInternal") == [
        "Node start 'controller' ok",
        "planner sleep 1500ms",
        "Node start 'planner' ok",
        "Node 'monitor' is not autostart",
        "Node start 'calibrate' ok",
    ]
    assert arguments_of(example, "controller") == [
        "/tmp/local/controller", "--rate", "500", "--log-level", "2",
    ]
    assert arguments_of(example, "planner") == ["/tmp/install/bin/planner"]
    planner = child_of(example, "planner").environment
    assert planner["VORN_BIN_PATH"] == "/tmp/install/bin"
    assert planner["LD_LIBRARY_PATH"] == "/tmp/install/lib:/usr/local/lib"
    assert planner["PLANNER_MAPS"] == "/tmp/install/share/maps"
    assert planner["PLANNER_MODE"] == "fast"
    assert planner["__VORN_NODE_NAME__"] == "planner(vornlaunch)"
    assert "PLANNER_MODE" not in child_of(example, "controller").environment
    assert example.status("monitor").state == State.STOPPED
    example.wait_for_log("Node 'calibrate' disabled - oneshot!")
    assert example.status("calibrate").state == State.DISABLED


def test_the_complete_example_restarts_what_the_controller_requires(example):
    planner, monitor = example.status("planner"), example.status("monitor")
    assert example.request(Cmd.STOP, "controller").result == Result.SUCCESS
    assert example.status("planner").state == State.RUNNING
    assert example.status("planner").pid != planner.pid
    assert example.status("monitor") == monitor, "was not running, so left alone"
