#!/usr/bin/env bash
# Runs the fuzz targets; without end they would go on finding less and less.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

all_targets=(launch_file control_request log_text install_root log_file
  run_settings notify check client)
declare -A longest=(  # the length of an input in bytes
  [launch_file]=4096 [control_request]=1072 [log_text]=2048 [install_root]=512
  [log_file]=4096 [run_settings]=1024 [notify]=6000 [check]=4096 [client]=2048)

usage() {
  cat <<TEXT
Usage: fuzz/run.sh [OPTION...] [TARGET...]

Installs the Debian packages that are missing, builds the fuzz targets, runs
them side by side, and prints a table. No input may end the process, violate a
sanitizer, take 20 s or 2 GiB, or break a check of the target. Targets (default:
all of them):

  launch_file      a file of any content through the parser; only exceptions of
                   yaml-cpp may leave it, and nodes that were read are complete
  control_request  connections and requests with failing calls and dying
                   children; each reply must have the right fields, and each
                   successful command its effect
  log_text         any text, level and time to a standard error that takes it in
                   pieces or refuses it; lines must be as documented
  install_root     "install://" under any VORN_ROOT and executable path; the
                   expansion must end and leave no "install://"
  log_file         a file of any content as the log that vornctl reads; the
                   records from a point in time must be those of the file
  run_settings     files and command lines of any content as the settings of
                   vornrun; a valid text in quotes must have the same meaning
  notify           datagrams of any content to the socket of sd_notify(3);
                   the state must be JSON
  check            a file of any content through the checks of vornctl and all
                   forms of its output, which must be bounded and escaped
  client           any replies of a launcher, contents of /proc and log texts as
                   commands of vornctl see them; the same rule

  --minutes N   how long each is run (default: 60)
  --merge       add to fuzz/seeds what this and earlier runs have come up with
                that reaches code which no seed reaches, as few as possible
  -h, --help    this text

What is found is kept in build-fuzz/findings/, by target. To see one again:
build-fuzz/bin/fuzz_TARGET FILE. Exit status: 0 nothing was found, 1 something
was, 2 it could not be run.
TEXT
}

minutes=60
merge=false
read_options "" minutes:,merge "$@"
set -- "${arguments[@]}"
while [[ $1 != -- ]]; do
  case $1 in
    --minutes)
      minutes=$2
      shift
      ;;
    --merge) merge=true ;;
  esac
  shift
done
shift
[[ $minutes =~ ^[1-9][0-9]*$ ]] || die "--minutes takes a whole number from 1"
targets=("$@")
for target in "$@"; do
  [[ -v longest[$target] ]] || die "no target '$target'; see fuzz/run.sh --help"
done
if [[ $# -eq 0 ]]; then targets=("${all_targets[@]}"); fi

# Only the report of an error needs it.
ASAN_SYMBOLIZER_PATH=$(command -v llvm-symbolizer || true)
export ASAN_SYMBOLIZER_PATH
# Freed memory kept for its checks, in MiB; the default would fill the limit.
export ASAN_OPTIONS=quarantine_size_mb=32

# run_target TARGET becomes the run, so that its process is the fuzzer's.
run_target() {
  local corpus=build-fuzz/corpus/$1 findings=build-fuzz/findings/$1
  mkdir -p "$corpus" "$findings"
  exec nice -n 19 "build-fuzz/bin/fuzz_$1" -max_total_time="$((minutes * 60))" \
    -max_len="${longest[$1]}" -timeout=20 -rss_limit_mb=2048 \
    -dict="fuzz/$1.dict" -artifact_prefix="$findings/" -print_final_stats=1 \
    "$corpus" "fuzz/seeds/$1" >"build-fuzz/$1.log" 2>&1
}

# report TARGET prints the target's row of the table.
report() {
  local log=build-fuzz/$1.log executed per_second coverage features corpus
  executed=$(awk '/^stat::number_of_executed_units/ {print $2}' "$log")
  per_second=$(awk '/^stat::average_exec_per_sec/ {print $2}' "$log")
  read -r coverage features corpus < <(awk '$3 == "cov:" {
    for (i = 3; i < NF; i += 2) value[$i] = $(i + 1)
  } END { print value["cov:"], value["ft:"], value["corp:"] }' "$log")
  printf '%-16s %12s %8s %8s %8s %14s %9s\n' "$1" "$executed" "$per_second" \
    "$coverage" "$features" "$corpus" \
    "$(find "build-fuzz/findings/$1" -type f | wc -l)"
}

# merge_seeds TARGET adds an input for each edge that no seed reaches.
merge_seeds() {
  nice -n 19 "build-fuzz/bin/fuzz_$1" -set_cover_merge=1 -use_counters=0 \
    -max_len="${longest[$1]}" \
    "fuzz/seeds/$1" "build-fuzz/corpus/$1" >"build-fuzz/$1.merge.log" 2>&1 ||
    die "could not merge; see build-fuzz/$1.merge.log"
}

install_packages "${BUILD_PACKAGES[@]}" "${FUZZ_PACKAGES[@]}"
configure_build fuzz
build fuzz

say "fuzzing ${targets[*]} for $minutes minutes"
declare -A runs
for target in "${targets[@]}"; do
  run_target "$target" &
  runs[$target]=$!
done
trap 'kill "${runs[@]}" 2>/dev/null' EXIT
failed=false
for target in "${targets[@]}"; do
  wait "${runs[$target]}" || failed=true
done
trap - EXIT

printf '%-16s %12s %8s %8s %8s %14s %9s\n' \
  target executions per-s edges features corpus findings
for target in "${targets[@]}"; do report "$target"; done
if $merge; then
  for target in "${targets[@]}"; do merge_seeds "$target"; done
fi
if $failed; then
  say "something was found; see build-fuzz/*.log"
  exit 1
fi
