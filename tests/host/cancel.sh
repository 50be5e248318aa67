#!/usr/bin/env bash
# Ctrl-C during transfers: SIGINT while `get` reads a huge sparse file sets the
# handle to cancel; the tool exits 130 after the plug-in returns, without a
# crash. The same for `put`, which leaves no partial file behind.
#
#   cancel.sh PLUGHOST
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../support/script.sh"
plughost=$(absolute "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-cancel.XXXXXX")
trap 'kill -9 $pid 2>/dev/null; rm -rf "$work"' EXIT
pid=
mkdir -p "$work/root" "$work/local"
# Sparse, so that it costs no disk; big enough that reading it takes a while.
truncate -s 64G "$work/root/huge.bin" 2>/dev/null || truncate -s 2G "$work/root/huge.bin"

# Waits until the transfer has drawn its first progress line.
wait_for_progress() {
  local file=$1
  for _ in $(seq 1 400); do
    grep -q '%' "$file" 2>/dev/null && return 0
    kill -0 "$pid" 2>/dev/null || return 1
    sleep 0.05
  done
  return 1
}

no_crash() {
  ! grep -qE 'AddressSanitizer|LeakSanitizer|runtime error|Segmentation|Aborted|terminate called' "$1"
}

# get to /dev/null: no disk use, and /dev/null must survive the clean-up.
(cd "$work/local" && exec "$plughost" --root "$work/root" get --progress huge.bin /dev/null \
  >"$work/get.out" 2>"$work/get.err") &
pid=$!
wait_for_progress "$work/get.err" || fail "get did not start"
kill -INT "$pid"
wait "$pid"
rc=$?
[ $rc -eq 130 ] || fail "get: exit $rc, expected 130"
grep -q 'plughost: get huge.bin: cancelled$' "$work/get.err" || fail "get: no cancel message"
no_crash "$work/get.err" || fail "get crashed"
[ -c /dev/null ] || fail "/dev/null was touched"

# get to a local file: the partial copy is removed.
(cd "$work/local" && exec "$plughost" --root "$work/root" get --progress huge.bin partial.bin \
  >"$work/get2.out" 2>"$work/get2.err") &
pid=$!
wait_for_progress "$work/get2.err" || fail "get to a file did not start"
kill -INT "$pid"
wait "$pid"
rc=$?
[ $rc -eq 130 ] || fail "get to a file: exit $rc, expected 130"
[ ! -e "$work/local/partial.bin" ] || fail "partial local copy left behind"
no_crash "$work/get2.err" || fail "get to a file crashed"

# put of a huge sparse local file: cancelled at once, nothing left behind.
truncate -s 64G "$work/local/huge-up.bin" 2>/dev/null || truncate -s 2G "$work/local/huge-up.bin"
(cd "$work/local" && exec "$plughost" --root "$work/root" put --progress huge-up.bin \
  >"$work/put.out" 2>"$work/put.err") &
pid=$!
wait_for_progress "$work/put.err" || fail "put did not start"
kill -INT "$pid"
wait "$pid"
rc=$?
[ $rc -eq 130 ] || fail "put: exit $rc, expected 130"
grep -q 'plughost: put /huge-up.bin: cancelled$' "$work/put.err" || fail "put: no cancel message"
[ ! -e "$work/root/huge-up.bin" ] || fail "partial upload left behind"
no_crash "$work/put.err" || fail "put crashed"

if [ $failures -ne 0 ]; then
  for f in get.err get2.err put.err; do
    echo "--- $f" >&2
    tr '\r' '\n' <"$work/$f" | tail -5 >&2
  done
  exit 1
fi
echo "cancel: exit 130, no crash, nothing left behind"
