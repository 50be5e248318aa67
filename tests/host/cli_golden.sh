#!/usr/bin/env bash
# Runs one scenario of plughost subcommands on a fresh temporary tree and
# compares the transcript (commands, stdout, stderr as "2> " lines, exit
# codes) with tests/host/golden/<case>.txt.
#
#   cli_golden.sh PLUGHOST GOLDEN_DIR CASE [PLUGIN]
#
# PLUGIN (case contract only) is the plug-in to load; the transcript of that
# case is the same for every plug-in that keeps the contract.
# UPDATE_GOLDEN=1 rewrites the golden file instead of comparing.
# Output is made stable: TZ=UTC, file times set with touch -d, and the parts
# that depend on the machine (temporary paths, status-change times, the host
# name, directory sizes and access times of listed directories, disk figures,
# the confinement in use and the fallback's warning)
# are replaced by placeholders.
set -u
plughost=$(cd "$(dirname "$1")" && pwd)/$(basename "$1")
golden_dir=$2
case_name=$3
plugin=${4:-}

export TZ=UTC LC_ALL=C USER=tester
# libfaketime is preloaded in one scenario; let a sanitizer build accept it.
export ASAN_OPTIONS="${ASAN_OPTIONS:+$ASAN_OPTIONS:}verify_asan_link_order=0"

work=$(mktemp -d "${TMPDIR:-/tmp}/plughost-cli.XXXXXX")
trap 'chmod -R u+w "$work" 2>/dev/null; rm -rf "$work"' EXIT
root=$work/root
local_dir=$work/local
mkdir -p "$root" "$local_dir"
transcript=$work/transcript
: >"$transcript"
plugin_dir=$(cd "$(dirname "$plughost")" && pwd)
host_name=$(hostname)

make_tree() {
  mkdir -p "$root/docs/sub" "$root/empty"
  printf 'hello\n' >"$root/a.txt"
  printf 'first line\nsecond line\n' >"$root/docs/notes.txt"
  head -c 3000 /dev/zero | tr '\0' 'x' >"$root/docs/big.txt"
  printf 'secret' >"$root/.hidden"
  printf 'deep' >"$root/docs/sub/deep.txt"
  touch -d '2024-01-02 03:04:05' "$root/a.txt"
  touch -d '2024-02-03 04:05:06' "$root/docs/notes.txt"
  touch -d '2024-02-03 04:05:07' "$root/docs/big.txt"
  touch -d '2023-12-31 23:59:59' "$root/.hidden"
  touch -d '2024-03-04 05:06:07' "$root/docs/sub/deep.txt"
  # Directories last: adding entries changed their times.
  touch -d '2024-04-05 06:07:08' "$root/docs/sub"
  touch -d '2024-04-05 06:07:09' "$root/docs"
  touch -d '2024-04-05 06:07:10' "$root/empty"
  printf 'local content\n' >"$local_dir/upload.txt"
  mkdir -p "$local_dir/into"
}

note() { printf '%s\n' "$*" >>"$transcript"; }

# Runs plughost with --root set (or without, for `raw`) and records it all.
record() {
  local show=$1
  shift
  note "\$ plughost${show:+ $show}"
  (cd "${RUN_DIR:-$local_dir}" && "$@") >"$work/out" 2>"$work/err" <"${STDIN_FILE:-/dev/null}"
  local rc=$?
  cat "$work/out" >>"$transcript"
  if [ -s "$work/out" ] && [ "$(tail -c1 "$work/out" | od -An -c | tr -d ' ')" != '\n' ]; then
    note ""
    note "(no newline at end of output)"
  fi
  sed 's/^/2> /' "$work/err" >>"$transcript"
  note "[exit $rc]"
}
quoted() {
  local out
  [ $# -gt 0 ] || return 0
  out=$(printf '%q ' "$@")
  printf '%s' "${out% }"
}
ph() { record "$(quoted "$@")" "$plughost" --root "$root" "$@"; }
raw() { record "$(quoted "$@")" "$plughost" "$@"; }
show_local() {
  note "--- local $1"
  if [ -e "$local_dir/$1" ]; then
    cat "$local_dir/$1" >>"$transcript"
    [ "$(tail -c1 "$local_dir/$1" | od -An -c | tr -d ' ')" = '\n' ] || { note ""; note "(no newline at end)"; }
  else
    note "(missing)"
  fi
}

case_ls() {
  make_tree
  ph ls --json
  ph ls
  ph ls -l
  ph ls /
  ph ls -l docs
  ph ls docs/
  ph ls -l a.txt
  ph ls empty
  ph ls -l /docs/sub/..
  ph ls --json docs
  ph ls missing
  ph ls docs/missing
}

case_stat() {
  make_tree
  ph stat a.txt
  ph stat /docs/notes.txt
  ph stat docs
  ph stat --json a.txt
  ph stat --json docs/sub
  ph stat .hidden
  ph stat missing
}

case_cat() {
  make_tree
  ph cat a.txt
  ph cat docs/notes.txt
  ph cat docs/notes.txt --offset 6 --length 4
  ph cat docs/notes.txt --offset 11
  ph cat a.txt --offset 100
  ph cat a.txt --length 100
  ph cat a.txt --length 0
  ph cat --json a.txt
  ph cat --json docs/notes.txt --offset 6 --length 4
  ph cat docs
  ph cat missing.txt
}

case_get() {
  make_tree
  ph get a.txt
  show_local a.txt
  ph get docs/notes.txt copy.txt
  show_local copy.txt
  ph get docs/sub/deep.txt into
  show_local into/deep.txt
  ph get a.txt -
  ph get --json docs/notes.txt json.txt
  show_local json.txt
  ph get docs
  ph get missing.txt
  show_local missing.txt
  ph get a.txt nodir/x.txt
}

case_put() {
  make_tree
  ph put upload.txt
  ph put upload.txt docs --name renamed.txt
  ph --json put upload.txt docs/sub
  printf 'from stdin\n' >"$work/stdin.txt"
  STDIN_FILE=$work/stdin.txt ph put - empty --name stdin.txt
  ph put -
  ph put missing-local.txt
  ph put upload.txt missingdir
  ph put upload.txt a.txt
  ph put upload.txt --name ../escape.txt
  ph put upload.txt --name .
  ph -v put upload.txt empty --name logged.txt
  ph cat docs/renamed.txt
  ph cat empty/stdin.txt
  ph ls docs/sub
}

case_mv() {
  make_tree
  ph mv a.txt docs
  ph mv docs/a.txt / --name b.txt
  ph --json mv docs/sub empty
  ph mv empty/sub / --name moved
  ph ls
  ph ls moved
  ph mv missing.txt docs
  ph mv b.txt missingdir
  ph mv / docs
  ph mv b.txt docs --name a/b
}

case_mkdir() {
  make_tree
  ph mkdir new
  ph mkdir new/inner
  ph --json mkdir docs/made
  ph mkdir docs
  ph mkdir a.txt
  ph mkdir missing/inner
  ph mkdir /
  ph ls -l new
}

case_rm() {
  make_tree
  ph rm a.txt
  ph --json rm .hidden
  ph rm docs
  ph rm a.txt
  ph rm /
  ph ls
}

case_rmdir() {
  make_tree
  ph rmdir empty
  ph rmdir docs
  ph rmdir docs/notes.txt
  ph rmdir missing
  ph mkdir docs/void
  ph --json rmdir docs/sub/../void/
  ph rmdir /
  ph ls docs
}

case_touch() {
  make_tree
  ph touch a.txt --date '2024-03-04 05:06:07'
  ph stat a.txt
  ph touch new.txt -d '2023-12-31 23:59:59'
  ph --json touch docs --date '@1700000000 +0000'
  ph cat new.txt
  note "# relative dates read against a frozen clock (2024-05-06 15:00:00 UTC)"
  record "touch a.txt --date 'yesterday noon'" \
    faketime -f '2024-05-06 15:00:00' "$plughost" --root "$root" touch a.txt --date 'yesterday noon'
  record "touch a.txt --date '3 days ago'" \
    faketime -f '2024-05-06 15:00:00' "$plughost" --root "$root" touch a.txt --date '3 days ago'
  note "# summer time: the time set is the moment named, whatever the zone"
  record "touch a.txt --date '2024-07-01 12:00:00 +0000' (TZ=Europe/Berlin)" \
    env TZ=Europe/Berlin "$plughost" --root "$root" touch a.txt --date '2024-07-01 12:00:00 +0000'
  ph stat a.txt
  ph touch a.txt --date 'not a date at all'
  ph touch missingdir/x.txt
  ph stat a.txt
}

case_df() {
  make_tree
  note "# figures depend on the disk: numbers and units are replaced"
  ph df
  ph --json df
  local total
  total=$("$plughost" --root "$root" --json df | sed -E 's/.*"total":([0-9]+).*/\1/')
  if [ "$total" = "$(($(stat -f -c '%S' "$root") * $(stat -f -c '%b' "$root")))" ]; then
    note "total equals the statfs figure: yes"
  else
    note "total equals the statfs figure: no ($total)"
  fi
  raw --root / df
}

case_whoami() {
  make_tree
  ph whoami
  ph --json whoami
}

case_info() {
  make_tree
  ph info
  ph -o pid=demo-pid --json info
  ph -o PID=upper -o speedlimit=100 -o unknown_key=1 info
  raw --plugin "$plugin_dir/liblocaldisk.so" --root "$root" info
}

case_usage() {
  make_tree
  raw
  raw --help
  raw ls --help
  raw --version
  raw frobnicate
  ph ls --bogus
  ph stat
  ph cat a.txt --offset -1
  ph get a.txt --progress --no-progress
  ph -o novalue info
  ph -o =value info
  raw --root "$work/no-such-dir" ls
  raw --root "$root/a.txt" ls
  raw --plugin "$work/no-such-plugin.so" --root "$root" ls
  RUN_DIR=$root record "ls (run in the root: the default --root)" "$plughost" ls
}

case_escape() {
  make_tree
  ph ls ..
  ph ls ../x
  ph ls a/../../x
  ph ls docs/../..
  ph stat ../../etc/passwd
  ph cat /../a.txt
  ph get ../x
  ph put upload.txt ..
  ph mv a.txt ..
  ph mv ../a.txt docs
  ph mkdir ../x
  ph rm ../a.txt
  ph rmdir docs/../../x
  ph touch ../x
  ph ls docs/..
}

# Options of the main command work before and after the subcommand's name.
case_flags() {
  make_tree
  ph --no-progress put upload.txt docs
  ph put upload.txt docs --name again.txt --no-progress
  ph --progress --no-progress put upload.txt
  ph --json stat a.txt
  ph stat a.txt --json
  raw ls docs -l --root "$root"
  ph --json ls --stream docs/sub
  ph ls --unsorted --json empty
  ph ls -U -l docs/sub
}

# Names with control characters and bytes that are not UTF-8.
case_names() {
  make_tree
  mkdir -p "$root/odd"
  printf 'x' >"$root/odd/$(printf 'new\nline')"
  printf 'x' >"$root/odd/$(printf 'esc\033[31mred')"
  printf 'x' >"$root/odd/$(printf 'caf\351')"
  printf 'x' >"$root/odd/$(printf 'caf\303\251')"
  printf 'x' >"$root/odd/a b"
  touch -d '2024-01-01 00:00:00' "$root/odd/"*
  ph ls odd
  ph ls -l odd
  ph --json ls odd
  ph --literal ls odd
  ph stat "odd/$(printf 'caf\351')"
  ph --json stat "odd/$(printf 'caf\351')"
  ph rm "odd/$(printf 'new\nline')"
}

# What every plug-in answers alike, one process per command: a plug-in may
# keep nothing between processes (libmemory.so starts empty each time), so
# the root starts empty, the commands that change it come last and none reads
# what another made. The plug-in's own words after an error's code and its
# own figures are not compared; their relations are.
case_contract() {
  local with_plugin=()
  [ -z "$plugin" ] || with_plugin=(--plugin "$plugin")
  cph() { record "$(quoted "$@")" "$plughost" --root "$root" "${with_plugin[@]}" "$@"; }
  field() { sed -nE "s/.*\"$1\":(\"([^\"]*)\"|([0-9]+)).*/\2\3/p" "$work/out"; }
  printf 'local content\n' >"$local_dir/upload.txt"

  note "# the plug-in itself: names agree, options reach it"
  cph -o pid=contract-pid --json info
  if [ "$(field protocol)" = "$(field type)" ] && [ -n "$(field type)" ]; then
    note "info: protocol equals type: yes"
  else
    note "info: protocol equals type: no ($(field protocol), $(field type))"
  fi
  note "info: pid set with -o: $(field pid)"
  note "info: keys: $(grep -oE '"[a-z_]+":' "$work/out" | tr -d '":' | tr '\n' ' ')"
  note "# the storage: free is what the used part leaves of the total"
  cph --json df
  local total used free
  total=$(field total) used=$(field used) free=$(field free)
  if [ -n "$total" ] && [ "$used" -le "$total" ] && [ "$free" -eq $((total - used)) ]; then
    note "df: used <= total, free = total - used: yes"
  else
    note "df: used <= total, free = total - used: no ($(cat "$work/out"))"
  fi
  cph whoami
  note "whoami: lines: $(wc -l <"$work/out")"
  # Keep the transcript to the lines that are the same for every plug-in.
  sed -i '/^\$ plughost .*\(info\|df\|whoami\)$/,/^\[exit/d' "$transcript"

  note "# an empty root"
  cph ls
  cph ls -l
  cph ls --json
  cph ls --json --stream /
  cph ls -U /
  note "# what is missing"
  cph ls missing
  cph stat missing
  cph cat missing
  cph get missing
  show_local missing
  cph rm missing
  cph rmdir missing
  cph mv missing /
  cph mkdir missing/inner
  cph put upload.txt missingdir
  cph touch missingdir/x.txt
  note "# the root is a directory and stays"
  cph cat /
  cph get /
  cph rm /
  cph rmdir /
  cph mkdir /
  cph mv / docs
  note "# outside the root"
  cph ls ..
  cph stat ../x
  cph put upload.txt ..
  note "# changes, each on its own"
  cph mkdir made
  cph --json mkdir made-json
  cph put upload.txt
  cph --json put upload.txt / --name json.txt
  printf 'from stdin\n' >"$work/stdin.txt"
  STDIN_FILE=$work/stdin.txt cph put - --name stdin.txt
  cph touch touched.txt --date '2024-03-04 05:06:07'
  cph --json touch touched-json.txt --date '@1700000000 +0000'
}

if ! declare -F "case_$case_name" >/dev/null; then
  echo "unknown case $case_name" >&2
  exit 2
fi
"case_$case_name"

sanitized=$work/sanitized
# Entries made during the run carry the current time.
today=$(date -u +%Y-%m-%d)
yesterday=$(date -u -d yesterday +%Y-%m-%d)
sed -E \
  -e "s/\"(access|modify)_time\":\"($today|$yesterday)T[^\"]*\"/\"\1_time\":\"<now>\"/g" \
  -e "s/^(access|modify): ($today|$yesterday)T.*/\1: <now>/" \
  -e "s/^([-d] +[-0-9]+  )($today|$yesterday) [0-9:]{8}/\1<now>/" \
  -e "s|$root|<ROOT>|g" \
  -e "s|$work|<WORK>|g" \
  -e "s|$plugin_dir|<BUILD>|g" \
  -e "s|^$host_name/|<HOST>/|" \
  -e "s|\"user\":\"$host_name/|\"user\":\"<HOST>/|" \
  -e 's/^create: .*/create: <ctime>/' \
  -e 's/\.plughost-[A-Za-z0-9]{6}\.(partial|old)/.plughost-XXXXXX.\1/g' \
  -e 's/^confinement: .*/confinement: <CONFINEMENT>/' \
  -e 's/"confinement":"[a-z]+","landlock_abi":[0-9]+/"confinement":<CONFINEMENT>/' \
  -e '/^2> plughost: warning: confinement falls back/d' \
  -e 's/"id_bytes":"[^"]*"/"id_bytes":"<id>"/g' \
  -e '/^type:   directory$/{n;s/^size:   [0-9]+$/size:   <dirsize>/}' \
  -e 's/"create_time":"[^"]*"/"create_time":"<ctime>"/g' \
  -e 's/("type":"directory","size":)[0-9]+(,"id":"[^"]*","create_time":"[^"]*","access_time":")[^"]*/\1<dirsize>\2<atime>/g' \
  "$transcript" >"$sanitized"
if [ "$case_name" = contract ]; then
  # Identifiers are the plug-in's own: only their presence is compared.
  sed -i -E -e 's/(\(AERROR::[A-Z_]+\)): .*/\1/' -e 's/"id":"[^"]+"/"id":"<id>"/' "$sanitized"
fi
if [ "$case_name" = df ]; then
  sed -i -E -e '/^(total|used|free) /s/[0-9]+(\.[0-9]+)? (B|KiB|MiB|GiB|TiB|PiB|EiB)/N <unit>/' \
    -e '/^used /s/\([0-9]+%\)/(N%)/' -e '/^\{"total"/s/[0-9]+/N/g' "$sanitized"
fi

golden=$golden_dir/$case_name.txt
if [ "${UPDATE_GOLDEN:-0}" = 1 ]; then
  cp "$sanitized" "$golden"
  echo "updated $golden"
  exit 0
fi
if ! diff -u "$golden" "$sanitized"; then
  echo "transcript differs from $golden (UPDATE_GOLDEN=1 rewrites it)" >&2
  exit 1
fi
