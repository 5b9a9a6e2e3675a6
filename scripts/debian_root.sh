#!/usr/bin/env bash
# Makes the root of a small Debian, to install and run things in.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"

usage() {
  cat <<TEXT
Usage: scripts/debian_root.sh [--arch ARCH] FOLDER

Makes a minimal Debian 12 in FOLDER, unless it is there: what the essential
packages need, and apt, which knows Debian's updates as well. ARCH is Debian's
name of an architecture, by default this machine's; a foreign one must be
emulated by this machine. Needs root and the package servers.
TEXT
}

arch=
folder=
while [[ $# -gt 0 ]]; do
  case $1 in
    --arch)
      [[ $# -ge 2 ]] || die "$1 needs a value"
      arch=$2
      shift
      ;;
    -h | --help)
      usage
      exit 0
      ;;
    -*) die "unknown option '$1'; see --help" ;;
    *) folder=$1 ;;
  esac
  shift
done
[[ -n $folder ]] || {
  usage >&2
  exit 2
}

# debootstrap itself writes down the release alone.
mirror=http://deb.debian.org
sources="deb $mirror/debian bookworm main
deb $mirror/debian bookworm-updates main
deb $mirror/debian-security bookworm-security main"

# write_sources FOLDER, unless they stand there.
write_sources() {
  local file=$1/etc/apt/sources.list
  [[ $(<"$file") == "$sources" ]] ||
    as_root tee "$file" <<<"$sources" >/dev/null
}

# What was interrupted does not stand under this name.
if [[ -d $folder ]]; then
  write_sources "$folder"
  exit
fi

install_packages "${ROOT_PACKAGES[@]}"
say "making a Debian root in $folder"
mkdir -p "$(dirname -- "$folder")"
as_root rm -rf "$folder.new"
# The namespace takes the mounts with it, however this ends.
as_root unshare --mount --pid --fork --kill-child --mount-proc \
  debootstrap ${arch:+--arch="$arch"} --variant=minbase bookworm \
  "$folder.new" >"$folder.log" 2>&1 || {
  tail -n 5 "$folder.log" >&2
  die "debootstrap failed; the whole of what it said is in $folder.log"
}
as_root rm -rf "$folder.new"/var/cache/apt/archives/*.deb
write_sources "$folder.new"
mv "$folder.new" "$folder"
rm -f "$folder.log"
