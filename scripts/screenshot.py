#!/usr/bin/env python3
"""Prints an SVG picture of `vornctl top` and the demo. Needs root, tmux, and the
programs in build/bin. To update the picture of the README:

    scripts/screenshot.py >docs/top.svg
"""

import html
import pathlib
import re
import subprocess

ROOT = pathlib.Path(__file__).resolve().parents[1]
COLUMNS = 100
FONT_SIZE = 14  # pixels, as all lengths
CHARACTER_WIDTH = 8.4
LINE_HEIGHT = 19
MARGIN = 14
REVERSE = 7  # the code of the selected line

# In a pid and mount namespace of its own: with pids as on a real machine, and a
# launcher that does not meet another one.
CAPTURE = r"""
echo 10000 >/proc/sys/kernel/ns_last_pid
mount -t tmpfs tmpfs /home
mkdir -p /home/you/demo/build/bin
cp -r examples/demo/* /home/you/demo
cp build/bin/vornlaunch build/bin/vornctl /home/you/demo/build/bin
mount -t tmpfs tmpfs /tmp
cd /home/you/demo
VORN_ROOT=$PWD build/bin/vornlaunch launch.yaml >nodes.log 2>launch.log &
export TERM=xterm LC_ALL=C.UTF-8
tmux() { command tmux -S /tmp/tmux "$@"; }
tmux -f /dev/null new-session -d -x "$1" -y 10 "$PWD/build/bin/vornctl top"
until tmux capture-pane -p | grep -q 'lamp .* restarting in .s, crash loop'; do sleep 0.1; done
tmux capture-pane -p -e
kill $! && wait
"""

STYLE = """
rect { fill: #1b1f24 }
text { font: 14px ui-monospace, Menlo, Consolas, "DejaVu Sans Mono", monospace;
       fill: #d5dae1; white-space: pre; }
.c1 { font-weight: bold; fill: #fff }
.c2 { fill: #8b949e }
.c7 { fill: #1b1f24 }
.reverse { fill: #c4cbd3; shape-rendering: crispEdges }
.c31 { fill: #ff8078 }
.c32 { fill: #6fdd8b }
.c33 { fill: #e8c15a }
"""


def capture():
    """The lines of the screen, with control sequences for colours."""
    done = subprocess.run(
        ["unshare", "--mount", "--pid", "--fork", "--kill-child", "--mount-proc",
         "bash", "-ec", CAPTURE, "bash", str(COLUMNS)],
        cwd=ROOT, stdout=subprocess.PIPE, check=True)
    return done.stdout.decode().rstrip("\n").split("\n")


def parts_of(line):
    """(column, codes of the look, text) of each part of a line."""
    column, codes = 0, set()
    for text, sequence in re.findall(r"([^\x1b]+)|\x1b\[([\d;]*)m", line):
        if text:
            yield column, sorted(codes), text
            column += len(text)
            continue
        for code in (int(number or 0) for number in sequence.split(";")):
            if code == 0:
                codes.clear()
            elif code in (39, 49):  # the default colours
                codes -= set(range(30, 38))
            else:
                codes.add(code)


def svg_of_part(column, codes, text, y):
    x = f"{MARGIN + column * CHARACTER_WIDTH:g}"
    width = f"{len(text) * CHARACTER_WIDTH:g}"
    look = " ".join(f"c{code}" for code in codes)
    if REVERSE in codes:
        yield (f'<rect class="reverse" x="{x}" y="{y - FONT_SIZE}" width="{width}" '
               f'height="{LINE_HEIGHT}"/>')
    yield (f'<text x="{x}" y="{y}" textLength="{width}" class="{look}" '
           f'xml:space="preserve">{html.escape(text, quote=False)}</text>')


def svg_of(lines):
    width = round(COLUMNS * CHARACTER_WIDTH + 2 * MARGIN)
    height = len(lines) * LINE_HEIGHT + 2 * MARGIN
    yield (f'<svg xmlns="http://www.w3.org/2000/svg" viewBox="0 0 {width} {height}" '
           f'width="{width}" height="{height}">')
    yield f"<style>{STYLE}</style>"
    yield f'<rect width="{width}" height="{height}" rx="6"/>'
    for i, line in enumerate(lines):
        y = MARGIN + i * LINE_HEIGHT + FONT_SIZE
        if not line:
            yield f'<text y="{y}"></text>'
        for column, codes, text in parts_of(line):
            yield "".join(svg_of_part(column, codes, text, y))
    yield "</svg>"


if __name__ == "__main__":
    print("\n".join(svg_of(capture())))
