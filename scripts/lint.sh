#!/usr/bin/env bash
# Checks the form of the tracked files; prints the errors and changes nothing.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

# The analyzer takes up to a minute per source.
MOST_ANALYZED=15

usage() {
  cat <<TEXT
Usage: scripts/lint.sh [--full]

Checks the form of the tracked files. The static analyzer of clang-tidy
(clang-analyzer-*) checks the sources of the programs and libraries that have
changed, with or without their header, since the merge base with origin/main, or
since HEAD~1 if there is none; but none if more than $MOST_ANALYZED have changed. Its other
checks skip the directories of tests, fuzz targets and measurements without a change.
Exit status: 0 no error, 1 errors, 2 it could not be run.

  --full      run clang-tidy on everything, as before a release
  -h, --help  print this text
TEXT
}

read_options "" full "$@"
full=false
if [[ ${arguments[0]} == --full ]]; then full=true; fi

failed=false
check() {
  say "$1"
  shift
  "$@" || failed=true
}

# Prints the files changed since the base, or fails if there is no base: a
# shallow clone or a first commit.
changed_files() {
  local base
  base=$(git merge-base HEAD origin/main 2>/dev/null) || base=HEAD~1
  # On the main branch itself, the last commit is the change.
  if [[ $base == "$(git rev-parse HEAD)" ]]; then base=HEAD~1; fi
  git diff --name-only "$base" -- 2>/dev/null
}

# Prints the sources of our programs and libraries that the analyzer checks, not those
# of tests, which take minutes.
sources_to_analyze() {
  local changed file sources
  if $full || ! changed=$(changed_files); then
    git ls-files ':(glob)**/src/**/*.cpp'
    return
  fi
  mapfile -t sources < <(while read -r file; do
    case $file in
      */src/*.cpp | */src/*.h) git ls-files -- "${file%.*}.cpp" ;;
    esac
  done <<<"$changed" | sort -u)
  if [[ ${#sources[@]} -gt $MOST_ANALYZED ]]; then
    say "no analyzer: ${#sources[@]} sources have changed; run scripts/lint.sh --full" >&2
  elif [[ ${#sources[@]} -gt 0 ]]; then
    printf '%s\n' "${sources[@]}"
  fi
}

# Prints the units of the unity build that clang-tidy checks. Those of tests take
# long, mostly in the headers of GoogleTest.
units_to_check() {
  local unit directory changed=
  $full || changed=$(changed_files) || true
  while read -r _ unit; do
    directory=${unit#build-tidy/unity/}
    directory=${directory%%/CMakeFiles/*}
    case $directory in
      */tests | fuzz | bench)
        [[ -z $changed || $'\n'$changed == *$'\n'"$directory"/* ]] || continue
        ;;
    esac
    printf '%s\n' "$unit"
    # The largest first, so that none of them is the last.
  done < <(find build-tidy/unity -name 'unity_*.cxx' -printf '%s %p\n' | sort -nr)
}

# tidy DIRECTORY [CLANG-TIDY-OPTION...] checks the files named on standard input
# with the compile commands of DIRECTORY.
tidy() {
  xargs -r -d '\n' -P "$(nproc)" -n 1 clang-tidy -p "$1" --quiet \
    --warnings-as-errors='*' "${@:2}" 2> >(grep -v 'warnings\? generated' >&2)
}

# The compile commands of Clang; GCC's options would confuse clang-tidy.
run_clang_tidy() {
  local no_analyzer='-clang-analyzer-*' no_units='-bugprone-suspicious-include'
  # A third of the time for a check that cppcheck has too.
  local checked_by_cppcheck='-performance-unnecessary-value-param'
  local status=0 options=(-DVORN_REQUIRE_TESTS=ON -DVORN_BENCH=ON)
  configure_build clang -B build-tidy/sources "${options[@]}"
  sources_to_analyze |
    tidy build-tidy/sources --checks='-*,clang-analyzer-*' || status=1
  # The checks take most of their time in the headers of libraries; in a unity
  # build, which includes sources, they see each header once per target.
  configure_build clang -B build-tidy/unity -DCMAKE_UNITY_BUILD=ON \
    -DCMAKE_UNITY_BUILD_BATCH_SIZE=100 "${options[@]}"
  units_to_check |
    tidy build-tidy/unity --checks="$no_analyzer,$no_units,$checked_by_cppcheck" ||
    status=1
  return "$status"
}

build_site() (
  directory=$(mktemp -d)
  trap 'rm -rf "$directory"' EXIT
  scripts/site.sh "$directory/site"
)

# The text that a unit test expects from vornctl.
check_metrics() {
  promtool check metrics <tools/vornctl/tests/data/metrics.prom
}

only_outputs_write() {
  ! git grep -nE '^[^/]*\b(std::(cout|cerr|clog)|(printf|fprintf|f?puts|putchar|perror) ?\()' \
    -- tools/vornctl/src ':!tools/vornctl/src/output/output.cpp'
}

git ls-files --error-unmatch README.md >/dev/null 2>&1 ||
  die "the files to check are those that git tracks; this is not a git checkout"
mapfile -t cpp < <(git ls-files '*.cpp' '*.h' 'bench/*.c')
mapfile -t shell < <(git ls-files '*.sh' .ci/run examples/demo/bin \
  packaging/container/entrypoint packaging/container/high-pids \
  'debian/*.postinst' 'debian/*.prerm')
mapfile -t python < <(git ls-files '*.py')
mapfile -t prose < <(git ls-files ':!fuzz/seeds' ':!bench/*.json')

check clang-format "$CLANG_FORMAT" --dry-run -Werror "${cpp[@]}"
check shellcheck shellcheck -x "${shell[@]}"
check pyflakes pyflakes3 "${python[@]}"
check "tests named by KEEP comments" /usr/bin/python3 scripts/check_keep_tests.py
check "directions of includes" /usr/bin/python3 scripts/check_layers.py
check "vornctl writes only by an Output" only_outputs_write
check "plain English" /usr/bin/python3 scripts/prose_lint.py
check "alert rules" promtool test rules packaging/prometheus/vornlaunch.rules.test.yml
check metrics check_metrics
check codespell codespell --ignore-words scripts/codespell_ignore.txt "${prose[@]}"
check "links of documents" build_site
check cppcheck cppcheck --quiet --std=c++17 --language=c++ \
  --enable=warning,performance,portability,style --inline-suppr \
  --suppressions-list=.cppcheck-suppressions --error-exitcode=1 \
  -I include -I libvornlib/include -I libvornclient/src -I libvornrun/src \
  -I tools/vornlaunch/src -I tools/vornctl/src -I tools/vornrun/src \
  include libvornlib/src libvornlib/include libvornclient/src libvornrun/src \
  tools/vornlaunch/src tools/vornctl/src tools/vornrun/src
check clang-tidy run_clang_tidy
if $failed; then exit 1; fi
