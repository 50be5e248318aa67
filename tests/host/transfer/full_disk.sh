#!/usr/bin/env bash
# Transfers onto a full file system, on a small tmpfs mounted in a private
# mount namespace: a put of 50 MB into a nearly full root and a get of 50 MB
# into a nearly full local directory fail with exit 1, say the transfer
# failed for lack of space and that the existing file was kept, keep that
# file byte for byte and leave nothing else. Needs root for the mount;
# without it (or without mount namespaces) the test is skipped (exit 77).
#
#   full_disk.sh PLUGHOST
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/script.sh"
plughost=$(absolute "$1")

# The probe: root, a private mount namespace, a tmpfs of the asked size.
if [ -z "${PLUGHOST_FULL_DISK_NAMESPACE:-}" ]; then
  if [ "$(id -u)" -ne 0 ]; then
    echo "SKIP: mounting a tmpfs needs root; running as uid $(id -u)"
    exit 77
  fi
  if ! unshare --mount --propagation private true 2>/dev/null; then
    echo "SKIP: no private mount namespace here (unshare --mount failed)"
    exit 77
  fi
  PLUGHOST_FULL_DISK_NAMESPACE=1 exec unshare --mount --propagation private bash "$0" "$1"
fi

work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-full.XXXXXX")
mkdir -p "$work/fs" "$work/disk"
trap 'umount "$work/fs" 2>/dev/null; rm -rf "$work"' EXIT
if ! mount -t tmpfs -o size=64m,mode=0755 tmpfs "$work/fs"; then
  echo "SKIP: mount of a tmpfs failed"
  exit 77
fi
# The probe must have given what it was asked for.
if [ "$(($(stat -f -c '%b * %S' "$work/fs")))" -ne $((64 * 1024 * 1024)) ]; then
  echo "FAIL: the tmpfs is not 64 MiB: $(df -B1 "$work/fs" | tail -1)" >&2
  exit 1
fi

# Fills the file system holding $1 until about $2 MiB are left.
fill_to() {
  local file=$1 keep_mib=$2 free_mib
  free_mib=$(($(stat -f -c '%a * %S' "$(dirname "$file")") / 1024 / 1024))
  if [ "$free_mib" -gt "$keep_mib" ]; then
    head -c $(((free_mib - keep_mib) * 1024 * 1024)) /dev/zero >"$file"
  fi
}
free_bytes() { echo $(($(stat -f -c '%a * %S' "$1"))); }

# expect_kept WHAT DIR OLD MESSAGE: the transfer that just ran ($status, its
# stderr in $work/err) failed with exit 1 and MESSAGE, DIR/big.bin still
# holds OLD, DIR holds nothing but big.bin and filler, and the free space is
# back at $before.
expect_kept() {
  local what=$1 dir=$2 old=$3 message=$4 left
  [ "$status" -eq 1 ] || fail "$what: exit $status, expected 1"
  grep -qxF "$message" "$work/err" || fail "$what said: $(cat "$work/err")"
  cmp -s "$dir/big.bin" "$old" || fail "$what: the existing file changed"
  left=$(find "$dir" -mindepth 1 -printf '%f\n' | sort | tr '\n' ' ')
  [ "$left" = "big.bin filler " ] || fail "$what: $dir holds: $left"
  [ "$(free_bytes "$dir")" -eq "$before" ] || fail "$what: space not given back"
}

# --- put into a nearly full root -------------------------------------------------
root=$work/fs/root
mkdir -p "$root"
head -c $((10 * 1024 * 1024)) /dev/urandom >"$root/big.bin"
cp "$root/big.bin" "$work/disk/old.bin"
fill_to "$root/filler" 30
head -c $((50 * 1000 * 1000)) /dev/urandom >"$work/disk/new.bin"
before=$(free_bytes "$root")
"$plughost" --root "$root" put "$work/disk/new.bin" / --name big.bin >"$work/out" 2>"$work/err"
status=$?
expect_kept put "$root" "$work/disk/old.bin" \
  "plughost: put /big.bin: failed for lack of space on the storage; the existing file was kept"

# What fits still goes in, replacing the old file whole.
head -c $((1024 * 1024)) /dev/urandom >"$work/disk/small.bin"
"$plughost" --root "$root" put "$work/disk/small.bin" / --name big.bin >"$work/out" 2>"$work/err" ||
  fail "put of a file that fits: $(cat "$work/err")"
cmp -s "$root/big.bin" "$work/disk/small.bin" || fail "put of a file that fits: content"

# A new name that does not fit: nothing is left behind.
"$plughost" --root "$root" put "$work/disk/new.bin" / --name other.bin >"$work/out" 2>"$work/err"
status=$?
[ "$status" -eq 1 ] || fail "put of a new name: exit $status"
grep -qxF "plughost: put /other.bin: failed for lack of space on the storage" "$work/err" ||
  fail "put of a new name said: $(cat "$work/err")"
[ ! -e "$root/other.bin" ] || fail "put of a new name left a file"
rm -rf "$root"

# --- get into a nearly full local directory ---------------------------------------
storage=$work/disk/storage
mkdir -p "$storage" "$work/fs/local"
cp "$work/disk/new.bin" "$storage/big.bin"
head -c $((10 * 1024 * 1024)) /dev/urandom >"$work/fs/local/big.bin"
cp "$work/fs/local/big.bin" "$work/disk/old-local.bin"
fill_to "$work/fs/local/filler" 30
before=$(free_bytes "$work/fs/local")
(cd "$work/fs/local" && "$plughost" --root "$storage" get big.bin) >"$work/out" 2>"$work/err"
status=$?
expect_kept get "$work/fs/local" "$work/disk/old-local.bin" \
  "plughost: get big.bin: failed for lack of space on the local disk; the existing file was kept"

[ $failures -eq 0 ] || exit 1
echo "full disk: put and get of 50 MB keep the existing file and say space ran out"
