#!/usr/bin/env bash
# Tests the packages with the systems that they are used with.

root=$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

usage() {
  cat <<TEXT
Usage: ./lab.sh [SCENARIO...] [-- PYTEST-OPTION...]

Builds the packages and tests them on emulated machines that boot Debian, and on this
machine: a scenario is a file tests/lab/test_SCENARIO.py; default: all. The first run
creates the disk of the machines in build-lab/ (root only). Exit status: 0 all passed,
1 a test failed, 2 the tests could not be run.

  service    the unit, the packages and the journal on a booted machine
  power_cut  power cuts during vornctl apply, start and stop of the service
  container  the image of docs/containers.md, built and run by podman
  fleet      the rollout of examples/ansible; one of three machines is switched off
  metrics    the alerts of Prometheus for real metrics
  scale      Prometheus with 1000 simulated robots; build-lab/scale.json
  arm64      the packages and random commands on an emulated arm64 machine

  -- --rounds=N  the number of power cuts of each kind (default: 10)
  -- --robots=N  the number of simulated robots (default: 1000)
  --smoke    boot once, and test only that the service runs after a reboot
  -h, --help print this text

The output of the console of a machine is in build-lab/run/ after a failure.
TEXT
}

read_options "" smoke "$@"
set -- "${arguments[@]}"
selection=()
files=()
if [[ $1 == --smoke ]]; then
  files=(tests/lab/test_service.py)
  selection=(-k test_the_nodes_run_again_after_a_reboot)
  shift
fi
shift
while [[ $# -gt 0 && $1 != -* ]]; do
  [[ -f tests/lab/test_$1.py ]] || die "no scenario '$1'; see ./lab.sh --help"
  files+=("tests/lab/test_$1.py")
  shift
done
if [[ ${#files[@]} -eq 0 ]]; then files=(tests/lab); fi
[[ $(uname -m) == x86_64 ]] || die "the machines are emulated on x86-64 only"

install_packages "${LAB_PACKAGES[@]}" "${TEST_PACKAGES[@]}" "${ENGINE_PACKAGES[@]}" \
  "${ROLLOUT_PACKAGES[@]}"
install_servers "${MONITORING_PACKAGES[@]}"
scripts/lab_image.sh build-lab/amd64
scripts/debian_root.sh build-packages/root-amd64
./package.sh
if [[ " ${files[*]} " =~ " tests/lab "|arm64 ]]; then
  install_arm64_packages
  scripts/lab_image.sh --arch arm64 build-lab/arm64
  ./package.sh --arch arm64
  configure_build arm64 -DVORN_UNITY=ON
  build arm64 --target vornlaunch vornlaunch-dynamic vornctl vornrun
fi
rm -rf build-lab/programs
for package in build-packages/amd64/vorn{ctl,launch}_*.deb; do
  dpkg-deb -x "$package" build-lab/programs
done
say "tests of the packages"
/usr/bin/python3 -m pytest -p no:cacheprovider -ra --timeout=3600 \
  --build=build-lab/programs/usr --basetemp=build-lab/run -o tmp_path_retention_policy=failed \
  "${selection[@]}" "${files[@]}" "$@" || exit 1
