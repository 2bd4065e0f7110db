#!/usr/bin/env bash
# The manual pages have the commands and options that --help has, no more and no fewer.
# usage: manual_pages_test.sh FOLDER PROGRAM…     FOLDER has PROGRAM.1 of each program
set -euo pipefail
folder=$1
shift

# Lines "COMMAND OPTION", of what --help says about a program, COMMAND being empty for the program itself.
of_help() { # PROGRAM [COMMAND…]
  local help subcommands word
  help=$("$@" --help)
  awk -v command="${*:2}" '/^Examples?:/ { exit }
    /^ +(-[A-Za-z],)?--?[A-Za-z0-9]/ { n = split($1, names, ","); for (i = 1; i <= n; i++) print command "\t" names[i] }' <<<"$help" |
    if [ $# -gt 1 ]; then grep -vE '\s(-h|--help)$' || true; else cat; fi
  # Names of subcommands stand two blanks behind the margin, in groups of any title, options with a dash.
  subcommands=$(awk '/^(Positionals|Sections|Examples?):/ { stop = 1; next } /^[A-Z].*:$/ { stop = 0 } !stop && /^  [a-z][a-z0-9-]*  / { print $1 }' <<<"$help")
  for word in $subcommands; do
    printf '%s\t\n' "$(sed 's/^ //' <<<"${*:2} $word")"
    of_help "$@" "$word"
  done
}

# The same of a page: ".It Cm NAME… " begins a command, ".It Fl NAME" is an option of it.
of_page() {
  awk '
    /^\.Sh / { command = ""; in_options = /OPTIONS|COMMANDS|MAKING FIRMWARE/ }
    !in_options { next }
    /^\.It Cm / { command = $3; for (i = 4; i <= NF && $i ~ /^[a-z]/; i++) command = command " " $i; print command "\t" }
    /^\.It Fl / { for (i = 2; i <= NF; i++) if ($i == "Fl") print command "\t-" $(i + 1) }
  ' "$1"
}

# A command that only has subcommands stands with each of them.
with_parents() { awk -F '\t' '{ print } $2 == "" && $1 ~ / / { sub(/ [^ ]*$/, "", $1); print $1 "\t" }' "$@"; }

status=0
for program in "$@"; do
  page=$folder/$(basename "$program").1
  wanted=$(of_help "$program" | with_parents | sort -u)
  # Fewer than this is a --help that is no longer understood here.
  [ "$(wc -l <<<"$wanted")" -ge 2 ] || { echo "$program --help: nothing found"; status=1; }
  diff <(echo "$wanted") <(of_page "$page" | with_parents | sort -u) || { echo "$page differs from --help (<)"; status=1; }
done
exit $status
