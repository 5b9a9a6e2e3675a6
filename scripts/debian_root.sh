#!/usr/bin/env bash
# Creates the root directory of a minimal Debian, to install and run programs in.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"

usage() {
  cat <<TEXT
Usage: scripts/debian_root.sh [--arch ARCH] [--release RELEASE] DIRECTORY

Creates a minimal Debian in DIRECTORY, unless it exists: the essential packages
and apt, with Debian's updates in its sources. ARCH is Debian's name of an
architecture, by default this machine's; this machine must be able to emulate a
foreign one. RELEASE is 12 (default) or 13. Needs root and the package servers.
TEXT
}

arch=
release=$MAIN_DEBIAN
read_options "" arch:,release: "$@"
set -- "${arguments[@]}"
while [[ $1 != -- ]]; do
  case $1 in
    --arch | --release)
      if [[ $1 == --arch ]]; then arch=$2; else release=$2; fi
      shift
      ;;
  esac
  shift
done
[[ $# -eq 2 ]] || die "no directory, or more than one; see $0 --help"
directory=$2

# debootstrap itself configures only the release, without updates.
mirror=http://deb.debian.org
suite=$(debian_suite "$release")
sources="deb $mirror/debian $suite main
deb $mirror/debian $suite-updates main
deb $mirror/debian-security $suite-security main"

# write_sources DIRECTORY writes them unless the file has them.
write_sources() {
  local file=$1/etc/apt/sources.list
  [[ $(<"$file") == "$sources" ]] ||
    as_root tee "$file" <<<"$sources" >/dev/null
}

# An interrupted creation never gets this name.
if [[ -d $directory ]]; then
  write_sources "$directory"
  exit
fi

install_packages "${ROOT_PACKAGES[@]}"
say "making a Debian root in $directory"
mkdir -p "$(dirname -- "$directory")"
as_root rm -rf "$directory.new"
# The mounts disappear with the namespace, even after a failure.
as_root unshare --mount --pid --fork --kill-child --mount-proc \
  debootstrap ${arch:+--arch="$arch"} --variant=minbase "$suite" \
  "$directory.new" >"$directory.log" 2>&1 || {
  tail -n 5 "$directory.log" >&2
  die "debootstrap failed; its output is in $directory.log"
}
as_root rm -rf "$directory.new"/var/cache/apt/archives/*.deb
write_sources "$directory.new"
mv "$directory.new" "$directory"
rm -f "$directory.log"
