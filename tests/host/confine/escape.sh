#!/usr/bin/env bash
# Links that lead out of the storage root, through every subcommand that takes
# a path: absolute, relative and dangling links to files and directories.
# Each is refused with a clear error, nothing outside the root changes, no
# outside content reaches stdout or a local file; links that stay inside the
# root keep working. (df takes no path: it reports the root's file system.)
#
#   escape.sh PLUGHOST
set -u
# shellcheck source=tests/support/script.sh
. "$(dirname "${BASH_SOURCE[0]}")/../../support/script.sh"
plughost=$(absolute "$1")
export TZ=UTC LC_ALL=C
unset PLUGHOST_CONFINE

work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-escape.XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root
out=$work/outside
local_dir=$work/local
mkdir -p "$root/sub" "$out/dir" "$out/emptydir" "$local_dir"
printf 'SECRET' >"$out/secret"
printf 'DEEP' >"$out/dir/deep"
printf 'inside' >"$root/file"
printf 'inner' >"$root/sub/inner"
printf 'upload' >"$local_dir/up.txt"

# Out of the root.
ln -s "$out" "$root/abs"
ln -s ../outside "$root/rel"
ln -s "$out/secret" "$root/absf"
ln -s ../outside/secret "$root/relf"
ln -s ../../outside "$root/sub/up2"
ln -s "$out/created" "$root/dangling"
ln -s ../outside/made "$root/dangling-rel"
ln -s "$out/newdir" "$root/dangling-dir"
# Inside the root.
ln -s sub "$root/in"
ln -s "$root/sub" "$root/inabs"
ln -s file "$root/inf"
ln -s ../file "$root/sub/upf"

# Everything about the outside tree that an escape could change.
snapshot() {
  (cd "$out" && find . -printf '%p %y %s %T@ %m %l\n' | sort && find . -type f -exec md5sum {} + | sort)
}
before=$(snapshot)

run() {
  (cd "$local_dir" && "$plughost" --root "$root" "$@") >"$work/stdout" 2>"$work/stderr" </dev/null
}

# The command must fail with exit 1, say why, and print no outside content.
refused() {
  run "$@"
  local rc=$?
  if [ "$rc" -ne 1 ]; then
    fail "plughost $*: exit $rc, expected 1 (stderr: $(cat "$work/stderr"))"
  elif ! grep -q 'outside the storage root' "$work/stderr"; then
    fail "plughost $*: unclear error: $(cat "$work/stderr")"
  fi
  if grep -qE 'SECRET|DEEP' "$work/stdout" "$work/stderr"; then
    fail "plughost $*: outside content printed"
  fi
}

works() {
  run "$@"
  local rc=$?
  [ "$rc" -eq 0 ] || fail "plughost $*: exit $rc (stderr: $(cat "$work/stderr"))"
}

# --- every subcommand, every kind of link out ----------------------------------------
for link in abs rel sub/up2; do
  refused ls "$link"
  refused ls -l "$link/dir"
  refused stat "$link"
  refused stat "$link/secret"
  refused cat "$link/secret"
  refused cat "$link/dir/deep"
  refused get "$link/secret" "$local_dir/got"
  refused put "$local_dir/up.txt" "$link"
  refused put "$local_dir/up.txt" "$link/dir"
  refused mv file "$link"
  refused mv "$link/secret" sub
  refused mkdir "$link/made"
  refused rm "$link/secret"
  refused rmdir "$link/emptydir"
  refused touch "$link/secret"
  refused touch "$link/touched"
done
for link in absf relf; do
  refused stat "$link"
  refused cat "$link"
  refused cat --offset 1 --length 2 "$link"
  refused get "$link" "$local_dir/got"
  refused get "$link" -
  refused put "$local_dir/up.txt" --name "$link"
  refused mv "$link" sub
  refused rm "$link"
  refused touch "$link"
  refused touch -d '2001-01-01' "$link"
done
for link in dangling dangling-rel dangling-dir; do
  refused stat "$link"
  refused cat "$link"
  refused put "$local_dir/up.txt" --name "$link"
  refused put "$local_dir/up.txt" "$link"
  refused mkdir "$link"
  refused mkdir "$link/below"
  refused touch "$link"
  refused mv file "$link"
done
# JSON output refuses the same way.
refused --json cat absf
refused --json ls abs

[ -e "$local_dir/got" ] && fail "get left a local file behind"
after=$(snapshot)
if [ "$before" != "$after" ]; then
  fail "the outside tree changed"
  diff <(printf '%s\n' "$before") <(printf '%s\n' "$after") >&2
fi
[ "$(cat "$root/file")" = inside ] || fail "file inside the root changed"

# --- links that stay inside keep working ----------------------------------------------
works cat in/inner
[ "$(cat "$work/stdout")" = inner ] || fail "cat in/inner printed $(cat "$work/stdout")"
works cat inabs/inner
works cat inf
[ "$(cat "$work/stdout")" = inside ] || fail "cat inf printed $(cat "$work/stdout")"
works cat sub/upf
works ls in
grep -q inner "$work/stdout" || fail "ls in does not list inner"
works ls -l inabs
works stat inabs/inner
works get in/inner "$local_dir/got-in"
[ "$(cat "$local_dir/got-in" 2>/dev/null)" = inner ] || fail "get in/inner"
works put "$local_dir/up.txt" in
[ "$(cat "$root/sub/up.txt" 2>/dev/null)" = upload ] || fail "put into in"
works put "$local_dir/up.txt" inabs --name up2.txt
[ "$(cat "$root/sub/up2.txt" 2>/dev/null)" = upload ] || fail "put into inabs"
works mkdir in/newdir
[ -d "$root/sub/newdir" ] || fail "mkdir in/newdir"
works mv in/up.txt inabs/newdir
[ -f "$root/sub/newdir/up.txt" ] || fail "mv in/up.txt inabs/newdir"
works touch -d '2020-02-02 02:02:02' inf
[ "$(date -u -r "$root/file" +%Y)" = 2020 ] || fail "touch inf did not reach file"
works rm inabs/newdir/up.txt
works rmdir in/newdir
[ -e "$root/sub/newdir" ] && fail "rmdir in/newdir"

after=$(snapshot)
[ "$before" = "$after" ] || fail "the outside tree changed while using links inside"

# --- the local files a command names stay usable once confined ------------------------
works get file /dev/null
mkdir -p "$local_dir/dest"
works get file "$local_dir/dest"
[ "$(cat "$local_dir/dest/file" 2>/dev/null)" = inside ] || fail "get into a directory"
ln -s dest/real "$local_dir/via-link"
works get file "$local_dir/via-link"
[ "$(cat "$local_dir/dest/real" 2>/dev/null)" = inside ] || fail "get through a local link"
piped=$(cd "$local_dir" && "$plughost" --root "$root" get file /dev/stdout 2>"$work/stderr" | head -c 6)
[ "$piped" = inside ] || fail "get to /dev/stdout through a pipe: $(cat "$work/stderr")"
(cd "$local_dir" && printf 'from stdin' | "$plughost" --root "$root" put - --name stdin.txt) \
  >/dev/null 2>"$work/stderr" || fail "put from stdin: $(cat "$work/stderr")"
[ "$(cat "$root/stdin.txt" 2>/dev/null)" = "from stdin" ] || fail "put from stdin stored"

if [ "$failures" -gt 0 ]; then
  echo "$failures failure(s)" >&2
  exit 1
fi
echo "all escapes refused"
