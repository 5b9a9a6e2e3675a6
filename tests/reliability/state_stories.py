"""Random stories for the model of the states, see state_model.py."""

import copy
import string

from hypothesis import strategies as st
from state_model import Model

MOST_NODES = 12
MOST_STEPS = 50
# The permitted cost of a step and of a story: a stop takes a few milliseconds, or half
# a second with all its passes.
MOST_STOPS, MOST_LONG_STOPS = 8, 1

ENDS = ["exit 0", "exit 1", "exit 127", "exit 255", "kill -HUP $$", "kill -KILL $$",
        "kill -SEGV $$"]
# On both sides of the 5 seconds, which are counted in whole ones.
SPANS_MS = [5000, 1, 999, 1000, 2000, 3001, 4000, 4999, 7500]
CLOCK_CHANGES_MS = [1, -1, 999, 3_600_000, -3_600_000]


def one_in(number):
    """Seldom true; false is the simpler value."""
    return st.sampled_from([False] * (number - 1) + [True])


@st.composite
def launch_files(draw):
    """Up to 12 nodes. Nodes require only names that are earlier in the alphabet, so
    there are no cycles."""
    keys = string.ascii_lowercase[: draw(st.integers(1, MOST_NODES))]
    nodes = {}
    for key in keys:
        node = {}
        if draw(one_in(12)):
            node["called"] = draw(st.sampled_from(keys))
        if draw(one_in(5)):
            node["oneshot"] = True
        if draw(one_in(6)):
            node["disabled"] = True
        if draw(one_in(3 if "disabled" in node else 6)):
            node["autostart"] = False
        if draw(one_in(2)):
            name = node.get("called", key)
            known = keys[: keys.index(name)] or name
            others = st.sampled_from([*known, *known, name, "nobody"])
            node["required"] = draw(st.lists(others, min_size=1, max_size=3))
        nodes[key] = node
    order = draw(st.permutations(list(keys)))
    return {key: nodes[key] for key in order}


@st.composite
def _steps(draw, model, focus):
    """A step that is possible now, and its node. If possible, every second one is about
    `focus`, because most rare events need several steps with the same node."""

    def choose(keys):
        if focus in keys and draw(st.booleans()):
            return focus
        return draw(st.sampled_from(keys))

    keys = [node.key for node in model.nodes]
    living = sorted({process.key for process in model.processes})
    verbs = ["command"] * 12 + ["program", "refuses", "passes", "sets_wall_clock"]
    verbs += (["dies"] * 5 + ["dying"] * 2 + ["told"]) * bool(living)
    verbs += ["passes"] * 4 * model.waits_for_restart
    verbs += ["refuses"] * 2 * (model.refused != "nothing")
    verb = draw(st.sampled_from(verbs))
    if verb == "passes":
        return (verb, draw(st.sampled_from(SPANS_MS))), focus
    if verb == "sets_wall_clock":
        return (verb, draw(st.sampled_from(CLOCK_CHANGES_MS))), focus
    if verb == "refuses":
        what = "nothing"
        if model.refused == "nothing":
            what = draw(st.sampled_from(["SIGTERM", "fork"]))
        return (verb, what), focus
    if verb == "program":
        key = choose(keys)
        return (verb, key, draw(st.sampled_from(["gone", "broken", "runs"]))), key
    if verb == "dies":
        key = choose(living)
        return (verb, key, draw(st.sampled_from(ENDS))), key
    if verb == "told":
        key = choose(living)
        return (draw(st.sampled_from(["forks", "floods", "ignores"])), key), key
    cmd = draw(st.sampled_from(["stop", "start", "restart", "disable", "enable"]))
    if verb == "dying":
        key = choose(living)
        others = draw(st.lists(st.sampled_from(living), max_size=3))
        dying = list(dict.fromkeys([key, *others]))
        return ("command", cmd, model.name(key), dying), key
    if draw(one_in(30)):
        return ("command", cmd, "nobody"), focus
    key = choose(keys)
    return ("command", cmd, model.name(key)), key


@st.composite
def stories(draw):
    """A launch file and steps."""
    nodes = draw(launch_files())
    model = Model(nodes)
    steps, focus = [], None
    # The simplest draw ends the story, so that failing stories become short.
    while len(steps) < MOST_STEPS and draw(st.integers(0, 99)):
        step, focus = draw(_steps(model, focus))
        if (after := _affordable(model, step)) is not None:
            steps.append(step)
            model = after
    step = draw(st.sampled_from([None, ("ends", "SIGTERM"), ("ends", "SIGINT")]))
    if step is not None and _affordable(model, step) is not None:
        steps.append(step)
    return nodes, steps


def _affordable(model, step):
    """The model after the step, or None if that costs too much."""
    after = copy.deepcopy(model)
    after.apply(step)
    most = MOST_STOPS + len(after.nodes) * (step[0] == "ends")
    if after.stops - model.stops > most or after.long_stops > MOST_LONG_STOPS:
        return None
    return after
