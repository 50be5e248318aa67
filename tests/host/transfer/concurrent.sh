#!/usr/bin/env bash
# Concurrent transfers of one name through the real plughost: two processes
# putting different versions in a loop never leave a mix (the last complete
# put wins), and a get racing them always returns one complete version.
#
#   concurrent.sh PLUGHOST
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/script.sh"
plughost=$(absolute "$1")
work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-concurrent.XXXXXX")
trap 'kill $(jobs -p) 2>/dev/null; rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root" "$work/a" "$work/b" "$work/get"
# Different sizes and contents, several chunks each.
head -c $((3 * 1024 * 1024 + 17)) /dev/urandom >"$work/a/version"
head -c $((5 * 1024 * 1024 + 3)) /dev/urandom >"$work/b/version"
cp "$work/a/version" "$root/shared.bin"
rounds=60

one_version() {
  cmp -s "$1" "$work/a/version" || cmp -s "$1" "$work/b/version"
}

writer() {
  local dir=$1
  for _ in $(seq 1 "$rounds"); do
    if ! "$plughost" --root "$root" put "$dir/version" / --name shared.bin >/dev/null 2>>"$dir/err"; then
      echo "put failed" >>"$dir/failed"
    fi
  done
}

writer "$work/a" &
writer "$work/b" &

# While they write: get the name again and again, and look at it directly.
gets=0
while [ -n "$(jobs -rp)" ]; do
  if "$plughost" --root "$root" get shared.bin "$work/get/copy" >/dev/null 2>"$work/get/err"; then
    gets=$((gets + 1))
    one_version "$work/get/copy" || fail "get returned a mix ($(stat -c %s "$work/get/copy") bytes)"
  else
    fail "get failed: $(cat "$work/get/err")"
  fi
  # One open of the name (cp), then two comparisons of what it read.
  cp "$root/shared.bin" "$work/look"
  one_version "$work/look" || fail "the storage file is a mix"
done
wait

for dir in "$work/a" "$work/b"; do
  [ ! -e "$dir/failed" ] || fail "$(wc -l <"$dir/failed") puts from $dir failed: $(tail -1 "$dir/err")"
done
one_version "$root/shared.bin" || fail "the final file is a mix"
left=$(find "$root" -mindepth 1 -printf '%f\n' | sort | tr '\n' ' ')
[ "$left" = "shared.bin " ] || fail "the root holds: $left"
left=$(find "$work/get" -mindepth 1 -printf '%f\n' | sort | tr '\n' ' ')
[ "$left" = "copy err " ] || fail "the get directory holds: $left"
[ "$gets" -gt 0 ] || fail "no get ran while the puts did"

[ $failures -eq 0 ] || exit 1
echo "concurrent: $((2 * rounds)) puts and $gets gets of one name, every version whole"
