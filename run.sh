#!/usr/bin/env bash
# Builds the launcher and runs it on a launch file.

# shellcheck source=scripts/common.sh
source "$(dirname -- "${BASH_SOURCE[0]}")/scripts/common.sh"
root=$(cd -- "$(dirname -- "${BASH_SOURCE[0]}")" && pwd)
demo=$root/examples/demo

usage() {
  cat <<TEXT
Usage: ./run.sh [launch.yaml]

Installs the Debian packages that are missing, builds the launcher (Release, in
build/) and runs it on the launch file, by default examples/demo/launch.yaml.
Ctrl-C ends the launcher and leaves its nodes running; kill -TERM stops both.
TEXT
}

case ${1-} in
  -h | --help)
    usage
    exit 0
    ;;
esac
[[ $# -le 1 ]] || {
  usage >&2
  exit 2
}
launch_file=${1:-$demo/launch.yaml}
[[ -e $launch_file ]] || die "no launch file $launch_file"

install_packages "${BUILD_PACKAGES[@]}"
(cd "$root" && configure_build release && build release --target vornlaunch)

# The demo's programs stand beside its launch file.
if [[ $launch_file -ef $demo/launch.yaml ]]; then
  export VORN_ROOT=${VORN_ROOT:-$demo}
fi
say "running vornlaunch $launch_file"
exec "$root/build/bin/vornlaunch" "$launch_file"
