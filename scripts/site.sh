#!/usr/bin/env bash
# Builds the web site of the documents.

root=$(dirname -- "$(dirname -- "$(readlink -f -- "${BASH_SOURCE[0]}")")")
# shellcheck source=scripts/common.sh
source "$root/scripts/common.sh"

usage() {
  cat <<TEXT
Usage: scripts/site.sh DIRECTORY

Builds the web site of the documents in DIRECTORY, which must not exist. Exit
status: 0 done, 1 a link is broken or mkdocs.yml lacks a document, 2 it could not be done.
TEXT
}

read_options "" "" "$@"
set -- "${arguments[@]:1}"
[[ $# -eq 1 ]] || die "no directory; see scripts/site.sh --help"
[[ ! -e $1 ]] || die "$1 exists"
site=$(realpath -m -- "$1")
cd -- "$root"

temporary=$(mktemp -d)
trap 'rm -rf "$temporary"' EXIT
chmod 755 "$temporary"  # linkchecker does not run as root
export SITE_SOURCE=$temporary/source
mkdir "$SITE_SOURCE"
# Not only docs/: the documents link to files of other directories.
git ls-files -z '*.md' LICENSE docs examples packaging/container |
  xargs -0 cp --parents -t "$SITE_SOURCE"

# require COMMAND... runs the command, and prints its output if it fails.
require() {
  local said
  if ! said=$("$@" 2>&1) || grep -q 'not included in the "nav"' <<<"$said"; then
    printf '%s\n' "$said" >&2
    exit 1
  fi
}
require mkdocs build --strict --site-dir "$temporary/site"
require linkchecker --config scripts/linkchecker.ini --no-status \
  "$temporary/site/index.html"
mv "$temporary/site" "$site"
