#!/usr/bin/env bash
# Runs a session of plughost subcommands (which load the plug-in with dlopen
# and drive every kind of operation) under valgrind's memcheck; fails when
# memcheck reports an error or a leak in any of them.
#
#   valgrind_plughost.sh VALGRIND PLUGHOST
set -u
valgrind=$1
plughost=$(cd "$(dirname "$2")" && pwd)/$(basename "$2")

work=$(mktemp -d "${TMPDIR:-/tmp}/localdisk-valgrind.XXXXXX")
trap 'rm -rf "$work"' EXIT
root=$work/root
mkdir -p "$root/docs/sub" "$root/empty" "$work/local"
printf 'hello\n' >"$root/a.txt"
head -c 1200000 /dev/urandom >"$root/docs/big.bin"
printf 'local content\n' >"$work/local/upload.txt"
cd "$work/local" || exit 1

failures=0
run() {
  # 97 is memcheck's verdict; any other status is plughost's own answer.
  "$valgrind" --quiet --leak-check=full --show-leak-kinds=definite,indirect,possible \
    --errors-for-leak-kinds=definite,indirect,possible --error-exitcode=97 \
    "$plughost" --root "$root" "$@" >"$work/out" 2>"$work/err"
  local rc=$?
  if [ "$rc" -eq 97 ]; then
    echo "memcheck found errors in: plughost $*"
    cat "$work/err"
    failures=$((failures + 1))
  elif [ "$rc" -ge 126 ]; then
    echo "could not run: plughost $* (exit $rc)"
    cat "$work/err"
    failures=$((failures + 1))
  else
    echo "ok (exit $rc): plughost $*"
  fi
}

run ls
run ls -l docs
run ls --json
run ls missing
run stat a.txt
run stat --json docs
run cat a.txt
run cat docs/big.bin --offset 1000 --length 600000
run get docs/big.bin copy.bin
run put upload.txt docs --name renamed.txt
run put missing-local.txt
run mkdir newdir
run mv a.txt newdir
run rm docs/renamed.txt
run rmdir empty
run touch newdir/a.txt
run df
run whoami
run info

if ! cmp -s "$root/docs/big.bin" copy.bin; then
  echo "get under valgrind did not copy the file"
  failures=$((failures + 1))
fi
[ "$failures" -eq 0 ]
