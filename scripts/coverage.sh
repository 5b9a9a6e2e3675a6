#!/usr/bin/env bash
# Counts the branches of the shipped sources that the unit tests and the
# whole-program tests take. Exit status: 1 if they are too few in a component, if
# coverage_not_taken.txt does not list exactly the lines of the launcher with the
# others, or if a test fails.

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
# In few units, so that a short program writes few files.
configure_build coverage -DVORN_REQUIRE_TESTS=ON -DVORN_UNITY=ON
build coverage
find "$directory" -name '*.gcda' -delete
# Tests run the programs as other users, which cannot create the files.
for program in vornctl vornrun; do
  (umask 0 && "$directory/bin/$program" --version >/dev/null)
done

failed=false
pytest=(pytest -q -p no:cacheprovider --build="$directory")
say "unit tests"
ctest --test-dir "$directory" --parallel "$(nproc)" --quiet --output-on-failure ||
  failed=true
say "whole-program tests"
launcher=(tests/system/test_{startup,startup_signals,signals,control,nodes}.py
  tests/system/test_{required,launch_file,log}.py)
# Without the tests that limit the time or the descriptors of a program or compare
# its system calls, since it writes the counters.
mapfile -t companions < <(printf '%s\n' tests/system/test_{vornctl,vornrun,check}*.py |
  grep -vE 'browser|signals')
traced=test_vornrun.py::test_the_settings_are_made_in_an_order_that_works
scarce=test_vornctl_failures.py::test_a_lack_of_descriptors_is_reported_and_hides_nothing
/usr/bin/python3 -m "${pytest[@]}" -n "$(($(nproc) * 4))" --dist loadgroup \
  --deselect "tests/system/$traced" --deselect "tests/system/$scarce" \
  "${launcher[@]}" "${companions[@]}" ||
  failed=true

say "failing system calls"
sweep=("${pytest[@]}" -n "$(($(nproc) * 2))" --long)
/usr/bin/python3 -m "${sweep[@]}" tests/reliability/test_vornctl_faults.py ||
  failed=true
# vornrun has a dynamic linker in this build, whose failures do not count.
/usr/bin/python3 -m "${sweep[@]}" tests/reliability/test_vornrun_faults.py || true

say "branches"
# The branches that a compiler adds for exceptions are not ours.
gcovr --root . --object-directory "$directory" \
  --filter include/ --filter 'tools/[a-z]*/src/' --filter 'lib[a-z]*/' \
  --exclude '.*/tests/' \
  --exclude-throw-branches --exclude-unreachable-branches \
  --branches --txt - --json "$directory/coverage.json" \
  --html-details "$directory/coverage.html" ||
  failed=true
/usr/bin/python3 scripts/check_uncovered.py "$directory/coverage.json" "$wanted" \
  "$directory" || failed=true
say "vornctl.py"
coverage=(/usr/bin/python3 -m coverage)
export COVERAGE_FILE=$directory/python.coverage
"${coverage[@]}" run --branch --include libvornclient/vornctl.py \
  -m "${pytest[@]}" tests/system/test_python_client.py ||
  failed=true
"${coverage[@]}" report --show-missing --fail-under "$wanted" || failed=true
say "line by line: $directory/coverage.html"
if $failed; then exit 1; fi
