#!/usr/bin/env bash
# Scripted sessions through a real mount of a temporary root.
#   mount_session.sh TOOL PLUGIN session|busy|signals
# TOOL is a program with plughost's global options and its mount/unmount
# subcommands. Exits 77 (skipped) when FUSE cannot be used here. Everything
# happens inside one fresh temporary directory; the mount is always undone.
set -euo pipefail
export LC_ALL=C TZ=UTC

tool=$1
plugin=$2
scenario=$3

# shellcheck source=tests/fuse/mount_script.sh
. "$(dirname "${BASH_SOURCE[0]}")/mount_script.sh"
require_fuse

work=$(mktemp -d "${TMPDIR:-/tmp}/fuse_session.XXXXXX")
root=$work/root
mnt=$work/mnt
cache=$work/cache
mkdir -p "$root" "$mnt" "$cache"
daemon=
tmpfs_root=

cleanup() {
  local status=$?
  if mounted "$mnt"; then
    "$tool" unmount "$mnt" 2>/dev/null || fusermount3 -u -z "$mnt" 2>/dev/null ||
      umount -l "$mnt" 2>/dev/null || true
  fi
  if [ -n "$daemon" ]; then kill "$daemon" 2>/dev/null || true; fi
  if [ -n "$tmpfs_root" ]; then umount "$tmpfs_root" 2>/dev/null || true; fi
  rm -rf "$work"
  exit "$status"
}
trap cleanup EXIT

mount_it() {
  "$tool" --plugin "$plugin" --root "$root" mount "$mnt" --cache-dir "$cache" "$@"
  mounted "$mnt" || fail "not mounted after mount returned"
}

# Runs a command that must fail and checks the error text of errno.
expect_error() {
  local text=$1
  shift
  if "$@" 2>"$work/err"; then fail "$* succeeded"; fi
  grep -q "$text" "$work/err" || fail "$*: expected '$text', got: $(cat "$work/err")"
}

session() {
  # The modes a plain mkdir and a new file get on the root, for ls -l below.
  mount_it --umask 022

  # mkdir -p
  mkdir -p "$mnt/a/b/c" "$mnt/d"
  [ -d "$root/a/b/c" ] || fail "mkdir -p did not reach the root"

  # a 100 MB random file in and out
  head -c 100000000 /dev/urandom >"$work/big"
  cp "$work/big" "$mnt/a/big"
  cmp "$work/big" "$root/a/big" || fail "copy in differs"
  cp "$mnt/a/big" "$work/big.out"
  cmp "$work/big" "$work/big.out" || fail "copy out differs"

  # append
  printf 'hello\n' >"$mnt/a/log"
  printf 'world\n' >>"$mnt/a/log"
  [ "$(cat "$mnt/a/log")" = $'hello\nworld' ] || fail "append through the mount"
  [ "$(cat "$root/a/log")" = $'hello\nworld' ] || fail "append on the root"

  # truncate, shorter and longer
  truncate -s 5 "$mnt/a/log"
  [ "$(cat "$root/a/log")" = hello ] || fail "truncate -s 5"
  truncate -s 8 "$mnt/a/log"
  [ "$(stat -c %s "$root/a/log")" = 8 ] || fail "truncate -s 8"
  cmp <(printf 'hello\0\0\0') "$mnt/a/log" || fail "truncate -s 8 content"

  # mv within a directory and across directories
  mv "$mnt/a/log" "$mnt/a/log2"
  { [ -f "$root/a/log2" ] && [ ! -e "$root/a/log" ]; } || fail "mv within a directory"
  mv "$mnt/a/log2" "$mnt/d/log3"
  { [ -f "$root/d/log3" ] && [ ! -e "$root/a/log2" ]; } || fail "mv across directories"
  mv "$mnt/a/b/c" "$mnt/d/c2"
  [ -d "$root/d/c2" ] || fail "mv of a directory"

  # rm
  rm "$mnt/d/log3"
  [ ! -e "$root/d/log3" ] || fail "rm"
  [ ! -e "$mnt/d/log3" ] || fail "rm: still visible"

  # rmdir of a non-empty directory: refused, and the mount can tell why
  touch "$mnt/a/b/keep"
  expect_error "Directory not empty" rmdir "$mnt/a/b"
  [ -f "$root/a/b/keep" ] || fail "rmdir removed something"
  rmdir "$mnt/d/c2"
  [ ! -e "$root/d/c2" ] || fail "rmdir of an empty directory"

  # touch -d, then stat through the mount and directly
  touch -d "2021-06-15 10:20:30" "$mnt/a/b/keep"
  local want
  want=$(date -d "2021-06-15 10:20:30" +%s)
  [ "$(stat -c %Y "$mnt/a/b/keep")" = "$want" ] || fail "touch -d: mount shows $(stat -c %Y "$mnt/a/b/keep")"
  [ "$(stat -c %Y "$root/a/b/keep")" = "$want" ] || fail "touch -d: root has $(stat -c %Y "$root/a/b/keep")"
  [ "$(stat -c %X "$mnt/a/b/keep")" = "$want" ] || fail "touch -d: access time"

  # ls -l through the mount matches the root seen directly (modes, owner,
  # size, time and name; the link count of directories is not kept)
  sleep 1.1
  # shellcheck disable=SC2012 # the long listing itself is what is compared
  listing() { ls -l --time-style=+%s "$1" | awk 'NR > 1 { print $1, $3, $4, $5, $6, $7 }'; }
  diff <(listing "$mnt/a") <(listing "$root/a") || fail "ls -l differs"
  diff <(listing "$mnt/a/b") <(listing "$root/a/b") || fail "ls -l differs (a/b)"

  # df: the size is the quota's total, the free space total minus used
  local size_mnt size_root avail_mnt avail_root
  read -r size_mnt avail_mnt < <(df -B1 --output=size,avail "$mnt" | tail -1)
  read -r size_root avail_root < <(df -B1 --output=size,avail "$root" | tail -1)
  [ "$size_mnt" -gt 0 ] || fail "df: no size"
  { [ $((size_root - size_mnt)) -ge 0 ] && [ $((size_root - size_mnt)) -lt 4096 ]; } ||
    fail "df size: mount $size_mnt, root $size_root"
  local drift=$((avail_root - avail_mnt))
  drift=${drift#-}
  [ "$drift" -lt $((512 * 1024 * 1024)) ] || fail "df avail: mount $avail_mnt, root $avail_root"

  # four concurrent readers of one large file get identical bytes
  local want_sum i
  want_sum=$(sha256sum <"$work/big" | cut -d' ' -f1)
  for i in 1 2 3 4; do
    sha256sum <"$mnt/a/big" | cut -d' ' -f1 >"$work/sum$i" &
  done
  wait
  for i in 1 2 3 4; do
    [ "$(cat "$work/sum$i")" = "$want_sum" ] || fail "reader $i got different bytes"
  done

  # error mapping: a missing file is ENOENT, a non-empty target ENOTEMPTY
  expect_error "No such file or directory" cat "$mnt/missing"
  expect_error "No such file or directory" rm "$mnt/missing"
  mkdir "$mnt/full" "$mnt/full/x" "$mnt/other"
  expect_error "Directory not empty" mv -T "$mnt/other" "$mnt/full"
  expect_error "File name too long" touch "$mnt/$(printf 'n%.0s' $(seq 256))"
  # modes and owners are accepted without effect; no links
  chmod 0600 "$mnt/a/b/keep"
  [ "$(stat -c %a "$mnt/a/b/keep")" = 644 ] || fail "chmod changed the shown mode"
  expect_error "Operation not permitted" ln -s keep "$mnt/a/b/link"

  "$tool" unmount "$mnt"
  ! mounted "$mnt" || fail "still mounted after unmount"
  cmp "$work/big" "$root/a/big" || fail "root changed after unmount"
}

busy() {
  mount_it
  local status=0
  "$tool" --plugin "$plugin" --root "$root" mount "$mnt" --cache-dir "$cache" 2>"$work/err" ||
    status=$?
  [ "$status" != 0 ] || fail "second mount on a busy mount point succeeded"
  grep -q "is busy" "$work/err" || fail "no clear message: $(cat "$work/err")"
  mounted "$mnt" || fail "the first mount went away"
  # a file open on the mount keeps it busy for unmount as well
  exec 3<"$mnt"/.
  if "$tool" unmount "$mnt" 2>/dev/null; then fail "unmount with a busy mount succeeded"; fi
  exec 3<&-
  "$tool" unmount "$mnt"
  ! mounted "$mnt" || fail "still mounted"
  expect_error "not mounted" "$tool" unmount "$mnt"
}

# Waits until the mount is there (a foreground mount started in the background).
wait_mounted() {
  local i
  for i in $(seq 100); do
    mounted "$mnt" && return 0
    kill -0 "$daemon" 2>/dev/null || fail "the mount process ended early"
    sleep 0.1
  done
  fail "not mounted in time"
}

signals() {
  local sig status
  for sig in TERM INT; do
    "$tool" --plugin "$plugin" --root "$root" mount "$mnt" --cache-dir "$cache" --foreground &
    daemon=$!
    wait_mounted
    echo data >"$mnt/f_$sig"
    kill -s "$sig" "$daemon"
    status=0
    wait "$daemon" || status=$?
    daemon=
    [ "$status" = 0 ] || fail "SIG$sig: exit status $status"
    ! mounted "$mnt" || fail "SIG$sig: still mounted"
    [ "$(cat "$root/f_$sig")" = data ] || fail "SIG$sig: data lost"
  done
  [ -z "$(ls -A "$cache")" ] || fail "staging directory left behind: $(ls -A "$cache")"
}

# Starts a foreground mount in the background; its pid in $daemon.
start_daemon() {
  "$tool" --plugin "$plugin" --root "$root" mount "$mnt" --cache-dir "$cache" --foreground \
    2>"$work/daemon.err" &
  daemon=$!
  wait_mounted
}

# After a killed server: the dead mount goes away.
drop_dead_mount() {
  wait "$daemon" 2>/dev/null || true
  daemon=
  umount -l "$mnt" 2>/dev/null || fusermount3 -u -z "$mnt" 2>/dev/null || true
}

# What is in the root besides the final names: temporary names only.
only_temporaries_besides() {
  local entry name
  for entry in "$root"/* "$root"/.*; do
    name=${entry##*/}
    case $name in
      . | .. | '*' | '.*') ;;
      "$1") ;;
      .*.plughost-??????.partial) ;;
      *) fail "unexpected entry $name in the root" ;;
    esac
  done
}

interrupt() {
  head -c 300000000 /dev/urandom >"$work/new"
  printf 'the old content\n' >"$work/old"

  # SIGKILL while the application still writes, and while the file is
  # uploaded at its close: the name holds the old or the new content, never
  # a mix, and nothing but a temporary name is left besides it.
  local moment
  for moment in writing uploading; do
    cp "$work/old" "$root/f"
    start_daemon
    cp "$work/new" "$mnt/f" 2>/dev/null &
    local writer=$! i
    for i in $(seq 400); do
      if [ "$moment" = writing ]; then
        [ -n "$(ls -A "$cache")" ] && break
      else
        compgen -G "$root/.*.plughost-*" >/dev/null && break
      fi
      sleep 0.02
    done
    kill -KILL "$daemon"
    wait "$writer" 2>/dev/null || true
    drop_dead_mount
    if ! cmp -s "$root/f" "$work/old" && ! cmp -s "$root/f" "$work/new"; then
      fail "killed while $moment: f holds neither the old nor the new content"
    fi
    only_temporaries_besides f
    find "$root" -name '.*.plughost-*' -delete
  done

  # SIGTERM with a file open and changed: uploaded before the process ends.
  # (A writer that keeps its descriptor: every close, even of a duplicate,
  # would upload.)
  cp "$work/old" "$root/f"
  start_daemon
  { printf 'written, never closed\n' && exec sleep 60; } >"$mnt/f" &
  local holder=$!
  sleep 0.5
  kill -TERM "$daemon"
  local status=0
  wait "$daemon" || status=$?
  daemon=
  kill "$holder" 2>/dev/null || true
  wait "$holder" 2>/dev/null || true
  [ "$status" = 0 ] || fail "SIGTERM with an open file: exit status $status"
  ! mounted "$mnt" || fail "SIGTERM: still mounted"
  [ "$(cat "$root/f")" = "written, never closed" ] || fail "SIGTERM: open changes lost"
  only_temporaries_besides f

  # ... and when that upload fails: said on stderr, kept, exit status 1.
  start_daemon
  mkdir "$mnt/d"
  { printf 'precious\n' && exec sleep 60; } >"$mnt/d/g" &
  holder=$!
  sleep 0.5
  rm -rf "$root/d"
  kill -TERM "$daemon"
  status=0
  wait "$daemon" || status=$?
  daemon=
  kill "$holder" 2>/dev/null || true
  wait "$holder" 2>/dev/null || true
  [ "$status" = 1 ] || fail "failed upload at shutdown: exit status $status"
  local kept
  kept=$(sed -n 's/.*could not upload \/d\/g at shutdown; its content is kept in //p' \
    "$work/daemon.err")
  [ -n "$kept" ] || fail "no message naming the kept copy: $(cat "$work/daemon.err")"
  [ "$(cat "$kept")" = precious ] || fail "the kept copy differs"
  rm -f "$kept"
}

# A rewrite that no longer fits keeps the original (a small tmpfs as root).
fullfs() {
  [ "$(id -u)" = 0 ] || skip "a small tmpfs needs root"
  mount -t tmpfs -o size=8m plughost-test "$root" 2>/dev/null || skip "cannot mount a tmpfs here"
  tmpfs_root=$root
  head -c 5000000 /dev/urandom >"$work/old"
  head -c 6000000 /dev/urandom >"$work/new"
  cp "$work/old" "$root/f"
  mount_it
  if cp "$work/new" "$mnt/f" 2>"$work/err"; then fail "a rewrite that cannot fit succeeded"; fi
  grep -q "No space left on device" "$work/err" || fail "not ENOSPC: $(cat "$work/err")"
  cmp "$work/old" "$root/f" || fail "the original was not kept"
  cmp "$work/old" "$mnt/f" || fail "the mount does not show the original"
  only_temporaries_besides f
  [ -z "$(find "$root" -name '.*.plughost-*')" ] || fail "temporary file left after a failure"
  "$tool" unmount "$mnt"
}

# Other users: with --allow-other the kernel checks the mount's modes, which
# are private unless the options grant more; a second uid through setpriv.
others() {
  [ "$(id -u)" = 0 ] || skip "a second user needs root"
  command -v setpriv >/dev/null || skip "setpriv is not installed"
  # The second user must reach the mount point.
  chmod 0755 "$work" "$mnt"
  printf 'secret\n' >"$root/f"
  mkdir "$root/d"
  as_nobody() { setpriv --reuid=65534 --regid=65534 --clear-groups -- "$@"; }

  mount_it --allow-other
  [ "$(stat -c %a "$mnt/f")" = 600 ] || fail "default file mode $(stat -c %a "$mnt/f")"
  [ "$(stat -c %a "$mnt/d")" = 700 ] || fail "default directory mode"
  [ "$(stat -c %u "$mnt/f")" = 0 ] || fail "owner is not the mounting user"
  if as_nobody cat "$mnt/f" >/dev/null 2>&1; then fail "another user read a private file"; fi
  if as_nobody ls "$mnt" >/dev/null 2>&1; then fail "another user listed a private mount"; fi
  "$tool" unmount "$mnt"

  mount_it --allow-other --umask 022
  [ "$(as_nobody cat "$mnt/f")" = secret ] || fail "--umask 022 does not let others read"
  if as_nobody sh -c "echo x >'$mnt/f'" 2>/dev/null; then fail "another user wrote a 0644 file"; fi
  "$tool" unmount "$mnt"

  mount_it --allow-other --uid 65534 --gid 65534 --file-mode 0640 --dir-mode 0750
  [ "$(stat -c '%u %g %a' "$mnt/f")" = "65534 65534 640" ] || fail "--uid/--gid/--file-mode"
  [ "$(stat -c %a "$mnt/d")" = 750 ] || fail "--dir-mode"
  [ "$(as_nobody cat "$mnt/f")" = secret ] || fail "the owner given with --uid cannot read"
  "$tool" unmount "$mnt"

  expect_error "expected an octal mode" "$tool" --plugin "$plugin" --root "$root" mount "$mnt" \
    --umask 9z
}

# Links out of the root: nothing outside is read or changed through the mount.
links() {
  local outside=$work/outside
  mkdir -p "$outside/dir"
  printf 'outside\n' >"$outside/file"
  touch -d "2001-01-01" "$outside/file"
  ln -s "$outside" "$root/abs"
  ln -s ../outside "$root/rel"
  ln -s "$outside/missing" "$root/dangling"
  mkdir "$root/inside"
  printf 'inside\n' >"$root/inside/file"
  ln -s inside "$root/in"
  mount_it
  [ "$(cat "$mnt/in/file")" = inside ] || fail "a link inside the root stopped working"
  local link
  for link in abs rel; do
    if cat "$mnt/$link/file" >/dev/null 2>&1; then fail "read outside through $link"; fi
    if sh -c "echo x >'$mnt/$link/new'" 2>/dev/null; then fail "created outside through $link"; fi
    rm -f "$mnt/$link/file" 2>/dev/null || true
    mkdir "$mnt/$link/made" 2>/dev/null || true
    touch -d "2010-01-01" "$mnt/$link/file" 2>/dev/null || true
  done
  if sh -c "echo x >'$mnt/dangling'" 2>/dev/null; then fail "created outside through a dangling link"; fi
  [ "$(cat "$outside/file")" = outside ] || fail "the outside file changed"
  [ "$(stat -c %Y "$outside/file")" = "$(date -d 2001-01-01 +%s)" ] || fail "outside times changed"
  local made
  for made in new made missing; do
    [ ! -e "$outside/$made" ] || fail "$made was created outside"
  done
  "$tool" unmount "$mnt"
}

# The super options of the mount at $mnt, one per line.
super_options() {
  awk -v m="$mnt" '$5 == m { for (i = 7; i <= NF; i++) if ($i == "-") { print $(i + 3); exit } }' \
    /proc/self/mountinfo | tr , '\n'
}

# Who checks the shown modes: the kernel wherever someone other than the
# shown owner can come in; the mount itself (access, exec) otherwise.
checks() {
  printf '#!/bin/sh\necho ran\n' >"$root/script"
  chmod 0755 "$root/script"
  mkdir "$root/d"

  mount_it
  if super_options | grep -qx default_permissions; then
    fail "a private mount kept the kernel's mode checks"
  fi
  { [ -r "$mnt/script" ] && [ -w "$mnt/script" ]; } || fail "the owner may not read and write"
  if [ -x "$mnt/script" ]; then fail "test -x passed on a file shown as 0600"; fi
  if "$mnt/script" >/dev/null 2>&1; then fail "a file shown as 0600 ran"; fi
  [ -x "$mnt/d" ] || fail "test -x failed on a directory shown as 0700"
  (cd "$mnt/d") || fail "cd into a directory"
  touch "$mnt/d/new"
  [ -f "$root/d/new" ] || fail "touch through a private mount"
  "$tool" unmount "$mnt"

  mount_it --file-mode 0700
  [ "$("$mnt/script")" = ran ] || fail "a file shown as 0700 did not run"
  "$tool" unmount "$mnt"

  mount_it --allow-other
  super_options | grep -qx default_permissions || fail "--allow-other without the kernel's checks"
  if [ -x "$mnt/script" ]; then fail "test -x passed on a file shown as 0600 (kernel checks)"; fi
  "$tool" unmount "$mnt"
}

case $scenario in
  session) session ;;
  busy) busy ;;
  signals) signals ;;
  interrupt) interrupt ;;
  fullfs) fullfs ;;
  others) others ;;
  links) links ;;
  checks) checks ;;
  *) fail "unknown scenario $scenario" ;;
esac
echo "PASS: $scenario"
