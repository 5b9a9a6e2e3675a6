#!/usr/bin/env bash
# Runs the long forms of the reliability tests; docs/reliability.md has the results.

root=$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

usage() {
  cat <<TEXT
Usage: ./reliability.sh PROOF [OPTION...]

Installs the Debian packages that are missing, builds, and runs one long proof.
The options go to it. Exit status: 0 nothing was found, 1 something failed, 2
it could not be run. CI runs the short forms: ./test.sh --reliability.

  faults       each system call of the launcher fails in turn, with each error
  fault-table  only prints the calls, the errors and the expected outcomes
  vornctl      each system call of vornctl fails in turn, with each error
  states       random launch files and commands, compared with a model
  fuzz         launch files, requests, log texts and roots, by libFuzzer
  clients      hostile and numerous clients of the control socket
  queries      10,000 status requests from as many clients, and from one
  storms       thousands of deaths and signals, fork bombs, full disks
  soak         200 nodes for an hour; writes build/soak/soak.csv and soak.svg
  death        SIGKILL at each system call of the launcher, then a new launcher
  monitors     storms of output to a full disk and a stopped reader; 100 wrapped
               nodes for 10 minutes
  vornrun      SIGKILL of a launcher whose nodes die with it, 1000 rounds; each
               system call of a start fails in turn
  coverage     branches of all programs that the tests take; at least 95 %
  mutants      faults in all sources that the tests must catch; at least 95 %
TEXT
}

build_launcher() {
  install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "$@"
  configure_build release -DVORN_REQUIRE_TESTS=ON
  build release
}

# run_long TEST-FILE [PYTEST-OPTION...]
run_long() {
  build_launcher
  /usr/bin/python3 -m pytest -p no:cacheprovider -ra -s --long \
    "tests/reliability/$1" "${@:2}"
}

proof=${1-}
shift || true
case $proof in
  faults) run_long test_fault_sweep.py -n "$(($(nproc) * 4))" "$@" ;;
  fault-table) /usr/bin/python3 tests/reliability/fault_table.py ;;
  vornctl) run_long test_vornctl_faults.py -n "$(($(nproc) * 4))" "$@" ;;
  states) run_long test_state_model.py "$@" ;;
  fuzz) fuzz/run.sh "$@" ;;
  clients) run_long test_hostile_clients.py "$@" ;;
  queries) run_long ../system/test_vornctl_signals.py -k thousand "$@" ;;
  storms) run_long test_storms.py "$@" ;;
  soak)
    build_launcher "${PLOT_PACKAGES[@]}"
    /usr/bin/python3 tests/reliability/soak.py "$@"
    ;;
  death) run_long test_sudden_death.py -n "$(($(nproc) * 4))" "$@" ;;
  monitors) run_long test_vornrun_load.py "$@" ;;
  vornrun)
    run_long test_vornrun_death.py tests/reliability/test_vornrun_faults.py "$@"
    ;;
  coverage) scripts/coverage.sh "$@" ;;
  mutants)
    install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" iproute2
    /usr/bin/python3 scripts/mutate.py "$@"
    ;;
  "" | -h | --help) usage ;;
  *) die "no proof '$proof'; see ./reliability.sh --help" ;;
esac
