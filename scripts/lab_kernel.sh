#!/usr/bin/env bash
# Unpacks Debian's kernel for virtual machines into the root directory $1, and creates
# the files of the boot in $2: vmlinuz, and an initrd.img that only mounts the disk.
# The installation of the package would create a large one, for minutes if the
# architecture is emulated.

set -euo pipefail
root=$1
output=$2

arch=$(chroot "$root" dpkg --print-architecture)
# The package depends on that of the current version.
package=$(chroot "$root" apt-cache depends "linux-image-cloud-$arch" |
  sed -n 's/^ *Depends: //p')
chroot "$root" sh -ec "cd /root && apt-get -qq -o APT::Sandbox::User= download $package"
dpkg-deb -x "$root"/root/linux-image-*.deb "$root/kernel"
rm "$root"/root/linux-image-*.deb
cp "$root"/kernel/boot/vmlinuz-* "$output/vmlinuz"
version=$(ls "$root/kernel/lib/modules")
mkdir -p "$root/usr/lib/modules"
mv "$root/kernel/lib/modules/$version" "$root/usr/lib/modules"
rm -r "$root/kernel"
chroot "$root" depmod "$version"

new=$output/initrd
mkdir -p "$new"/{bin,dev,disk}
cp "$root/bin/busybox" "$new/bin"
{
  printf '%s\n' '#!/bin/busybox sh' 'busybox mount -t devtmpfs none /dev'
  for module in virtio_pci virtio_blk crc32c_generic ext4; do
    chroot "$root" modprobe -S "$version" --show-depends "$module"
  done | while read -r word file; do
    if [[ $word != insmod || -e $new/${file##*/} ]]; then continue; fi
    cp "$root$file" "$new"
    printf 'busybox insmod /%s\n' "${file##*/}"
  done
  printf '%s\n' 'until [ -b /dev/vda ]; do busybox sleep 0.1; done' \
    'busybox mount -t ext4 /dev/vda /disk' 'exec busybox switch_root /disk /sbin/init'
} >"$new/init"
chmod 755 "$new/init"
(cd "$new" && find . | cpio --quiet -o -H newc | gzip) >"$output/initrd.img"
rm -r "$new"
