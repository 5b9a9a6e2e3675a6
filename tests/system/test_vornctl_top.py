"""vornctl top: the screen, the keys, and the terminal after it."""

import re
import signal

import pytest

from support import log_texts
from support.control import Cmd, State
from support.blocking import held
from support.terminal import Terminal
from support.vornctl import ENTER, VORNCTL, typed_ahead
from support.waiting import eventually

# Runs top, then prints its exit status. The shell survives a Ctrl-C. Two files
# contain the settings of the terminal before and after, without its size.
SCRIPT = f"""trap : INT
echo before
stty -a | tail -n +2 >/tmp/before
{VORNCTL} top "$@"
status=$?
stty -a | tail -n +2 >/tmp/after
echo "ended $status"
exec sleep 1000
"""
KEYS = ("Up/Down  s start  t stop  r restart  e enable  d disable  ? help"
        "  q quit")
WIDE_KEYS = KEYS.replace(
    "? help", "/ filter  ! failing  l log  i why  ? help")
NARROW_KEYS = "s start t stop r restart ? help q quit"
NARROWEST_KEYS = "? help  q quit"
SELECTED = re.compile(r"\x1b\[(0;)?7m")


def stay(machine):
    return machine.script("stay", "exec sleep 1000")


@pytest.fixture(name="robot")
def fixture_robot(machine):
    """A machine with a node of each kind."""
    path = stay(machine)
    return machine.start({"vornnode": {
        "camera": {"path": path, "required": ["lidar"]},
        "lidar": {"path": path},
        "manual": {"path": path, "autostart": False},
        "off": {"path": path, "disabled": True}}})


def top(machine, *arguments, **options):
    """A terminal in which top runs."""
    return Terminal(machine, "sh", "-c", SCRIPT, "sh", *arguments, **options)


def shown(machine, *arguments, **options):
    """A terminal in which top shows the nodes."""
    terminal = top(machine, *arguments, **options)
    terminal.wait_for_text("STATE(S)")
    return terminal


def selected(terminal):
    """The name of the selected node."""
    lines = [line for line in terminal.screen("-e") if SELECTED.search(line)]
    assert len(lines) <= 1
    if not lines:
        return None
    return re.sub(r"\x1b\[[0-9;]*m", "", lines[0]).split()[0]


def wait_for_selected(terminal, name):
    eventually(lambda: selected(terminal) == name, f"{name} is selected")


def status_requests(machine):
    """The number of status requests that the launcher has received."""
    return len(machine.log_lines(log_texts.command(Cmd.STATUS)))


def has_row(name, state):
    """Whether a screen has this node in this state."""
    return lambda screen: any(
        re.match(rf"{name} +{state}", line) for line in screen)


def wait_for_row(terminal, name, state):
    return terminal.wait_for(has_row(name, state), f"{name} is {state}")


def pid_of_row(screen, name):
    """The pid shown for a running node."""
    line = next(line for line in screen if line.startswith(name + " "))
    return int(line.split()[2])


def process_of(machine, name="vornctl"):
    return next(p for p in machine.processes() if p.name == name)


def wait_for_end(terminal, status):
    """Waits until top has exited, and checks the terminal. Returns the message of
    top."""
    # Not "the launcher has ended", which appears before.
    screen = terminal.wait_for(
        lambda lines: any(re.match(r"ended \d", line) for line in lines), "its end")
    before, after = ((terminal.machine.tmp / name).read_text()
                     for name in ("before", "after"))
    assert before == after and " echo " in after
    assert (terminal.get("alternate_on"), terminal.get("cursor_flag")) == ("0", "1")
    text = "\n".join(screen).strip()
    begin, said, end = re.fullmatch(r"(before)\n(.*?)(ended \d+)", text, re.S).groups()
    assert (begin, end) == ("before", f"ended {status}")
    return said


# -- The screen.


def test_the_screen_shows_every_node_in_the_order_of_the_file(robot):
    camera, lidar = (robot.status(name).pid for name in ("camera", "lidar"))
    terminal = shown(robot, columns=120)
    expected = [
        f"launcher {robot.pid}  4 nodes: 2 never started, 2 running"
        "  /tmp/launch.yaml",
        "NODE(N)  STATE(S)       PID(P)  CPU(C)  MEM(M)  UPTIME(U)  RESTARTS(R)"
        "  POLICY   REQUIRED",
        f"camera   running        {camera}   0.0  9M  0s 0            restart  lidar",
        f"lidar    running        {lidar}   0.0  9M  0s 0            restart  -",
        "manual   never started  -       -       -       -          0            manual   -",
        "off      never started  -       -       -       -          0            restart  -",
        *[""] * 17,
        WIDE_KEYS,
    ]
    # Only the seconds and the use of the processor and of memory are unknown.
    terminal.wait_for(
        lambda screen: expected == [
            re.sub(r" \d+\.\d +\d\S+ +\d+s +", " 0.0  9M  0s ", line)
            for line in screen], "every node")


def test_only_the_named_nodes_are_shown(robot):
    shown(robot, "lidar", "o*").wait_for(
        lambda screen: [line.split(" ")[0] for line in screen if line] == [
            "launcher", "NODE(N)", "lidar", "off", "Up/Down"], "only these nodes")


def test_a_name_that_the_launcher_does_not_know_is_unknown(robot):
    wait_for_row(shown(robot, "radar"), "radar", "unknown")


def test_a_launch_file_without_nodes_leaves_the_table_empty(machine):
    terminal = shown(machine.start({"vornnode": {}}))
    terminal.press("Down", "s")
    expected = [
        f"launcher {machine.pid}  0 nodes  /tmp/launch.yaml",
        "NODE(N)  STATE(S)  PID(P)  CPU(C)  MEM(M)  UPTIME(U)  RESTARTS(R)  POLICY"
        "  REQU…", KEYS]
    terminal.wait_for(lambda screen: [line for line in screen if line] == expected,
                      "an empty table")
    terminal.press("q")
    assert wait_for_end(terminal, 0) == ""


def test_the_uptime_grows_without_a_status_request(robot):
    terminal = shown(robot)
    before = status_requests(robot)
    terminal.wait_for(
        lambda screen: any(re.search(r"^lidar .* [4-9]s ", line) for line in screen),
        "four seconds of uptime")
    # One that finds the launcher, one for each node, and that of the fixture.
    assert status_requests(robot) == before == 1 + 4 + 1


def test_wide_and_control_characters_do_not_shift_the_columns(machine):
    path = stay(machine)
    machine.start({"vornnode": {
        "日本語": {"path": path}, "tab\tescape\x1b": {"path": path},
        "accent\u0301": {"path": path}, "n": {"path": path}}})
    shown(machine).wait_for(
        lambda screen: [line.split("  running  ")[0] for line in screen[2:6]] == [
            "日本語         ", r"tab\tescape\x1b", "accent\u0301         ",
            "n              "], "columns that are not shifted")


def test_names_are_shown_as_they_are_where_no_locale_is_set(machine):
    machine.start({"vornnode": {"日本語": {"path": stay(machine)}}})
    environment = {"LC_ALL": "C.UTF-8"}  # for tmux
    terminal = Terminal(machine, "env", "-u", "LC_ALL", VORNCTL, "top",
                        environment=environment)
    terminal.wait_for(lambda screen: screen[2].startswith("日本語   running"),
                      "the name as it is")


def test_a_long_name_leaves_room_for_the_state(machine):
    machine.start({"vornnode": {"n" * 120: {"path": stay(machine)}}})
    shown(machine).wait_for(
        lambda screen: screen[2].startswith("n" * 39 + "…  running  "), "the state")


# -- Colours.


def test_states_are_coloured(robot):
    lines = shown(robot).screen("-e")
    assert "\x1b[32mrunning" in lines[3].replace("\x1b[39m", "")


def test_the_row_of_a_failing_node_has_one_colour(machine):
    machine.start({"vornnode": {
        "camera": {"path": stay(machine)},
        "crasher": {"path": machine.script("crasher", "exit 1")}}})
    terminal = shown(machine)
    terminal.press("Down")
    row = re.compile(r"\x1b\[33m.*crasher.*\x1b\[33mrestarting.*\x1b\[33m-")
    eventually(lambda: any(map(row.search, terminal.screen("-e"))), "a yellow row")


@pytest.mark.parametrize("arguments, environment", [
    ([], {"NO_COLOR": "1"}), (["--color", "never"], {}),
    ([], {"TERM": "xterm-mono"}),
], ids=["NO_COLOR", "never", "a terminal without colours"])
def test_no_colours_are_used_if_they_are_disabled(robot, arguments, environment):
    # tmux itself needs a TERM different from the program's.
    words = [f"{name}={value}" for name, value in environment.items()]
    terminal = Terminal(robot, "env", *words, VORNCTL, "top", *arguments)
    terminal.wait_for_text("STATE(S)")
    text = "\n".join(terminal.screen("-e"))
    assert SELECTED.search(text)
    assert not re.search(r"\x1b\[[0-9;]*\b[34][0-7]m", text)


@pytest.mark.parametrize("name", ["dumb", "no-such-terminal", ""])
def test_a_terminal_that_cannot_be_drawn_on_is_refused(robot, name):
    terminal = Terminal(robot, "env", f"TERM={name}", "sh", "-c", SCRIPT)
    assert wait_for_end(terminal, 2) == (
        "vornctl: this terminal is unknown or cannot place the cursor; check TERM\n")


# -- Keys.


@pytest.mark.parametrize("keys, name", [
    ([], "camera"), (["Down"], "lidar"), (["j"], "lidar"),
    (["Down", "Down", "Up"], "lidar"), (["j", "j", "k"], "lidar"),
    (["Up"], "camera"), (["End"], "off"), (["End", "Down"], "off"),
    (["NPage"], "off"), (["End", "Home"], "camera"), (["NPage", "PPage"], "camera"),
], ids=lambda value: "-".join(value) or "none" if isinstance(value, list) else value)
def test_a_node_is_selected(robot, keys, name):
    terminal = shown(robot)
    if keys:
        terminal.press(*keys)
    wait_for_selected(terminal, name)


@pytest.mark.parametrize("keys, name, message, state", [
    (["NPage", "Up", "s", "s"], "manual", "manual: started", State.RUNNING),
    (["j", "t", "y"], "lidar", "lidar: stopped", State.STOPPED),
    (["r", "y"], "camera", "camera: restarted", State.RUNNING),
    (["j", "d", "y"], "lidar", "lidar: disabled", State.DISABLED),
    (["End", "e", "s"], "off", "off: started", State.RUNNING),
], ids=["start", "stop", "restart", "disable", "enable"])
def test_a_key_acts_on_the_selected_node(robot, keys, name, message, state):
    before = robot.status(name).pid
    terminal = shown(robot)
    terminal.press(*keys)
    screen = terminal.wait_for_text(message)
    assert screen[-2] == message
    wait_for_row(terminal, name, state.name.lower())
    status = robot.wait_for_state(name, state)
    assert status.state is state and status.pid != before


def test_a_failure_is_explained(robot):
    terminal = shown(robot)
    terminal.press("End", "s")
    screen = terminal.wait_for_text("failed")
    assert screen[-2] == (
        "off: start failed: it is disabled; start it with: vornctl enable --now off")


@pytest.mark.parametrize("key, question", [
    ("t", "stop camera? y/n"), ("r", "restart camera? y/n"),
    ("d", "disable camera? y/n")])
def test_a_key_that_terminates_a_process_asks_first(robot, key, question):
    before = robot.status("camera")
    terminal = shown(robot)
    for answer in ("n", "q", "Down"):
        terminal.press(key)
        terminal.wait_for(lambda screen: screen[-1] == question, "the question")
        terminal.press(answer)
        terminal.wait_for(lambda screen: screen[-1] == KEYS, "the keys are back")
        assert selected(terminal) == "camera"
    assert robot.status("camera") == before


def test_a_question_fits_into_a_narrow_screen_with_few_rows(robot):
    terminal = shown(robot)
    terminal.resize(20, 3)
    terminal.press("r")
    terminal.wait_for(lambda screen: screen[-1] == "restart camera? y/n", "a question")
    terminal.resize(16, 3)
    terminal.wait_for(lambda screen: screen[-1] == "restart ca…? y/n", "a question")


def test_a_key_shows_help_in_ten_rows_of_forty_columns(robot):
    terminal = shown(robot)
    terminal.resize(40, 10)
    terminal.wait_for(lambda screen: screen[-1] == NARROW_KEYS, "keys that fit")
    terminal.press("?")
    screen = terminal.wait_for_text("Press a key to return.")
    assert len(screen) == 10 and not any("…" in line for line in screen)
    assert {line.split()[0] for line in screen[:-1]} == {
        "Up/Down", "PgUp/PgDn", "s", "e", "N", "/", "l", "u", "q"}
    terminal.press("q")  # The key only returns
    terminal.wait_for(lambda screen: screen[-1] == NARROW_KEYS, "the keys")


def test_the_message_disappears_with_the_next_key(robot):
    terminal = shown(robot)
    terminal.press("e")
    terminal.wait_for_text("camera: already enabled")
    terminal.press("Down")
    terminal.wait_for(lambda screen: not screen[-2], "no message")


def test_an_action_requests_only_the_status_of_its_node(robot):
    terminal = shown(robot)
    before = status_requests(robot)
    terminal.press("NPage", "Up", "s", "s")
    wait_for_row(terminal, "manual", "running")
    # The first start is skipped: one request for the reason, one for the status, and
    # one after the second start.
    assert status_requests(robot) - before <= 3
    # Not later either.
    before = status_requests(robot)
    terminal.wait_for(
        lambda screen: any(re.search(r"^manual .* [2-9]s ", line) for line in screen),
        "two seconds of uptime")
    assert status_requests(robot) == before


def test_a_required_node_that_restarts_too_is_detected(robot):
    terminal = shown(robot)
    before = pid_of_row(wait_for_row(terminal, "lidar", "running"), "lidar")
    terminal.press("r", "y")
    terminal.wait_for(
        lambda screen: has_row("lidar", "running")(screen)
        and pid_of_row(screen, "lidar") != before, "lidar has another process")


def test_the_u_key_requests_the_status_that_no_process_shows(robot):
    terminal = shown(robot)
    robot.request(Cmd.DISABLE, "manual")
    before = status_requests(robot)
    terminal.press("u")
    wait_for_row(terminal, "manual", "disabled")
    assert status_requests(robot) - before == 4


def test_keys_without_a_meaning_do_nothing(robot):
    terminal = shown(robot)
    before = len(robot.log())
    terminal.press("x", "F5", "Escape", "Left", "Enter")
    terminal.press("Down")
    wait_for_selected(terminal, "lidar")
    assert len(robot.log()) == before


# -- The order, the filter and the log.


def order(screen, *known):
    """The names of the nodes on a screen."""
    return [line.split()[0] for line in screen if line.split()[:1] and
            line.split()[0] in known]


def wait_for_order(terminal, *expected):
    known = ("camera", "lidar", "manual", "off", "crasher", "memory", "busy")
    return terminal.wait_for(lambda screen: order(screen, *known) == list(expected),
                             f"the order {expected}")


def test_failing_nodes_are_first_and_the_selection_follows_its_node(machine):
    machine.start({"vornnode": {
        "camera": {"path": stay(machine)},
        "crasher": {"path": machine.script(
            "crasher", "while [ ! -e /tmp/crash ]; do sleep 0.1; done; exit 1")}}})
    terminal = shown(machine)
    wait_for_order(terminal, "camera", "crasher")
    assert selected(terminal) == "camera"
    machine.file("crash", "")
    wait_for_order(terminal, "crasher", "camera")
    assert selected(terminal) == "camera"


def test_a_letter_sorts_by_its_column_and_again_by_the_default_order(machine):
    machine.start({"vornnode": {
        "camera": {"path": stay(machine)},
        "memory": {"path": machine.script(
            "memory", "exec /usr/bin/python3 -c 'import time; time.sleep(1000)'")},
        "busy": {"path": machine.script("busy", "while :; do :; done")}}})
    terminal = shown(machine, columns=100)
    terminal.press("N")
    screen = wait_for_order(terminal, "busy", "camera", "memory")
    assert screen[0].endswith("  by node")
    for key, first in (("M", "memory"), ("C", "busy")):
        terminal.press(key)
        terminal.wait_for(lambda screen, first=first: first in screen[2].split(),
                          f"{first} is first")
    terminal.press("C")
    wait_for_order(terminal, "camera", "memory", "busy")


def test_the_share_of_the_processor_is_that_of_the_present(machine):
    machine.start({"vornnode": {"busy": {"path": machine.script(
        "busy", "while [ ! -e /tmp/idle ]; do :; done; exec sleep 1000")}}})
    terminal = shown(machine)

    def percent(screen):
        found = re.search(r"^busy +running +\d+ +(\d+\.\d)", "\n".join(screen), re.M)
        return float(found[1]) if found else None

    terminal.wait_for(lambda screen: (percent(screen) or 0) > 1, "it is busy")
    machine.file("idle", "")
    terminal.wait_for(lambda screen: percent(screen) == 0, "it is idle")


def test_a_filter_shows_the_nodes_with_this_text(robot):
    terminal = shown(robot)
    terminal.press("/")
    terminal.type("ma")
    screen = wait_for_order(terminal, "manual")
    assert screen[-1] == "/ma_"
    terminal.press("Enter")
    screen = terminal.wait_for(lambda screen: screen[-1] == KEYS, "the keys")
    assert screen[0].endswith("  1-1 of 1, filter 'ma'")
    # A key acts on a node of the filtered list.
    terminal.press("s")
    terminal.wait_for_text("manual: started")
    terminal.press("/", "BSpace", "BSpace")
    wait_for_order(terminal, "camera", "lidar", "manual", "off")
    terminal.type("x")
    wait_for_order(terminal)
    terminal.press("Enter", "t")  # acts on no node
    terminal.press("/", "Escape")
    wait_for_order(terminal, "camera", "lidar", "manual", "off")


def test_only_failing_nodes_are_shown_on_request(robot):
    terminal = shown(robot)
    terminal.press("!")
    screen = wait_for_order(terminal)
    assert screen[0].endswith("  0 of 0, failing")
    terminal.press("!")
    wait_for_order(terminal, "camera", "lidar", "manual", "off")


def test_the_log_is_shown_below_the_nodes(robot):
    terminal = shown(robot)
    terminal.press("l")
    screen = terminal.wait_for(lambda screen: "Log" in screen, "the log")
    assert order(screen, "camera", "lidar", "manual", "off") == [
        "camera", "lidar", "manual", "off"]
    terminal.press("End", "e")
    terminal.wait_for_text("control cmd: 5")
    terminal.press("l")
    terminal.wait_for(lambda screen: "Log" not in screen, "no log")


def test_the_reason_for_the_state_of_a_node_is_shown(robot):
    terminal = shown(robot)
    terminal.press("Down", "i")
    screen = terminal.wait_for_text("Press a key to return.")
    assert screen[0].startswith("lidar ")
    terminal.press("q")  # The key only returns
    wait_for_selected(terminal, "lidar")


# -- Changes by others.


def test_a_death_is_detected_and_requested_a_few_times(robot):
    terminal = shown(robot)
    lidar = robot.child("lidar", ["sleep", "1000"])
    before = status_requests(robot)
    lidar.signal(signal.SIGKILL)
    screen = terminal.wait_for(has_row("lidar", "restarting in [1-5]s"),
                               "lidar waits for its restart")
    assert "1 restarting, 1 running" in screen[0]
    screen = wait_for_row(terminal, "lidar", "running")
    assert pid_of_row(screen, "lidar") == robot.status("lidar").pid != lidar.pid
    # One request is this test's own. top requests the status at once after a death, and
    # again until the exit is collected; after the restart once.
    assert status_requests(robot) - before <= 6


def test_a_start_by_another_client_is_detected(robot):
    terminal = shown(robot)
    before = status_requests(robot)
    robot.request(Cmd.START, "manual")
    robot.request(Cmd.START, "manual")
    wait_for_row(terminal, "manual", "running")
    assert status_requests(robot) - before <= 2


def test_a_stop_by_another_client_is_detected(robot):
    terminal = shown(robot)
    robot.request(Cmd.STOP, "lidar")
    wait_for_row(terminal, "lidar", "stopped")


# -- The size of the screen.


@pytest.fixture(name="fleet")
def fixture_fleet(machine):
    """A machine with thirty nodes that do not run."""
    path = stay(machine)
    return machine.start({"vornnode": {
        f"node{i:02}": {"path": path, "disabled": True} for i in range(30)}})


def rows(screen):
    """The names of the nodes on a screen."""
    return [line.split()[0] for line in screen if line.startswith("node")]


def names(first, last):
    return [f"node{i:02}" for i in range(first, last + 1)]


def wait_for_rows(terminal, first, last):
    return terminal.wait_for(lambda screen: rows(screen) == names(first, last),
                             f"node{first:02} to node{last:02}")


def test_the_rows_follow_the_selection(fleet):
    terminal = shown(fleet, rows=14)  # ten for nodes
    wait_for_rows(terminal, 0, 9)
    for keys, first, last, name in [
        (["Down"] * 9, 0, 9, "node09"), (["Down"], 1, 10, "node10"),
        (["NPage"], 11, 20, "node20"), (["Up"] * 10, 10, 19, "node10"),
        (["End"], 20, 29, "node29"), (["PPage"], 19, 28, "node19"),
        (["Home"], 0, 9, "node00"),
    ]:
        terminal.press(*keys)
        screen = wait_for_rows(terminal, first, last)
        assert screen[0].endswith(f"  {first + 1}-{last + 1} of 30")
        wait_for_selected(terminal, name)


def test_a_key_acts_on_a_node_after_scrolling(fleet):
    terminal = shown(fleet, rows=14)
    terminal.press("End", "e", "s")
    terminal.wait_for_text("node29: started")
    assert fleet.status("node29").state is State.RUNNING


def test_a_resized_screen_is_filled_at_once(fleet):
    terminal = shown(fleet, rows=14)
    terminal.press("End")
    wait_for_rows(terminal, 20, 29)
    terminal.resize(80, 9)
    wait_for_rows(terminal, 25, 29)
    terminal.resize(100, 24)
    wait_for_rows(terminal, 10, 29)
    terminal.resize(80, 60)
    screen = wait_for_rows(terminal, 0, 29)
    assert screen[-1] == KEYS
    wait_for_selected(terminal, "node29")


@pytest.mark.parametrize("height", [1, 2, 3, 4])
def test_a_screen_with_too_few_rows_shows_only_nodes(fleet, height):
    terminal = shown(fleet)
    terminal.resize(40, height)
    screen = wait_for_rows(terminal, 0, height - 1)
    assert len(rows(screen)) == len(screen)
    # Above a message, if there is room.
    terminal.press("Down", "e")
    screen = terminal.wait_for_text("node01: enabled")
    assert rows(screen[:-1]) == (names(0, height - 2) if height > 2
                                 else names(1, height - 1))
    terminal.resize(80, 24)
    terminal.wait_for(lambda screen: screen[-1] == KEYS, "all is back")


@pytest.mark.parametrize("width", [2, 7, 20])
def test_lines_are_cut_where_the_screen_ends(robot, width):
    terminal = shown(robot)
    terminal.resize(width, 10)
    line = NARROWEST_KEYS
    line = line if len(line) <= width else line[:width - 1] + "…"
    terminal.wait_for(lambda screen: screen[-1] == line, "a cut line of keys")
    terminal.resize(80, 24)
    terminal.wait_for(lambda screen: screen[-1] == KEYS, "all is back")


def test_a_terminal_of_any_size_is_used_and_restored(robot):
    environment = robot.environment({"TERM": "xterm"})
    for rows, columns in (1, 1), (1, 500), (200, 1), (2, 2), (200, 500):
        status, shown, errors, is_restored = typed_ahead(
            robot.enter(VORNCTL, "top"), environment, rows, columns)
        assert (status, errors, is_restored) == (0, "", True), (rows, columns)
        assert ENTER in shown


# -- The exit.


@pytest.mark.parametrize("key", ["q", "C-c"])
def test_a_key_quits_and_restores_the_terminal(robot, key):
    terminal = shown(robot)
    terminal.press(key)
    assert wait_for_end(terminal, 0).strip("^C\n") == ""


@pytest.mark.parametrize("name", ["SIGTERM", "SIGHUP", "SIGINT"])
def test_a_signal_quits_and_restores_the_terminal(robot, name):
    terminal = shown(robot)
    process_of(robot).signal(getattr(signal, name))
    assert wait_for_end(terminal, 0) == ""


def test_a_second_signal_does_not_prevent_the_restoration_of_the_terminal(robot):
    terminal = shown(robot)
    client = process_of(robot)
    # The output is blocked, so the exit has to wait.
    terminal.press("C-s")
    eventually(lambda: client.read("syscall").startswith(b"1 "), "top writes")
    for _ in range(2):
        client.signal(signal.SIGINT)
        eventually(lambda: b"ShdPnd:\t0000000000000000" in client.read("status"),
                   "the signal has come")
    terminal.press("C-q")
    assert wait_for_end(terminal, 0) == ""


def test_it_exits_when_the_launcher_exits(robot):
    terminal = shown(robot)
    robot.signal(signal.SIGTERM)
    assert wait_for_end(terminal, 5).startswith("vornctl: ")


def test_it_exits_when_another_launcher_replaces_the_first(robot):
    terminal = shown(robot)
    client = process_of(robot)
    client.signal(signal.SIGSTOP)
    robot.signal(signal.SIGTERM)
    robot.wait()
    robot.start_again()
    client.signal(signal.SIGCONT)
    assert wait_for_end(terminal, 5) == (
        "vornctl: the launcher has exited, and another one is running\n")


def test_it_can_be_suspended_and_continued(robot):
    terminal = Terminal(robot, "bash", "--norc", "--noprofile", "-i",
                        environment={"PS1": "$ "})
    terminal.wait_for_text("$")
    terminal.run(f"{VORNCTL} top")
    terminal.wait_for_text("STATE(S)")
    terminal.press("C-z")
    screen = terminal.wait_for_text("Stopped")
    assert not any("STATE(S)" in line for line in screen)
    assert (terminal.get("alternate_on"), terminal.get("cursor_flag")) == ("0", "1")
    # The launcher is not blocked, and changes are detected afterwards.
    robot.request(Cmd.STOP, "lidar")
    terminal.resize(80, 12)
    terminal.run("fg")
    screen = wait_for_row(terminal, "lidar", "stopped")
    assert screen[-1] == KEYS
    terminal.press("q")
    terminal.wait_for_text("fg")
    assert terminal.get("alternate_on") == "0"


def test_it_does_not_outlive_its_terminal(robot):
    # SIGHUP is ignored, so only the end of the terminal indicates it.
    terminal = Terminal(robot, "sh", "-c", f"trap '' HUP; {VORNCTL} top")
    terminal.wait_for_text("STATE(S)")
    terminal.tmux("kill-server")
    eventually(lambda: all(p.name != "vornctl" for p in robot.processes()),
               "top ends")


def test_a_long_stop_is_shown_and_can_be_cancelled(machine):
    path = machine.script("stubborn", "trap : TERM; while :; do sleep 1000; done")
    machine.start({"vornnode": {"stubborn": {"path": path}}})
    terminal = shown(machine, columns=120)
    terminal.press("t", "y")
    terminal.wait_for_text("stopping stubborn 1s (Ctrl-C gives up waiting)")
    terminal.press("C-c")
    assert "may still take effect" in wait_for_end(terminal, 7)


def test_waiting_for_a_busy_launcher_can_be_cancelled(robot):
    terminal = shown(robot)
    with held(robot):
        terminal.press("u", "C-c")
        assert wait_for_end(terminal, 0).strip("^C\n") == ""


def test_an_action_on_a_busy_launcher_can_be_cancelled(robot):
    terminal = shown(robot)
    with held(robot):
        terminal.press("r", "y")
        terminal.wait_for_text("restarting camera")
        terminal.press("C-c")
        assert "the request was delivered" in wait_for_end(terminal, 7)
