#!/usr/bin/env bash
# plughost over libmemory.so, one command per process: a memory storage lives
# as long as its process, so each command starts on an empty root. What is
# checked is the contract's, not localdisk's answers.
#
#   memory_cli.sh PLUGHOST LIBMEMORY
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../support/script.sh"
plughost=$(realpath "$1")
memory=$(realpath "$2")

export TZ=UTC LC_ALL=C
work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-memory-cli.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/local"

# run NAME EXPECTED_EXIT ARGS...: runs plughost on the memory plug-in with
# the scratch directory as working directory; stdout in $out, stderr in $err.
run() {
  local name=$1 want=$2
  shift 2
  out=$(cd "$work" && "$plughost" --plugin "$memory" "$@" 2>"$work/stderr")
  local code=$?
  err=$(cat "$work/stderr")
  if [[ $code -ne $want ]]; then
    fail "$name: exit $code, expected $want (stdout: $out; stderr: $err)"
  fi
}

expect_line() {  # NAME REGEX TEXT
  if ! grep -Eq -- "$2" <<<"$3"; then
    fail "$1: no line matching '$2' in: $3"
  fi
}

run "df" 0 df
expect_line "df" '^total +[0-9.]+ [KMGT]?i?B$' "$out"
expect_line "df" '^used +0 B' "$out"
expect_line "df" '^free +[0-9.]+ [KMGT]?i?B$' "$out"

run "df --json" 0 --json df
if ! python3 - "$out" 2>/dev/null <<'EOF'; then
import json, sys
d = json.loads(sys.argv[1])
assert d["total"] > 0 and d["used"] == 0 and 0 <= d["free"] <= d["total"], d
EOF
  fail "df --json: figures not sane: $out"
fi

run "info" 0 info
expect_line "info" '^protocol: +memory$' "$out"
expect_line "info" '^type: +memory$' "$out"
expect_line "info" "^plugin: +$memory\$" "$out"

run "ls /" 0 ls /
[[ -z "$out" ]] || fail "ls /: a fresh memory storage lists: $out"
run "ls / --json" 0 --json ls /
[[ "$out" == "[]" ]] || fail "ls / --json: expected [], got: $out"

run "stat /" 0 stat /
expect_line "stat /" '^type: +directory$' "$out"

run "ls of a missing path" 1 ls /missing
expect_line "ls of a missing path" 'FILE_NOT_FOUND' "$err"
run "cat of a missing file" 1 cat /missing
expect_line "cat of a missing file" 'FILE_NOT_FOUND' "$err"
run "get of a missing file" 1 get /missing "$work/local/missing"
[[ -e "$work/local/missing" ]] && fail "get of a missing file created the local file"

printf 'hello\n' >"$work/local/h.txt"
run "put" 0 put "$work/local/h.txt" /
expect_line "put" '/h\.txt \(6 bytes\)' "$out"
run "mkdir" 0 mkdir /d
run "touch creates an empty file" 0 touch /t

# Nothing outlives the process that made it.
run "ls / after put" 0 ls /
[[ -z "$out" ]] || fail "a later process sees: $out"

# No transfer leaves anything in the local directory but what it was given.
leftover=$(find "$work" -mindepth 1 -not -path "$work/local" -not -path "$work/local/h.txt" \
  -not -path "$work/stderr")
[[ -z "$leftover" ]] || fail "files left behind: $leftover"

if [[ $failures -gt 0 ]]; then
  echo "$failures check(s) failed" >&2
  exit 1
fi
echo "ok: plughost over $memory"
