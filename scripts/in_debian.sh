#!/usr/bin/env bash
# Runs a command for this checkout in a minimal Debian of another release.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

usage() {
  cat <<TEXT
Usage: scripts/in_debian.sh RELEASE COMMAND [ARGUMENT...]

Runs COMMAND in a minimal Debian RELEASE, such as 13, as root, in mount and pid
namespaces. The checkout is mounted at /src, the working directory. The build
directories and the Debian root are in build-debianRELEASE/, which is created if
it is missing. Needs root and the package servers.
TEXT
}

read_options "+" "" "$@"  # the options after COMMAND are its own
set -- "${arguments[@]:1}"
[[ $# -ge 2 ]] || die "no release or no command; see $0 --help"
directory=build-debian$1
scripts/debian_root.sh --release "$1" "$directory/root"
shift

# shellcheck disable=SC2016  # its own shell expands it
# The new root must be a mount point, so that the tests can create namespaces in
# it. The host's build directories stay hidden: they have other compilers.
enter='set -e
mount --make-rprivate /
mount --bind "$1/root" "$1/root"
mount --rbind /dev "$1/root/dev"
mount --rbind /sys "$1/root/sys"
mount -t proc proc "$1/root/proc"
mount -t tmpfs -o mode=1777 tmp "$1/root/tmp"
cp -L /etc/resolv.conf "$1/root/etc/resolv.conf"
mkdir -p "$1/root/src"
mount --bind . "$1/root/src"
for build in build build-{dev,clang,asan,coverage,fuzz}; do
  mkdir -p "$build" "$1/$build"
  mount --bind "$1/$build" "$1/root/src/$build"
done
cd "$1/root"
shift
pivot_root . mnt
cd /src
umount -l /mnt
"$@" || exit
'
as_root unshare --mount --pid --fork --kill-child \
  env -i PATH=/usr/sbin:/usr/bin:/sbin:/bin HOME=/root LC_ALL=C.UTF-8 \
  ${TERM:+TERM="$TERM"} bash -c "$enter" bash "$directory" "$@"
