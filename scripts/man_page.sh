#!/usr/bin/env bash
# Makes a manual page from one of the documents in docs/:
#   man_page.sh DOCUMENT DIRECTORY/NAME.SECTION
# `##` headings become sections, `###` headings subsections. A table with two
# columns becomes a list of terms. The date is that of the newest release.
set -euo pipefail

released=$(sed -n '/^ -- / { s/.*>  //p; q }' "${0%/*}/../debian/changelog")
date=$(date -u -d "$released" +%F)
# Links cannot be followed in a manual page: of those to other pages the names
# remain, in bold, and of others the texts.
sed -E -z -e 's/\n##/\n#/g' \
  -e 's/\[([a-z.-]+\([0-9]\))\]\([^)]*\)/**\1**/g' \
  -e 's/\[([^][]*)\]\([^)]*\)/\1/g' "$1" |
  lowdown -tman --parse-no-intraemph --out-no-smarty |
  awk -v page="${2##*/}" -v date="$date" '
    # Code is bold, and its hyphens can be searched for and copied. It can
    # continue on the next line.
    function highlight(text,   part, count, i, font) {
      count = split(text, part, /\\f/)
      for (i = 1; i <= count; i++) {
        if (i > 1) {
          font = substr(part[i], 1, 1)
          in_code = font == "C"
          part[i] = "\\f" (in_code ? "B" : font) substr(part[i], 2)
        }
        if (in_code) gsub(/-/, "\\-", part[i])
        text = i == 1 ? part[i] : text part[i]
      }
      return text
    }

    # A line of the page must not begin with a control character of roff.
    function print_wrapped(text,   at) {
      while (length(text) > 79) {
        for (at = 79; at > 0 && substr(text, at, 2) !~ /^ [^ .'"'"']/; at--);
        if (at == 0) break
        print substr(text, 1, at - 1)
        text = substr(text, at + 1)
      }
      print text
    }

    # The cells of a table are between "T{" and "T}" lines.
    function print_table(   i) {
      if (columns != 2) {
        print ".TS"
        print "tab(|);"
        for (i = 1; i <= columns; i++) printf "lb%s", i < columns ? " " : "\n"
        for (i = 1; i < columns; i++) printf "l "
        print "lx."
      }
      for (i = 1; i <= cells; i++) {
        if (columns == 2 && i > 2) {
          if (i % 2) print ".TP\n" cell[i]
          else print_wrapped(cell[i])
        } else if (columns != 2 && i <= columns) {
          printf "%s%s", cell[i], i < columns ? "|" : "\n"
        } else if (columns != 2) {
          printf "T{\n%s\nT}%s", cell[i], i % columns ? "|" : "\n"
        }
      }
      if (columns != 2) print ".TE"
    }

    BEGIN {
      name = page
      sub(/\.[0-9]$/, "", name)
      printf ".TH %s %s \"%s\" vornlaunch\n", toupper(name), \
        substr(page, length(page)), date
    }

    { gsub(/\\f\(CR/, "\\fC") }  # newer versions of lowdown write this
    { $0 = highlight($0) }
    /^\.TS$/ { in_table = 1; cells = 0; after_heading = 0; next }
    /^\.TE$/ { in_table = 0; print_table(); next }
    in_table && /^lb/ { columns = NF; next }
    in_table && /^(T\{|T\}\|T\{)$/ { cell[++cells] = ""; next }
    in_table && cells && $0 != "T}" {
      cell[cells] = cell[cells] (cell[cells] == "" ? "" : " ") $0
    }
    in_table { next }

    /^\.EX$/ { in_example = 1; print ".RS 4" }
    in_example && !/^\.EX$/ { gsub(/-/, "\\-") }
    in_example { print }
    /^\.EE$/ { in_example = 0; print ".RE" }
    in_example || /^\.EE$/ { next }

    /^\.S[HS]( |$)/ {
      macro = $1
      if (NF == 1) getline
      else sub(/^\.S[HS] /, "")
      if (macro == ".SH") $0 = headings++ ? toupper($0) : "NAME"
      print macro " " $0
      after_heading = 1
      next
    }
    after_heading && /^\.LP$/ { next }
    { after_heading = 0 }
    /^\.IP "\\\(bu"/ { $0 = ".IP \"\\(bu\" 2" }
    /^\.IP "[0-9]+\./ { $0 = ".IP " $2 ($2 ~ /"$/ ? "" : "\"") " 4" }
    { print_wrapped($0) }' >"$2"
