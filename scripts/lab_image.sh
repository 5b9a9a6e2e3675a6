#!/usr/bin/env bash
# Creates the disk of a minimal Debian with systemd and ssh, its kernel and a key.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"

usage() {
  cat <<TEXT
Usage: scripts/lab_image.sh [--arch ARCH] DIRECTORY

Creates in DIRECTORY, unless it exists, what a virtual machine boots: disk.qcow2,
vmlinuz, initrd.img, and the key with which root logs in by ssh. ARCH is amd64
(default) or arm64, for which this machine must be able to run programs. Needs root
and the package servers; takes one to three minutes, and longer for arm64.
TEXT
}

arch=amd64
read_options "" arch: "$@"
set -- "${arguments[@]}"
if [[ $1 == --arch ]]; then
  arch=$2
  shift 2
fi
[[ $# -eq 2 ]] || die "no directory, or more than one; see $0 --help"
directory=$2
if [[ -d $directory ]]; then exit; fi

# What the packages of the launcher need, and what the scenarios use.
packages=(kmod busybox-static udev systemd-sysv dbus openssh-server iproute2 procps
  grep python3 python3-apt curl libsystemd0
  prometheus-node-exporter)
# What the state model needs on the machine itself.
if [[ $arch == arm64 ]]; then
  packages+=(gcc libc6-dev python3-pytest python3-pytest-timeout python3-hypothesis
    python3-yaml systemd-journal-remote "$YAML_CPP_PACKAGE")
fi

install_packages "${LAB_PACKAGES[@]}"
say "making the disk of a virtual machine in $directory"
mkdir -p "$directory.new"
new=$(readlink -f "$directory.new")
rm -rf "$new"
mkdir "$new"
trap 'rm -rf "$new"' EXIT
ssh-keygen -q -t ed25519 -N '' -f "$new/key"

# The guest has a fixed name and no clock service; its console is the serial port.
# shellcheck disable=SC2016  # $1 is the directory of the guest in each hook
mmdebstrap --variant=apt --architectures="$arch" --include="$(IFS=,; echo "${packages[*]}")" \
  --customize-hook='mkdir -p -m 700 "$1/root/.ssh"' \
  --customize-hook="upload $new/key.pub /root/.ssh/authorized_keys" \
  --customize-hook='echo robot >"$1/etc/hostname"' \
  --customize-hook='echo "127.0.0.1 localhost robot" >"$1/etc/hosts"' \
  --customize-hook='echo "/dev/vda / ext4 defaults 0 1" >"$1/etc/fstab"' \
  --customize-hook='printf "[Match]\nName=en* eth*\n[Network]\nDHCP=yes\n" >"$1/etc/systemd/network/lab.network"' \
  --customize-hook='chroot "$1" systemctl enable systemd-networkd ssh' \
  --customize-hook='mkdir -p "$1/var/log/journal"' \
  --customize-hook='passwd --root "$1" --delete root' \
  --customize-hook="$root/scripts/lab_kernel.sh \"\$1\" $new" \
  "$(debian_suite "$MAIN_DEBIAN")" "$new/root" >"$directory.log" 2>&1 || {
  tail -n 5 "$directory.log" >&2
  die "mmdebstrap failed; its output is in $directory.log"
}
mke2fs -q -t ext4 -d "$new/root" "$new/disk.raw" 2500M
qemu-img convert -O qcow2 "$new/disk.raw" "$new/disk.qcow2"
rm -rf "$new/root" "$new/disk.raw" "$directory.log"
trap - EXIT
mv "$new" "$directory"
