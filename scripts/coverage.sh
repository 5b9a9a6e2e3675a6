#!/usr/bin/env bash
# Counts the branches of the sources that the unit tests and the whole-program
# tests take. Exit status: 1 if they are too few, if coverage_not_taken.txt does
# not list exactly the lines with the others, or if a test fails.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

wanted=95  # percent
directory=build-coverage

# The programs write their counters into the build directory.
[[ $root/ != /tmp/* ]] ||
  die "the checkout must not be in /tmp, which the tests replace by their own"

install_packages "${BUILD_PACKAGES[@]}" "${TEST_PACKAGES[@]}" \
  "${COVERAGE_PACKAGES[@]}"
configure_build coverage -DVORN_REQUIRE_TESTS=ON
build coverage
find "$directory" -name '*.gcda' -delete

failed=false
say "unit tests"
ctest --test-dir "$directory" --parallel "$(nproc)" --quiet --output-on-failure ||
  failed=true
say "whole-program tests"
launcher=(tests/system/test_{startup,startup_signals,signals,control,nodes}.py
  tests/system/test_{required,launch_file,log}.py)
/usr/bin/python3 -m pytest -q -p no:cacheprovider -n "$(($(nproc) * 4))" \
  --build="$directory" "${launcher[@]}" ||
  failed=true

say "branches"
# The branches that a compiler adds for exceptions are not ours.
gcovr --root . --object-directory "$directory" \
  --filter include/ --filter tools/vornlaunch/src/ --filter libvornlib/ \
  --exclude libvornlib/tests/ \
  --exclude-throw-branches --exclude-unreachable-branches \
  --branches --txt - --json "$directory/coverage.json" \
  --html-details "$directory/coverage.html" --fail-under-branch "$wanted" ||
  failed=true
/usr/bin/python3 scripts/check_uncovered.py "$directory/coverage.json" ||
  failed=true
say "line by line: $directory/coverage.html"
if $failed; then exit 1; fi
