#!/usr/bin/env bash
# Real programs on a real mount of a temporary root.
#   mount_programs.sh TOOL PLUGIN tar|cp|rsync|git|sqlite
# Exits 77 (skipped) when FUSE cannot be used here or the program is missing.
set -euo pipefail
export LC_ALL=C TZ=UTC

tool=$1
plugin=$2
program=$3

# shellcheck source=tests/fuse/mount_script.sh
. "$(dirname "${BASH_SOURCE[0]}")/mount_script.sh"
require_fuse
case $program in
  sqlite) command -v sqlite3 >/dev/null || skip "sqlite3 is not installed" ;;
  *) command -v "$program" >/dev/null || skip "$program is not installed" ;;
esac

work=$(mktemp -d "${TMPDIR:-/tmp}/fuse_programs.XXXXXX")
root=$work/root
mnt=$work/mnt
mkdir -p "$root" "$mnt" "$work/cache"

cleanup() {
  local status=$?
  if mounted "$mnt"; then
    "$tool" unmount "$mnt" 2>/dev/null || umount -l "$mnt" 2>/dev/null || true
  fi
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT

# A small source tree with the things archives carry: modes, times,
# nested directories, empty files and a larger binary file.
tree=$work/tree
mkdir -p "$tree/src/lib/deep" "$tree/docs" "$tree/empty_dir"
for i in $(seq 60); do
  printf 'line %d\n' $(seq "$i") >"$tree/src/file$i.c"
done
printf '#!/bin/sh\necho hi\n' >"$tree/src/run.sh"
chmod 0755 "$tree/src/run.sh"
chmod 0600 "$tree/docs"
chmod 0700 "$tree/docs"
: >"$tree/docs/empty"
head -c 3000000 /dev/urandom >"$tree/src/lib/deep/blob.bin"
touch -d "2020-02-02 02:02:02" "$tree/src/file1.c"

"$tool" --plugin "$plugin" --root "$root" mount "$mnt" --cache-dir "$work/cache" --umask 022
mounted "$mnt" || fail "not mounted"

same_content() {
  diff -r "$1" "$2" >"$work/diff" || fail "$3: trees differ: $(head -5 "$work/diff")"
}

# copied_quietly WHAT NAME: WHAT said nothing on stderr ($work/err) and made
# NAME on the mount a copy of the tree that kept modification times.
copied_quietly() {
  [ ! -s "$work/err" ] || fail "$1 complained: $(head -5 "$work/err")"
  same_content "$tree" "$mnt/$2" "$1"
  [ "$(stat -c %Y "$root/$2/src/file1.c")" = "$(stat -c %Y "$tree/src/file1.c")" ] ||
    fail "$1: modification time not kept"
}

case $program in
  tar)
    tar -C "$work" -cf "$work/tree.tar" tree
    tar -C "$mnt" -xf "$work/tree.tar" 2>"$work/err" || fail "tar x: $(head -5 "$work/err")"
    copied_quietly "tar x" tree
    ;;
  cp)
    cp -a "$tree" "$mnt/copy" 2>"$work/err" || fail "cp -a: $(head -5 "$work/err")"
    copied_quietly "cp -a" copy
    ;;
  rsync)
    rsync -a "$tree/" "$mnt/synced/" 2>"$work/err" || fail "rsync -a: $(head -5 "$work/err")"
    same_content "$tree" "$mnt/synced" "rsync -a"
    # A second run finds nothing to do; a changed file is replaced.
    printf 'changed\n' >"$tree/src/file2.c"
    rsync -a "$tree/" "$mnt/synced/" 2>"$work/err" || fail "rsync -a again: $(cat "$work/err")"
    same_content "$tree" "$mnt/synced" "rsync -a (update)"
    ;;
  git)
    export GIT_AUTHOR_NAME=t GIT_AUTHOR_EMAIL=t@example.org GIT_COMMITTER_NAME=t
    export GIT_COMMITTER_EMAIL=t@example.org HOME=$work
    cp -r "$tree" "$mnt/repo"
    git -C "$mnt/repo" init -q
    git -C "$mnt/repo" add -A
    git -C "$mnt/repo" commit -qm first
    printf 'more\n' >>"$mnt/repo/src/file3.c"
    git -C "$mnt/repo" commit -qam second
    git -C "$mnt/repo" fsck --full --strict 2>"$work/err" || fail "git fsck: $(cat "$work/err")"
    [ "$(git -C "$mnt/repo" rev-list --count HEAD)" = 2 ] || fail "git: commits missing"
    git -C "$mnt/repo" status --porcelain >"$work/status"
    [ ! -s "$work/status" ] || fail "git status not clean: $(head -5 "$work/status")"
    ;;
  sqlite)
    db=$mnt/test.db
    sqlite3 "$db" 'CREATE TABLE t(id INTEGER PRIMARY KEY, v TEXT);'
    {
      echo 'BEGIN;'
      for i in $(seq 10000); do echo "INSERT INTO t(v) VALUES('row $i');"; done
      echo 'COMMIT;'
    } | sqlite3 "$db"
    # A few small transactions, each with its own journal and fsync.
    for i in $(seq 5); do sqlite3 "$db" "UPDATE t SET v = 'changed $i' WHERE id = $i;"; done
    [ "$(sqlite3 "$db" 'PRAGMA integrity_check;')" = ok ] || fail "sqlite integrity_check"
    [ "$(sqlite3 "$db" 'SELECT count(*) FROM t;')" = 10000 ] || fail "sqlite: rows missing"
    [ "$(sqlite3 "$root/test.db" 'PRAGMA integrity_check;')" = ok ] ||
      fail "sqlite integrity_check on the root"
    ;;
  *) fail "unknown program $program" ;;
esac

"$tool" unmount "$mnt"
# Nothing of the mount's own is left in the root, once the server, which
# ends after the unmount, has removed what was still open then.
for _ in $(seq 50); do
  leftover=$(find "$root" -name '.*.plughost-*' -o -name '.fuse_hidden*')
  [ -z "$leftover" ] && break
  sleep 0.1
done
[ -z "$leftover" ] || fail "temporary entries left: $leftover"
echo "PASS: $program"
