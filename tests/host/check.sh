#!/usr/bin/env bash
# plughost check: the conformance suite from the command line. It passes on
# both plug-ins of the project with at least 40 checks and leaves the storage
# as it found it, fails (exit 1) on a broken plug-in, and refuses bad usage
# (exit 2) before it touches anything.
#
#   check.sh PLUGHOST MEMORY_PLUGIN BROKEN_PLUGIN
#
# BROKEN_PLUGIN is the memory plug-in with a listing that drops an entry.
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../support/script.sh"
plughost=$(absolute "$1")
memory=$(absolute "$2")
broken=$(absolute "$3")
work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-check.XXXXXX")
trap 'rm -rf "$work"' EXIT

# run NAME ARGS...: runs plughost in $work/run, output in $work/NAME.{out,err};
# sets $rc.
run() {
  local name=$1
  shift
  (cd "$work/run" && "$plughost" "$@") >"$work/$name.out" 2>"$work/$name.err"
  rc=$?
}

# expect_pass NAME: exit 0 and a closing line "N passed, 0 failed, 0 skipped"
# with N >= 40.
expect_pass() {
  local name=$1 last
  [ "$rc" -eq 0 ] || fail "$name: exit $rc, expected 0: $(grep -m3 FAIL "$work/$name.out")"
  last=$(tail -n 1 "$work/$name.out")
  if [[ $last =~ ^([0-9]+)\ passed,\ 0\ failed,\ 0\ skipped$ ]]; then
    [ "${BASH_REMATCH[1]}" -ge 40 ] || fail "$name: only ${BASH_REMATCH[1]} checks"
  else
    fail "$name: closing line \"$last\""
  fi
  if grep -qvE '^(ok  |FAIL|skip) ' <(sed '$d' "$work/$name.out"); then
    fail "$name: a line that is not one check's"
  fi
}

expect_usage() {
  local name=$1
  [ "$rc" -eq 2 ] || fail "$name: exit $rc, expected 2"
  [ -s "$work/$name.err" ] || fail "$name: no message on stderr"
  [ ! -s "$work/$name.out" ] || fail "$name: output on stdout: $(head -n 3 "$work/$name.out")"
}

# listing DIR: every entry below DIR with its size, to compare before/after.
listing() { (cd "$1" && find . -printf '%p %s %y\n' | sort); }

mkdir -p "$work/run" "$work/root/keep"
printf 'untouched\n' >"$work/root/keep/file.txt"
printf 'top\n' >"$work/root/top.txt"
before=$(listing "$work/root")

# The localdisk plug-in (the default one) on a temporary root.
run localdisk --root "$work/root" check
expect_pass localdisk
[ "$(listing "$work/root")" = "$before" ] || fail "localdisk: the root changed"
[ -z "$(ls -A "$work/run")" ] || fail "localdisk: wrote into the working directory"

# Global options after the subcommand's name, and -o handed to the plug-in.
run after check --root "$work/root" --plugin "$(dirname "$plughost")/liblocaldisk.so" -o pid=x
expect_pass after

# The memory plug-in, named relative to the working directory.
cp "$memory" "$work/libmemory.so"
run memory --plugin ../libmemory.so check
expect_pass memory
[ -z "$(ls -A "$work/run")" ] || fail "memory: wrote into the working directory"

# --dir names the scratch directory; --json gives one document.
run json --json --plugin "$memory" check --dir conformance-scratch
[ "$rc" -eq 0 ] || fail "json: exit $rc"
grep -q '"failed" : 0' "$work/json.out" || fail "json: no \"failed\" : 0"
grep -q '"passed" : [1-9][0-9]' "$work/json.out" || fail "json: no passed count"
grep -q '"name" : "list.root"' "$work/json.out" || fail "json: no check list.root"
if command -v python3 >/dev/null; then
  python3 -m json.tool "$work/json.out" >/dev/null || fail "json: not one JSON document"
fi

# An existing --dir is refused, and left as it was.
run existing --root "$work/root" check --dir keep
[ "$rc" -eq 1 ] || fail "existing: exit $rc, expected 1"
grep -q '^FAIL ' "$work/existing.out" || fail "existing: no FAIL line"
[ "$(listing "$work/root")" = "$before" ] || fail "existing: the root changed"

# A plug-in that breaks the contract: it loads and passes the rest, and the
# check of the listing says what it expected and what came back.
[ -f "$broken" ] || fail "broken: $broken is missing"
run broken --plugin "$broken" check
[ "$rc" -eq 1 ] || fail "broken: exit $rc, expected 1"
grep -qE '^[0-9]+ passed, [1-9][0-9]* failed, [0-9]+ skipped$' "$work/broken.out" ||
  fail "broken: closing line \"$(tail -n 1 "$work/broken.out")\""
grep -q '^FAIL list\.entries_once: .*expected once' "$work/broken.out" ||
  fail "broken: list.entries_once did not fail: $(grep -m3 FAIL "$work/broken.out")"
grep -q '^ok   list\.root' "$work/broken.out" || fail "broken: list.root did not pass"

# A plug-in that cannot be loaded fails every check that needs it.
run missing --plugin "$work/no-such-plugin.so" check
[ "$rc" -eq 1 ] || fail "missing: exit $rc, expected 1"

# Usage errors.
run bogus check --bogus
expect_usage bogus
run dir_escape --root "$work/root" check --dir ../x
expect_usage dir_escape
run dir_slash --root "$work/root" check --dir a/b
expect_usage dir_slash
run no_root --root "$work/no-such-dir" check
expect_usage no_root
run bad_option --root "$work/root" -o novalue check
expect_usage bad_option
run extra check extra-argument
expect_usage extra
[ "$(listing "$work/root")" = "$before" ] || fail "usage errors changed the root"

if [ "$failures" -ne 0 ]; then
  echo "$failures failure(s)" >&2
  exit 1
fi
echo "check: ok"
