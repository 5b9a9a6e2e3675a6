#!/usr/bin/env bash
# Checks the form of everything; says what is wrong, changes nothing.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"
cd -- "$root"

failed=false
check() {
  say "$1"
  shift
  "$@" || failed=true
}

run_clang_tidy() {
  # The compile commands of Clang's own build; GCC's options would confuse it.
  configure_build clang -DVORN_REQUIRE_TESTS=ON -DVORN_BENCH=ON
  printf '%s\0' "${sources[@]}" |
    xargs -0 -P "$(nproc)" -n 1 clang-tidy-14 -p build-clang --quiet \
      --warnings-as-errors='*' 2> >(grep -v 'warnings\? generated' >&2)
}

only_outputs_write() {
  ! git grep -nE '^[^/]*\b(std::(cout|cerr|clog)|(printf|fprintf|f?puts|putchar|perror) ?\()' \
    -- tools/vornctl/src ':!tools/vornctl/src/output.cpp'
}

git ls-files --error-unmatch README.md >/dev/null 2>&1 ||
  die "the files to check are those that git tracks; this is no git checkout"
mapfile -t cpp < <(git ls-files '*.cpp' '*.h' 'bench/*.c')
mapfile -t sources < <(git ls-files '*.cpp')
mapfile -t shell < <(git ls-files '*.sh' .ci/run examples/demo/bin \
  packaging/container/entrypoint packaging/container/high-pids \
  'debian/*.postinst' 'debian/*.prerm')
mapfile -t python < <(git ls-files '*.py')

check clang-format clang-format-14 --dry-run -Werror "${cpp[@]}"
check shellcheck shellcheck -x "${shell[@]}"
check pyflakes pyflakes3 "${python[@]}"
check "tests named by KEEP comments" /usr/bin/python3 scripts/check_keep_tests.py
check "vornctl writes only by an Output" only_outputs_write
check cppcheck cppcheck --quiet --std=c++17 --language=c++ \
  --enable=warning,performance,portability,style --inline-suppr \
  --suppressions-list=.cppcheck-suppressions --error-exitcode=1 \
  -I libvornlib/include -I tools/vornlaunch/src -I tools/vornctl/src \
  libvornlib/src libvornlib/include tools/vornlaunch/src tools/vornctl/src
check clang-tidy run_clang_tidy
if $failed; then exit 1; fi
