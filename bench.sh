#!/usr/bin/env bash
# Measures the launcher, lower bounds and other supervisors; docs/performance.md has
# the results.

root=$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

usage() {
  cat <<TEXT
Usage: ./bench.sh [OPTION...]

Installs missing Debian packages, builds, and measures the launcher, lower bounds
and other supervisors, then single functions. Exit status: 0 measured, 2 it could
not be run. It needs the right to create namespaces, and root for the counters of
perf.

  --quick          fewer rounds and nodes, within 2 minutes
  --only NAME      one measurement: start, memory, idle, status, deaths, stops,
                   load, queries, clients, wrapper, logs, pieces,
                   instructions; may be repeated
  --output DIR     for results.json and plot.svg (default: build/bench)
  -h, --help       print this text
TEXT
}

quick=()
output=build/bench
only=()
read_options "" quick,only:,output: "$@"
set -- "${arguments[@]}"
while [[ $1 != -- ]]; do
  case $1 in
    --quick) quick=(--quick) ;;
    --only | --output)
      if [[ $1 == --only ]]; then only+=("$2"); else output=$2; fi
      shift
      ;;
  esac
  shift
done
[[ $# -eq 1 ]] || die "unexpected argument '$2'; see ./bench.sh --help"

measurements=()
for name in "${only[@]}"; do
  case $name in
    start | memory | idle | status | deaths | stops | load | queries | clients | wrapper | logs)
      measurements+=(--only "$name")
      ;;
    pieces | instructions) ;;
    *) die "no measurement '$name'; see ./bench.sh --help" ;;
  esac
done

# is_wanted NAME
is_wanted() {
  [[ ${#only[@]} -eq 0 || " ${only[*]} " == *" $1 "* ]]
}

install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" \
  "${BENCH_BUILD_PACKAGES[@]}"
install_servers "${BENCH_PACKAGES[@]}"
configure_build release -DVORN_REQUIRE_TESTS=ON -DVORN_BENCH=ON
build release

mkdir -p -- "$output"
if [[ ${#only[@]} -eq 0 || ${#measurements[@]} -gt 0 ]]; then
  /usr/bin/python3 bench/run.py "${quick[@]}" "${measurements[@]}" \
    --output "$output"
fi
if is_wanted pieces; then
  say "pieces"
  time_each=0.2
  if [[ ${#quick[@]} -gt 0 ]]; then time_each=0.05; fi
  build/bin/bench-pieces --benchmark_min_time=$time_each \
    --benchmark_out="$output/pieces.json" --benchmark_out_format=json \
    2>/dev/null
fi
if is_wanted instructions; then
  say "instructions"
  /usr/bin/python3 bench/instructions.py
fi
