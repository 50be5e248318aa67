#!/usr/bin/env bash
# A loop swaps a file inside the root for a link to an outside file while
# `plughost cat` and `plughost put` run on that name. With Landlock the kernel
# checks where each open lands: no run may read or overwrite the outside
# file. Skipped (77) where the kernel has no Landlock.
#
#   race.sh PLUGHOST [CAT_RUNS] [PUT_RUNS]
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/script.sh"
plughost=$(absolute "$1")
cat_runs=${2:-200}
put_runs=${3:-100}
export TZ=UTC LC_ALL=C
unset PLUGHOST_CONFINE

work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-race.XXXXXX")
swapper=
cleanup() {
  [ -n "$swapper" ] && kill "$swapper" 2>/dev/null && wait "$swapper" 2>/dev/null
  rm -rf "$work"
}
trap cleanup EXIT
root=$work/root
out=$work/outside
mkdir -p "$root" "$out"
printf 'SECRET' >"$out/secret"
printf 'VICTIM' >"$out/victim"
printf 'inside' >"$root/f"
printf 'PUT' >"$work/src.txt"

"$plughost" --root "$root" info >"$work/info" 2>&1
if ! grep -q '^confinement: *landlock' "$work/info"; then
  echo "SKIP: no Landlock confinement here: $(grep confinement "$work/info")"
  exit 77
fi

# Swaps $root/$1 between a regular file and a link to $2, each with one rename.
swap_loop() {
  local name=$1 target=$2
  while :; do
    printf 'inside' >"$root/.file-$name"
    mv -Tf "$root/.file-$name" "$root/$name"
    ln -sfn "$target" "$root/.link-$name"
    mv -Tf "$root/.link-$name" "$root/$name"
  done
}

# --- cat ----------------------------------------------------------------------------
swap_loop f "$out/secret" &
swapper=$!
escapes=0 inside=0 refused=0
for _ in $(seq 1 "$cat_runs"); do
  if "$plughost" --root "$root" cat f >"$work/stdout" 2>"$work/stderr"; then
    :
  fi
  content=$(cat "$work/stdout")
  case $content in
    *SECRET*) escapes=$((escapes + 1)) ;;
    inside) inside=$((inside + 1)) ;;
    *) refused=$((refused + 1)) ;;
  esac
done
kill "$swapper"
wait "$swapper" 2>/dev/null
swapper=
echo "cat: $cat_runs runs: $escapes escapes, $inside read the inside file, $refused refused"
[ "$escapes" -eq 0 ] || fail "cat read the outside file $escapes times"

# --- put ----------------------------------------------------------------------------
swap_loop g "$out/victim" &
swapper=$!
stored=0 refused=0
for _ in $(seq 1 "$put_runs"); do
  if "$plughost" --root "$root" put --no-progress "$work/src.txt" --name g >/dev/null 2>&1; then
    stored=$((stored + 1))
  else
    refused=$((refused + 1))
  fi
  [ "$(cat "$out/victim")" = VICTIM ] || break
done
kill "$swapper"
wait "$swapper" 2>/dev/null
swapper=
echo "put: $put_runs runs: $stored stored, $refused refused"
[ "$(cat "$out/victim")" = VICTIM ] || fail "put overwrote the outside file"
[ "$(cat "$out/secret")" = SECRET ] || fail "the outside secret changed"

if [ "$failures" -gt 0 ]; then
  echo "$failures failure(s)" >&2
  exit 1
fi
echo "no escapes"
