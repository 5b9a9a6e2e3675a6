# shellcheck shell=bash
# The common functions of this project's scripts, which source it.

set -euo pipefail

# Versions that differ between Debian's releases. Clang is always the release's
# default version.
debian_release() (
  VERSION_ID=
  if [[ -r /etc/os-release ]]; then source /etc/os-release; fi
  printf '%s\n' "$VERSION_ID"
)
# shellcheck disable=SC2034  # used by the scripts that source this file
{
  DEBIAN=$(debian_release)
  MAIN_DEBIAN=12  # the release that the packages are for and lint runs on
  YAML_CPP_PACKAGE=libyaml-cpp0.7
  if [[ $DEBIAN == 13 ]]; then YAML_CPP_PACKAGE=libyaml-cpp0.8; fi
  CLANG_FORMAT=clang-format-14  # other versions format differently
}

# debian_suite RELEASE prints the code name of a release.
debian_suite() {
  case $1 in
    12) echo bookworm ;;
    13) echo trixie ;;
    *) die "Debian '$1' is not supported; the releases are 12 and 13" ;;
  esac
}

# Debian's packages for each purpose.
# shellcheck disable=SC2034  # used by the scripts that source this file
{
  BUILD_PACKAGES=(build-essential cmake libyaml-cpp-dev procps libcli11-dev
    nlohmann-json3-dev libncurses-dev zlib1g-dev lowdown)
  TEST_PACKAGES=(mandoc systemd systemd-journal-remote libgtest-dev libgmock-dev
    python3 python3-pytest python3-pytest-xdist python3-pytest-timeout
    python3-hypothesis python3-jsonschema python3-yaml pkgconf strace socat)
  CACHE_PACKAGES=(ccache)  # for test.sh; packages are built without it
  SHELL_PACKAGES=(tmux bash-completion zsh fish)  # for the tests of vornctl
  # For the tests of the page that vornctl writes.
  BROWSER_PACKAGES=(chromium chromium-driver python3-selenium python3-html5lib)
  SERVER_PACKAGES=(redis-server nginx mosquitto mosquitto-clients curl)
  CLANG_PACKAGES=(clang)
  SANITIZER_PACKAGES=(clang libclang-rt-dev)
  FUZZ_PACKAGES=("${SANITIZER_PACKAGES[@]}" llvm)
  ROOT_PACKAGES=(debootstrap util-linux)  # for a Debian root to test in
  # For virtual machines to test in.
  LAB_PACKAGES=(qemu-system-x86 qemu-system-arm qemu-utils mmdebstrap arch-test
    e2fsprogs cpio openssh-client)
  ENGINE_PACKAGES=(podman runc)
  ROLLOUT_PACKAGES=(ansible-core ansible-lint)
  MONITORING_PACKAGES=(prometheus prometheus-node-exporter)
  PACKAGE_PACKAGES=(git debhelper dpkg-dev)
  RPM_PACKAGES=(rpm cpio)
  PACKAGE_TEST_PACKAGES=(lintian)
  COVERAGE_PACKAGES=(gcovr python3-coverage)
  PLOT_PACKAGES=(python3-matplotlib)
  BENCH_BUILD_PACKAGES=(libbenchmark-dev valgrind)
  BENCH_PACKAGES=(linux-perf python3-matplotlib supervisor runit s6 daemontools)
  LINT_PACKAGES=(git clang "$CLANG_FORMAT" clang-tidy cppcheck shellcheck pyflakes3
    codespell mkdocs linkchecker prometheus)
  EMULATION_PACKAGES=(qemu-user-static)  # for scripts/emulate_arm64.sh
  ARM64_PACKAGES=(g++-aarch64-linux-gnu "$YAML_CPP_PACKAGE:arm64"
    libncurses-dev:arm64 zlib1g-dev:arm64
    libgtest-dev:arm64 libgmock-dev:arm64)
  # The first cannot be installed for two architectures at a time; it needs the
  # second.
  ARM64_UNPACKED=(libyaml-cpp-dev:arm64 "$YAML_CPP_PACKAGE:arm64")
}

say() { printf '== %s\n' "$*" >&2; }

die() {
  printf '%s: %s\n' "$(basename -- "$0")" "$*" >&2
  exit 2
}

# read_options SHORT LONG ARGUMENT... checks the arguments of the script with
# getopt(1); SHORT and LONG are its option strings, to which this adds -h and
# --help. Stores the arguments in `arguments`: the options and their values, "--",
# and the operands. Exits after an error, and after --help, which prints usage().
arguments=()
read_options() {
  local parsed argument
  parsed=$(getopt --name "${0##*/}" --options "$1h" \
    --longoptions "help${2:+,$2}" -- "${@:3}") || die "see $0 --help"
  eval "arguments=($parsed)"
  for argument in "${arguments[@]}"; do
    case $argument in
      -h | --help)
        usage
        exit 0
        ;;
      --) return ;;
    esac
  done
}

# Runs a command as root, without ever asking for a password.
as_root() {
  if [[ $EUID -eq 0 ]]; then
    "$@"
  else
    sudo -n "$@"
  fi
}

# Prints which of the packages are missing.
missing_packages() {
  local package
  for package in "$@"; do
    dpkg-query -W -f '${db:Status-Status}\n' "$package" 2>/dev/null |
      grep -qx installed || printf '%s\n' "$package"
  done
}

# install_packages PACKAGE... installs those that are missing.
install_packages() {
  local missing
  mapfile -t missing < <(missing_packages "$@")
  [[ ${#missing[@]} -gt 0 ]] || return 0
  command -v apt-get >/dev/null ||
    die "this is not a Debian system; install the equivalents of: ${missing[*]}, and build with cmake as docs/install.md says"
  [[ $EUID -eq 0 ]] || sudo -n true 2>/dev/null ||
    die "no right to install packages; run once as root: apt-get install ${missing[*]}"
  say "installing ${missing[*]}"
  # Lists of other repositories can fail, or lack a foreign architecture.
  as_root apt-get -qq -o DPkg::Lock::Timeout=300 update ||
    say "apt-get update failed; are Debian's package servers in reach?"
  as_root env DEBIAN_FRONTEND=noninteractive apt-get -qq install -y \
    --no-install-recommends --no-remove -o DPkg::Lock::Timeout=300 "${missing[@]}" \
    >/dev/null || die "could not install ${missing[*]}"
}

# Installs the packages that the preset arm64 needs in addition to this machine's.
install_arm64_packages() {
  [[ $(uname -m) != aarch64 ]] ||
    die "this machine is of the kind arm64; the preset release builds for it"
  if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    as_root dpkg --add-architecture arm64 ||
      die "no right to install packages; run once as root: dpkg --add-architecture arm64"
  fi
  install_packages "${ARM64_PACKAGES[@]}"
  scripts/emulate_arm64.sh

  local directory=build-arm64/debian archive
  if [[ ! -e $directory/complete ]]; then
    say "unpacking ${ARM64_UNPACKED[*]}"
    rm -rf "$directory"
    mkdir -p "$directory"
    (cd "$directory" &&
      apt-get -qq -o APT::Sandbox::User= download "${ARM64_UNPACKED[@]}") ||
      die "could not download ${ARM64_UNPACKED[*]}"
    for archive in "$directory"/*.deb; do dpkg -x "$archive" "$directory"; done
    touch "$directory/complete"
  fi
}

# As install_packages, for servers, without starting them.
install_servers() (
  policy=/usr/sbin/policy-rc.d
  if [[ -n $(missing_packages "$@") && ! -e $policy ]] && as_root true 2>/dev/null
  then
    trap 'as_root rm -f $policy' EXIT
    printf '#!/bin/sh\nexit 101\n' | as_root install -m 755 /dev/stdin $policy
  fi
  install_packages "$@"
)

# configure_build PRESET [CMAKE-OPTION...] configures quietly, and prints CMake's
# output only if it fails.
configure_build() {
  local preset=$1 said
  shift
  said=$(cmake --preset "$preset" "$@" 2>&1) ||
    die "cmake could not configure the $preset build:"$'\n'"$said"
}

# build PRESET [BUILD-OPTION...]
build() {
  local preset=$1
  shift
  say "building ($preset)"
  cmake --build --preset "$preset" --parallel "$(nproc)" "$@" >&2 ||
    die "the $preset build failed"
}
