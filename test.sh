#!/usr/bin/env bash
# Builds the launcher and tests it.

root=$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

usage() {
  cat <<TEXT
Usage: ./test.sh [OPTION...]

Installs missing Debian packages, builds, runs every test, and prints the counts.
Exit status: 0 all passed, 1 a test failed or was skipped, 2 the tests could not be
run.

Suites (default: --unit --system --reliability):
  --unit          the unit tests
  --system        the whole-program tests; they need the right to make
                  namespaces (root, or unprivileged user namespaces)
  --reliability   the short forms of the proofs of ./reliability.sh
  --instructions  the instructions of usual operations have not increased
                  beyond bench/instructions.json (release only)
  --packages      the packages of ./package.sh and the container image, in a
                  small Debian of their own (root only; release and arm64)
  --lint          scripts/lint.sh: the form of the sources and the texts
  --all           everything that CI runs: all of these with GCC, most of
                  them with Clang and sanitizers, and the tests of the
                  control socket for arm64

Options:
  --filter TEXT   only tests whose name contains TEXT (letters, digits, _ and .)
  --repeat N      repeat the tests N times, or until one fails
  --allow-skips   succeed although tests were skipped (not with --all)
  --preset NAME   the build: release (default), dev, clang, asan, coverage,
                  arm64 (--unit, --system, --packages; built here and run by an
                  emulator, docs/arm64.md)
  --asan          the same as --preset asan
  --debian N      run in a minimal Debian N (12 or 13), unless this is one; it is
                  created in build-debianN/ (root only). Of --all, lint,
                  instructions, packages, sanitizers and arm64 are for 12 only
  -j N            N whole-program tests at a time (default: 4 per core; they
                  mostly wait)
  -h, --help      print this text

The whole-program tests use a few servers from Debian as nodes. The installation
does not start them, but the next boot does.
TEXT
}

preset=release
debian=
suites=()
filter=
repeat=1
jobs=$(($(nproc) * 4))
all=false
count_options=()
# Seconds after which a whole-program test counts as hung. The longest takes about
# a minute; four times the load must not matter.
test_time_limit=600

# The build directory of a preset.
build_directory() {
  if [[ $1 == release ]]; then echo build; else echo "build-$1"; fi
}

parse_options() {
  read_options j: "unit,system,reliability,instructions,packages,lint,all,\
allow-skips,asan,filter:,repeat:,preset:,debian:" "$@"
  set -- "${arguments[@]}"
  while [[ $1 != -- ]]; do
    case $1 in
      --unit | --system | --reliability | --instructions | --packages | --lint)
        suites+=("${1#--}")
        ;;
      --all) all=true ;;
      --allow-skips) count_options=(--allow-skips) ;;
      --asan) preset=asan ;;
      --filter | --repeat | --preset | --debian | -j)
        case $1 in
          --filter) filter=$2 ;;
          --repeat) repeat=$2 ;;
          --preset) preset=$2 ;;
          --debian) debian=$2 ;;
          -j) jobs=$2 ;;
        esac
        shift
        ;;
    esac
    shift
  done
  [[ $# -eq 1 ]] || die "unexpected argument '$2'; see ./test.sh --help"
  [[ $repeat =~ ^[1-9][0-9]*$ ]] || die "--repeat takes a whole number from 1"
  [[ $jobs =~ ^[1-9][0-9]*$ ]] || die "-j takes a whole number from 1"
  [[ $preset =~ ^(release|dev|clang|asan|coverage|arm64)$ ]] ||
    die "no preset '$preset'; see ./test.sh --help"
  [[ $filter =~ ^[A-Za-z0-9_.]*$ ]] ||
    die "--filter takes letters, digits, _ and . only"
  if $all; then
    [[ ${#suites[@]} -eq 0 && $preset == release &&
      ${#count_options[@]} -eq 0 ]] ||
      die "--all leaves nothing to choose; see ./test.sh --help"
    suites=(unit system reliability)
    if [[ $DEBIAN == "$MAIN_DEBIAN" ]]; then suites+=(instructions packages); fi
  fi
  [[ " ${suites[*]} " != *" instructions "* || $preset == release ]] ||
    die "--instructions are those of the release build"
  if [[ ${#suites[@]} -eq 0 ]]; then
    suites=(unit system)
    # Faults and memory would be the emulator's.
    [[ $preset == arm64 ]] || suites+=(reliability)
  fi
  [[ " ${suites[*]} " != *" reliability "* || $preset != arm64 ]] ||
    die "--reliability is not for an emulated launcher"
  [[ " ${suites[*]} " != *" packages "* || $preset =~ ^(release|arm64)$ ]] ||
    die "--packages are for the presets release and arm64 alone"
  mapfile -t suites < <(printf '%s\n' "${suites[@]}" | awk '!seen[$0]++')
}

# Every run of pytest and each of its processes would compile the tests again.
unset PYTHONDONTWRITEBYTECODE
export PYTHONPYCACHEPREFIX=$PWD/build-python

# Results, one JUnit file per run, counted at the end.
results=$(mktemp -d)
trap 'rm -rf "$results"' EXIT
runs=0
failed=false

# Prints the compiler options of the packages, as debian/rules sets them.
package_flags() {
  export DEB_BUILD_MAINT_OPTIONS=hardening=+all
  echo "$(dpkg-buildflags --get CXXFLAGS) $(dpkg-buildflags --get CPPFLAGS)"
}

# build_preset PRESET [BUILD-OPTION...]
build_preset() {
  install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" \
    "${CACHE_PACKAGES[@]}"
  case $1 in
    clang) install_packages "${CLANG_PACKAGES[@]}" ;;
    asan) install_packages "${SANITIZER_PACKAGES[@]}" ;;
  esac
  if [[ $1 == arm64 ]]; then install_arm64_packages; fi
  local options=(-DVORN_REQUIRE_TESTS=ON -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
  if [[ $1 == release && " ${suites[*]} " == *" instructions "* ]]; then
    install_packages "${BENCH_BUILD_PACKAGES[@]}"
    options+=(-DVORN_BENCH=ON)
  fi
  if $all; then
    # What is tested is what the packages contain.
    if [[ $1 == release ]]; then
      options+=(-DVORN_UNITY=ON "-DCMAKE_CXX_FLAGS=$(package_flags)")
    else
      options+=(-DVORN_WERROR=ON -DCMAKE_UNITY_BUILD=ON
        -DCMAKE_UNITY_BUILD_BATCH_SIZE=60)
    fi
  fi
  configure_build "$1" "${options[@]}"
  build "$@"
}

run_unit() {
  say "unit tests ($1)"
  runs=$((runs + 1))
  # --quiet also hides failures.
  ctest --test-dir "$(build_directory "$1")" --parallel "$(nproc)" --quiet \
    --no-tests=ignore --output-on-failure --output-log "$results/ctest.log" \
    ${filter:+-R "$filter"} --output-junit "$results/$runs.xml" || {
    grep -vE '[.] +Passed |^ +Start ' "$results/ctest.log" >&2
    failed=true
  }
}

# run_system PRESET [DIRECTORY] also runs the tests in the directory. They come first
# because the longest ones are there.
run_system() {
  install_packages "${SHELL_PACKAGES[@]}" "${BROWSER_PACKAGES[@]}"
  install_servers "${SERVER_PACKAGES[@]}"
  say "whole-program tests ($1)"
  run_pytest "$1" "${@:2}" tests/system
}

run_reliability() {
  say "reliability tests, short forms ($1)"
  run_pytest "$1" tests/reliability
}

# In one run, which keeps all processors busy and starts pytest once.
run_system_and_reliability() {
  run_system "$1" tests/reliability
}

run_instructions() {
  if [[ $(uname -m) != x86_64 ]]; then
    say "instructions: left out, those that were kept are of x86-64"
    return
  fi
  say "instructions"
  /usr/bin/python3 bench/instructions.py --build "$(build_directory "$1")" ||
    failed=true
}

run_packages() {
  local arch
  arch=$(dpkg --print-architecture)
  if [[ $1 == arm64 ]]; then arch=arm64; fi
  install_packages "${PACKAGE_TEST_PACKAGES[@]}"
  say "building packages ($arch)"
  if $all; then
    # The release build has been compiled with the same options.
    CMAKE_CXX_COMPILER_LAUNCHER=ccache ./package.sh >/dev/null
  else
    ./package.sh --arch "$arch" >/dev/null
  fi
  scripts/debian_root.sh --arch "$arch" "build-packages/root-$arch"
  say "packages ($1)"
  # One at a time: they share an installation.
  jobs=1 run_pytest "$1" tests/packages
}

# run_pytest PRESET DIRECTORY...
run_pytest() {
  local status=0
  runs=$((runs + 1))
  /usr/bin/python3 -m pytest -q -p no:cacheprovider -n "$jobs" --dist loadgroup \
    --timeout="$test_time_limit" \
    --build="$(build_directory "$1")" ${filter:+-k "$filter"} \
    --junitxml "$results/$runs.xml" "${@:2}" || status=$?
  # 5: no test was selected; the count at the end decides.
  [[ $status -eq 0 || $status -eq 5 ]] || failed=true
}

# The tests for arm64 that check the records of the control socket, its interface; all
# tests for arm64 take too long.
run_some_arm64() {
  build_preset arm64 --target vornlaunch
  say "whole-program tests of the control socket (arm64)"
  run_pytest arm64 tests/system/test_control.py
}

run_lint() {
  install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" \
    "${LINT_PACKAGES[@]}" "${BENCH_BUILD_PACKAGES[@]}"
  say "lint"
  scripts/lint.sh || failed=true
}

# run_suites PRESET SUITE...
run_suites() {
  local suite wanted="${*:2}" built=false
  for suite in ${wanted/system reliability/system_and_reliability}; do
    if [[ $suite == lint ]]; then
      run_lint
      continue
    fi
    $built || build_preset "$1"
    built=true
    "run_$suite" "$1"
  done
}

# Runs this script in the other Debian.
run_in_debian() {
  local options=()
  set -- "${arguments[@]}"
  while [[ $1 != -- ]]; do
    if [[ $1 == --debian ]]; then shift; else options+=("$1"); fi
    shift
  done
  scripts/in_debian.sh "$debian" ./test.sh "${options[@]}"
}

parse_options "$@"
if $all; then
  # For the packages too, which are built in another directory. Less debug information
  # takes a third less time.
  export CCACHE_BASEDIR=$root CCACHE_NOHASHDIR=1 DEB_CXXFLAGS_APPEND="-Werror -g1"
fi
if [[ -n $debian && $debian != "$DEBIAN" ]]; then
  run_in_debian
  exit
fi
for ((round = 1; round <= repeat; ++round)); do
  if [[ $repeat -gt 1 ]]; then say "round $round of $repeat"; fi
  if $all && [[ $DEBIAN != "$MAIN_DEBIAN" ]]; then
    build_preset clang
    run_suites release "${suites[@]}"
  elif $all; then
    run_suites release lint unit system reliability instructions
    # The packages are tested one at a time, which leaves a processor. Errors of the
    # build appear when it is repeated.
    build_preset asan >/dev/null 2>&1 &
    asan_job=$!  # a process substitution changes $!
    run_suites release packages
    wait "$asan_job" || true
    run_suites asan unit system reliability
    if [[ $(uname -m) == x86_64 ]]; then run_some_arm64; fi
  else
    run_suites "$preset" "${suites[@]}"
  fi
  if $failed; then break; fi
done

if [[ $runs -gt 0 ]]; then
  /usr/bin/python3 scripts/count_tests.py "${count_options[@]}" "$results" ||
    failed=true
fi
if $failed; then exit 1; fi
