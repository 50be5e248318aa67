#!/usr/bin/env bash
# put and get interrupted by SIGINT (Ctrl-C), SIGTERM and SIGKILL at several
# moments: 50 ms after the start, at the first progress line, and later in
# the transfer. The target name always holds the complete old or the
# complete new file; SIGINT and SIGTERM leave nothing else behind (exit 130
# and 143), SIGKILL leaves at most one temporary file, which `plughost
# cleanup` then finds and removes.
#
#   interrupt.sh PLUGHOST
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/script.sh"
plughost=$(absolute "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-interrupt.XXXXXX")
pid=
trap '[ -n "$pid" ] && kill -9 "$pid" 2>/dev/null; rm -rf "$work"' EXIT
root=$work/root
local_dir=$work/local
mkdir -p "$root" "$local_dir"

# Big enough that a transfer takes a while, sparse so that the source costs
# no disk (the copies the transfers make are real, and removed).
size=$((1024 * 1024 * 1024))
truncate -s "$size" "$local_dir/big.bin"
truncate -s "$size" "$root/big.bin"
printf 'the old version\n' >"$work/old"

runs=0
interrupted=0

# Starts "$@" in the background (its stderr in $work/err) and sends `signal`
# at `moment`: 50ms, progress (the first progress line), later (0.3 s after it).
interrupt() {
  local signal=$1 moment=$2
  shift 2
  : >"$work/err"
  # A background job of a script starts with SIGINT ignored; a shell user's
  # Ctrl-C reaches a program that has the default action.
  env --default-signal=INT "$@" >"$work/out" 2>"$work/err" &
  pid=$!
  case $moment in
    50ms) sleep 0.05 ;;
    progress | later)
      for _ in $(seq 1 400); do
        grep -q '%' "$work/err" 2>/dev/null && break
        kill -0 "$pid" 2>/dev/null || break
        sleep 0.01
      done
      [ "$moment" = later ] && sleep 0.3
      ;;
  esac
  kill -s "$signal" "$pid" 2>/dev/null
  { wait "$pid"; } 2>/dev/null
  status=$?
  pid=
  [ "$status" -ne 0 ] && interrupted=$((interrupted + 1))
  runs=$((runs + 1))
}

expected_status() {
  case $1 in
    INT) echo 130 ;;
    TERM) echo 143 ;;
    KILL) echo 137 ;;
  esac
}

# After a transfer ended by `signal` ($status, $state and $what set): a
# transfer that finished left the new file, one that was stopped ended with
# the signal's status and left the old file.
check_outcome() {
  if [ "$status" -eq 0 ]; then
    [ "$state" = new ] || fail "$what: exit 0 but the file is $state"
  else
    [ "$status" -eq "$(expected_status "$signal")" ] ||
      fail "$what: exit $status, expected $(expected_status "$signal")"
    [ "$state" = old ] || fail "$what: the file is $state, expected the old one"
  fi
}

# The content of $1 is the old version or the complete new one ($2).
old_or_new() {
  local file=$1 new=$2
  if cmp -s "$file" "$work/old"; then
    echo old
  elif [ "$(stat -c %s "$file" 2>/dev/null)" = "$(stat -c %s "$new")" ] && cmp -s "$file" "$new"; then
    echo new
  else
    echo mixed
  fi
}

temporaries() { find "$1" -maxdepth 1 -name '.*.plughost-*.partial' | wc -l; }

for signal in INT TERM KILL; do
  for moment in 50ms progress later; do
    what="put, SIG$signal at $moment"
    cp "$work/old" "$root/existing"
    interrupt "$signal" "$moment" "$plughost" --root "$root" --progress put "$local_dir/big.bin" / \
      --name existing
    state=$(old_or_new "$root/existing" "$local_dir/big.bin")
    left=$(temporaries "$root")
    check_outcome
    if [ "$signal" = KILL ]; then
      [ "$left" -le 1 ] || fail "$what: $left temporary files"
    else
      [ "$left" -eq 0 ] || fail "$what: $left temporary files left"
      if [ "$status" -ne 0 ] && [ "$moment" != 50ms ]; then
        grep -q "put /existing: cancelled; the existing file was kept" "$work/err" ||
          fail "$what: no message saying the file was kept"
      fi
    fi
    # Whatever a kill left, cleanup removes; the old or new file stays.
    "$plughost" --root "$root" cleanup --min-age 0 >"$work/cleanup.out" 2>&1 ||
      fail "$what: cleanup failed: $(cat "$work/cleanup.out")"
    [ "$(temporaries "$root")" -eq 0 ] || fail "$what: cleanup left a temporary file"
    [ "$(old_or_new "$root/existing" "$local_dir/big.bin")" = "$state" ] ||
      fail "$what: cleanup changed the file"
  done
done

for signal in INT TERM KILL; do
  for moment in 50ms progress later; do
    what="get, SIG$signal at $moment"
    cp "$work/old" "$local_dir/existing"
    interrupt "$signal" "$moment" "$plughost" --root "$root" --progress get big.bin \
      "$local_dir/existing"
    state=$(old_or_new "$local_dir/existing" "$root/big.bin")
    check_outcome
    # An unnamed temporary file (O_TMPFILE) leaves nothing, even when killed.
    names=$(find "$local_dir" -mindepth 1 -maxdepth 1 -printf '%f\n' | sort | tr '\n' ' ')
    [ "$names" = "big.bin existing " ] || fail "$what: the local directory holds: $names"
  done
done

# The message of a cancelled get over an existing file.
cp "$work/old" "$local_dir/existing"
interrupt INT later "$plughost" --root "$root" --progress get big.bin "$local_dir/existing"
if [ "$status" -eq 130 ]; then
  grep -q "get big.bin: cancelled; the existing file was kept" "$work/err" ||
    fail "get: no message saying the file was kept: $(tr '\r' '\n' <"$work/err" | tail -2)"
fi

# A killed put leaves a temporary file that cleanup lists, keeps while it is
# recent, and removes.
cp "$work/old" "$root/existing"
interrupt KILL later "$plughost" --root "$root" --progress put "$local_dir/big.bin" / --name existing
if [ "$(temporaries "$root")" -eq 1 ]; then
  "$plughost" --root "$root" cleanup --dry-run --min-age 0 >"$work/dry" 2>&1
  grep -qE '^would remove /\.existing\.plughost-[A-Za-z0-9]{6}\.partial \([0-9]+ bytes\)$' \
    "$work/dry" || fail "cleanup --dry-run: $(cat "$work/dry")"
  [ "$(temporaries "$root")" -eq 1 ] || fail "cleanup --dry-run removed the file"
  "$plughost" --root "$root" cleanup >"$work/recent" 2>&1
  grep -q '^skipped /\.existing\.plughost-.*: modified less than 60 s ago' "$work/recent" ||
    fail "cleanup of a recent file: $(cat "$work/recent")"
  [ "$(temporaries "$root")" -eq 1 ] || fail "cleanup removed a recent file"
  "$plughost" --root "$root" --json cleanup --min-age 0 >"$work/json" 2>&1
  grep -q '"action":"removed"' "$work/json" || fail "cleanup --json: $(cat "$work/json")"
  [ "$(temporaries "$root")" -eq 0 ] || fail "cleanup left the file"
  [ "$(old_or_new "$root/existing" "$local_dir/big.bin")" = old ] || fail "cleanup touched existing"
else
  fail "a put killed mid-transfer left $(temporaries "$root") temporary files, expected 1"
fi

# Most runs must really have been interrupted, or nothing was tested.
[ $((interrupted * 4)) -ge $((runs * 3)) ] || fail "only $interrupted of $runs runs were interrupted"
if [ $failures -ne 0 ]; then
  echo "--- last stderr" >&2
  tr '\r' '\n' <"$work/err" | tail -5 >&2
  exit 1
fi
echo "interrupted $interrupted of $runs runs"
echo "interrupt: put and get keep the old or the complete new file under SIGINT, SIGTERM, SIGKILL"
