#!/usr/bin/env bash
# Peak memory of `plughost ls` over directories of many entries: the maximum
# resident set size (from /usr/bin/time) of each listing mode for each size,
# the same run's empty directory as the baseline, and the growth per entry.
#
#   bench/ls_memory.sh [PLUGHOST]
# Environment: LS_COUNTS (default "1000 10000 100000 1000000"); LS_LIMIT_KB:
# when set, exit 1 if any listing peaks above it (the test suite uses this);
# LS_SANITIZER: the sanitizer plughost was built with, if any (its shadow
# memory and quarantine make a peak meaningless: the run is skipped, exit 77).
set -euo pipefail
export LC_ALL=C TZ=UTC

here=$(cd "$(dirname "$0")/.." && pwd)
plughost=${1:-$here/build/default/plughost}
counts=${LS_COUNTS:-1000 10000 100000 1000000}
limit_kb=${LS_LIMIT_KB:-}

if [ -n "${LS_SANITIZER:-}" ]; then
  echo "skipped: plughost is built with the $LS_SANITIZER sanitizer; its peak memory says nothing" >&2
  exit 77
fi
[ -x "$plughost" ] || { echo "no plughost at $plughost (build it, or pass its path)" >&2; exit 2; }
[ -x /usr/bin/time ] || { echo "/usr/bin/time is missing" >&2; exit 2; }

work=$(mktemp -d "${TMPDIR:-/tmp}/ls_memory.XXXXXX")
trap 'rm -rf "$work"' EXIT

# Peak resident set size in KiB of one listing; its output is discarded.
peak_kb() {
  local dir=$1
  shift
  /usr/bin/time -f %M -o "$work/rss" "$plughost" --root "$dir" "$@" >/dev/null
  cat "$work/rss"
}

modes=("ls" "ls -l" "--json ls" "ls --unsorted" "--json ls --stream")
mkdir "$work/empty"
declare -A base
for mode in "${modes[@]}"; do
  # shellcheck disable=SC2086 # a mode is several words
  base[$mode]=$(peak_kb "$work/empty" $mode)
done

status=0
printf '%-10s %-20s %10s %12s\n' entries mode peak_kb bytes/entry
for n in $counts; do
  dir=$work/d$n
  mkdir "$dir"
  # Names of 12 bytes, as in a typical directory of generated files.
  (cd "$dir" && seq -f "file-%07.0f" 1 "$n" | xargs touch)
  for mode in "${modes[@]}"; do
    # shellcheck disable=SC2086
    kb=$(peak_kb "$dir" $mode)
    per=$(((kb - base[$mode]) * 1024 / n))
    printf '%-10s %-20s %10s %12s\n' "$n" "$mode" "$kb" "$per"
    if [ -n "$limit_kb" ] && [ "$kb" -gt "$limit_kb" ]; then
      echo "plughost $mode of $n entries peaked at $kb KiB, above $limit_kb KiB" >&2
      status=1
    fi
  done
  rm -rf "$dir"
done
printf 'baseline (empty directory): %s KiB\n' "${base[ls]}"
exit $status
