#!/usr/bin/env bash
# Lets this machine run programs for arm64.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"

usage() {
  cat <<TEXT
Usage: scripts/emulate_arm64.sh

Lets the kernel start programs for arm64 by Debian's qemu-user-static, which it
installs if it is missing. This needs root, holds until the machine is switched
off, and does nothing where such programs run already.
TEXT
}

read_options "" "" "$@"
[[ ${#arguments[@]} -eq 1 ]] || die "unexpected argument; see $0 --help"

formats=/proc/sys/fs/binfmt_misc
rule=/usr/lib/binfmt.d/qemu-aarch64.conf

# Whether the kernel can start them in any root directory: with the flag F, it keeps
# the emulator open, so a root directory needs none.
is_registered() {
  grep -qsx enabled "$formats/qemu-aarch64" &&
    grep -qs '^flags:.*F' "$formats/qemu-aarch64"
}

if [[ $(uname -m) == aarch64 ]] || is_registered; then exit 0; fi
install_packages "${EMULATION_PACKAGES[@]}"

# Debian's package registers the emulator itself if it can.
if is_registered; then exit 0; fi
as_root true 2>/dev/null ||
  die "no right to register the emulator; run once as root: scripts/emulate_arm64.sh"
if [[ ! -e $formats/register ]]; then
  as_root mount -t binfmt_misc binfmt_misc "$formats" ||
    die "could not mount binfmt_misc on $formats; a container needs this from its host: run scripts/emulate_arm64.sh there"
fi
if [[ -e $formats/qemu-aarch64 ]]; then
  printf '%s\n' -1 | as_root tee "$formats/qemu-aarch64" >/dev/null ||
    die "could not replace the rule $formats/qemu-aarch64"
fi
as_root tee "$formats/register" <"$rule" >/dev/null ||
  die "the kernel did not take the rule $rule; a container needs this from its host: run scripts/emulate_arm64.sh there"
is_registered || die "the rule $formats/qemu-aarch64 has no effect"
say "programs for arm64 run by qemu-user-static"
