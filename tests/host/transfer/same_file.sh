#!/usr/bin/env bash
# A file copied onto itself: `plughost put report.txt` run inside the root
# and `plughost get notes.txt` there name one file as source and target.
# Like cp, plughost refuses ("... are the same file", exit 1) and the file
# keeps every byte; a hard link counts as the same file too.
#
#   same_file.sh PLUGHOST
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/script.sh"
plughost=$(absolute "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-same.XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root/docs"
printf 'the report\n' >"$root/report.txt"
printf 'my notes\n' >"$root/notes.txt"
printf 'deep\n' >"$root/docs/deep.txt"
ln "$root/notes.txt" "$work/notes-link.txt"

# Runs plughost in `dir`; stdout+stderr in $work/out, the status in $status.
run_in() {
  local dir=$1
  shift
  (cd "$dir" && "$plughost" "$@") >"$work/out" 2>&1
  status=$?
}

check() {
  local what=$1 message=$2 file=$3 content=$4
  [ "$status" -eq 1 ] || fail "$what: exit $status, expected 1"
  grep -qxF "plughost: $message" "$work/out" || fail "$what: said: $(cat "$work/out")"
  [ "$(cat "$file")" = "$content" ] || fail "$what: the file now holds: $(cat "$file")"
  [ -z "$(find "$root" -name '.*.plughost-*')" ] || fail "$what: temporary files left"
}

run_in "$root" put report.txt
check "put inside the root" "put: 'report.txt' and '/report.txt' are the same file" \
  "$root/report.txt" "the report"

run_in "$root" get notes.txt
check "get inside the root" "get: '/notes.txt' and 'notes.txt' are the same file" \
  "$root/notes.txt" "my notes"

run_in "$root/docs" --root .. get docs/deep.txt
check "get into its own directory" "get: '/docs/deep.txt' and 'deep.txt' are the same file" \
  "$root/docs/deep.txt" "deep"

run_in "$root/docs" --root .. get docs/deep.txt .
check "get into ." "get: '/docs/deep.txt' and './deep.txt' are the same file" \
  "$root/docs/deep.txt" "deep"

run_in "$work" --root root put notes-link.txt / --name notes.txt
check "put of a hard link" "put: 'notes-link.txt' and '/notes.txt' are the same file" \
  "$root/notes.txt" "my notes"

run_in "$work" --root root get notes.txt notes-link.txt
check "get onto a hard link" "get: '/notes.txt' and 'notes-link.txt' are the same file" \
  "$root/notes.txt" "my notes"

# Not the same file: a copy under another name inside the root works.
run_in "$root" put report.txt docs
[ "$status" -eq 0 ] || fail "put into another directory: exit $status: $(cat "$work/out")"
[ "$(cat "$root/docs/report.txt")" = "the report" ] || fail "put into another directory: content"
run_in "$root" get notes.txt copy.txt
[ "$status" -eq 0 ] || fail "get to another name: exit $status: $(cat "$work/out")"
[ "$(cat "$root/copy.txt")" = "my notes" ] || fail "get to another name: content"

[ $failures -eq 0 ] || exit 1
echo "same file: put and get onto themselves refused, nothing lost"
