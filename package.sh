#!/usr/bin/env bash
# Builds the packages of the launcher.

root=$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

usage() {
  cat <<TEXT
Usage: ./package.sh [OPTION...]

Installs missing Debian packages and builds the packages of the launcher from a copy
of the files that git tracks, into build-packages/ARCH/. Exit status: 0 success, 1
--check found a defect, 2 the packages could not be built.

  --arch ARCH   amd64 or arm64 (default: this machine's architecture). Another
                architecture needs root: its packages are built with a cross
                compiler in a small Debian under build-packages/
  --rpm         build an rpm instead, in build-packages/rpm/, for systems with the
                shared libraries of this one
  --check       also build the packages a second time in another directory and
                environment and compare the bytes, build the rpm, and run the long
                tests, one of which builds the packages with only their build
                dependencies; needs root and takes some minutes
  -h, --help    print this text

docs/install.md describes the packages. ./test.sh runs the unit tests.
TEXT
}

arch=
kind=deb
check=false
read_options "" arch:,rpm,check "$@"
set -- "${arguments[@]}"
while [[ $1 != -- ]]; do
  case $1 in
    --arch)
      arch=$2
      shift
      ;;
    --rpm) kind=rpm ;;
    --check) check=true ;;
  esac
  shift
done
[[ $# -eq 1 ]] || die "unexpected argument '$2'; see ./package.sh --help"
command -v dpkg >/dev/null ||
  die "dpkg is missing: the packages need Debian; see docs/install.md for other ways"
native=$(dpkg --print-architecture)
arch=${arch:-$native}
[[ $arch =~ ^(amd64|arm64)$ ]] ||
  die "no packages for '$arch'; see ./package.sh --help"
[[ $arch == "$native" ]] || { [[ $kind == deb ]] && ! $check; } ||
  die "--rpm and --check work only for this machine's architecture"
[[ $kind == deb ]] || ! $check ||
  die "--check makes the rpm as well; it does not go with --rpm"
[[ $EUID -eq 0 ]] || ! $check || die "--check needs root"

# copy_files DIRECTORY
copy_files() {
  mkdir -p "$1"
  git ls-files -z --cached |
    while IFS= read -r -d '' file; do
      if [[ -e $file ]]; then printf '%s\0' "$file"; fi
    done | xargs -0 cp --parents --no-dereference -t "$1"
}

# The builders build in DIRECTORY/source and put the packages into DIRECTORY.

build_deb() {
  (cd "$1/source" && DEB_BUILD_OPTIONS=nocheck DEB_BUILD_PROFILES=nocheck \
    dpkg-buildpackage -b -us -uc --jobs="$(nproc)")
}

# The libraries for both architectures cannot be installed together, so a separate
# Debian contains those for the other architecture.
build_cross_deb() {
  local debian=$root/build-packages/cross-$arch
  # shellcheck disable=SC2016  # variables of those shells
  scripts/debian_root.sh "$debian" &&
    as_root rm -rf "$debian/build" &&
    as_root mkdir "$debian/build" &&
    as_root cp -r "$1/source" "$debian/build" &&
    as_root unshare --mount --pid --fork --kill-child sh -ec '
      mount -t proc proc "$1/proc"
      cp -L /etc/resolv.conf "$1/etc"
      exec chroot "$1" sh -exc "$2" sh "$3"' sh "$debian" '
      cd /build/source
      export DEBIAN_FRONTEND=noninteractive
      export DEB_BUILD_OPTIONS=nocheck DEB_BUILD_PROFILES="cross nocheck"
      dpkg --add-architecture "$1"
      apt-get -q update
      apt-get -qy dist-upgrade
      apt-get -qy install --no-install-recommends build-essential \
        crossbuild-essential-"$1"
      apt-get -qy build-dep --no-install-recommends --host-architecture "$1" ./
      dpkg-buildpackage -b -us -uc --host-arch "$1" --jobs="$(nproc)"' "$arch" &&
    find "$debian/build" -maxdepth 1 -type f -exec cp -t "$1" {} +
}

build_rpm() {
  (cd "$1/source" && cmake -S . -B build -DCMAKE_INSTALL_PREFIX=/usr \
    -DCMAKE_INSTALL_LIBDIR=lib64 -DBUILD_TESTING=OFF &&
    cmake --build build --parallel "$(nproc)" &&
    cpack --config build/CPackConfig.cmake -B build/rpm &&
    mv build/rpm/*.rpm ..)
}

# build_in DIRECTORY BUILDER
build_in() {
  # An interrupted or failed build never gets the final name.
  local new=$1.new
  rm -rf "$new"
  copy_files "$new/source"
  say "building packages in $1"
  "$2" "$new" >"$new/log" 2>&1 || {
    tail -n 20 "$new/log" >&2
    die "the packages could not be built; all of what was said is in $new/log"
  }
  rm -rf "$new/source" "$1"
  mv "$new" "$1"
}

build_rpm_in() {
  install_packages "${RPM_PACKAGES[@]}"
  build_in "$1" build_rpm
}

build_deb_otherwise() {
  HOME=/nonexistent LC_ALL=C TZ=Pacific/Apia build_deb "$1"
}

# Builds the Debian packages again in an environment that differs in everything that
# could affect the result. The clock differs anyway.
compare_with_another_build() {
  local again=$1-in-another-directory-of-a-longer-name package
  (umask 077 && build_in "$again" build_deb_otherwise)
  for package in "$1"/*.deb; do
    cmp "$package" "$again/$(basename -- "$package")" || exit 1
  done
  rm -rf "$again"
  say "both builds produced the same bytes"
}

run_long_tests() {
  install_packages "${TEST_PACKAGES[@]}" "${PACKAGE_TEST_PACKAGES[@]}"
  configure_build release
  build release
  scripts/debian_root.sh "build-packages/root-$native"
  /usr/bin/python3 -m pytest -q -p no:cacheprovider --long tests/packages ||
    exit 1
}

install_packages "${BUILD_PACKAGES[@]}" "${PACKAGE_PACKAGES[@]}"
git ls-files --error-unmatch README.md >/dev/null ||
  die "cannot list the files to pack: git ls-files failed"
directory=$root/build-packages/$arch
if [[ $kind == rpm ]]; then
  directory=$root/build-packages/rpm
  build_rpm_in "$directory"
elif [[ $arch == "$native" ]]; then
  build_in "$directory" build_deb
else
  build_in "$directory" build_cross_deb
fi
if $check; then
  compare_with_another_build "$directory"
  build_rpm_in "$root/build-packages/rpm"
  run_long_tests
fi
ls -1 "$directory"/*."$kind"
