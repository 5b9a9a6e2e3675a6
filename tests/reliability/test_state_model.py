"""Random launch files and random stories: after every step the launcher must agree with
the model of the node states. See state_model.py for the stories."""

import collections
import concurrent.futures
import itertools
import os
import shutil
import time

import hypothesis
import pytest
from state_driver import build_fake_system, play
from state_model import EVERY_TRANSITION, Model
from state_stories import stories

# A seed gives the same stories in every run.
SHORT_SEEDS = range(8)
SHORT_STORIES = 13
WRAPPED_STORIES = 8  # whose nodes are executed by vornrun
LONG_SEEDS = range(1000, 1018)
LONG_STORIES = 30

# Stories that every run plays, by the behaviour that they show. When a random one
# fails, its shortest form is printed as an entry of this table: keep it here.
KEPT = {
    "a stop restarts the required nodes, those they require, and repeats": ({
        "a": {"required": ["b", "b", "nobody", "a"]},
        "b": {"required": ["c"]},
        "c": {},
        "d": {},
    }, [
        ("command", "stop", "a"),
        ("command", "start", "a"),
        ("command", "restart", "b"),
        ("command", "disable", "b"),
        ("command", "stop", "a"),
    ]),
    "a timed restart restarts the required nodes that run, and only then": ({
        "a": {"required": ["b", "c", "d"]},
        "b": {},
        "c": {},
        "d": {"oneshot": True},
    }, [
        ("command", "stop", "c"),
        ("passes", 1000),
        ("dies", "a", "exit 3"),
        ("passes", 3999),
        ("passes", 1),
        ("dies", "a", "exit 3"),
        ("passes", 5000),
    ]),
    "a stop of a node that waits for its restart ends the waiting": ({
        "a": {},
    }, [
        ("dies", "a", "kill -SEGV $$"),
        ("command", "stop", "a"),
        ("passes", 5000),
        ("command", "start", "a"),
    ]),
    "a start does not wait for the five seconds": ({
        "a": {},
    }, [
        ("dies", "a", "exit 0"),
        ("command", "start", "a"),
        ("passes", 5000),
        ("dies", "a", "exit 0"),
    ]),
    "the five seconds are counted from the start, by the steady clock": ({
        "a": {},
    }, [
        ("passes", 4999),
        ("dies", "a", "exit 0"),
        ("sets_wall_clock", 3_600_000),
        ("passes", 1),
        ("sets_wall_clock", -7_200_000),
        ("passes", 5000),
        ("dies", "a", "exit 0"),
    ]),
    "an exit that waits to be collected meets each command": ({
        "a": {}, "b": {}, "c": {}, "d": {}, "e": {}, "f": {"oneshot": True},
    }, [
        ("command", "start", "a", ["a"]),
        ("command", "stop", "b", ["b"]),
        ("command", "restart", "c", ["c"]),
        ("command", "disable", "d", ["d"]),
        ("command", "enable", "e", ["e"]),
        ("command", "restart", "f", ["f"]),
        ("passes", 5000),
        ("command", "status", "a", ["a", "c", "e", "f"]),
    ]),
    "autostart: false skips the first attempt, whichever that is": ({
        "a": {"autostart": False},
        "b": {"autostart": False, "disabled": True},
    }, [
        ("command", "start", "a"),
        ("command", "start", "b"),
        ("command", "enable", "b"),
        ("command", "restart", "b"),
        ("command", "restart", "b"),
    ]),
    "a node that was disabled from the first is stopped until it is tried": ({
        "a": {"disabled": True},
        "b": {"disabled": True},
    }, [
        ("command", "start", "a"),
        ("command", "enable", "a"),
        ("command", "start", "a"),
        ("command", "enable", "b"),
        ("command", "start", "b"),
    ]),
    "a program that has gone disables its node, one that is broken does not": ({
        "a": {},
        "b": {},
    }, [
        ("program", "a", "gone"),
        ("program", "b", "broken"),
        ("command", "restart", "a"),
        ("command", "restart", "b"),
        ("passes", 5000),
        ("command", "enable", "a"),
        ("command", "start", "a"),
        ("program", "a", "runs"),
        ("program", "b", "runs"),
        ("command", "enable", "a"),
        ("command", "start", "a"),
        ("passes", 5000),
    ]),
    "a refused fork stops a node and leaves its old process to itself": ({
        "a": {"required": ["b"]},
        "b": {},
    }, [
        ("refuses", "fork"),
        ("command", "restart", "a"),
        ("refuses", "nothing"),
        ("command", "restart", "a"),
        ("dies", "a", "exit 0"),
        ("refuses", "fork"),
        ("passes", 5000),
        ("refuses", "nothing"),
        ("passes", 5000),
        ("command", "start", "b"),
    ]),
    "a refused stop is remembered at the exit": ({
        "a": {},
        "b": {},
    }, [
        ("refuses", "SIGTERM"),
        ("command", "stop", "a"),
        ("command", "restart", "b"),
        ("refuses", "nothing"),
        ("dies", "a", "exit 0"),
        ("dies", "b", "exit 0"),
        ("passes", 5000),
    ]),
    "a node that could not be disabled is started next to its old process": ({
        "a": {},
        "b": {},
    }, [
        ("refuses", "SIGTERM"),
        ("command", "disable", "a"),
        ("command", "disable", "b"),
        ("command", "enable", "a"),
        ("command", "enable", "b"),
        ("dies", "b", "exit 0"),
        ("refuses", "nothing"),
        ("command", "start", "a"),
        ("dies", "a", "exit 0"),
        ("dies", "a", "exit 0"),
        ("passes", 5000),
        ("ends", "SIGTERM"),
    ]),
    "a required oneshot that could not be stopped is disabled while it runs": ({
        "a": {"required": ["b"]},
        "b": {"oneshot": True},
    }, [
        ("dies", "a", "exit 0"),
        ("refuses", "SIGTERM"),
        ("passes", 5000),
        ("command", "start", "b"),
        ("command", "stop", "b"),
        ("ends", "SIGTERM"),
    ]),
    "of two nodes of one name commands and required reach the first": ({
        "a": {},
        "b": {"called": "a"},
        "c": {"required": ["a"]},
    }, [
        ("command", "stop", "c"),
        ("dies", "b", "exit 0"),
        ("command", "stop", "a"),
        ("passes", 5000),
        ("ends", "SIGTERM"),
    ]),
    "SIGTERM stops every node, and what they have forked runs on": ({
        "a": {"required": ["b"]},
        "b": {},
        "c": {"required": ["b"]},
        "d": {},
    }, [
        ("forks", "b"),
        ("floods", "c"),
        ("ignores", "b"),
        ("dies", "d", "kill -KILL $$"),
        ("ends", "SIGTERM"),
    ]),
    "SIGINT leaves every process running": ({
        "a": {},
        "b": {"oneshot": True},
    }, [
        ("forks", "a"),
        ("dies", "b", "exit 1"),
        ("ends", "SIGINT"),
    ]),
}


@pytest.fixture(scope="session", name="library")
def fixture_library(tmp_path_factory):
    return build_fake_system(tmp_path_factory.mktemp("fake_system"))


@pytest.fixture(name="program")
def fixture_program(program):
    """The dynamic launcher: the static one cannot load the library that replaces
    calls."""
    dynamic = program.with_name("vornlaunch-dynamic")
    return dynamic if dynamic.exists() else program


@pytest.fixture(name="player")
def fixture_player(tmp_path, program, library, namespaces):  # pylint: disable=unused-argument
    return Player(tmp_path, program, library)


def for_each_story(seed, number, play_it):
    """Calls play_it(nodes, steps) with this number of random stories; a failing one is
    shortened as far as possible."""

    @hypothesis.seed(seed)
    @hypothesis.settings(
        max_examples=number,
        deadline=None,
        database=None,
        phases=[hypothesis.Phase.generate, hypothesis.Phase.shrink],
        suppress_health_check=list(hypothesis.HealthCheck),
        report_multiple_bugs=False,
    )
    @hypothesis.given(stories())
    def run(story):
        play_it(*story)

    run()


class Figures:
    """The contents of the stories."""

    def __init__(self):
        self.stories = self.steps = 0
        self.transitions = collections.Counter()

    def add(self, model, steps):
        self.stories += 1
        self.steps += len(steps)
        self.transitions += model.transitions


class Player:
    """Plays stories in directories below `tmp`."""

    # After a failure, long timeouts would only delay the search for the shortest form.
    SHORT_PATIENCE = 1

    def __init__(self, tmp, program, library):
        self.tmp, self.program, self.library = tmp, program, library
        self.options = {}
        self.numbers = itertools.count()
        self.figures = Figures()

    def play(self, nodes, steps):
        directory = self.tmp / str(next(self.numbers))
        try:
            model = play(directory, self.program, self.library, nodes, steps,
                         **self.options)
        except AssertionError:
            self.options["patience"] = self.SHORT_PATIENCE
            raise
        shutil.rmtree(directory)
        self.figures.add(model, steps)


def imagine(figures, nodes, steps):
    """Plays a story with only the model."""
    model = Model(nodes)
    for step in steps:
        model.apply(step)
    figures.add(model, steps)


@pytest.mark.parametrize("story", KEPT)
def test_a_kept_story_agrees_with_the_model(player, story):
    player.play(*KEPT[story])


def test_random_stories_with_vornrun_agree_with_the_model(player, is_long):
    player.options["is_wrapped"] = True
    for_each_story(0, LONG_STORIES if is_long else WRAPPED_STORIES, player.play)


# With sanitizers fewer, since most of the time is the driver's and that of ps(1).
@pytest.mark.parametrize("seed", [
    pytest.param(seed, marks=pytest.mark.plain if seed >= 3 else ()) for seed in SHORT_SEEDS])
def test_random_stories_agree_with_the_model(player, seed):
    for_each_story(seed, SHORT_STORIES, player.play)


@pytest.mark.plain  # it runs only the model
def test_the_stories_take_every_transition_of_the_state_table():
    figures = Figures()
    for story in KEPT.values():
        imagine(figures, *story)
    for seed in SHORT_SEEDS:
        for_each_story(seed, SHORT_STORIES, lambda *story: imagine(figures, *story))
    assert figures.steps >= 1000
    assert set(figures.transitions) == EVERY_TRANSITION


def play_seed(tmp, program, library, seed):
    """The stories of a seed of the long form; returns their figures."""
    tmp.mkdir()
    player = Player(tmp, program, library)
    for_each_story(seed, LONG_STORIES, player.play)
    return player.figures


@pytest.mark.long
def test_ten_thousand_random_steps_agree_with_the_model(
    tmp_path, program, library, namespaces  # pylint: disable=unused-argument
):
    begin = time.monotonic()
    with concurrent.futures.ProcessPoolExecutor(2 * os.cpu_count()) as pool:
        played = [
            pool.submit(play_seed, tmp_path / str(seed), program, library, seed)
            for seed in LONG_SEEDS
        ]
        figures = [future.result() for future in played]
    seconds = time.monotonic() - begin
    steps = sum(figure.steps for figure in figures)
    transitions = sum((f.transitions for f in figures), collections.Counter())
    print(f"\n{sum(f.stories for f in figures)} stories, {steps} steps, "
          f"{seconds:.0f} s")
    for (state, event), count in sorted(transitions.items(), key=lambda t: t[0][::-1]):
        print(f"{count:8}  {event}: {state}")
    assert steps >= 10_000
    assert set(transitions) <= EVERY_TRANSITION
