# shellcheck shell=sh disable=SC2034
# The common code of the demo's nodes, which source it.

# The launcher sets __VORN_NODE_NAME__ to the name followed by "(vornlaunch)".
NAME=${__VORN_NODE_NAME__%"(vornlaunch)"}
DIRECTORY=${TMPDIR:-/tmp}/$DEMO_DIRECTORY
FRAMES=$DIRECTORY/frames
RESULT=$DIRECTORY/result

say() {
  echo "$NAME: $*"
}

# A shell runs its traps during `wait`, but not while a foreground command runs, so
# long commands run in the background.
pause() {
  sleep "$1" &
  wait "$!"
}

wait_for_frames() {
  until [ -p "$FRAMES" ]; do pause 0.1; done
}

goodbye() {
  say "stopping"
  kill "$!" 2>/dev/null
  exit 0
}
trap goodbye TERM INT
