#!/usr/bin/env bash
# The fallback forced on with PLUGHOST_CONFINE=fallback: one warning on
# stderr, links out of the root still refused by the per-operation check,
# links inside still followed. --no-follow-links refuses every link.
# `plughost info` names the mechanism in use.
#
#   fallback.sh PLUGHOST
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/script.sh"
plughost=$(absolute "$1")
export TZ=UTC LC_ALL=C
unset PLUGHOST_CONFINE

work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-fallback.XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root
out=$work/outside
mkdir -p "$root/sub" "$out/dir"
printf 'SECRET' >"$out/secret"
printf 'inside' >"$root/file"
printf 'inner' >"$root/sub/inner"
printf 'upload' >"$work/up.txt"
ln -s "$out" "$root/abs"
ln -s ../outside/secret "$root/relf"
ln -s "$out/created" "$root/dangling"
ln -s sub "$root/in"
ln -s file "$root/inf"

run() {
  "$plughost" --root "$root" "$@" >"$work/stdout" 2>"$work/stderr" </dev/null
}

warnings() { grep -c 'not race-free' "$work/stderr"; }

# --- the mechanism in use -------------------------------------------------------------
run info || fail "info: $(cat "$work/stderr")"
if grep -q '^confinement: *landlock (ABI [0-9]\+)$' "$work/stdout"; then
  [ "$(warnings)" -eq 0 ] || fail "a warning with Landlock in use"
elif grep -q '^confinement: *fallback' "$work/stdout"; then
  echo "note: this kernel has no Landlock; the default is the fallback" >&2
else
  fail "info does not name the confinement: $(cat "$work/stdout")"
fi
run --json info
grep -q '"confinement":"\(landlock\|fallback\)"' "$work/stdout" ||
  fail "info --json does not name the confinement: $(cat "$work/stdout")"

export PLUGHOST_CONFINE=fallback
run info
grep -q '^confinement: *fallback' "$work/stdout" || fail "info with the fallback forced"
[ "$(warnings)" -eq 1 ] || fail "info: expected one warning: $(cat "$work/stderr")"
grep -q '^plughost: warning: ' "$work/stderr" || fail "warning not prefixed: $(cat "$work/stderr")"

# --- the fallback still refuses links out, once warned ----------------------------------
for args in "cat abs/secret" "cat relf" "stat relf" "ls abs" "put $work/up.txt abs" \
  "put $work/up.txt --name dangling" "touch dangling" "mkdir abs/made" "rm relf"; do
  # shellcheck disable=SC2086 # the words are meant to split
  run $args
  rc=$?
  [ "$rc" -eq 1 ] || fail "fallback $args: exit $rc"
  grep -q 'outside the storage root' "$work/stderr" || fail "fallback $args: $(cat "$work/stderr")"
  [ "$(warnings)" -eq 1 ] || fail "fallback $args: expected one warning: $(cat "$work/stderr")"
  grep -q SECRET "$work/stdout" && fail "fallback $args: outside content printed"
done
[ "$(cat "$out/secret")" = SECRET ] || fail "outside file changed"
[ -e "$out/created" ] && fail "a dangling link created its target outside"
[ -e "$out/made" ] && fail "mkdir reached outside"

run cat in/inner
[ "$(cat "$work/stdout")" = inner ] || fail "fallback cat in/inner: $(cat "$work/stderr")"
[ "$(warnings)" -eq 1 ] || fail "fallback cat in/inner: expected one warning"
run cat inf
[ "$(cat "$work/stdout")" = inside ] || fail "fallback cat inf: $(cat "$work/stderr")"
unset PLUGHOST_CONFINE

# --- --no-follow-links: every link refused, plain paths fine ------------------------------
for mode in "" fallback; do
  export PLUGHOST_CONFINE=$mode
  for args in "cat inf" "cat in/inner" "ls in" "stat inf" "put $work/up.txt in" "touch inf" \
    "mkdir in/new" "rm inf" "cat abs/secret"; do
    # shellcheck disable=SC2086 # the words are meant to split
    run --no-follow-links $args
    rc=$?
    [ "$rc" -eq 1 ] || fail "--no-follow-links $args (${mode:-default}): exit $rc"
    grep -q 'symbolic link' "$work/stderr" ||
      fail "--no-follow-links $args (${mode:-default}): $(cat "$work/stderr")"
  done
  run --no-follow-links cat file
  [ "$(cat "$work/stdout")" = inside ] || fail "--no-follow-links cat file: $(cat "$work/stderr")"
  run --no-follow-links cat sub/inner
  [ "$(cat "$work/stdout")" = inner ] || fail "--no-follow-links cat sub/inner"
  run --no-follow-links put "$work/up.txt" sub
  [ "$(cat "$root/sub/up.txt" 2>/dev/null)" = upload ] || fail "--no-follow-links put into sub"
  rm -f "$root/sub/up.txt"
done
unset PLUGHOST_CONFINE
[ -L "$root/inf" ] || fail "rm through --no-follow-links removed the link"
[ -e "$root/sub/new" ] && fail "mkdir in/new went through a link"

# An unknown switch value is an error, not a silent fallback.
PLUGHOST_CONFINE=off run cat file
rc=$?
[ "$rc" -ne 0 ] || fail "PLUGHOST_CONFINE=off accepted"
grep -q 'PLUGHOST_CONFINE=off' "$work/stderr" || fail "PLUGHOST_CONFINE=off: $(cat "$work/stderr")"

if [ "$failures" -gt 0 ]; then
  echo "$failures failure(s)" >&2
  exit 1
fi
echo "fallback and --no-follow-links behave"
