#!/usr/bin/env bash
# The progress bar in a real pseudo-terminal (util-linux `script`): drawn and
# cleared when stderr is a terminal, absent when it is piped, and forced on or
# off with --progress / --no-progress.
#
#   pty_progress.sh PLUGHOST [MEMORY_PLUGIN]
#
# With MEMORY_PLUGIN, the bar of a put is checked on that plug-in too (its
# storage lives in the process, so only the upload itself can be seen).
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../support/script.sh"
plughost=$(absolute "$1")
memory=${2:-}
work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-pty.XXXXXX")
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/root" "$work/local"
head -c $((24 * 1024 * 1024)) /dev/urandom >"$work/root/big.bin"
cp "$work/root/big.bin" "$work/local/up.bin"

# Runs a command with a terminal as stdin/stdout/stderr; what the terminal
# showed goes to $2. The command's own stdout is redirected to a file, so the
# capture holds stderr only.
on_terminal() {
  local command=$1 capture=$2
  script -qfec "$command" /dev/null >"$capture" 2>&1 </dev/null
}

ends_cleared() { [ "$(tail -c 4 "$1" | od -An -tx1 | tr -d ' \n')" = 0d1b5b4b ]; }

# 1. get on a terminal: drawn (name, percent, rate) and cleared at the end.
on_terminal "cd '$work/local' && '$plughost' --root '$work/root' get big.bin got.bin >'$work/get.out'" \
  "$work/tty_get.txt"
rc=$?
[ $rc -eq 0 ] || fail "get on a terminal exited $rc"
cmp -s "$work/root/big.bin" "$work/local/got.bin" || fail "get on a terminal copied wrongly"
grep -q 'big.bin' "$work/tty_get.txt" || fail "no bar on the terminal (get)"
grep -q '%' "$work/tty_get.txt" || fail "no percentage on the terminal (get)"
grep -q 'MiB/s\|KiB/s\|GiB/s\| B/s' "$work/tty_get.txt" || fail "no rate on the terminal (get)"
ends_cleared "$work/tty_get.txt" || fail "bar not cleared at the end (get)"
grep -q '24.0 MiB' "$work/tty_get.txt" || fail "total size missing from the bar"
grep -q 'big.bin -> got.bin' "$work/get.out" || fail "summary missing on stdout"

# 2. put on a terminal, the same.
on_terminal "cd '$work/local' && '$plughost' --root '$work/root' put up.bin >'$work/put.out'" \
  "$work/tty_put.txt"
rc=$?
[ $rc -eq 0 ] || fail "put on a terminal exited $rc"
cmp -s "$work/local/up.bin" "$work/root/up.bin" || fail "put on a terminal copied wrongly"
grep -q 'up.bin' "$work/tty_put.txt" || fail "no bar on the terminal (put)"
ends_cleared "$work/tty_put.txt" || fail "bar not cleared at the end (put)"

# 3. --no-progress on a terminal: nothing at all on stderr.
on_terminal "cd '$work/local' && '$plughost' --root '$work/root' get --no-progress big.bin quiet.bin >/dev/null" \
  "$work/tty_quiet.txt"
[ ! -s "$work/tty_quiet.txt" ] || fail "--no-progress still drew on the terminal"

# 4. Piped stderr: no bar.
(cd "$work/local" && "$plughost" --root "$work/root" get big.bin piped.bin >/dev/null 2>"$work/piped.err")
rc=$?
[ $rc -eq 0 ] || fail "piped get exited $rc"
[ ! -s "$work/piped.err" ] || fail "bar drawn although stderr is not a terminal"
(cd "$work/local" && "$plughost" --root "$work/root" put up.bin --name up2.bin >/dev/null 2>"$work/piped_put.err")
[ ! -s "$work/piped_put.err" ] || fail "bar drawn although stderr is not a terminal (put)"

# 5. --progress forces the bar into a pipe, and it is still cleared.
(cd "$work/local" && "$plughost" --root "$work/root" get --progress big.bin forced.bin >/dev/null 2>"$work/forced.err")
grep -q '%' "$work/forced.err" || fail "--progress did not draw into a pipe"
ends_cleared "$work/forced.err" || fail "forced bar not cleared"
draws=$(tr '\r' '\n' <"$work/forced.err" | grep -c '%')
[ "$draws" -ge 1 ] || fail "no draws counted"

# 6. put on a terminal into the memory plug-in: drawn from the plug-in's own
# progress reports and cleared.
if [ -n "$memory" ]; then
  on_terminal "cd '$work/local' && '$plughost' --plugin '$memory' put up.bin >'$work/memory.out'" \
    "$work/tty_memory.txt"
  rc=$?
  [ $rc -eq 0 ] || fail "put into libmemory.so on a terminal exited $rc"
  grep -q 'up.bin' "$work/tty_memory.txt" || fail "no bar on the terminal (put, memory)"
  grep -q '%' "$work/tty_memory.txt" || fail "no percentage on the terminal (put, memory)"
  ends_cleared "$work/tty_memory.txt" || fail "bar not cleared at the end (put, memory)"
  grep -q "up.bin -> /up.bin ($((24 * 1024 * 1024)) bytes)" "$work/memory.out" ||
    fail "summary missing on stdout (put, memory): $(cat "$work/memory.out")"
fi

if [ $failures -ne 0 ]; then
  echo "--- terminal capture (get):" >&2
  od -c "$work/tty_get.txt" | head -20 >&2
  exit 1
fi
echo "progress bar: drawn and cleared on a terminal, absent when piped"
