#!/usr/bin/env bash
# Builds the launcher and runs it on a launch file.

root=$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
demo=$root/examples/demo

usage() {
  cat <<TEXT
Usage: ./run.sh [launch.yaml]

Installs missing Debian packages, builds the launcher (Release, in
build/) and runs it on the launch file, by default examples/demo/launch.yaml.
To stop the launcher and its nodes, send it SIGTERM (pkill vornlaunch). Ctrl-C
also reaches the nodes, but the launcher does not wait for them.
TEXT
}

read_options "" "" "$@"
set -- "${arguments[@]:1}"
[[ $# -le 1 ]] || {
  usage >&2
  exit 2
}
launch_file=${1:-$demo/launch.yaml}
[[ -e $launch_file ]] || die "no launch file $launch_file"

install_packages "${BUILD_PACKAGES[@]}"
(cd "$root" && configure_build release && build release --target vornlaunch vornctl vornrun)

# The demo's programs are next to its launch file.
if [[ $launch_file -ef $demo/launch.yaml ]]; then
  export VORN_ROOT=${VORN_ROOT:-$demo}
fi
say "running vornlaunch $launch_file"
exec "$root/build/bin/vornlaunch" "$launch_file"
